// Common: the encoders and the boundary generator behind the message assembly.
#ifndef LARKPOST_ENCODING_COMMON_H
#define LARKPOST_ENCODING_COMMON_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace larkpost::detail {

// Quoted-printable as the message bodies use it: only 33-45, 47-60 and 62-126 stay literal,
// everything else (space, CR, LF, ".", "=", bytes above 126) becomes =XX; soft breaks keep
// each line at most 76 characters. Each character goes through the code page first.
std::u16string QuotedPrintableEncode(const std::u16string& text);
// The same, appended to out.
void QuotedPrintableEncodeTo(std::u16string_view text, std::u16string& out);

// Standard Base64 with "=" padding, lines of at most 76 characters joined by CR LF, no line end
// after the last line. Each character of text goes through the code page to one byte.
std::u16string Base64Encode(std::u16string_view text);
// Base64 of raw bytes, appended to out (the attachment path: file bytes go straight in).
void Base64EncodeBytesTo(std::string_view bytes, std::u16string& out);
// Length of the Base64 text of n bytes, CR LFs included.
std::size_t Base64EncodedLength(std::size_t n);
// Test seam: encode with the named kernel, "scalar", "ssse3" or "avx2", or with an empty name the
// best one this CPU has. False, and nothing changed, when the CPU or the build lacks it.
bool SelectBase64KernelForTesting(std::string_view name);

// "--=-MessageBoundary_<n>_<timer digits>", n counting 1..32766 per thread.
std::u16string MakeBoundary();
// The timer text of a boundary: seven significant digits, no exponent, "." removed.
std::u16string TimerText(float seconds);
// Test seam: the counter of this thread.
void SetBoundaryCounterForTesting(int16_t value);
int16_t BoundaryCounterForTesting();

// All that follows the last "." of a name, or nothing when it has none.
std::optional<std::u16string> GetFileExtension(std::u16string_view fileName);

}  // namespace larkpost::detail

#endif
