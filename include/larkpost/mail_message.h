// MailMessage: one e-mail as the host fills it in, and its assembly into one MIME text.
#ifndef LARKPOST_MAIL_MESSAGE_H
#define LARKPOST_MAIL_MESSAGE_H

#include <memory>
#include <string>
#include <string_view>

#include "larkpost/export.h"

namespace larkpost {

namespace detail {
struct MailMessageImpl;
struct ImplAccess;
}  // namespace detail

class LARKPOST_API MailMessage {
public:
    MailMessage();
    ~MailMessage();
    MailMessage(const MailMessage&) = delete;
    MailMessage& operator=(const MailMessage&) = delete;

    // The six text properties: the setter stores the value unaltered, the getter reads it back.
    // Each setter also takes UTF-8.
    void FromAddress(std::u16string value);
    void FromAddress(std::string_view value);
    const std::u16string& FromAddress() const;
    void SenderName(std::u16string value);
    void SenderName(std::string_view value);
    const std::u16string& SenderName() const;
    void SubjectLine(std::u16string value);
    void SubjectLine(std::string_view value);
    const std::u16string& SubjectLine() const;
    void Body(std::u16string value);
    void Body(std::string_view value);
    const std::u16string& Body() const;
    void BodyHTML(std::u16string value);
    void BodyHTML(std::string_view value);
    const std::u16string& BodyHTML() const;
    // Content type of the plain body part; "text/plain" on a new message.
    void MimeType(std::u16string value);
    void MimeType(std::string_view value);
    const std::u16string& MimeType() const;

    // Adds a file, found now and read when the message text is built. The last path element may
    // hold the wildcards * and ?.
    void AttachFile(const std::u16string& FilePath);
    void AttachFile(std::string_view FilePath);
    void AddRecipient(const std::u16string& Recipient);
    void AddRecipient(std::string_view Recipient);
    void RemoveRecipient(const std::u16string& Recipient);
    void RemoveRecipient(std::string_view Recipient);
    void AddCCRecipient(const std::u16string& Recipient);
    void AddCCRecipient(std::string_view Recipient);
    void RemoveCCRecipient(const std::u16string& Recipient);
    void RemoveCCRecipient(std::string_view Recipient);
    void AddBCCRecipient(const std::u16string& Recipient);
    void AddBCCRecipient(std::string_view Recipient);
    void RemoveBCCRecipient(const std::u16string& Recipient);
    void RemoveBCCRecipient(std::string_view Recipient);
    // Extension: the text in the standard Internet format (RFC 5322 and MIME: Date, Message-ID,
    // UTF-8 throughout, no Bcc line, all in 7-bit ASCII) rather than the classic one; false on a
    // new message. Header values must then hold no CR or LF, addresses only printable ASCII.
    void StandardFormat(bool value);
    bool StandardFormat() const;
    // Extension: a header field of the host's own, written after the others in both formats
    // (encoded in the standard one). The name is a field name that the message does not write
    // itself; name and value hold no CR or LF.
    void AddHeader(const std::u16string& Name, const std::u16string& Value);
    void AddHeader(std::string_view Name, std::string_view Value);
    void ClearHeaders();
    // Writes the message text to a file, replacing what the file held.
    void SaveToFile(const std::u16string& FileSpec);
    void SaveToFile(std::string_view FileSpec);

private:
    friend struct detail::ImplAccess;
    std::unique_ptr<detail::MailMessageImpl> m_impl;
};

}  // namespace larkpost

#endif
