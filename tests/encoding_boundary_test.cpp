#include <gtest/gtest.h>

#include <thread>

#include "encoding/common.h"
#include "platform/clock.h"

namespace larkpost::detail {
namespace {

// Seven significant digits, correctly rounded, never an exponent, the point left out.
TEST(TimerText, SevenSignificantDigitsWithoutThePointOrAnExponent) {
    const std::pair<float, std::u16string> cases[] = {
        {36000.5f, u"360005"},      {36000.0f, u"36000"},     {43200.55f, u"4320055"},
        {9876.543f, u"9876543"},    {0.25f, u"025"},          {86399.99f, u"8639999"},
        {12345.678f, u"1234568"},   {1.9999996f, u"2"},  // rounding carries, zeros then drop
        {0.0f, u"0"},               {0.0001f, u"00001"},      {0.000123456789f, u"00001234568"},
        {1.0f, u"1"},               {100.0f, u"100"},         {12345678.0f, u"12345680"},
    };
    for (const auto& [seconds, text] : cases) EXPECT_EQ(TimerText(seconds), text) << seconds;
}

// Every test runs with a fixed timer and a fresh counter on its thread.
class Boundary : public ::testing::Test {
protected:
    void SetUp() override {
        SetSystemTimerForTesting([] { return 36000.5f; });
        SetBoundaryCounterForTesting(0);
    }
    void TearDown() override {
        SetSystemTimerForTesting({});
        SetBoundaryCounterForTesting(0);
    }
};

TEST_F(Boundary, CounterRunsToThe32766AndWrapsToOne) {
    EXPECT_EQ(MakeBoundary(), u"--=-MessageBoundary_1_360005");
    EXPECT_EQ(MakeBoundary(), u"--=-MessageBoundary_2_360005");  // same tick, another number
    SetBoundaryCounterForTesting(32766);
    EXPECT_EQ(MakeBoundary(), u"--=-MessageBoundary_32766_360005");
    EXPECT_EQ(BoundaryCounterForTesting(), 32767);
    EXPECT_EQ(MakeBoundary(), u"--=-MessageBoundary_1_360005");
    SetBoundaryCounterForTesting(0);
    EXPECT_EQ(MakeBoundary(), u"--=-MessageBoundary_1_360005");
}

TEST_F(Boundary, EachThreadCountsFromOneWithItsOwnTimer) {
    SetBoundaryCounterForTesting(100);
    std::u16string first[2], second[2];
    auto run = [&](int i) {
        SetSystemTimerForTesting([] { return 0.25f; });
        first[i] = MakeBoundary();
        second[i] = MakeBoundary();
    };
    std::thread a(run, 0), b(run, 1);
    a.join();
    b.join();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(first[i], u"--=-MessageBoundary_1_025");
        EXPECT_EQ(second[i], u"--=-MessageBoundary_2_025");
    }
    EXPECT_EQ(BoundaryCounterForTesting(), 100);  // this thread's counter untouched
}

}  // namespace
}  // namespace larkpost::detail
