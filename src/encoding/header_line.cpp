#include "encoding/header_line.h"

#include <algorithm>
#include <string>
#include <vector>

#include "encoding/base64.h"
#include "larkpost/text.h"

namespace larkpost::detail {
namespace {

constexpr std::size_t kFoldAt = 78;
// Every atom leaves this much room behind it, for the "," or ";" that may follow it.
constexpr std::size_t kReserve = 1;
// "=?utf-8?Q?" and "?=" around the encoded text; a whole word is at most 75 characters.
constexpr std::size_t kWordFrame = 12;
constexpr std::size_t kMaxWordText = 75 - kWordFrame;
// Percent-encoded characters in one piece of an RFC 2231 value.
constexpr std::size_t kMaxPiece = 48;
constexpr char16_t kHex[] = u"0123456789ABCDEF";

bool IsPrintableAscii(char16_t c) { return c >= 0x20 && c <= 0x7E; }

// Characters that stand for themselves in a "Q" encoded word anywhere, display names included
// (RFC 2047, 5(3)); a space is "_".
bool StaysLiteralInQ(unsigned char b) {
    return (b >= 'a' && b <= 'z') || (b >= 'A' && b <= 'Z') || (b >= '0' && b <= '9') || b == '!' ||
           b == '*' || b == '+' || b == '-' || b == '/' || b == ' ';
}

// RFC 2231 attribute characters, which an extended value writes as they are.
bool IsAttributeChar(unsigned char b) {
    return (b >= 'a' && b <= 'z') || (b >= 'A' && b <= 'Z') || (b >= '0' && b <= '9') ||
           std::u16string_view(u"!#$&+-.^_`|~").find(b) != std::u16string_view::npos;
}

void AppendHexByte(std::u16string& out, char16_t lead, unsigned char b) {
    out += lead;
    out += kHex[b >> 4];
    out += kHex[b & 15];
}

std::u16string Quoted(std::u16string_view text) {
    std::u16string quoted = u"\"";
    for (char16_t c : text) {
        if (c == u'"' || c == u'\\') quoted += u'\\';
        quoted += c;
    }
    return quoted + u"\"";
}

// The UTF-8 bytes of each character in turn; a lone surrogate is U+FFFD.
std::vector<std::string> Utf8Characters(std::u16string_view text) {
    std::vector<std::string> characters;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool pair = i + 1 < text.size() && text[i] >= 0xD800 && text[i] < 0xDC00 &&
                          text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000;
        characters.push_back(ToUtf8(text.substr(i, pair ? 2 : 1)));
        i += pair ? 1 : 0;
    }
    return characters;
}

std::size_t QLength(std::string_view bytes) {
    std::size_t length = 0;
    for (unsigned char b : bytes) length += StaysLiteralInQ(b) ? 1 : 3;
    return length;
}

std::size_t BLength(std::size_t bytes) { return (bytes + 2) / 3 * 4; }

}  // namespace

HeaderLine::HeaderLine(std::u16string_view name) : m_text(name) { m_text += u':'; }

std::size_t HeaderLine::Room() const {
    const std::size_t used = m_text.size() - m_lineStart;
    return used >= kFoldAt ? 0 : kFoldAt - used;
}

void HeaderLine::Atom(std::u16string_view text, bool spaceBefore) {
    if (spaceBefore) {
        if (1 + text.size() + kReserve > Room()) {
            m_text += u"\r\n";
            m_lineStart = m_text.size();
        }
        m_text += u' ';
    }
    m_text += text;
}

void HeaderLine::Unstructured(std::u16string_view text) {
    // Plain words unfold to exactly the text: single spaces between them, none at the ends, no
    // "=?" that a reader would take for an encoded word, each word short enough to fold.
    bool plain = text.find(u"=?") == text.npos && text.find(u"  ") == text.npos &&
                 (text.empty() || (text.front() != u' ' && text.back() != u' ')) &&
                 std::all_of(text.begin(), text.end(), IsPrintableAscii);
    std::vector<std::u16string_view> words;
    for (std::size_t start = 0; plain;) {
        const std::size_t end = std::min(text.find(u' ', start), text.size());
        words.push_back(text.substr(start, end - start));
        plain = words.back().size() + 1 + kReserve <= kFoldAt - 1;
        if (end == text.size()) break;
        start = end + 1;
    }
    if (!plain) return EncodedWords(text);
    for (auto word : words) Atom(word);
}

void HeaderLine::Phrase(std::u16string_view text) {
    const std::u16string quoted = Quoted(text);
    if (std::all_of(text.begin(), text.end(), IsPrintableAscii) &&
        1 + quoted.size() + kReserve <= kFoldAt - 1)
        return Atom(quoted);
    EncodedWords(text);
}

void HeaderLine::EncodedWords(std::u16string_view text) {
    const std::vector<std::string> characters = Utf8Characters(text);
    std::size_t allBytes = 0, allQ = 0;
    for (const auto& bytes : characters) allBytes += bytes.size(), allQ += QLength(bytes);
    const bool useQ = allQ <= BLength(allBytes);
    // The longest character: 4 bytes, 12 characters in "Q", 8 in "B".
    constexpr std::size_t kLongestCharacter = 12;
    for (std::size_t next = 0; next < characters.size();) {
        const std::size_t room = Room() > 1 + kWordFrame + kReserve + kLongestCharacter
                                     ? Room() - 1 - kWordFrame - kReserve
                                     : kMaxWordText;
        const std::size_t limit = std::min(room, kMaxWordText);
        std::string bytes;
        std::size_t length = 0;
        for (; next < characters.size(); ++next) {
            const std::string& c = characters[next];
            const std::size_t grown = useQ ? length + QLength(c) : BLength(bytes.size() + c.size());
            if (grown > limit) break;
            bytes += c;
            length = grown;
        }
        std::u16string word = useQ ? u"=?utf-8?Q?" : u"=?utf-8?B?";
        if (useQ) {
            for (unsigned char b : bytes) {
                if (b == ' ')
                    word += u'_';
                else if (StaysLiteralInQ(b))
                    word += char16_t(b);
                else
                    AppendHexByte(word, u'=', b);
            }
        } else {
            Base64EncodeBytesTo(bytes, word);  // at most 45 bytes: one line
        }
        Atom(word + u"?=");
    }
}

void HeaderLine::Parameter(std::u16string_view name, std::u16string_view value) {
    m_text += u';';
    // A token stands as it is, other printable ASCII as a quoted string.
    const bool token = !value.empty() && std::all_of(value.begin(), value.end(), [](char16_t c) {
        return c > 0x20 && c < 0x7F &&
               std::u16string_view(u"()<>@,;:\\\"/[]?=").find(c) == std::u16string_view::npos;
    });
    const std::u16string quoted = token ? std::u16string(value) : Quoted(value);
    if (std::all_of(value.begin(), value.end(), IsPrintableAscii) &&
        name.size() + 2 + quoted.size() + kReserve <= kFoldAt - 1)
        return Atom(std::u16string(name) + u"=" + quoted);
    // An RFC 2231 value: percent-encoded UTF-8, in numbered pieces when it is long.
    std::u16string encoded;
    for (unsigned char b : ToUtf8(value)) {
        if (IsAttributeChar(b))
            encoded += char16_t(b);
        else
            AppendHexByte(encoded, u'%', b);
    }
    std::vector<std::u16string_view> pieces;
    for (std::size_t start = 0; start < encoded.size() || pieces.empty();) {
        std::size_t end = std::min(start + kMaxPiece, encoded.size());
        // A piece never ends inside a "%XX".
        if (end < encoded.size() && encoded[end - 1] == u'%')
            end -= 1;
        else if (end < encoded.size() && encoded[end - 2] == u'%')
            end -= 2;
        pieces.push_back(std::u16string_view(encoded).substr(start, end - start));
        start = end;
    }
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        if (i > 0) m_text += u';';
        std::u16string piece(name);
        if (pieces.size() > 1) {
            const std::string number = std::to_string(i);
            piece += u'*';
            piece.append(number.begin(), number.end());
        }
        piece += i == 0 ? u"*=utf-8''" : u"*=";
        Atom(piece.append(pieces[i]));
    }
}

std::u16string HeaderLine::Finish() && { return std::move(m_text) + u"\r\n"; }

}  // namespace larkpost::detail
