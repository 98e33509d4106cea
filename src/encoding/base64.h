// Base64 for login tokens and attached files.
#ifndef LARKPOST_ENCODING_BASE64_H
#define LARKPOST_ENCODING_BASE64_H

#include <cstddef>
#include <string>
#include <string_view>

namespace larkpost::detail {

// Standard Base64 with "=" padding, lines of at most 76 characters joined by CR LF, no line end
// after the last line. Each character of text goes through the code page to one byte.
std::u16string Base64Encode(std::u16string_view text);
// Base64 of raw bytes, appended to out (the attachment path: file bytes go straight in).
void Base64EncodeBytesTo(std::string_view bytes, std::string& out);
void Base64EncodeBytesTo(std::string_view bytes, std::u16string& out);
// Length of the Base64 text of n bytes, CR LFs included.
std::size_t Base64EncodedLength(std::size_t n);
// Test seam: encode with the named kernel, "scalar", "ssse3" or "avx2", or with an empty name the
// best one this CPU has. False, and nothing changed, when the CPU or the build lacks it.
bool SelectBase64KernelForTesting(std::string_view name);

}  // namespace larkpost::detail

#endif
