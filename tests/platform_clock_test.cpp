// SystemTimer and Sleep, and their per-thread test seams.
#include <time.h>

#include <chrono>
#include <cmath>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/clock.h"

namespace larkpost::detail {
namespace {

using namespace std::chrono_literals;

TEST(SystemTimer, IsSecondsSinceLocalMidnightWithAFraction) {
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    const double expected = local.tm_hour * 3600.0 + local.tm_min * 60.0 + local.tm_sec;
    const float timer = SystemTimer();
    if (expected > 86398) GTEST_SKIP() << "too close to midnight to compare";
    EXPECT_GE(timer, 0.0f);
    EXPECT_LT(std::fabs(timer - expected), 1.5) << "timer " << timer << ", local time " << expected;

    bool sawFraction = false;
    for (int i = 0; i < 50 && !sawFraction; ++i) {
        const float value = SystemTimer();
        sawFraction = value != std::floor(value);
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_TRUE(sawFraction);
}

TEST(SystemTimer, SeamReplacesItOnThisThreadOnly) {
    SetSystemTimerForTesting([] { return 42.5f; });
    EXPECT_EQ(SystemTimer(), 42.5f);
    float elsewhere = 0;
    std::thread([&] { elsewhere = SystemTimer(); }).join();
    EXPECT_NE(elsewhere, 42.5f);
    SetSystemTimerForTesting(nullptr);
    EXPECT_NE(SystemTimer(), 42.5f);
}

TEST(Sleep, BlocksForTheTimeAndNeverForANegativeOneAndItsSeamRecords) {
    auto start = std::chrono::steady_clock::now();
    Sleep(20);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
    start = std::chrono::steady_clock::now();
    Sleep(0);
    Sleep(INT32_MIN);  // taken as unsigned it would sleep for weeks
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);

    std::vector<int32_t> asked;
    SetSleepForTesting([&](int32_t ms) { asked.push_back(ms); });
    Sleep(60000);
    SetSleepForTesting(nullptr);
    EXPECT_EQ(asked, std::vector<int32_t>{60000});
}

}  // namespace
}  // namespace larkpost::detail
