// The assembly of one message text: headers, the alternative entity of the two bodies, one
// Base64 part for each attached file.
#ifndef LARKPOST_MESSAGE_MESSAGE_ASSEMBLY_H
#define LARKPOST_MESSAGE_MESSAGE_ASSEMBLY_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "message/keyed_collection.h"

namespace larkpost::detail {

// What a message text is built from, as the message holds it.
struct MessageFields {
    const std::u16string& subjectLine;
    const std::u16string& fromAddress;
    const std::u16string& senderName;
    const std::u16string& body;
    const std::u16string& bodyHTML;
    const std::u16string& mimeType;
    const KeyedCollection& recipients;
    const KeyedCollection& ccRecipients;
    const KeyedCollection& bccRecipients;
    const KeyedCollection& attachments;
    const std::vector<std::pair<std::u16string, std::u16string>>& addedHeaders;
};

// One assembly. The constructor does all that can be known before writing: it makes the two
// boundaries, encodes the bodies and measures every attached file, so that the text can be
// written into one reservation of Length() characters. The text is written in the code page,
// one byte a character, as the socket and the file writer take it. An attached file that cannot
// be reached raises ERROR_ATTACHMENT_FAILED, here or in WriteTo.
class MessageAssembly {
public:
    explicit MessageAssembly(const MessageFields& fields);

    // Length of the text, exact unless an attached file changes before WriteTo.
    std::size_t Length() const;
    bool HasAttachmentParts() const { return !m_attachments.empty(); }
    // Appends the text to out, reading the attached files one at a time.
    void WriteTo(std::string& out) const;

private:
    struct Attachment {
        const std::u16string* path;  // as the host gave it
        std::u16string name;         // its last element
        std::uint64_t size;
    };

    template <class Sink>
    void WriteHead(Sink& sink) const;
    template <class Sink>
    void WriteTail(Sink& sink) const;

    const MessageFields m_fields;  // references into the message, which outlives this
    std::u16string m_mixedBoundary;
    std::u16string m_alternativeBoundary;
    std::string m_encodedBody;
    std::string m_encodedBodyHTML;
    std::vector<Attachment> m_attachments;  // only files that held bytes when measured
};

// The name of an attached file: the last element of its path.
std::u16string LastPathElement(const std::u16string& path);
// The content type of an attached file, chosen by the extension of its name.
std::u16string GetContentType(std::u16string_view fileName);
// The same for the standard format: the five types above and those of the common extensions.
std::u16string GetStandardContentType(std::u16string_view fileName);

// The size of an attached file now; the attachment error when it cannot be reached.
std::uint64_t AttachedFileSize(const std::u16string& path);
// Opens an attached file again and appends writeHead(its size now) and its Base64 text, read a
// piece at a time; a file that is empty at this opening gets nothing when skipEmpty.
void AppendAttachedFile(const std::u16string& path, std::string& out, bool skipEmpty,
                        const std::function<void(std::uint64_t)>& writeHead);

// Raises ERROR_ATTACHMENT_FAILED for a failure of the attachment loop; path is null when the
// failure came before the first path was taken.
[[noreturn]] void RaiseAttachmentError(const std::u16string* path, std::u16string_view cause);

}  // namespace larkpost::detail

#endif
