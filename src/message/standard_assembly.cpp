#include "message/standard_assembly.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>

#include "encoding/base64.h"
#include "encoding/boundary.h"
#include "encoding/header_line.h"
#include "encoding/text_body.h"
#include "larkpost/error.h"
#include "platform/clock.h"
#include "platform/codepage.h"
#include "platform/errors.h"

namespace larkpost::detail {
namespace {

// The longest address that a header line of 998 characters still holds with "<", ">" and ",".
constexpr std::size_t kMaxAddressLength = 990;
constexpr std::size_t kMaxFieldNameLength = 76;

std::u16string Ascii(std::string_view text) { return {text.begin(), text.end()}; }

std::u16string_view TrimSpaces(std::u16string_view text) {
    const auto first = text.find_first_not_of(u' ');
    if (first == text.npos) return {};
    return text.substr(first, text.find_last_not_of(u' ') - first + 1);
}

bool IsPrintableAscii(char16_t c) { return c >= 0x20 && c <= 0x7E; }

char16_t AsciiLower(char16_t c) {
    return c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c - u'A' + u'a') : c;
}

bool EqualsIgnoringCase(std::u16string_view a, std::u16string_view b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(),
                      [](char16_t x, char16_t y) { return AsciiLower(x) == AsciiLower(y); });
}

void CheckNoLineBreak(std::u16string_view value, const std::u16string& field) {
    if (value.find_first_of(u"\r\n") != value.npos)
        Raise(ERROR_HEADER_LINE_BREAK,
              u"The " + field + u" holds a line break (CR or LF), which a header cannot carry.",
              kSourceMailMessage);
}

// An address or a type: no line break, printable ASCII only, short enough for a header line.
void CheckAsciiValue(std::u16string_view value, const std::u16string& kind) {
    const std::u16string field = kind + u" '" + std::u16string(value) + u"'";
    CheckNoLineBreak(value, field);
    if (!std::all_of(value.begin(), value.end(), IsPrintableAscii))
        Raise(ERROR_HEADER_NOT_ASCII,
              u"The " + field +
                  u" holds a character that is not printable ASCII: a standard message "
                  u"writes addresses and types in ASCII only.",
              kSourceMailMessage);
    if (TrimSpaces(value).size() > kMaxAddressLength)
        Raise(ERROR_HEADER_TOO_LONG,
              u"The " + kind + u" is longer than a header line can hold (990 characters).",
              kSourceMailMessage);
}

void CheckFields(const MessageFields& fields) {
    CheckNoLineBreak(fields.subjectLine, u"subject");
    CheckNoLineBreak(fields.senderName, u"sender name");
    CheckAsciiValue(fields.fromAddress, u"From address");
    for (const auto& to : fields.recipients) CheckAsciiValue(to, u"To address");
    for (const auto& cc : fields.ccRecipients) CheckAsciiValue(cc, u"Cc address");
    // Bcc addresses stand in no header, but in the RCPT commands.
    for (const auto& bcc : fields.bccRecipients)
        CheckNoLineBreak(bcc, u"Bcc address '" + bcc + u"'");
    CheckAsciiValue(fields.mimeType, u"MIME type");
}

// "Tue, 14 Jan 2025 10:03:52 +0100" (RFC 5322, 3.3).
std::u16string DateText(const LocalDateTime& t) {
    static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const int offset = std::abs(t.offsetMinutes);
    char text[64];
    std::snprintf(text, sizeof text, "%s, %d %s %04d %02d:%02d:%02d %c%02d%02d",
                  kDays[t.weekday % 7], t.day, kMonths[(t.month + 11) % 12], t.year, t.hour,
                  t.minute, t.second, t.offsetMinutes < 0 ? '-' : '+', offset / 60, offset % 60);
    return Ascii(text);
}

// "<128 random bits in hex@domain>": the domain of the From address when it is a plain host
// name, else "localhost".
std::u16string MessageId(std::u16string_view fromAddress) {
    std::random_device random;
    std::string id = "<";
    for (int i = 0; i < 4; ++i) {
        char word[9];
        std::snprintf(word, sizeof word, "%08x", static_cast<unsigned>(random()));
        id += word;
    }
    fromAddress = TrimSpaces(fromAddress);
    const auto at = fromAddress.rfind(u'@');
    std::u16string_view domain = at == fromAddress.npos ? u"" : fromAddress.substr(at + 1);
    const bool hostName = !domain.empty() && domain.size() <= 253 && domain.front() != u'.' &&
                          domain.back() != u'.' && domain.find(u"..") == domain.npos &&
                          std::all_of(domain.begin(), domain.end(), [](char16_t c) {
                              return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') ||
                                     (c >= u'0' && c <= u'9') || c == u'-' || c == u'.';
                          });
    return Ascii(id) + u"@" + std::u16string(hostName ? domain : u"localhost") + u">";
}

// The type of the plain body: the MIME type without its charset, which is UTF-8 here.
std::u16string PlainBodyContentType(std::u16string_view mimeType) {
    HeaderLine line(u"Content-Type");
    for (std::size_t start = 0;;) {
        const std::size_t end = std::min(mimeType.find(u';', start), mimeType.size());
        const std::u16string_view segment = TrimSpaces(mimeType.substr(start, end - start));
        const std::u16string_view name = TrimSpaces(segment.substr(0, segment.find(u'=')));
        if (start == 0)
            line.Atom(segment.empty() ? u"text/plain" : segment);
        else if (!segment.empty() && !EqualsIgnoringCase(name, u"charset"))
            line.Atom(u";", false), line.Atom(segment);
        if (end == mimeType.size()) break;
        start = end + 1;
    }
    line.Parameter(u"charset", u"utf-8");
    return std::move(line).Finish();
}

void AddTextPart(std::vector<std::string>& pieces, std::u16string contentTypeLine,
                 std::u16string_view text) {
    EncodedTextBody encoded = EncodeTextBody(text);
    pieces.push_back(ToAnsi(std::move(contentTypeLine) + u"Content-Transfer-Encoding: " +
                            std::u16string(encoded.transferEncoding) + u"\r\n\r\n"));
    pieces.push_back(std::move(encoded.text));
}

std::u16string MultipartLine(std::u16string_view subtype, const std::u16string& boundary) {
    HeaderLine line(u"Content-Type");
    line.Atom(u"multipart/" + std::u16string(subtype));
    line.Parameter(u"boundary", boundary);
    return std::move(line).Finish();
}

std::u16string AddressLine(std::u16string_view name, const KeyedCollection& list) {
    HeaderLine line(name);
    std::size_t left = list.Count();
    for (const auto& address : list)
        line.Atom(std::u16string(TrimSpaces(address)) + (--left > 0 ? u"," : u""));
    return std::move(line).Finish();
}

std::u16string MessageHeader(const MessageFields& fields) {
    std::u16string header = u"Date: " + DateText(CurrentLocalDateTime()) + u"\r\n";
    HeaderLine from(u"From");
    if (!fields.senderName.empty()) {
        from.Phrase(fields.senderName);
        std::u16string address = u"<";
        from.Atom(address.append(TrimSpaces(fields.fromAddress)).append(u">"));
    } else {
        from.Atom(TrimSpaces(fields.fromAddress));
    }
    header += std::move(from).Finish();
    if (fields.recipients.Count() > 0) header += AddressLine(u"To", fields.recipients);
    if (fields.ccRecipients.Count() > 0) header += AddressLine(u"Cc", fields.ccRecipients);
    HeaderLine subject(u"Subject");
    subject.Unstructured(fields.subjectLine);
    header += std::move(subject).Finish();
    header += u"Message-ID: " + MessageId(fields.fromAddress) + u"\r\n";
    for (const auto& [name, value] : fields.addedHeaders) {
        HeaderLine added(name);
        added.Unstructured(value);
        header += std::move(added).Finish();
    }
    return header + u"MIME-Version: 1.0\r\n";
}

}  // namespace

void CheckAddedHeader(const std::u16string& name, const std::u16string& value) {
    static constexpr std::u16string_view kWrittenByTheMessage[] = {
        u"Date", u"From", u"To", u"Cc", u"Bcc", u"Subject", u"Message-ID", u"MIME-Version"};
    const bool fieldName = !name.empty() && name.size() <= kMaxFieldNameLength &&
                           std::all_of(name.begin(), name.end(), [](char16_t c) {
                               return c > 0x20 && c < 0x7F && c != u':';
                           });
    const bool written =
        EqualsIgnoringCase(std::u16string_view(name).substr(0, 8), u"Content-") ||
        std::any_of(std::begin(kWrittenByTheMessage), std::end(kWrittenByTheMessage),
                    [&](std::u16string_view n) { return EqualsIgnoringCase(name, n); });
    if (!fieldName)
        Raise(ERROR_HEADER_NAME,
              u"'" + name +
                  u"' is not a header field name: 1 to 76 printable ASCII characters other than "
                  u"':' and space.",
              kSourceMailMessage);
    if (written)
        Raise(ERROR_HEADER_NAME,
              u"The message writes the header '" + name + u"' itself: it cannot be added.",
              kSourceMailMessage);
    CheckNoLineBreak(value, u"value of the header '" + name + u"'");
}

StandardAssembly::StandardAssembly(const MessageFields& fields) {
    CheckFields(fields);
    const std::u16string mixed = MakeBoundary();
    const std::u16string alternative = MakeBoundary();
    const bool plain = !fields.body.empty(), html = !fields.bodyHTML.empty();
    m_head.push_back(ToAnsi(MessageHeader(fields) + MultipartLine(u"mixed", mixed) + u"\r\n"));
    // Without any body or file, an empty plain text stands for the body.
    if (plain || html || fields.attachments.Count() == 0) {
        m_head.push_back(ToAnsi(u"--" + mixed + u"\r\n"));
        const std::u16string htmlType = u"Content-Type: text/html; charset=utf-8\r\n";
        if (plain && html) {
            m_head.push_back(ToAnsi(MultipartLine(u"alternative", alternative) + u"\r\n--" +
                                    alternative + u"\r\n"));
            AddTextPart(m_head, PlainBodyContentType(fields.mimeType), fields.body);
            m_head.push_back(ToAnsi(u"\r\n--" + alternative + u"\r\n"));
            AddTextPart(m_head, htmlType, fields.bodyHTML);
            m_head.push_back(ToAnsi(u"\r\n--" + alternative + u"--"));
        } else if (html) {
            AddTextPart(m_head, htmlType, fields.bodyHTML);
        } else {
            AddTextPart(m_head, PlainBodyContentType(fields.mimeType), fields.body);
        }
    }
    for (const auto& path : fields.attachments) {
        const std::u16string name = LastPathElement(path);
        HeaderLine type(u"Content-Type");
        type.Atom(GetStandardContentType(name));
        type.Parameter(u"name", name);
        HeaderLine disposition(u"Content-Disposition");
        disposition.Atom(u"attachment");
        disposition.Parameter(u"filename", name);
        m_attachments.push_back({&path,
                                 ToAnsi(u"\r\n--" + mixed + u"\r\n" + std::move(type).Finish() +
                                        u"Content-Transfer-Encoding: base64\r\n" +
                                        std::move(disposition).Finish() + u"\r\n"),
                                 AttachedFileSize(path)});
    }
    m_tail = ToAnsi(u"\r\n--" + mixed + u"--\r\n");
}

std::size_t StandardAssembly::Length() const {
    std::size_t length = m_tail.size();
    for (const auto& piece : m_head) length += piece.size();
    for (const auto& attachment : m_attachments)
        length += attachment.head.size() + Base64EncodedLength(attachment.size);
    return length;
}

void StandardAssembly::WriteTo(std::string& out) const {
    for (const auto& piece : m_head) out += piece;
    for (const auto& attachment : m_attachments)
        AppendAttachedFile(*attachment.path, out, false,
                           [&](std::uint64_t) { out += attachment.head; });
    out += m_tail;
}

}  // namespace larkpost::detail
