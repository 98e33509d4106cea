#include "larkpost/mail_message.h"

#include <new>
#include <utility>

#include "larkpost/error.h"
#include "larkpost/string_builder.h"
#include "larkpost/text.h"
#include "message/attachment_search.h"
#include "message/keyed_collection.h"
#include "message/message_assembly.h"
#include "platform/errors.h"
#include "platform/file_errors.h"
#include "platform/memory.h"

namespace larkpost {

using detail::kSourceMailMessage;

namespace {

// Blank means nothing but the space character: a tab or a line end is content.
bool IsBlank(const std::u16string& text) {
    return text.find_first_not_of(u' ') == std::u16string::npos;
}

}  // namespace

MailMessage::MailMessage()
    : m_mimeType(u"text/plain"),
      m_recipients(std::make_shared<detail::KeyedCollection>()),
      m_ccRecipients(std::make_shared<detail::KeyedCollection>()),
      m_bccRecipients(std::make_shared<detail::KeyedCollection>()),
      m_attachments(std::make_shared<detail::KeyedCollection>()),
      m_cachedMessage(std::make_shared<const std::u16string>()) {}

MailMessage::~MailMessage() = default;

// Every setter stores the value as given and marks the message changed, even when the value is
// the one already held.
#define LARKPOST_TEXT_PROPERTY(Property, member)                               \
    void MailMessage::Property(std::u16string value) {                        \
        member = std::move(value);                                             \
        m_changed = true;                                                      \
    }                                                                          \
    void MailMessage::Property(std::string_view value) {                      \
        Property(FromUtf8(value));                                             \
    }                                                                          \
    const std::u16string& MailMessage::Property() const { return member; }

LARKPOST_TEXT_PROPERTY(FromAddress, m_fromAddress)
LARKPOST_TEXT_PROPERTY(SenderName, m_senderName)
LARKPOST_TEXT_PROPERTY(SubjectLine, m_subjectLine)
LARKPOST_TEXT_PROPERTY(Body, m_body)
LARKPOST_TEXT_PROPERTY(BodyHTML, m_bodyHTML)
LARKPOST_TEXT_PROPERTY(MimeType, m_mimeType)

#undef LARKPOST_TEXT_PROPERTY

void MailMessage::AttachFile(const std::u16string& FilePath) {
    if (!detail::PlainFileExists(FilePath)) {
        detail::Raise(ERROR_FILE_NOT_FOUND,
                      u"File " + FilePath + u" not found. Cannot attach to message.",
                      kSourceMailMessage);
    }
    m_attachments->Add(FilePath);
    m_changed = true;
}

void MailMessage::AttachFile(std::string_view FilePath) { AttachFile(FromUtf8(FilePath)); }

void MailMessage::AddTo(detail::KeyedCollection& list, const std::u16string& Recipient) {
    try {
        if (IsBlank(Recipient))
            detail::Raise(ERROR_BLANK_RECIPIENT, u"Blank recipient", kSourceMailMessage);
        list.Add(Recipient, Recipient);
    } catch (const RaisedError& failure) {
        if (failure.Number() != ERROR_KEY_IN_USE) throw;
        detail::Raise(ERROR_DUPLICATE_RECIPIENT, u"'" + Recipient + u"' is already on the list",
                      kSourceMailMessage);
    }
    m_changed = true;
}

void MailMessage::RemoveFrom(detail::KeyedCollection& list, const std::u16string& Recipient) {
    list.Remove(Recipient);
    m_changed = true;
}

void MailMessage::AddRecipient(const std::u16string& Recipient) { AddTo(*m_recipients, Recipient); }
void MailMessage::AddRecipient(std::string_view Recipient) { AddRecipient(FromUtf8(Recipient)); }
void MailMessage::RemoveRecipient(const std::u16string& Recipient) {
    RemoveFrom(*m_recipients, Recipient);
}
void MailMessage::RemoveRecipient(std::string_view Recipient) {
    RemoveRecipient(FromUtf8(Recipient));
}
void MailMessage::AddCCRecipient(const std::u16string& Recipient) {
    AddTo(*m_ccRecipients, Recipient);
}
void MailMessage::AddCCRecipient(std::string_view Recipient) {
    AddCCRecipient(FromUtf8(Recipient));
}
void MailMessage::RemoveCCRecipient(const std::u16string& Recipient) {
    RemoveFrom(*m_ccRecipients, Recipient);
}
void MailMessage::RemoveCCRecipient(std::string_view Recipient) {
    RemoveCCRecipient(FromUtf8(Recipient));
}
void MailMessage::AddBCCRecipient(const std::u16string& Recipient) {
    AddTo(*m_bccRecipients, Recipient);
}
void MailMessage::AddBCCRecipient(std::string_view Recipient) {
    AddBCCRecipient(FromUtf8(Recipient));
}
void MailMessage::RemoveBCCRecipient(const std::u16string& Recipient) {
    RemoveFrom(*m_bccRecipients, Recipient);
}
void MailMessage::RemoveBCCRecipient(std::string_view Recipient) {
    RemoveBCCRecipient(FromUtf8(Recipient));
}

std::shared_ptr<detail::KeyedCollection> MailMessage::Recipients() const { return m_recipients; }
std::shared_ptr<detail::KeyedCollection> MailMessage::CCRecipients() const {
    return m_ccRecipients;
}
std::shared_ptr<detail::KeyedCollection> MailMessage::BCCRecipients() const {
    return m_bccRecipients;
}
std::shared_ptr<detail::KeyedCollection> MailMessage::Attachments() const {
    return m_attachments;
}

const std::u16string& MailMessage::BuildMessage() { return *BuildMessageText(); }

std::shared_ptr<const std::u16string> MailMessage::BuildMessageText() {
    if (!m_changed) return m_cachedMessage;
    try {
        detail::MessageAssembly assembly({m_subjectLine, m_fromAddress, m_senderName, m_body,
                                          m_bodyHTML, m_mimeType, *m_recipients, *m_ccRecipients,
                                          *m_bccRecipients, *m_attachments});
        StringBuilder builder;
        try {
            builder.Reserve(assembly.Length());
            detail::AdviseHugePages(builder.Buffer().data(),
                                    builder.Buffer().capacity() * sizeof(char16_t));
        } catch (const std::bad_alloc&) {
            // What cannot be held is the attached files' text, when there is any.
            if (assembly.HasAttachmentParts())
                detail::RaiseAttachmentError(nullptr, detail::FileErrorDescription(
                                                          detail::ERROR_OUT_OF_MEMORY));
            throw;
        } catch (const std::length_error&) {
            if (assembly.HasAttachmentParts())
                detail::RaiseAttachmentError(nullptr, detail::FileErrorDescription(
                                                          detail::ERROR_OUT_OF_MEMORY));
            throw std::bad_alloc();
        }
        assembly.WriteTo(builder.Buffer());
        m_cachedMessage = std::make_shared<const std::u16string>(builder.TakeContents());
    } catch (const std::bad_alloc&) {
        detail::RaiseFileError(detail::ERROR_OUT_OF_MEMORY, kSourceMailMessage);
    }
    m_changed = false;
    return m_cachedMessage;
}

}  // namespace larkpost
