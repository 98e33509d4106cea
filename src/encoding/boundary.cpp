// Boundary strings of the MIME entities: a fixed prefix, a per-thread sequence number and the
// time of day. The number alone keeps the two boundaries of one message apart.
#include "encoding/boundary.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <string>

#include "platform/clock.h"

namespace larkpost::detail {
namespace {

constexpr char16_t kBoundaryPrefix[] = u"--=-MessageBoundary_";
constexpr int16_t kCounterLimit = 32767;

// The number the next boundary of this thread uses, before the wrap rule.
thread_local int16_t t_boundaryCounter = 0;

void AppendAscii(std::u16string& out, std::string_view ascii) {
    out.append(ascii.begin(), ascii.end());
}

// The value rounded to seven significant digits in plain positional notation: no exponent, no
// trailing zeros, no point when nothing follows it, "0." before a value below 1. The point is
// always "."; the text does not depend on the locale.
std::string SevenDigitText(float value) {
    if (!std::isfinite(value)) value = 0;  // the timer never gives these; keep the text digits only
    char scientific[32];
    // "d.dddddde+XX": exactly seven significant digits, correctly rounded.
    const auto [end, ec] = std::to_chars(scientific, scientific + sizeof scientific, double{value},
                                         std::chars_format::scientific, 6);
    std::string_view text(scientific, ec == std::errc{} ? end - scientific : 0);

    std::string result;
    if (!text.empty() && text.front() == '-') {
        result += '-';
        text.remove_prefix(1);
    }
    const std::size_t e = text.find('e');
    std::string digits;
    digits += text[0];
    digits.append(text.substr(2, e - 2));
    int exponent = 0;
    std::from_chars(text.data() + e + 1 + (text[e + 1] == '+'), text.data() + text.size(),
                    exponent);

    while (digits.size() > 1 && digits.back() == '0') digits.pop_back();
    if (digits == "0") return "0";

    if (exponent >= 0) {
        const std::size_t integerDigits = static_cast<std::size_t>(exponent) + 1;
        if (digits.size() <= integerDigits) {
            result += digits;
            result.append(integerDigits - digits.size(), '0');
        } else {
            result.append(digits, 0, integerDigits);
            result += '.';
            result.append(digits, integerDigits);
        }
    } else {
        result += "0.";
        result.append(static_cast<std::size_t>(-exponent - 1), '0');
        result += digits;
    }
    return result;
}

}  // namespace

std::u16string TimerText(float seconds) {
    std::string text = SevenDigitText(seconds);
    std::u16string digits;
    for (char c : text)
        if (c != '.') digits += static_cast<char16_t>(c);
    return digits;
}

std::u16string MakeBoundary() {
    // 0 and 32767 are never used, and the increment below cannot overflow.
    if (t_boundaryCounter == kCounterLimit) t_boundaryCounter = 0;
    if (t_boundaryCounter == 0) t_boundaryCounter = 1;
    const float timer = SystemTimer();

    std::u16string boundary = kBoundaryPrefix;
    AppendAscii(boundary, std::to_string(t_boundaryCounter));
    boundary += u'_';
    boundary += TimerText(timer);

    ++t_boundaryCounter;
    return boundary;
}

void SetBoundaryCounterForTesting(int16_t value) { t_boundaryCounter = value; }

int16_t BoundaryCounterForTesting() { return t_boundaryCounter; }

}  // namespace larkpost::detail
