// The assembly of a message text in the standard format (RFC 5322, MIME: RFC 2045-2047, 2231):
// Date, Message-ID, no Bcc line, UTF-8 text, folded header lines, all of it 7-bit ASCII.
// multipart/mixed holds the bodies (one text part, or multipart/alternative for both) and one
// Base64 part for each attached file.
#ifndef LARKPOST_MESSAGE_STANDARD_ASSEMBLY_H
#define LARKPOST_MESSAGE_STANDARD_ASSEMBLY_H

#include <cstdint>
#include <string>
#include <vector>

#include "message/message_assembly.h"

namespace larkpost::detail {

class StandardAssembly {
public:
    // Checks every header value (ERROR_HEADER_LINE_BREAK, _NOT_ASCII, _TOO_LONG) before it makes
    // anything, then writes all but the attached files' text and measures the files.
    explicit StandardAssembly(const MessageFields& fields);

    // Length of the text, exact unless an attached file changes before WriteTo.
    std::size_t Length() const;
    bool HasAttachmentParts() const { return !m_attachments.empty(); }
    // Appends the text to out, reading the attached files one at a time.
    void WriteTo(std::string& out) const;

private:
    struct Attachment {
        const std::u16string* path;  // as the host gave it
        std::string head;            // the delimiter and the part's header
        std::uint64_t size;
    };

    // The message header and the bodies' part, in pieces: the encoded bodies are not copied
    // until WriteTo puts them into the reserved text.
    std::vector<std::string> m_head;
    std::vector<Attachment> m_attachments;
    std::string m_tail;
};

// Raises ERROR_HEADER_NAME or ERROR_HEADER_LINE_BREAK for a header that MailMessage.AddHeader
// cannot take.
void CheckAddedHeader(const std::u16string& name, const std::u16string& value);

}  // namespace larkpost::detail

#endif
