// Quoted-printable for the message bodies. Far more is encoded than RFC 2045 requires: only
// 33-45, 47-60 and 62-126 stay literal, so line ends, spaces and "." never appear as such and
// the only physical line breaks are the encoder's own soft breaks.
#include "encoding/quoted_printable.h"

#include <array>
#include <string>

#include "encoding/uninitialized_append.h"
#include "platform/codepage.h"

namespace larkpost::detail {
namespace {

// The current line may hold at most this many characters before the "=" of a soft break.
constexpr std::size_t kMaxLineLength = 75;
constexpr char kSoftBreak[] = {'=', '\r', '\n'};

constexpr bool StaysLiteral(unsigned code) {
    return (code >= 33 && code <= 45) || (code >= 47 && code <= 60) || (code >= 62 && code <= 126);
}

// What one code turns into: itself, or "=" and two upper-case hexadecimal digits.
struct Piece {
    std::array<char, 3> text{};
    unsigned char length = 0;
};

constexpr std::array<Piece, 256> MakePieces() {
    constexpr char hex[] = "0123456789ABCDEF";
    std::array<Piece, 256> pieces{};
    for (unsigned code = 0; code < 256; ++code) {
        Piece& piece = pieces[code];
        if (StaysLiteral(code)) {
            piece.text = {static_cast<char>(code), 0, 0};
            piece.length = 1;
        } else {
            piece.text = {'=', hex[code >> 4], hex[code & 0xF]};
            piece.length = 3;
        }
    }
    return pieces;
}

constexpr std::array<Piece, 256> kPieces = MakePieces();

// The line-filling rule, shared by the length pass and the writing pass so the two agree:
// a soft break comes before any piece that would take the line past 75 characters.
template <typename OnSoftBreak, typename OnPiece>
void WalkPieces(std::string_view codes, OnSoftBreak onSoftBreak, OnPiece onPiece) {
    std::size_t lineLength = 0;
    for (unsigned char code : codes) {
        const Piece& piece = kPieces[code];
        if (lineLength + piece.length > kMaxLineLength) {
            onSoftBreak();
            lineLength = 0;
        }
        onPiece(piece);
        lineLength += piece.length;
    }
}

}  // namespace

void QuotedPrintableEncodeTo(std::u16string_view text, std::string& out) {
    const std::string codes = ToAnsi(text);

    std::size_t length = 0;
    WalkPieces(
        codes, [&] { length += std::size(kSoftBreak); },
        [&](const Piece& piece) { length += piece.length; });

    char* dst = AppendUninitialized(out, length);
    WalkPieces(
        codes,
        [&] {
            for (char c : kSoftBreak) *dst++ = c;
        },
        [&](const Piece& piece) {
            if (piece.length == 1) {
                *dst++ = piece.text[0];
            } else {
                dst[0] = piece.text[0];
                dst[1] = piece.text[1];
                dst[2] = piece.text[2];
                dst += 3;
            }
        });
}

std::string QuotedPrintableEncode(const std::u16string& text) {
    std::string out;
    QuotedPrintableEncodeTo(text, out);
    return out;
}

}  // namespace larkpost::detail
