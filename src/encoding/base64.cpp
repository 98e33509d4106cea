// Table-driven Base64 (RFC 2045 alphabet, "=" padding) in lines of 76 characters joined by CR LF.
#include "encoding/base64.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstdint>
#include <cstring>

#include "platform/codepage.h"

// On x86 the groups of whole lines are encoded with SSSE3 or AVX2 when the CPU has them,
// chosen once at run time; elsewhere, and for short pieces, by the table.
#if (defined(__x86_64__) || defined(__i386__)) && (defined(__GNUC__) || defined(__clang__))
#define LARKPOST_BASE64_X86 1
#include <immintrin.h>
#else
#define LARKPOST_BASE64_X86 0
#endif

namespace larkpost::detail {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::size_t kLineCharacters = 76;
constexpr std::size_t kLineBytes = kLineCharacters / 4 * 3;  // 57
// Lines encoded before each copy into the output (about 10 KB of buffer).
constexpr std::size_t kChunkLines = 64;

// The two output characters of every 12-bit value, packed so that one 16-bit store writes them
// in order: three input bytes become two lookups and two stores.
constexpr std::array<uint16_t, 4096> MakePairTable() {
    std::array<uint16_t, 4096> pairs{};
    for (uint32_t v = 0; v < 4096; ++v) {
        const uint32_t first = static_cast<unsigned char>(kAlphabet[v >> 6]);
        const uint32_t second = static_cast<unsigned char>(kAlphabet[v & 0x3F]);
        pairs[v] = static_cast<uint16_t>(std::endian::native == std::endian::little
                                             ? (first | second << 8)
                                             : (first << 8 | second));
    }
    return pairs;
}

constexpr std::array<uint16_t, 4096> kPairs = MakePairTable();

inline void StorePairs(char* dst, uint32_t bits24) {
    const uint16_t high = kPairs[bits24 >> 12];
    const uint16_t low = kPairs[bits24 & 0xFFF];
    std::memcpy(dst, &high, sizeof high);
    std::memcpy(dst + 2, &low, sizeof low);
}

// Whole groups of three bytes, two groups a step.
char* EncodeGroupsScalar(const unsigned char* src, std::size_t groups, char* dst) {
    for (; groups >= 2; groups -= 2, src += 6, dst += 8) {
        const uint64_t bits48 = uint64_t{src[0]} << 40 | uint64_t{src[1]} << 32 |
                                uint64_t{src[2]} << 24 | uint64_t{src[3]} << 16 |
                                uint64_t{src[4]} << 8 | src[5];
        StorePairs(dst, static_cast<uint32_t>(bits48 >> 24));
        StorePairs(dst + 4, static_cast<uint32_t>(bits48) & 0xFFFFFF);
    }
    if (groups != 0) {
        StorePairs(dst, uint32_t{src[0]} << 16 | uint32_t{src[1]} << 8 | src[2]);
        dst += 4;
    }
    return dst;
}

#if LARKPOST_BASE64_X86
// Four groups (12 bytes) to sixteen characters: one shuffle and two multiplies split the bytes
// into 6-bit values, and range arithmetic maps them to the alphabet.
// `spread` picks the 12 bytes out of the 16 loaded.
__attribute__((target("ssse3"))) inline void EncodeStepSsse3(__m128i loaded, __m128i spread,
                                                             char* dst) {
    const __m128i in = _mm_shuffle_epi8(loaded, spread);
    const __m128i high =
        _mm_mulhi_epu16(_mm_and_si128(in, _mm_set1_epi32(0x0FC0FC00)), _mm_set1_epi32(0x04000040));
    const __m128i low =
        _mm_mullo_epi16(_mm_and_si128(in, _mm_set1_epi32(0x003F03F0)), _mm_set1_epi32(0x01000010));
    const __m128i values = _mm_or_si128(high, low);
    // 0..25 -> 13, 26..51 -> 0, 52..61 -> 1..10, 62 -> 11, 63 -> 12: the index of the offset
    // that turns the value into its character.
    __m128i range = _mm_subs_epu8(values, _mm_set1_epi8(51));
    range = _mm_or_si128(
        range, _mm_and_si128(_mm_cmpgt_epi8(_mm_set1_epi8(26), values), _mm_set1_epi8(13)));
    const __m128i offsets =
        _mm_setr_epi8('a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                      '0' - 52, '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0);
    const __m128i ascii = _mm_add_epi8(_mm_shuffle_epi8(offsets, range), values);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), ascii);
}

// Every step loads 16 bytes, so no byte outside the groups is ever read: the first step uses the
// first 12 of its load, every later one loads 4 bytes early and uses the last 12. The groups
// left at the end are covered by one more step that overlaps the previous one and writes the
// same characters again.
__attribute__((target("ssse3"))) char* EncodeGroupsSsse3(const unsigned char* src,
                                                         std::size_t groups, char* dst) {
    if (groups < 6) return EncodeGroupsScalar(src, groups, dst);
    const __m128i first = _mm_set_epi8(10, 11, 9, 10, 7, 8, 6, 7, 4, 5, 3, 4, 1, 2, 0, 1);
    const __m128i later = _mm_add_epi8(first, _mm_set1_epi8(4));
    auto loadEndingAt = [src](std::size_t group) {
        return _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + group * 3 - 4));
    };
    EncodeStepSsse3(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src)), first, dst);
    std::size_t group = 4;
    for (; group + 4 <= groups; group += 4)
        EncodeStepSsse3(loadEndingAt(group), later, dst + group * 4);
    if (group < groups) EncodeStepSsse3(loadEndingAt(groups - 4), later, dst + (groups - 4) * 4);
    return dst + groups * 4;
}

// The same with eight groups (24 bytes) a step, two 16-byte loads in the two lanes.
__attribute__((target("avx2"))) inline void EncodeStepAvx2(__m256i loaded, __m256i spread,
                                                           char* dst) {
    const __m256i in = _mm256_shuffle_epi8(loaded, spread);
    const __m256i high = _mm256_mulhi_epu16(_mm256_and_si256(in, _mm256_set1_epi32(0x0FC0FC00)),
                                            _mm256_set1_epi32(0x04000040));
    const __m256i low = _mm256_mullo_epi16(_mm256_and_si256(in, _mm256_set1_epi32(0x003F03F0)),
                                           _mm256_set1_epi32(0x01000010));
    const __m256i values = _mm256_or_si256(high, low);
    __m256i range = _mm256_subs_epu8(values, _mm256_set1_epi8(51));
    range = _mm256_or_si256(range, _mm256_and_si256(_mm256_cmpgt_epi8(_mm256_set1_epi8(26), values),
                                                    _mm256_set1_epi8(13)));
    const __m256i offsets =
        _mm256_setr_epi8('a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                         '0' - 52, '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0,
                         'a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                         '0' - 52, '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0);
    const __m256i ascii = _mm256_add_epi8(_mm256_shuffle_epi8(offsets, range), values);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst), ascii);
}

__attribute__((target("avx2"))) inline __m256i LoadLanesAvx2(const unsigned char* src,
                                                             std::size_t lowAt,
                                                             std::size_t highAt) {
    const __m128i low = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + lowAt));
    const __m128i high = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + highAt));
    return _mm256_inserti128_si256(_mm256_castsi128_si256(low), high, 1);
}

// Loads as in the SSSE3 version: each lane reads the 16 bytes that end with its 12, except the
// lower lane of the first step, which reads the 16 that start with them.
__attribute__((target("avx2"))) char* EncodeGroupsAvx2(const unsigned char* src, std::size_t groups,
                                                       char* dst) {
    if (groups < 10) return EncodeGroupsSsse3(src, groups, dst);
    const __m128i first = _mm_set_epi8(10, 11, 9, 10, 7, 8, 6, 7, 4, 5, 3, 4, 1, 2, 0, 1);
    const __m128i later = _mm_add_epi8(first, _mm_set1_epi8(4));
    const __m256i spreadFirst = _mm256_inserti128_si256(_mm256_castsi128_si256(first), later, 1);
    const __m256i spreadLater = _mm256_inserti128_si256(_mm256_castsi128_si256(later), later, 1);
    EncodeStepAvx2(LoadLanesAvx2(src, 0, 8), spreadFirst, dst);
    std::size_t group = 8;
    for (; group + 8 <= groups; group += 8)
        EncodeStepAvx2(LoadLanesAvx2(src, group * 3 - 4, group * 3 + 8), spreadLater,
                       dst + group * 4);
    if (group < groups) {
        group = groups - 8;
        EncodeStepAvx2(LoadLanesAvx2(src, group * 3 - 4, group * 3 + 8), spreadLater,
                       dst + group * 4);
    }
    return dst + groups * 4;
}
#endif

using GroupEncoder = char* (*)(const unsigned char*, std::size_t, char*);

GroupEncoder KernelByName(std::string_view name) {
#if LARKPOST_BASE64_X86
    __builtin_cpu_init();  // harmless if done already; needed before libgcc's constructor has run
    if ((name.empty() || name == "avx2") && __builtin_cpu_supports("avx2")) return EncodeGroupsAvx2;
    if ((name.empty() || name == "ssse3") && __builtin_cpu_supports("ssse3"))
        return EncodeGroupsSsse3;
#endif
    return name.empty() || name == "scalar" ? EncodeGroupsScalar : nullptr;
}

// Chosen at the first use rather than by a static constructor, which another translation
// unit's static initialisation could come before.
std::atomic<GroupEncoder> g_encodeGroups{nullptr};

GroupEncoder CurrentKernel() {
    GroupEncoder kernel = g_encodeGroups.load(std::memory_order_relaxed);
    if (kernel == nullptr) {
        kernel = KernelByName({});
        g_encodeGroups.store(kernel, std::memory_order_relaxed);
    }
    return kernel;
}

// The last one or two bytes, padded to four characters.
inline char* EncodeTail(const unsigned char* src, std::size_t count, char* dst) {
    const uint32_t bits = uint32_t{src[0]} << 16 | (count == 2 ? uint32_t{src[1]} << 8 : 0u);
    dst[0] = kAlphabet[bits >> 18];
    dst[1] = kAlphabet[(bits >> 12) & 0x3F];
    dst[2] = count == 2 ? kAlphabet[(bits >> 6) & 0x3F] : '=';
    dst[3] = '=';
    return dst + 4;
}

// Encodes lines into a small buffer that stays in the cache and hands each full buffer to
// append: the output is written once, with no zero-filling of it beforehand.
template <class Append>
void EncodeInChunks(std::string_view bytes, Append append) {
    const GroupEncoder encodeGroups = CurrentKernel();
    char chunk[kChunkLines * (kLineCharacters + 2)];
    const auto* src = reinterpret_cast<const unsigned char*>(bytes.data());
    std::size_t remaining = bytes.size();
    while (remaining != 0) {
        char* dst = chunk;
        for (std::size_t line = 0; line < kChunkLines && remaining != 0; ++line) {
            const std::size_t take = std::min(remaining, kLineBytes);
            dst = encodeGroups(src, take / 3, dst);
            if (take % 3 != 0)
                dst = EncodeTail(src + take / 3 * 3, take % 3, dst);  // last line only
            src += take;
            remaining -= take;
            if (remaining != 0) {  // no line end after the last line
                dst[0] = '\r';
                dst[1] = '\n';
                dst += 2;
            }
        }
        append(chunk, dst);
    }
}

template <class Text>
void ReserveFor(Text& out, std::size_t byteCount) {
    const std::size_t needed = out.size() + Base64EncodedLength(byteCount);
    if (needed > out.capacity()) out.reserve(std::max(needed, out.capacity() * 2));
}

}  // namespace

std::size_t Base64EncodedLength(std::size_t n) {
    if (n == 0) return 0;
    const std::size_t characters = (n / 3 + (n % 3 != 0)) * 4;
    const std::size_t lines = (characters + kLineCharacters - 1) / kLineCharacters;
    return characters + 2 * (lines - 1);
}

void Base64EncodeBytesTo(std::string_view bytes, std::string& out) {
    ReserveFor(out, bytes.size());
    EncodeInChunks(bytes, [&](const char* begin, const char* end) { out.append(begin, end); });
}

void Base64EncodeBytesTo(std::string_view bytes, std::u16string& out) {
    ReserveFor(out, bytes.size());
    EncodeInChunks(bytes, [&](const char* begin, const char* end) { out.append(begin, end); });
}

bool SelectBase64KernelForTesting(std::string_view name) {
    const GroupEncoder kernel = KernelByName(name);
    if (kernel != nullptr) g_encodeGroups.store(kernel, std::memory_order_relaxed);
    return kernel != nullptr;
}

std::u16string Base64Encode(std::u16string_view text) {
    const std::string bytes = ToAnsi(text);
    std::u16string out;
    Base64EncodeBytesTo(bytes, out);
    return out;
}

}  // namespace larkpost::detail
