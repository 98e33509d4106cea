// One parsed SMTP reply.
#ifndef LARKPOST_SMTP_SMTP_RESPONSE_H
#define LARKPOST_SMTP_SMTP_RESPONSE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace larkpost::detail {

struct SmtpResponse {
    // The number in the first three characters of the last line.
    int32_t Code = 0;
    int32_t LineCount = 0;
    // All lines, each followed by CR LF.
    std::u16string Text;
    // Code is 400 or more.
    bool IsError = false;
    // Where each line starts in Text: the lines are kept once, in Text.
    std::vector<std::size_t> LineStarts;

    // Line i in order of arrival, without its CR LF.
    std::u16string_view Line(std::size_t i) const {
        const std::size_t end = i + 1 < LineStarts.size() ? LineStarts[i + 1] : Text.size();
        return std::u16string_view(Text).substr(LineStarts[i], end - 2 - LineStarts[i]);
    }
};

}  // namespace larkpost::detail

#endif
