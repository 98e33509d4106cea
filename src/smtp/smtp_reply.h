// Parsing of SMTP reply lines and of the numbers the server sends in them.
#ifndef LARKPOST_SMTP_SMTP_REPLY_H
#define LARKPOST_SMTP_SMTP_REPLY_H

#include <cstdint>
#include <string_view>

namespace larkpost::detail {

// True when another line of the same reply follows: the fourth character is "-".
bool ContinuesReply(std::u16string_view line);

// The code of a reply's last line: the number in its first three characters (fewer when the line
// is shorter). Raises 13 (type mismatch) unless they are all ASCII digits, so also for an
// empty line.
int32_t ReplyCode(std::u16string_view line);

// A whole number written in ASCII digits only (no sign, no blanks). Raises 13 for anything else,
// the empty text included, and 6 (overflow) for a value above 2147483647.
int32_t ParseWholeNumber(std::u16string_view digits);

}  // namespace larkpost::detail

#endif
