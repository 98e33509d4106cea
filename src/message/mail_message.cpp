#include "larkpost/mail_message.h"

#include <new>
#include <utility>

#include "larkpost/error.h"
#include "larkpost/text.h"
#include "message/attachment_search.h"
#include "message/keyed_collection.h"
#include "message/mail_message_impl.h"
#include "message/message_assembly.h"
#include "message/standard_assembly.h"
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

MailMessage::MailMessage() : m_impl(std::make_unique<detail::MailMessageImpl>()) {}

MailMessage::~MailMessage() = default;

// Every setter stores the value as given and marks the message changed, even when the value is
// the one already held.
#define LARKPOST_TEXT_PROPERTY(Property, member)                                      \
    void MailMessage::Property(std::u16string value) {                                \
        m_impl->member = std::move(value);                                            \
        m_impl->changed = true;                                                       \
    }                                                                                 \
    void MailMessage::Property(std::string_view value) { Property(FromUtf8(value)); } \
    const std::u16string& MailMessage::Property() const { return m_impl->member; }

LARKPOST_TEXT_PROPERTY(FromAddress, fromAddress)
LARKPOST_TEXT_PROPERTY(SenderName, senderName)
LARKPOST_TEXT_PROPERTY(SubjectLine, subjectLine)
LARKPOST_TEXT_PROPERTY(Body, body)
LARKPOST_TEXT_PROPERTY(BodyHTML, bodyHTML)
LARKPOST_TEXT_PROPERTY(MimeType, mimeType)

#undef LARKPOST_TEXT_PROPERTY

void MailMessage::StandardFormat(bool value) {
    m_impl->standardFormat = value;
    m_impl->changed = true;
}
bool MailMessage::StandardFormat() const { return m_impl->standardFormat; }

void MailMessage::AddHeader(const std::u16string& Name, const std::u16string& Value) {
    detail::CheckAddedHeader(Name, Value);
    m_impl->addedHeaders.emplace_back(Name, Value);
    m_impl->changed = true;
}
void MailMessage::AddHeader(std::string_view Name, std::string_view Value) {
    AddHeader(FromUtf8(Name), FromUtf8(Value));
}
void MailMessage::ClearHeaders() {
    m_impl->addedHeaders.clear();
    m_impl->changed = true;
}

void MailMessage::AttachFile(const std::u16string& FilePath) {
    if (!detail::PlainFileExists(FilePath)) {
        detail::Raise(ERROR_FILE_NOT_FOUND,
                      u"File " + FilePath + u" not found. Cannot attach to message.",
                      kSourceMailMessage);
    }
    m_impl->attachments->Add(FilePath);
    m_impl->changed = true;
}

void MailMessage::AttachFile(std::string_view FilePath) { AttachFile(FromUtf8(FilePath)); }

void detail::MailMessageImpl::AddTo(KeyedCollection& list, const std::u16string& Recipient) {
    try {
        if (IsBlank(Recipient))
            detail::Raise(ERROR_BLANK_RECIPIENT, u"Blank recipient", kSourceMailMessage);
        list.Add(Recipient, Recipient);
    } catch (const RaisedError& failure) {
        if (failure.Number() != ERROR_KEY_IN_USE) throw;
        detail::Raise(ERROR_DUPLICATE_RECIPIENT, u"'" + Recipient + u"' is already on the list",
                      kSourceMailMessage);
    }
    changed = true;
}

void detail::MailMessageImpl::RemoveFrom(KeyedCollection& list, const std::u16string& Recipient) {
    list.Remove(Recipient);
    changed = true;
}

void MailMessage::AddRecipient(const std::u16string& Recipient) {
    m_impl->AddTo(*m_impl->recipients, Recipient);
}
void MailMessage::AddRecipient(std::string_view Recipient) { AddRecipient(FromUtf8(Recipient)); }
void MailMessage::RemoveRecipient(const std::u16string& Recipient) {
    m_impl->RemoveFrom(*m_impl->recipients, Recipient);
}
void MailMessage::RemoveRecipient(std::string_view Recipient) {
    RemoveRecipient(FromUtf8(Recipient));
}
void MailMessage::AddCCRecipient(const std::u16string& Recipient) {
    m_impl->AddTo(*m_impl->ccRecipients, Recipient);
}
void MailMessage::AddCCRecipient(std::string_view Recipient) {
    AddCCRecipient(FromUtf8(Recipient));
}
void MailMessage::RemoveCCRecipient(const std::u16string& Recipient) {
    m_impl->RemoveFrom(*m_impl->ccRecipients, Recipient);
}
void MailMessage::RemoveCCRecipient(std::string_view Recipient) {
    RemoveCCRecipient(FromUtf8(Recipient));
}
void MailMessage::AddBCCRecipient(const std::u16string& Recipient) {
    m_impl->AddTo(*m_impl->bccRecipients, Recipient);
}
void MailMessage::AddBCCRecipient(std::string_view Recipient) {
    AddBCCRecipient(FromUtf8(Recipient));
}
void MailMessage::RemoveBCCRecipient(const std::u16string& Recipient) {
    m_impl->RemoveFrom(*m_impl->bccRecipients, Recipient);
}
void MailMessage::RemoveBCCRecipient(std::string_view Recipient) {
    RemoveBCCRecipient(FromUtf8(Recipient));
}

namespace {

// One assembly of either format into a text reserved once.
template <class Assembly>
std::string Assemble(const detail::MessageFields& fields) {
    Assembly assembly(fields);
    std::string text;
    try {
        text.reserve(assembly.Length());
        detail::AdviseHugePages(text.data(), text.capacity());
    } catch (const std::bad_alloc&) {
        // What cannot be held is the attached files' text, when there is any.
        if (assembly.HasAttachmentParts())
            detail::RaiseAttachmentError(nullptr,
                                         detail::FileErrorDescription(detail::ERROR_OUT_OF_MEMORY));
        throw;
    } catch (const std::length_error&) {
        if (assembly.HasAttachmentParts())
            detail::RaiseAttachmentError(nullptr,
                                         detail::FileErrorDescription(detail::ERROR_OUT_OF_MEMORY));
        throw std::bad_alloc();
    }
    assembly.WriteTo(text);
    return text;
}

}  // namespace

std::shared_ptr<const std::string> detail::MailMessageImpl::BuildMessageText() {
    if (!changed) return cachedMessage;
    try {
        const MessageFields fields{subjectLine,    fromAddress,  senderName,  body,
                                   bodyHTML,       mimeType,     *recipients, *ccRecipients,
                                   *bccRecipients, *attachments, addedHeaders};
        cachedMessage =
            std::make_shared<const std::string>(standardFormat ? Assemble<StandardAssembly>(fields)
                                                               : Assemble<MessageAssembly>(fields));
    } catch (const std::bad_alloc&) {
        RaiseFileError(ERROR_OUT_OF_MEMORY, kSourceMailMessage);
    }
    changed = false;
    return cachedMessage;
}

}  // namespace larkpost
