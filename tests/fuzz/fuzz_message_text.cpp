// A message built from arbitrary header values, bodies and attached file names: it builds or fails
// with a documented error, and its text keeps its shape. The header lines carry the values as
// given; the mixed boundary declared in the head closes the text, and between its delimiters lie
// the alternative entity and one part for each attached file that holds bytes; the bodies decode
// from quoted-printable to their code-page bytes and each file from Base64 to its bytes, in lines
// of at most 76 characters; no line is a lone "." unless a header value or file name brought it.
// Input: a byte of options (bit 0: the rest is 16-bit code units, else a byte a character), then
// fields split at U+0000: subject, from, sender name, body, HTML body, MIME type, then To, Cc, Bcc
// and file names, each a list split at U+0001.
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

namespace {

const std::string g_dir = "/tmp/larkpost-fuzz-message-" + std::to_string(::getpid());

// The delivery modes the text is checked in. Today only the default one, whose text goes out as
// built: a header value or file name holding CR LF "." CR LF ends the data early there, as
// documented. When strict delivery (dot-doubling) and the standard format exist, add them to
// Mode and kModes, set them on the message, and let CheckText take the text as it goes out in
// that mode: there no line may be a lone "." before the end, whatever the values hold.
enum class Mode { Default };
constexpr Mode kModes[] = {Mode::Default};

std::vector<std::u16string> Split(std::u16string_view text, char16_t at) {
    std::vector<std::u16string> pieces;
    for (std::size_t start = 0, end = 0; end != text.npos; start = end + 1)
        pieces.emplace_back(text.substr(start, (end = text.find(at, start)) - start));
    return pieces;
}

bool HasLineBreak(std::u16string_view text) { return text.find_first_of(u"\r\n") != text.npos; }

std::string QuotedPrintableDecode(std::u16string_view text) {
    std::string bytes;
    for (const std::u16string& line : Split(text, u'\n')) {
        std::u16string_view l = line;
        if (l.ends_with(u'\r')) l.remove_suffix(1);
        assert(l.size() <= 76);
        bool soft = l.ends_with(u'=');
        if (soft) l.remove_suffix(1);
        for (std::size_t i = 0; i < l.size(); ++i) {
            if (l[i] != u'=') {
                assert(l[i] > 32 && l[i] < 127 && l[i] != u'.');
                bytes += char(l[i]);
                continue;
            }
            const std::string hex = ToUtf8(l.substr(i + 1, 2));
            assert(hex.size() == 2 && hex.find_first_not_of("0123456789ABCDEF") == hex.npos);
            bytes += char(std::stoi(hex, nullptr, 16));
            i += 2;
        }
        if (!soft) bytes += "\r\n";
    }
    bytes.erase(bytes.size() - 2);  // the last line has no line end of its own
    return bytes;
}

std::string Base64Decode(std::u16string_view text) {
    static const std::string alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string bytes;
    for (const std::u16string& line : Split(text, u'\n')) {
        std::u16string_view l = line;
        if (l.ends_with(u'\r')) l.remove_suffix(1);
        assert(l.size() <= 76 && l.size() % 4 == 0);
        for (std::size_t i = 0; i < l.size(); i += 4) {
            uint32_t group = 0;
            int pad = 0;
            for (std::size_t k = 0; k < 4; ++k) {
                const std::size_t value = l[i + k] == u'=' ? (++pad, 0) : alphabet.find(char(l[i + k]));
                assert(value < 64 && (pad == 0 || l[i + k] == u'='));
                group = group << 6 | uint32_t(value);
            }
            for (int k = 0; k < 3 - pad; ++k) bytes += char(group >> (16 - 8 * k));
        }
    }
    return bytes;
}

std::u16string Decimal(std::size_t n) { return FromUtf8(std::to_string(n)); }

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

// Reads the text from the front: the literal pieces must come in order, the boundaries, lengths
// and encoded blocks (which never hold an empty line) are read up to what follows them.
class Reader {
public:
    explicit Reader(const std::u16string& text) : m_text(text) {}
    void Expect(std::u16string_view piece) {
        assert(m_text.compare(m_at, piece.size(), piece) == 0);
        m_at += piece.size();
    }
    std::u16string Until(std::u16string_view end) {
        const std::size_t found = m_text.find(end, m_at);
        assert(found != m_text.npos);
        std::u16string piece = m_text.substr(m_at, found - m_at);
        m_at = found;
        return piece;
    }
    // "Content-Length: " was read: the length, the empty line, and the encoded block it counts.
    std::u16string CountedBlock() {
        const std::u16string length = Until(u"\r\n\r\n");
        Expect(u"\r\n\r\n");
        std::u16string block = Until(u"\r\n\r\n");
        assert(length == Decimal(block.size()) && !block.empty());
        return block;
    }
    bool AtEnd() const { return m_at == m_text.size(); }

private:
    const std::u16string& m_text;
    std::size_t m_at = 0;
};

void CheckText(const std::u16string& text, const Fields& f, Mode mode) {
    (void)mode;  // the default mode: the text is what goes out
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
    assert(mixed.starts_with(u"--=-MessageBoundary_") && inner.starts_with(u"--=-MessageBoundary_") &&
           mixed != inner && !HasLineBreak(mixed + inner));

    // The bodies that are not empty, in quoted-printable, then one part for each file that holds
    // bytes, in the order attached.
    auto body = [&](std::u16string_view type, const std::u16string& value) {
        if (value.empty()) return;
        r.Expect(u"\r\n\r\n--" + inner + u"\r\nContent-Type: ");
        r.Expect(type);
        r.Expect(u"\r\nContent-Transfer-Encoding: quoted-printable\r\nContent-Length: ");
        assert(QuotedPrintableDecode(r.CountedBlock()) == detail::ToAnsi(value));
    };
    body(f.mimeType, f.body);
    body(u"text/html; charset=iso-8859-1", f.html);
    r.Expect(u"\r\n\r\n--" + inner + u"--\r\n");
    for (const auto& [name, bytes] : f.files) {
        if (bytes.empty()) continue;
        r.Expect(u"\r\n\r\n--" + mixed + u"\r\nContent-Type: " + ContentType(name) + u";name=\"" +
                 name + u"\"\r\nContent-Transfer-Encoding: base64\r\n" +
                 u"Content-Disposition: attachment;filename=\"" + name + u"\"\r\nContent-Length: ");
        assert(Base64Decode(r.CountedBlock()) == bytes);
    }
    r.Expect(u"\r\n\r\n--" + mixed + u"--\r\n");
    assert(r.AtEnd());

    // No early end of data: a line that is "." alone comes only from a value that holds a break.
    if (!f.breaksInValues) assert(text.find(u"\r\n.\r\n") == text.npos);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    std::filesystem::create_directories(g_dir);
    return std::atexit([] { std::filesystem::remove_all(g_dir); });
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size == 0 || size > 4096) return 0;
    const std::u16string input = data[0] & 1 ? fuzz::CodeUnits(data + 1, size - 1)
                                             : detail::FromAnsi({reinterpret_cast<const char*>(data) + 1, size - 1});
    std::vector<std::u16string> given = Split(input, u'\0');
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
    for (int l = 0; l < 3; ++l) {
        for (const std::u16string& address : Split(given[6 + l], u'\x1')) {
            try {
                if (l == 0) message->AddRecipient(address);
                if (l == 1) message->AddCCRecipient(address);
                if (l == 2) message->AddBCCRecipient(address);
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
    const std::u16string dir = FromUtf8(g_dir) + u"/files/";
    std::set<std::u16string> made;
    for (std::u16string name : Split(given[9], u'\x1')) {
        std::erase_if(name, [](char16_t c) { return c == u'/' || c == u'*' || c == u'?'; });
        if (name.empty() || name == u"." || name == u".." || name.size() > 80) continue;
        const std::string utf8 = ToUtf8(name);
        std::u16string back;
        if (!TryFromUtf8(utf8, back) || back != name || utf8.size() > 255) continue;
        const std::string bytes = name.size() % 3 == 0 ? std::string() : utf8 + utf8;
        if (made.insert(name).second)
            std::ofstream(g_dir + "/files/" + utf8, std::ios::binary) << bytes;
        try {
            message->AttachFile(dir + name);
            assert(detail::NativePath(name));
            f.files.push_back({name, bytes});
            f.breaksInValues |= HasLineBreak(name);
        } catch (const RaisedError& error) {
            assert(error.Number() == ERROR_FILE_NOT_FOUND || error.Number() == ERROR_KEY_IN_USE);
            assert(error.Number() != ERROR_FILE_NOT_FOUND || !detail::NativePath(name));
        }
    }
    for (Mode mode : kModes) CheckText(detail::MailMessageAccess::BuildMessage(*message), f, mode);
    return 0;
}
