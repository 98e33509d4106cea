#include "message/message_assembly.h"

#include <algorithm>
#include <new>
#include <stdexcept>

#include "encoding/base64.h"
#include "encoding/boundary.h"
#include "encoding/file_extension.h"
#include "encoding/quoted_printable.h"
#include "larkpost/error.h"
#include "platform/codepage.h"
#include "platform/errors.h"
#include "platform/file_errors.h"
#include "platform/files.h"

namespace larkpost::detail {
namespace {

constexpr std::u16string_view kCRLF = u"\r\n";

// Sinks for the writers: one measures the text, the other appends it.
// Host values come as 16-bit text; encoded bodies are code-page bytes already.
struct CountingSink {
    std::size_t length = 0;
    void operator()(std::u16string_view text) { length += text.size(); }
    void operator()(std::string_view bytes) { length += bytes.size(); }
};

struct AppendingSink {
    std::string& out;
    void operator()(std::u16string_view text) { AppendAnsi(out, text); }
    void operator()(std::string_view bytes) { out += bytes; }
};

std::u16string Decimal(std::uint64_t n) {
    std::string digits = std::to_string(n);
    return std::u16string(digits.begin(), digits.end());
}

template <class Sink>
void WriteQuoted(Sink& sink, std::u16string_view text) {
    sink(u"\"");
    sink(text);
    sink(u"\"");
}

// The elements of a list with ";" between each two, as stored.
template <class Sink>
void WriteJoined(Sink& sink, const KeyedCollection& list) {
    bool first = true;
    for (const auto& address : list) {
        if (!first) sink(u";");
        sink(address);
        first = false;
    }
}

template <class Sink>
void WriteTextPart(Sink& sink, std::u16string_view boundary, std::u16string_view contentType,
                   std::string_view encodedText) {
    sink(u"\r\n\r\n--");
    sink(boundary);
    sink(kCRLF);
    sink(u"Content-Type: ");
    sink(contentType);
    sink(kCRLF);
    sink(u"Content-Transfer-Encoding: quoted-printable\r\n");
    sink(u"Content-Length: ");
    sink(Decimal(encodedText.size()));
    sink(u"\r\n\r\n");
    sink(encodedText);
}

// Rows 1 to 7 of an attachment part; the encoded text follows them.
template <class Sink>
void WriteAttachmentHead(Sink& sink, std::u16string_view boundary, std::u16string_view name,
                         std::size_t encodedLength) {
    sink(u"\r\n\r\n--");
    sink(boundary);
    sink(kCRLF);
    sink(u"Content-Type: ");
    sink(GetContentType(name));
    sink(u";name=");
    WriteQuoted(sink, name);
    sink(kCRLF);
    sink(u"Content-Transfer-Encoding: base64\r\n");
    sink(u"Content-Disposition: attachment;filename=");
    WriteQuoted(sink, name);
    sink(kCRLF);
    sink(u"Content-Length: ");
    sink(Decimal(encodedLength));
    sink(u"\r\n\r\n");
}

// Runs one step of the attachment loop; whatever fails in it becomes the attachment error.
template <class Step>
void AttachmentStep(const std::u16string* path, Step&& step) {
    try {
        step();
    } catch (const RaisedError& failure) {
        RaiseAttachmentError(path, failure.Description());
    } catch (const std::bad_alloc&) {
        RaiseAttachmentError(path, FileErrorDescription(ERROR_OUT_OF_MEMORY));
    } catch (const std::length_error&) {
        RaiseAttachmentError(path, FileErrorDescription(ERROR_OUT_OF_MEMORY));
    }
}

PlatformFile OpenForReading(const std::u16string& path) {
    auto native = NativePath(path);
    if (!native) RaiseFileError(ERROR_BAD_FILE_NAME, kSourceMailMessage);
    return PlatformFile::OpenForReading(std::move(*native), kSourceMailMessage);
}

}  // namespace

std::u16string LastPathElement(const std::u16string& path) {
    auto slash = path.rfind(u'/');
    return slash == std::u16string::npos ? path : path.substr(slash + 1);
}

std::u16string GetContentType(std::u16string_view fileName) {
    std::u16string extension = GetFileExtension(fileName).value_or(u"");
    for (auto& c : extension)
        if (c >= u'a' && c <= u'z') c = static_cast<char16_t>(c - u'a' + u'A');
    if (extension == u"TXT") return u"text/plain";
    if (extension == u"HTM" || extension == u"HTML") return u"text/html";
    if (extension == u"JPG" || extension == u"JPEG") return u"image/jpeg";
    return u"application/octet-stream";
}

std::u16string GetStandardContentType(std::u16string_view fileName) {
    struct Row {
        std::u16string_view extension, type;
    };
    static constexpr Row kTypes[] = {
        {u"pdf", u"application/pdf"},
        {u"png", u"image/png"},
        {u"gif", u"image/gif"},
        {u"svg", u"image/svg+xml"},
        {u"webp", u"image/webp"},
        {u"bmp", u"image/bmp"},
        {u"tif", u"image/tiff"},
        {u"tiff", u"image/tiff"},
        {u"heic", u"image/heic"},
        {u"zip", u"application/zip"},
        {u"gz", u"application/gzip"},
        {u"tgz", u"application/gzip"},
        {u"bz2", u"application/x-bzip2"},
        {u"xz", u"application/x-xz"},
        {u"7z", u"application/x-7z-compressed"},
        {u"tar", u"application/x-tar"},
        {u"csv", u"text/csv"},
        {u"json", u"application/json"},
        {u"xml", u"application/xml"},
        {u"ics", u"text/calendar"},
        {u"vcf", u"text/vcard"},
        {u"md", u"text/markdown"},
        {u"css", u"text/css"},
        {u"js", u"text/javascript"},
        {u"rtf", u"application/rtf"},
        {u"doc", u"application/msword"},
        {u"docx", u"application/vnd.openxmlformats-officedocument.wordprocessingml.document"},
        {u"xls", u"application/vnd.ms-excel"},
        {u"xlsx", u"application/vnd.openxmlformats-officedocument.spreadsheetml.sheet"},
        {u"ppt", u"application/vnd.ms-powerpoint"},
        {u"pptx", u"application/vnd.openxmlformats-officedocument.presentationml.presentation"},
        {u"odt", u"application/vnd.oasis.opendocument.text"},
        {u"ods", u"application/vnd.oasis.opendocument.spreadsheet"},
        {u"odp", u"application/vnd.oasis.opendocument.presentation"},
        {u"mp3", u"audio/mpeg"},
        {u"wav", u"audio/wav"},
        {u"ogg", u"audio/ogg"},
        {u"m4a", u"audio/mp4"},
        {u"mp4", u"video/mp4"},
        {u"mov", u"video/quicktime"},
        {u"webm", u"video/webm"},
        {u"avi", u"video/x-msvideo"}};
    std::u16string extension = GetFileExtension(fileName).value_or(u"");
    for (auto& c : extension)
        if (c >= u'A' && c <= u'Z') c = static_cast<char16_t>(c - u'A' + u'a');
    for (const auto& row : kTypes)
        if (row.extension == extension) return std::u16string(row.type);
    return GetContentType(fileName);
}

void RaiseAttachmentError(const std::u16string* path, std::u16string_view cause) {
    std::u16string description;
    if (path) {
        description = u"Error attaching file '";
        description += *path;
        description += u"'. (Details: ";
    } else {
        description = u"Error occurred while adding attachments to the message. (Details: ";
    }
    description += cause;
    description += u")";
    Raise(ERROR_ATTACHMENT_FAILED, std::move(description), kSourceMailMessage);
}

MessageAssembly::MessageAssembly(const MessageFields& fields) : m_fields(fields) {
    // Both boundaries are made before any file is looked at: a failed assembly uses them up.
    m_mixedBoundary = MakeBoundary();
    m_alternativeBoundary = MakeBoundary();
    if (!fields.body.empty()) QuotedPrintableEncodeTo(fields.body, m_encodedBody);
    if (!fields.bodyHTML.empty()) QuotedPrintableEncodeTo(fields.bodyHTML, m_encodedBodyHTML);
    for (const auto& path : fields.attachments) {
        // An empty file gets no part at all.
        if (const std::uint64_t size = AttachedFileSize(path); size > 0)
            m_attachments.push_back({&path, LastPathElement(path), size});
    }
}

template <class Sink>
void MessageAssembly::WriteHead(Sink& sink) const {
    sink(u"Subject: ");
    sink(m_fields.subjectLine);
    sink(kCRLF);
    sink(u"From: ");
    if (!m_fields.senderName.empty()) {
        WriteQuoted(sink, m_fields.senderName);
        sink(u" <");
        sink(m_fields.fromAddress);
        sink(u">");
    } else {
        sink(m_fields.fromAddress);
    }
    sink(kCRLF);
    sink(u"To: ");
    WriteJoined(sink, m_fields.recipients);
    sink(kCRLF);
    if (m_fields.ccRecipients.Count() > 0) {
        sink(u"Cc: ");
        WriteJoined(sink, m_fields.ccRecipients);
        sink(kCRLF);
    }
    if (m_fields.bccRecipients.Count() > 0) {
        sink(u"Bcc: ");
        WriteJoined(sink, m_fields.bccRecipients);
        sink(kCRLF);
    }
    for (const auto& [name, value] : m_fields.addedHeaders) {
        sink(name);
        sink(u": ");
        sink(value);
        sink(kCRLF);
    }
    sink(u"Content-Type: multipart/mixed;boundary=");
    WriteQuoted(sink, m_mixedBoundary);
    sink(kCRLF);
    sink(u"MIME-Version: 1.0\r\n\r\n\r\n--");
    sink(m_mixedBoundary);
    sink(kCRLF);
    sink(u"Content-Type: multipart/alternative;boundary=");
    WriteQuoted(sink, m_alternativeBoundary);
    sink(kCRLF);
    sink(u"MIME-Version: 1.0\r\n\r\n");
    if (!m_fields.body.empty())
        WriteTextPart(sink, m_alternativeBoundary, m_fields.mimeType, m_encodedBody);
    if (!m_fields.bodyHTML.empty())
        WriteTextPart(sink, m_alternativeBoundary, u"text/html; charset=iso-8859-1",
                      m_encodedBodyHTML);
    sink(u"\r\n\r\n--");
    sink(m_alternativeBoundary);
    sink(u"--\r\n");
}

template <class Sink>
void MessageAssembly::WriteTail(Sink& sink) const {
    sink(u"\r\n\r\n--");
    sink(m_mixedBoundary);
    sink(u"--\r\n");
}

std::size_t MessageAssembly::Length() const {
    CountingSink counter;
    WriteHead(counter);
    for (const auto& attachment : m_attachments) {
        std::size_t encodedLength = Base64EncodedLength(attachment.size);
        WriteAttachmentHead(counter, m_mixedBoundary, attachment.name, encodedLength);
        counter.length += encodedLength;
    }
    WriteTail(counter);
    return counter.length;
}

void MessageAssembly::WriteTo(std::string& out) const {
    AppendingSink sink{out};
    WriteHead(sink);
    for (const auto& attachment : m_attachments) {
        AppendAttachedFile(*attachment.path, out, true, [&](std::uint64_t size) {
            WriteAttachmentHead(sink, m_mixedBoundary, attachment.name, Base64EncodedLength(size));
        });
    }
    WriteTail(sink);
}

std::uint64_t AttachedFileSize(const std::u16string& path) {
    std::uint64_t size = 0;
    AttachmentStep(&path, [&] { size = OpenForReading(path).Size(); });
    return size;
}

void AppendAttachedFile(const std::u16string& path, std::string& out, bool skipEmpty,
                        const std::function<void(std::uint64_t)>& writeHead) {
    // Files are read and encoded a piece at a time, so no file is ever held whole. A piece is
    // whole Base64 lines, and the texts of two pieces join with the line end between them.
    constexpr std::size_t kPieceBytes = 57 * 2048;
    AttachmentStep(&path, [&] {
        PlatformFile file = OpenForReading(path);
        const std::uint64_t size = file.Size();
        if (size == 0 && skipEmpty) return;
        writeHead(size);
        std::string piece(static_cast<std::size_t>(std::min<std::uint64_t>(size, kPieceBytes)),
                          '\0');
        for (std::uint64_t left = size; left != 0;) {
            const auto want = static_cast<std::size_t>(std::min<std::uint64_t>(left, kPieceBytes));
            // A file that shrank since it was measured cannot fill its part: the text would no
            // longer be the file.
            if (file.Read(piece.data(), want) != want)
                Raise(ERROR_PATH_FILE_ACCESS, u"The file changed while it was read.",
                      kSourceMailMessage);
            if (left != size) out.append("\r\n");
            Base64EncodeBytesTo(std::string_view(piece.data(), want), out);
            left -= want;
        }
    });
}

}  // namespace larkpost::detail
