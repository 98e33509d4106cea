// One parsed SMTP reply.
#ifndef LARKPOST_SMTP_SMTP_RESPONSE_H
#define LARKPOST_SMTP_SMTP_RESPONSE_H

#include <cstdint>
#include <string>
#include <vector>

namespace larkpost::detail {

struct SmtpResponse {
    // The number in the first three characters of the last line.
    int32_t Code = 0;
    // Every line in order of arrival, without its CR LF.
    std::vector<std::u16string> Lines;
    int32_t LineCount = 0;
    // All lines, each followed by CR LF.
    std::u16string Text;
    // Code is 400 or more.
    bool IsError = false;
};

}  // namespace larkpost::detail

#endif
