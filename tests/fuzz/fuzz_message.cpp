// A message built from fuzz values, in the classic format or the standard one, or a file search.
// Classic: it builds, or the recipient or file is refused with its documented error; the text reads
// back as the header lines with the values as given, the declared boundaries, the bodies from
// quoted-printable and each attached file from Base64 (lines of at most 76); no lone "." line
// unless a header value or file name brought it.
// Standard: the refusal the values call for, or a 7-bit text of CR LF lines, none over 78 (998 with
// a long address) and none starting with ".", from which a small decoder reads every value back.
// Search: AttachFile with a name or pattern in a fixed directory is accepted exactly when a
// reference matcher finds a plain file; refusals as documented; an accepted path saves or fails
// with the attachment error only.
// Input: a byte of options (bit 0: the rest is 16-bit code units, else a byte a character; bit 1:
// the standard format; bit 2: the search, of the rest less "/"), then fields split at U+0000.
// Classic: subject, from, sender name, body, HTML body, MIME type, then To, Cc, Bcc and file names,
// each a list split at U+0001. Standard: subject, sender name, body, HTML body, an added header's
// value, a To address (the rest).
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <utility>

#include "fuzz_support.h"
#include "larkpost/error.h"
#include "larkpost/mail_message.h"
#include "larkpost/text.h"
#include "platform/codepage.h"
#include "platform/files.h"
#include "support/mail_message_access.h"

using namespace larkpost;
using fuzz::Split;

namespace {

const std::string g_dir = "/tmp/larkpost-fuzz-message-" + std::to_string(::getpid());
constexpr std::string_view kBase64 =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

bool HasLineBreak(std::u16string_view text) { return text.find_first_of(u"\r\n") != text.npos; }

// The readers of both formats: Base64 with line ends and padding left out; quoted-printable of a
// body, or the "Q" of an encoded word (where "_" is a space).
int Hex(char c) { return c <= '9' ? c - '0' : c - 'A' + 10; }

std::string Base64Decode(std::string_view text) {
    std::string out;
    uint32_t bits = 0, count = 0;
    for (char c : text) {
        if (kBase64.find(c) == kBase64.npos) continue;  // line ends and padding
        bits = bits << 6 | uint32_t(kBase64.find(c));
        if ((count += 6) >= 8) out += char(bits >> (count -= 8));
    }
    return out;
}

std::string QuotedDecode(std::string_view text, bool q) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text.substr(i, 3) == "=\r\n") {
            i += 2;
        } else if (text[i] == '=') {
            assert(i + 2 < text.size());
            out += char(Hex(text[i + 1]) * 16 + Hex(text[i + 2])), i += 2;
        } else {
            out += q && text[i] == '_' ? ' ' : text[i];
        }
    }
    return out;
}

// A classic block, decoded once its shape holds: lines of at most 76 characters of its alphabet
// (Base64 in groups of four; quoted-printable writes "." and all but "!" to "~" as "=XX").
std::string ClassicBlock(std::u16string_view text, bool base64) {
    static const std::string printable = [] {
        std::string all;
        for (char c = '!'; c <= '~'; ++c) all += c == '.' ? "" : std::string(1, c);
        return all;
    }();
    const std::string block = ToUtf8(text);
    for (std::string_view line : Split<char>(block, '\n')) {
        if (line.ends_with('\r')) line.remove_suffix(1);
        assert(line.size() <= 76 && (!base64 || line.size() % 4 == 0) &&
               line.find_first_not_of(base64 ? std::string(kBase64) + "=" : printable) == line.npos);
    }
    return base64 ? Base64Decode(block) : QuotedDecode(block, false);
}

std::u16string ContentType(const std::u16string& name) {
    const std::size_t dot = name.rfind(u'.');
    std::u16string extension = dot == name.npos ? u"" : name.substr(dot + 1);
    for (auto& c : extension) c = c >= u'a' && c <= u'z' ? char16_t(c - 32) : c;
    if (extension == u"TXT") return u"text/plain";
    if (extension == u"HTM" || extension == u"HTML") return u"text/html";
    if (extension == u"JPG" || extension == u"JPEG") return u"image/jpeg";
    return u"application/octet-stream";
}

struct Fields {
    std::u16string subject, from, senderName, body, html, mimeType;
    std::vector<std::u16string> to, cc, bcc;
    std::vector<std::pair<std::u16string, std::string>> files;  // attached: name, bytes
    bool breaksInValues = false;  // a header value or file name holds CR or LF
};

// Reads the text from the front: literal pieces in order; boundaries, lengths and encoded blocks
// (which never hold an empty line) up to what follows them.
class Reader {
public:
    explicit Reader(const std::u16string& text) : m_text(text) {}
    // Values reach the text through the code page: a character it lacks is "?" there.
    void Expect(std::u16string_view piece) {
        const std::u16string written = detail::FromAnsi(detail::ToAnsi(piece));
        assert(m_text.compare(m_at, written.size(), written) == 0);
        m_at += written.size();
    }
    std::u16string Until(std::u16string_view end) {
        const std::size_t found = m_text.find(end, m_at);
        assert(found != m_text.npos);
        std::u16string piece = m_text.substr(m_at, found - m_at);
        m_at = found;
        return piece;
    }
    // After "Content-Length: ": the length, the empty line, and the encoded block it counts.
    std::u16string CountedBlock() {
        const std::u16string length = Until(u"\r\n\r\n");
        Expect(u"\r\n\r\n");
        std::u16string block = Until(u"\r\n\r\n");
        assert(length == FromUtf8(std::to_string(block.size())) && !block.empty());
        return block;
    }
    bool AtEnd() const { return m_at == m_text.size(); }

private:
    const std::u16string& m_text;
    std::size_t m_at = 0;
};

void CheckClassicText(const std::u16string& text, const Fields& f) {
    auto joined = [](const std::vector<std::u16string>& list) {
        std::u16string out;
        for (std::size_t i = 0; i < list.size(); ++i) out += (i ? u";" : u"") + list[i];
        return out;
    };
    Reader r(text);
    r.Expect(u"Subject: " + f.subject + u"\r\nFrom: ");
    r.Expect(f.senderName.empty() ? f.from : u"\"" + f.senderName + u"\" <" + f.from + u">");
    r.Expect(u"\r\nTo: " + joined(f.to) + u"\r\n");
    if (!f.cc.empty()) r.Expect(u"Cc: " + joined(f.cc) + u"\r\n");
    if (!f.bcc.empty()) r.Expect(u"Bcc: " + joined(f.bcc) + u"\r\n");
    r.Expect(u"Content-Type: multipart/mixed;boundary=\"");
    const std::u16string mixed = r.Until(u"\"");
    r.Expect(u"\"\r\nMIME-Version: 1.0\r\n\r\n\r\n--" + mixed +
             u"\r\nContent-Type: multipart/alternative;boundary=\"");
    const std::u16string inner = r.Until(u"\"");
    r.Expect(u"\"\r\nMIME-Version: 1.0\r\n\r\n");
    assert(mixed.starts_with(u"--=-MessageBoundary_") &&
           inner.starts_with(u"--=-MessageBoundary_") && mixed != inner &&
           !HasLineBreak(mixed + inner));
    // The bodies that are not empty, then one part for each file that holds bytes, as attached.
    auto body = [&](std::u16string_view type, const std::u16string& value) {
        if (value.empty()) return;
        r.Expect(u"\r\n\r\n--" + inner + u"\r\nContent-Type: ");
        r.Expect(type);
        r.Expect(u"\r\nContent-Transfer-Encoding: quoted-printable\r\nContent-Length: ");
        assert(ClassicBlock(r.CountedBlock(), false) == detail::ToAnsi(value));
    };
    body(f.mimeType, f.body);
    body(u"text/html; charset=iso-8859-1", f.html);
    r.Expect(u"\r\n\r\n--" + inner + u"--\r\n");
    for (const auto& [name, bytes] : f.files) {
        if (bytes.empty()) continue;
        r.Expect(u"\r\n\r\n--" + mixed + u"\r\nContent-Type: " + ContentType(name) + u";name=\"" +
                 name +
                 u"\"\r\nContent-Transfer-Encoding: base64\r\nContent-Disposition: "
                 u"attachment;filename=\"" +
                 name + u"\"\r\nContent-Length: ");
        assert(ClassicBlock(r.CountedBlock(), true) == bytes);
    }
    r.Expect(u"\r\n\r\n--" + mixed + u"--\r\n");
    assert(r.AtEnd());
    // No early end of data: a line that is "." alone comes only from a value that holds a break.
    if (!f.breaksInValues) assert(text.find(u"\r\n.\r\n") == text.npos);
}

void CheckClassic(std::vector<std::u16string> given) {
    given.resize(10);
    auto message = std::make_shared<MailMessage>();
    Fields f{given[0], given[1], given[2], given[3], given[4], given[5], {}, {}, {}, {}, false};
    message->SubjectLine(f.subject);
    message->FromAddress(f.from);
    message->SenderName(f.senderName);
    message->Body(f.body);
    message->BodyHTML(f.html);
    message->MimeType(f.mimeType);
    f.breaksInValues = HasLineBreak(f.subject + f.from + f.senderName + f.mimeType);
    // Recipients: a blank or repeated one is refused with its own error and not added.
    std::vector<std::u16string>* lists[] = {&f.to, &f.cc, &f.bcc};
    void (MailMessage::*add[])(const std::u16string&) = {
        &MailMessage::AddRecipient, &MailMessage::AddCCRecipient, &MailMessage::AddBCCRecipient};
    for (int l = 0; l < 3; ++l) {
        for (const std::u16string& address : Split<char16_t>(given[6 + l], u'\x1')) {
            try {
                ((*message).*add[l])(address);
                lists[l]->push_back(address);
                f.breaksInValues |= HasLineBreak(address);
            } catch (const RaisedError& error) {
                assert(error.Number() == ERROR_BLANK_RECIPIENT ||
                       error.Number() == ERROR_DUPLICATE_RECIPIENT);
            }
        }
    }
    // Files: each name made in an empty directory, holding its own name's bytes (or none);
    // a name with a control character is not found.
    std::filesystem::remove_all(g_dir + "/files");
    std::filesystem::create_directory(g_dir + "/files");
    std::set<std::u16string> made;
    for (std::u16string name : Split<char16_t>(given[9], u'\x1')) {
        std::erase_if(name, [](char16_t c) { return c == u'/' || c == u'*' || c == u'?'; });
        if (name.empty() || name == u"." || name == u".." || name.size() > 80) continue;
        const std::string utf8 = ToUtf8(name);
        std::u16string back;
        if (!TryFromUtf8(utf8, back) || back != name || utf8.size() > 255) continue;
        const std::string bytes = name.size() % 3 == 0 ? std::string() : utf8 + utf8;
        if (made.insert(name).second)
            std::ofstream(g_dir + "/files/" + utf8, std::ios::binary) << bytes;
        try {
            message->AttachFile(FromUtf8(g_dir) + u"/files/" + name);
            assert(detail::NativePath(name));
            f.files.push_back({name, bytes});
            f.breaksInValues |= HasLineBreak(name);
        } catch (const RaisedError& error) {
            assert(error.Number() == ERROR_FILE_NOT_FOUND || error.Number() == ERROR_KEY_IN_USE);
            assert(error.Number() != ERROR_FILE_NOT_FOUND || !detail::NativePath(name));
        }
    }
    CheckClassicText(detail::MailMessageAccess::BuildMessage(*message), f);
}

// ---- the standard format

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
    const std::size_t end = text.find("\r\n----=-MessageBoundary_", start);  // "=" is never literal
    const std::string_view content(text.data() + start, end - start);
    return text[at + head.size()] == 'b' ? Base64Decode(content) : QuotedDecode(content, false);
}

void CheckStandard(std::vector<std::u16string> given) {
    for (std::size_t i = 6; i < given.size(); ++i)
        given[5] += u'\0' + given[i];  // the To address takes the rest
    given.resize(6);
    const auto& [subject, name, body, html, added, to] =
        std::tie(given[0], given[1], given[2], given[3], given[4], given[5]);
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
        assert(e.Number() == ERROR_HEADER_LINE_BREAK && HasLineBreak(added));
    }
    const std::size_t first = to.find_first_not_of(u' '), last = to.find_last_not_of(u' ');
    const int32_t expected =
        HasLineBreak(subject + name + to) ? ERROR_HEADER_LINE_BREAK
        : std::any_of(to.begin(), to.end(), [](char16_t c) { return c < 32 || c > 126; })
            ? ERROR_HEADER_NOT_ASCII
        : !blank && last - first >= 990 ? ERROR_HEADER_TOO_LONG
                                        : 0;
    std::string text;
    try {
        text = ToUtf8(detail::MailMessageAccess::BuildMessage(message));
    } catch (const RaisedError& e) {
        assert(e.Number() == expected);
        return;
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
    assert(HasLineBreak(added) || FieldValue(text, "X-Fuzz") == ToUtf8(added));
    assert(BodyOf(text, "text/plain") == ToUtf8(body) && BodyOf(text, "text/html") == ToUtf8(html));
}

// ---- the file search

// What the search may accept; a directory, a dangling link and a FIFO lie beside them.
const std::u16string g_files[] = {u"a.txt",          u"b.TXT",         u"noext",
                                  u"dot.",           u".hidden",       u"x.tar.gz",
                                  u"with space.jpg", u"caf\u00e9.htm", u"link.txt"};

// match[p][n]: pattern[p...] matches name[n...]; "*" stands for any run, "?" for one character.
bool Matches(std::u16string_view pattern, std::u16string_view name) {
    std::vector<std::vector<char>> match(pattern.size() + 1, std::vector<char>(name.size() + 2));
    match[pattern.size()][name.size()] = 1;
    for (std::size_t p = pattern.size(); p-- > 0;)
        for (std::size_t n = name.size() + 1; n-- > 0;)
            match[p][n] = pattern[p] == u'*'
                              ? match[p + 1][n] || (n < name.size() && match[p][n + 1])
                              : n < name.size() && match[p + 1][n + 1] &&
                                    (pattern[p] == u'?' || pattern[p] == name[n]);
    return match[0][0];
}

void CheckSearch(std::u16string name) {
    std::erase(name, u'/');
    const bool wildcard = name.find_first_of(u"*?") != name.npos;
    bool found = false;  // a wildcard does not match a name starting with "." (an exact name does)
    for (const std::u16string& file : g_files)
        found |=
            wildcard ? (file[0] != u'.' || name[0] == u'.') && Matches(name, file) : name == file;
    const std::u16string path = FromUtf8(g_dir) + u"/search/" + name;
    auto message = std::make_shared<MailMessage>();
    try {
        message->AttachFile(path);
    } catch (const RaisedError& error) {
        assert(!found && error.Number() == ERROR_FILE_NOT_FOUND &&
               error.Description() == u"File " + path + u" not found. Cannot attach to message.");
        return;
    }
    assert(found);
    message->AddRecipient("to@example.org");
    try {
        message->SaveToFile(g_dir + "/saved.eml");
    } catch (const RaisedError& error) {  // a wildcard's file is read at the build
        assert(error.Number() == ERROR_ATTACHMENT_FAILED);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    std::system(
        ("mkdir -p " + g_dir + "/search && cd " + g_dir +
         "/search && touch a.txt b.TXT noext dot. .hidden x.tar.gz 'with space.jpg' caf\xc3\xa9.htm"
         " && mkdir dir.txt && mkfifo pipe.txt && ln -s a.txt link.txt && ln -s no dangling.txt")
            .c_str());
    return std::atexit([] { std::filesystem::remove_all(g_dir); });
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size == 0 || size > 4096) return 0;
    const std::u16string input =
        data[0] & 1 ? fuzz::CodeUnits(data + 1, size - 1)
                    : detail::FromAnsi({reinterpret_cast<const char*>(data) + 1, size - 1});
    if (data[0] & 4)
        CheckSearch(input);
    else if (data[0] & 2)
        CheckStandard(Split<char16_t>(input, u'\0'));
    else
        CheckClassic(Split<char16_t>(input, u'\0'));
    return 0;
}
