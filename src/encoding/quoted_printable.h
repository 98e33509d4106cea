// Quoted-printable as the message bodies use it.
#ifndef LARKPOST_ENCODING_QUOTED_PRINTABLE_H
#define LARKPOST_ENCODING_QUOTED_PRINTABLE_H

#include <string>
#include <string_view>

namespace larkpost::detail {

// Only 33-45, 47-60 and 62-126 stay literal, everything else (space, CR, LF, ".", "=", bytes
// above 126) becomes =XX; soft breaks keep each line at most 76 characters. Each character goes
// through the code page first; the result is ASCII, as it goes into the message text.
std::string QuotedPrintableEncode(const std::u16string& text);
// The same, appended to out.
void QuotedPrintableEncodeTo(std::u16string_view text, std::string& out);

}  // namespace larkpost::detail

#endif
