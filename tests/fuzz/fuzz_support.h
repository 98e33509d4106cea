// What the fuzz targets share. They build without NDEBUG: a failed assert aborts, and libFuzzer
// keeps the input.
#ifndef LARKPOST_FUZZ_SUPPORT_H
#define LARKPOST_FUZZ_SUPPORT_H

#ifdef NDEBUG
#error "the fuzz targets check with assert, and their checks call the library"
#endif
#include <cassert>
#include <string>
#include <vector>

#include "platform/clock.h"

namespace larkpost::fuzz {

// A tick lasts 100 us and Sleep returns at once, so a silence costs microseconds.
inline int UseFastTime() {
    detail::SetTickScaleForTesting(0.0001);
    detail::SetSleepForTesting([](int32_t) {});
    return 0;
}

// Little-endian pairs of bytes as 16-bit code units.
inline std::u16string CodeUnits(const uint8_t* data, std::size_t size) {
    std::u16string text;
    for (std::size_t i = 0; i + 1 < size; i += 2) text += char16_t(data[i] | data[i + 1] << 8);
    return text;
}

// The pieces of text between each `at` (one piece more than there are `at`s).
template <class Char>
std::vector<std::basic_string<Char>> Split(std::basic_string_view<Char> text, Char at) {
    std::vector<std::basic_string<Char>> pieces;
    for (std::size_t start = 0, end = 0; end != text.npos; start = end + 1)
        pieces.emplace_back(text.substr(start, (end = text.find(at, start)) - start));
    return pieces;
}

}  // namespace larkpost::fuzz

#endif
