#include "encoding/text_body.h"

#include <algorithm>
#include <array>

#include "encoding/base64.h"
#include "encoding/uninitialized_append.h"
#include "larkpost/text.h"

namespace larkpost::detail {
namespace {

// Characters on a line before the "=" of a soft break.
constexpr std::size_t kMaxLineLength = 75;

// What a byte is to the encoder, by its value alone: a printable character (33-126 but "="),
// a space or tab, CR, or anything else.
enum class ByteClass : unsigned char { kPrintable, kBlank, kCR, kOther };

constexpr std::array<ByteClass, 256> MakeByteClasses() {
    std::array<ByteClass, 256> classes{};
    for (unsigned b = 0; b < 256; ++b)
        classes[b] = b == ' ' || b == '\t'             ? ByteClass::kBlank
                     : b == '\r'                       ? ByteClass::kCR
                     : b >= 33 && b <= 126 && b != '=' ? ByteClass::kPrintable
                                                       : ByteClass::kOther;
    return classes;
}
constexpr std::array<ByteClass, 256> kByteClasses = MakeByteClasses();

// The encoding rule, shared by the length pass and the writing pass so the two agree: emit
// receives each piece of output, soft breaks and line ends included.
template <typename Emit>
void WalkQuotedPrintable(std::string_view bytes, Emit emit) {
    constexpr char hex[] = "0123456789ABCDEF";
    const std::size_t n = bytes.size();
    std::size_t line = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const auto b = static_cast<unsigned char>(bytes[i]);
        const ByteClass kind = kByteClasses[b];
        if (kind == ByteClass::kCR && i + 1 < n && bytes[i + 1] == '\n') {
            emit("\r\n", 2);
            line = 0;
            ++i;
            continue;
        }
        // A "." or "From " may not start a line, nor a space or tab end one.
        const bool lineEndNext =
            i + 1 == n || (bytes[i + 1] == '\r' && i + 2 < n && bytes[i + 2] == '\n');
        auto literalAt = [&](std::size_t column) {
            if (kind == ByteClass::kBlank) return !lineEndNext;
            return kind == ByteClass::kPrintable &&
                   (column != 0 || (b != '.' && !(b == 'F' && bytes.substr(i, 5) == "From ")));
        };
        bool literal = literalAt(line);
        if (line + (literal ? 1 : 3) > kMaxLineLength) {
            emit("=\r\n", 3);
            line = 0;
            literal = literalAt(0);
        }
        if (literal) {
            emit(&bytes[i], 1);
            ++line;
        } else {
            const char encoded[3] = {'=', hex[b >> 4], hex[b & 15]};
            emit(encoded, 3);
            line += 3;
        }
    }
}

}  // namespace

void StandardQuotedPrintableTo(std::string_view bytes, std::string& out) {
    std::size_t length = 0;
    WalkQuotedPrintable(bytes, [&](const char*, std::size_t n) { length += n; });
    char* dst = AppendUninitialized(out, length);
    WalkQuotedPrintable(
        bytes, [&](const char* piece, std::size_t n) { dst = std::copy_n(piece, n, dst); });
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
