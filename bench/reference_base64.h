// The lower bound the encoders are measured against: a plain table-driven Base64 encoder that
// writes into a buffer sized once, with CR LF after every 76 characters (none after the last line).
#ifndef LARKPOST_BENCH_REFERENCE_BASE64_H
#define LARKPOST_BENCH_REFERENCE_BASE64_H

#include <cstddef>
#include <string>
#include <string_view>

namespace bench {

inline std::size_t ReferenceBase64Length(std::size_t bytes) {
    const std::size_t characters = (bytes + 2) / 3 * 4;
    const std::size_t lines = (characters + 75) / 76;
    return characters + (lines ? (lines - 1) * 2 : 0);
}

// Writes the Base64 text of input to out, which must hold ReferenceBase64Length(input.size()).
inline void ReferenceBase64(std::string_view input, char* out) {
    static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const auto* in = reinterpret_cast<const unsigned char*>(input.data());
    std::size_t left = input.size();
    // 57 input bytes make one full line of 76 characters.
    while (left >= 57) {
        for (int group = 0; group < 19; ++group, in += 3) {
            const unsigned value = (in[0] << 16) | (in[1] << 8) | in[2];
            *out++ = kAlphabet[value >> 18];
            *out++ = kAlphabet[(value >> 12) & 63];
            *out++ = kAlphabet[(value >> 6) & 63];
            *out++ = kAlphabet[value & 63];
        }
        left -= 57;
        if (left) {
            *out++ = '\r';
            *out++ = '\n';
        }
    }
    for (; left >= 3; left -= 3, in += 3) {
        const unsigned value = (in[0] << 16) | (in[1] << 8) | in[2];
        *out++ = kAlphabet[value >> 18];
        *out++ = kAlphabet[(value >> 12) & 63];
        *out++ = kAlphabet[(value >> 6) & 63];
        *out++ = kAlphabet[value & 63];
    }
    if (left) {
        const unsigned value = (in[0] << 16) | (left == 2 ? in[1] << 8 : 0);
        *out++ = kAlphabet[value >> 18];
        *out++ = kAlphabet[(value >> 12) & 63];
        *out++ = left == 2 ? kAlphabet[(value >> 6) & 63] : '=';
        *out++ = '=';
    }
}

}  // namespace bench

#endif
