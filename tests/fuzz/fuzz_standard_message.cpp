// The standard format on any 16-bit text (fields split at U+0000: subject, sender name, body,
// HTML body, an added header's value, a To address): either the refusal that the values call
// for, or a 7-bit text of CR LF lines, none over 78 (998 with a long address) and none starting
// with ".", from which a small decoder reads every value back as its UTF-8.
#include <algorithm>
#include <vector>

#include "fuzz_support.h"
#include "larkpost/error.h"
#include "larkpost/mail_message.h"
#include "larkpost/text.h"
#include "support/mail_message_access.h"

using namespace larkpost;

namespace {

int Hex(char c) { return c <= '9' ? c - '0' : c - 'A' + 10; }

std::string Base64Decode(std::string_view text) {
    constexpr std::string_view abc =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    uint32_t bits = 0, count = 0;
    for (char c : text) {
        if (abc.find(c) == abc.npos) continue;  // line ends and padding
        bits = bits << 6 | uint32_t(abc.find(c));
        if ((count += 6) >= 8) out += char(bits >> (count -= 8));
    }
    return out;
}

// Quoted-printable of a body, or the "Q" of an encoded word (where "_" is a space).
std::string QuotedDecode(std::string_view text, bool q) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text.substr(i, 3) == "=\r\n")
            i += 2;
        else if (text[i] == '=')
            out += char(Hex(text[i + 1]) * 16 + Hex(text[i + 2])), i += 2;
        else
            out += q && text[i] == '_' ? ' ' : text[i];
    }
    return out;
}

// The unfolded value of a header field, its encoded words decoded; a phrase's quotes taken away.
std::string FieldValue(const std::string& text, const std::string& name, bool phrase = false) {
    const std::size_t start = text.find("\r\n" + name + ":") + name.size() + 3;
    std::size_t end = start;
    while (text.compare(end = text.find("\r\n", end), 3, "\r\n ") == 0) end += 2;
    std::string value = text.substr(start, end - start), decoded;
    std::erase(value, '\r'), std::erase(value, '\n');
    if (value.starts_with(" ")) value.erase(0, 1);
    if (phrase && value.starts_with("\"")) {
        for (std::size_t i = 1; value[i] != '"'; ++i) decoded += value[i += value[i] == '\\'];
        return decoded;
    }
    if (!value.starts_with("=?utf-8?")) return value;
    for (std::size_t at = 0; at < value.size() && value.compare(at, 8, "=?utf-8?") == 0;) {
        const std::size_t close = value.find("?=", at + 10);
        const std::string_view word = std::string_view(value).substr(at + 10, close - at - 10);
        decoded += value[at + 8] == 'Q' ? QuotedDecode(word, true) : Base64Decode(word);
        at = close + 3;
    }
    return decoded;
}

// The decoded content of the body part of this type, or "" when there is none.
std::string BodyOf(const std::string& text, const std::string& type) {
    const std::string head =
        "Content-Type: " + type + "; charset=utf-8\r\nContent-Transfer-Encoding: ";
    const std::size_t at = text.find(head);
    if (at == text.npos) return "";
    const std::size_t start = text.find("\r\n\r\n", at) + 4;
    const std::string_view content(text.data() + start, text.find("\r\n--", start) - start);
    return text[at + head.size()] == 'b' ? Base64Decode(content) : QuotedDecode(content, false);
}

bool Has(const std::u16string& text, std::u16string_view any) {
    return text.find_first_of(any) != text.npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    std::vector<std::u16string> fields(6);
    std::size_t field = 0;
    for (char16_t c : fuzz::CodeUnits(data, size)) {
        if (c == 0 && field < 5)
            ++field;
        else
            fields[field] += c;
    }
    const auto& [subject, name, body, html, added, to] =
        std::tie(fields[0], fields[1], fields[2], fields[3], fields[4], fields[5]);
    MailMessage message;
    message.StandardFormat(true);
    message.FromAddress(u"ann@example.org");
    message.SubjectLine(subject);
    message.SenderName(name);
    message.Body(body);
    message.BodyHTML(html);
    const bool blank = to.find_first_not_of(u' ') == to.npos;
    message.AddRecipient(blank ? u"b@x" : to);
    try {
        message.AddHeader(u"X-Fuzz", added);
    } catch (const RaisedError& e) {
        assert(e.Number() == ERROR_HEADER_LINE_BREAK && Has(added, u"\r\n"));
    }
    const std::size_t first = to.find_first_not_of(u' '), last = to.find_last_not_of(u' ');
    const int32_t expected =
        Has(subject + name + to, u"\r\n") ? ERROR_HEADER_LINE_BREAK
        : std::any_of(to.begin(), to.end(), [](char16_t c) { return c < 32 || c > 126; })
            ? ERROR_HEADER_NOT_ASCII
        : !blank && last - first >= 990 ? ERROR_HEADER_TOO_LONG
                                        : 0;
    std::string text;
    try {
        text = ToUtf8(detail::MailMessageAccess::BuildMessage(message));
    } catch (const RaisedError& e) {
        assert(e.Number() == expected);
        return 0;
    }
    assert(expected == 0);
    const std::size_t longest = to.size() > 70 ? 998 : 78;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = text.find("\r\n", at);
        assert(end != text.npos && end - at <= longest && text[at] != '.');
        assert(std::none_of(text.begin() + at, text.begin() + end,
                            [](char c) { return c == '\r' || c == '\n' || (c & 0x80) != 0; }));
        at = end + 2;
    }
    assert(FieldValue(text, "Subject") == ToUtf8(subject));
    assert(name.empty() || FieldValue(text, "From", true) == ToUtf8(name));
    assert(Has(added, u"\r\n") || FieldValue(text, "X-Fuzz") == ToUtf8(added));
    assert(BodyOf(text, "text/plain") == ToUtf8(body) && BodyOf(text, "text/html") == ToUtf8(html));
    return 0;
}
