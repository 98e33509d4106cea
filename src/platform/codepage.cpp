#include "platform/codepage.h"

#include <array>

namespace larkpost::detail {
namespace {

// Characters of bytes 0x80-0x9F. The five bytes the page leaves undefined map to the C1 control
// characters of the same value, so that every byte round-trips.
constexpr std::array<char16_t, 32> kHighControls = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

// Byte for every 16-bit character and character for every byte; built once, so conversion is
// one lookup a character either way.
struct ByteTable {
    std::array<unsigned char, 65536> bytes{};
    std::array<char16_t, 256> chars{};
    ByteTable() {
        for (unsigned b = 0; b < 256; ++b)
            chars[b] = (b >= 0x80 && b < 0xA0) ? kHighControls[b - 0x80] : static_cast<char16_t>(b);
        bytes.fill('?');
        for (unsigned c = 0; c < 256; ++c) bytes[c] = static_cast<unsigned char>(c);
        for (unsigned c = 0x80; c < 0xA0; ++c) bytes[c] = '?';
        for (unsigned i = 0; i < kHighControls.size(); ++i)
            bytes[kHighControls[i]] = static_cast<unsigned char>(0x80 + i);
    }
};

const ByteTable& Table() {
    static const ByteTable table;
    return table;
}

}  // namespace

void AppendAnsi(std::string& out, std::u16string_view text) {
    const auto& bytes = Table().bytes;
    std::size_t at = out.size();
    out.resize(at + text.size());
    char* dst = out.data() + at;
    const char16_t* src = text.data();
    const char16_t* end = src + text.size();
    // Message text is nearly all ASCII: blocks of 16 characters below 0x80 narrow in one
    // vectorisable step, everything else takes the table.
    constexpr std::size_t kBlock = 16;
    while (end - src >= static_cast<std::ptrdiff_t>(kBlock)) {
        char16_t any = 0;
        for (std::size_t i = 0; i < kBlock; ++i) any |= src[i];
        if (any < 0x80) {
            for (std::size_t i = 0; i < kBlock; ++i) dst[i] = static_cast<char>(src[i]);
        } else {
            for (std::size_t i = 0; i < kBlock; ++i) dst[i] = static_cast<char>(bytes[src[i]]);
        }
        src += kBlock;
        dst += kBlock;
    }
    while (src != end) *dst++ = static_cast<char>(bytes[*src++]);
}

std::string ToAnsi(std::u16string_view text) {
    std::string out;
    AppendAnsi(out, text);
    return out;
}

void AppendFromAnsi(std::u16string& out, std::string_view bytes) {
    std::size_t at = out.size();
    out.resize(at + bytes.size());
    char16_t* dst = out.data() + at;
    const auto& chars = Table().chars;
    for (char b : bytes) *dst++ = chars[static_cast<unsigned char>(b)];
}

std::u16string FromAnsi(std::string_view bytes) {
    std::u16string out;
    AppendFromAnsi(out, bytes);
    return out;
}

}  // namespace larkpost::detail
