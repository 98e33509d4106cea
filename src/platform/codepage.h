// The ANSI code page of the library: Windows-1252. Every byte maps to one character and back;
// a character the page lacks becomes "?". All text-to-byte conversions go through here.
#ifndef LARKPOST_PLATFORM_CODEPAGE_H
#define LARKPOST_PLATFORM_CODEPAGE_H

#include <string>
#include <string_view>

namespace larkpost::detail {

std::string ToAnsi(std::u16string_view text);
void AppendAnsi(std::string& out, std::u16string_view text);
std::u16string FromAnsi(std::string_view bytes);
void AppendFromAnsi(std::u16string& out, std::string_view bytes);

}  // namespace larkpost::detail

#endif
