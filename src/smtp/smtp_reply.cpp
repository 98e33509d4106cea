#include "smtp/smtp_reply.h"

#include <limits>

#include "platform/errors.h"

namespace larkpost::detail {

namespace {
constexpr std::size_t kCodeLength = 3;
constexpr std::size_t kSeparatorIndex = 3;

bool IsAsciiDigit(char16_t c) { return c >= u'0' && c <= u'9'; }
}  // namespace

bool ContinuesReply(std::u16string_view line) {
    return line.size() > kSeparatorIndex && line[kSeparatorIndex] == u'-';
}

int32_t ReplyCode(std::u16string_view line) {
    return ParseWholeNumber(line.substr(0, kCodeLength));
}

int32_t ParseWholeNumber(std::u16string_view digits) {
    if (digits.empty()) RaiseRuntime(ERROR_TYPE_MISMATCH, kSourceMailClient);
    for (char16_t c : digits) {
        if (!IsAsciiDigit(c)) RaiseRuntime(ERROR_TYPE_MISMATCH, kSourceMailClient);
    }
    constexpr int64_t kMax = std::numeric_limits<int32_t>::max();
    int64_t value = 0;
    for (char16_t c : digits) {
        value = value * 10 + (c - u'0');
        if (value > kMax) RaiseRuntime(ERROR_OVERFLOW, kSourceMailClient);
    }
    return static_cast<int32_t>(value);
}

}  // namespace larkpost::detail
