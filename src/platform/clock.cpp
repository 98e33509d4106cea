#include "platform/clock.h"

#include <time.h>

#include <chrono>
#include <thread>

namespace larkpost::detail {

namespace {

thread_local std::function<float()> t_systemTimer;
thread_local std::function<void(int32_t)> t_sleep;
thread_local double t_tickScale = 1.0;

float RealSystemTimer() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    const double seconds = local.tm_hour * 3600.0 + local.tm_min * 60.0 + local.tm_sec +
                           static_cast<double>(now.tv_nsec) / 1e9;
    return static_cast<float>(seconds);
}

}  // namespace

float SystemTimer() { return t_systemTimer ? t_systemTimer() : RealSystemTimer(); }

LocalDateTime CurrentLocalDateTime() {
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    return {local.tm_year + 1900, local.tm_mon + 1,
            local.tm_mday,        local.tm_wday,
            local.tm_hour,        local.tm_min,
            local.tm_sec,         static_cast<int>(local.tm_gmtoff / 60)};
}

void Sleep(int32_t milliseconds) {
    if (t_sleep) {
        t_sleep(milliseconds);
        return;
    }
    // A negative time sleeps not at all, rather than for 49 days as an unsigned count would.
    if (milliseconds > 0) std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

void SetSystemTimerForTesting(std::function<float()> timer) { t_systemTimer = std::move(timer); }

void SetSleepForTesting(std::function<void(int32_t)> sleep) { t_sleep = std::move(sleep); }

void SetTickScaleForTesting(double scale) { t_tickScale = scale > 0 ? scale : 1.0; }

double TickScale() { return t_tickScale; }

}  // namespace larkpost::detail
