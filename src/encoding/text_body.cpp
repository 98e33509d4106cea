#include "encoding/text_body.h"

#include "encoding/base64.h"
#include "encoding/uninitialized_append.h"
#include "larkpost/text.h"

namespace larkpost::detail {
namespace {

// Characters on a line before the "=" of a soft break.
constexpr std::size_t kMaxLineLength = 75;

// The encoding rule, shared by the length pass and the writing pass so the two agree: emit
// receives each piece of output, soft breaks and line ends included.
template <typename Emit>
void WalkQuotedPrintable(std::string_view bytes, Emit emit) {
    constexpr char hex[] = "0123456789ABCDEF";
    std::size_t line = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const unsigned char b = bytes[i];
        const bool lineEndNext = i + 1 == bytes.size() || bytes.substr(i + 1, 2) == "\r\n";
        if (b == '\r' && bytes.substr(i, 2) == "\r\n") {
            emit("\r\n", 2);
            line = 0;
            ++i;
            continue;
        }
        // A "." or "From " may not start a line, nor a space or tab end one.
        auto literalAt = [&](std::size_t column) {
            if (b == ' ' || b == '\t') return !lineEndNext;
            return b >= 33 && b <= 126 && b != '=' &&
                   !(column == 0 && (b == '.' || (b == 'F' && bytes.substr(i, 5) == "From ")));
        };
        if (line + (literalAt(line) ? 1 : 3) > kMaxLineLength) {
            emit("=\r\n", 3);
            line = 0;
        }
        const bool literal = literalAt(line);
        const std::size_t length = literal ? 1 : 3;
        const char encoded[3] = {'=', hex[b >> 4], hex[b & 15]};
        if (literal)
            emit(reinterpret_cast<const char*>(&bytes[i]), 1);
        else
            emit(encoded, 3);
        line += length;
    }
}

}  // namespace

void StandardQuotedPrintableTo(std::string_view bytes, std::u16string& out) {
    std::size_t length = 0;
    WalkQuotedPrintable(bytes, [&](const char*, std::size_t n) { length += n; });
    char16_t* dst = AppendUninitialized(out, length);
    WalkQuotedPrintable(bytes, [&](const char* piece, std::size_t n) {
        for (std::size_t k = 0; k < n; ++k) *dst++ = static_cast<unsigned char>(piece[k]);
    });
}

EncodedTextBody EncodeTextBody(std::u16string_view body) {
    const std::string bytes = ToUtf8(body);
    EncodedTextBody encoded{u"quoted-printable", {}};
    StandardQuotedPrintableTo(bytes, encoded.text);
    if (Base64EncodedLength(bytes.size()) < encoded.text.size()) {
        encoded.transferEncoding = u"base64";
        encoded.text.clear();
        encoded.text.shrink_to_fit();
        Base64EncodeBytesTo(bytes, encoded.text);
    }
    return encoded;
}

}  // namespace larkpost::detail
