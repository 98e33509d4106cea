// Conversions between the library's 16-bit text and UTF-8, for hosts that hold UTF-8 strings.
#ifndef LARKPOST_TEXT_H
#define LARKPOST_TEXT_H

#include <string>
#include <string_view>

#include "larkpost/export.h"

namespace larkpost {

// UTF-16 to UTF-8. An unpaired surrogate becomes U+FFFD.
LARKPOST_API std::string ToUtf8(std::u16string_view text);

// UTF-8 to UTF-16. Throws RaisedError 5 (invalid argument) on malformed UTF-8.
LARKPOST_API std::u16string FromUtf8(std::string_view text);

// UTF-8 to UTF-16 without throwing: false on malformed input (out is then unspecified).
LARKPOST_API bool TryFromUtf8(std::string_view text, std::u16string& out);

}  // namespace larkpost

#endif
