// The system timer and Sleep, each replaceable per thread by tests.
#ifndef LARKPOST_PLATFORM_CLOCK_H
#define LARKPOST_PLATFORM_CLOCK_H

#include <cstdint>
#include <functional>

namespace larkpost::detail {

// Seconds since local midnight, with a fractional part.
float SystemTimer();
// The local date and time now, with the offset of local time from UTC, for a message's Date.
struct LocalDateTime {
    int year, month, day, weekday, hour, minute, second;  // month 1-12, weekday 0 = Sunday
    int offsetMinutes;                                    // east of UTC is positive
};
LocalDateTime CurrentLocalDateTime();
// Blocks the thread; pumps nothing.
void Sleep(int32_t milliseconds);

// Test seams, per thread; an empty function restores the real one.
void SetSystemTimerForTesting(std::function<float()> timer);
void SetSleepForTesting(std::function<void(int32_t)> sleep);
// Scales every Ticker interval on this thread (0.01 makes a 1000 ms tick last 10 ms), so tests
// of time-outs run fast. 1 restores real time.
void SetTickScaleForTesting(double scale);
double TickScale();

}  // namespace larkpost::detail

#endif
