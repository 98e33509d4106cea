// Ticker: the first tick one Interval after Enabled, then every Interval, delivered only by the
// pump; stopping, releasing and the per-thread time scale. Times are checked only from below
// (a tick is never early), which holds however loaded the machine is.
#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "larkpost/error.h"
#include "platform/clock.h"
#include "platform/host_kit.h"
#include "platform/ticker.h"

namespace larkpost::detail {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

class TickRecorder : public TickerEvents {
public:
    std::vector<Clock::time_point> ticks;
    std::function<void()> onTick;

    // Hooks this recorder to the ticker and starts it.
    void Start(Ticker& ticker, int32_t interval) {
        ticker.SetEvents(this);
        ticker.Interval(interval);
        ticker.Enabled(true);
    }
    void Elapsed() override {
        ticks.push_back(Clock::now());
        if (onTick) onTick();
    }
};

bool Wait() { return HostKitGlobal().Services().WaitAndPumpEvents(); }
void Pump() { HostKitGlobal().Services().PumpEvents(); }

// 1000 ms ticks last 10 ms here.
class TickerTest : public ::testing::Test {
protected:
    void SetUp() override { SetTickScaleForTesting(0.01); }
    void TearDown() override { SetTickScaleForTesting(1); }

    // Waits (bounded in turns and time) until the recorder has count ticks.
    static bool WaitForTicks(const TickRecorder& recorder, std::size_t count) {
        auto end = Clock::now() + 5s;
        for (int turn = 0; turn < 10000 && recorder.ticks.size() < count; ++turn) {
            if (Clock::now() > end || !Wait()) return false;
        }
        return recorder.ticks.size() >= count;
    }
};

TEST_F(TickerTest, TicksEveryIntervalFromEnabledUntilItsOwnHandlerStopsIt) {
    TickRecorder recorder;
    Ticker ticker;
    recorder.onTick = [&] {
        if (recorder.ticks.size() == 5) ticker.Enabled(false);
    };
    const auto start = Clock::now();
    recorder.Start(ticker, 1000);
    EXPECT_TRUE(ticker.Enabled());
    ASSERT_TRUE(WaitForTicks(recorder, 5));
    for (std::size_t k = 0; k < recorder.ticks.size(); ++k) {
        EXPECT_GE(recorder.ticks[k] - start, (k + 1) * 10ms) << "tick " << k << " came early";
    }
    EXPECT_FALSE(ticker.Enabled());
    EXPECT_FALSE(Wait()) << "a stopped ticker must not keep the wait alive";
    EXPECT_EQ(recorder.ticks.size(), 5u);
}

// Three tickers due in one pump: the first one's handler stops the second and releases the
// third, whose ticks are already queued by then.
TEST_F(TickerTest, StoppedOrReleasedTickerDeliversNothingEvenATickAlreadyQueued) {
    TickRecorder first, stopped, released;
    Ticker a, b;
    auto c = std::make_unique<Ticker>();
    first.Start(a, 1000);
    stopped.Start(b, 1000);
    released.Start(*c, 1000);
    first.onTick = [&] {
        b.Enabled(false);
        c.reset();
    };
    std::this_thread::sleep_for(30ms);
    Pump();
    EXPECT_EQ(first.ticks.size(), 1u);
    EXPECT_TRUE(stopped.ticks.empty());
    EXPECT_TRUE(released.ticks.empty());
    a.Enabled(false);
    EXPECT_FALSE(Wait());

    // Unhooked: it keeps ticking, to nobody.
    a.SetEvents(nullptr);
    a.Enabled(true);
    std::this_thread::sleep_for(30ms);
    Pump();
    EXPECT_EQ(first.ticks.size(), 1u);
}

TEST_F(TickerTest, MissedTicksFoldIntoOne) {
    TickRecorder recorder;
    Ticker ticker;
    recorder.Start(ticker, 5000);
    std::this_thread::sleep_for(300ms);  // about six intervals without a pump
    Pump();
    Pump();  // without folding, the next missed tick would be due at once
    EXPECT_EQ(recorder.ticks.size(), 1u);
}

TEST_F(TickerTest, NewIntervalRestartsTheCountdown) {
    TickRecorder recorder;
    Ticker ticker;
    recorder.Start(ticker, 1000);
    std::this_thread::sleep_for(8ms);
    const auto changed = Clock::now();
    ticker.Interval(3000);
    ASSERT_TRUE(WaitForTicks(recorder, 1));
    EXPECT_GE(recorder.ticks[0] - changed, 30ms);
}

TEST_F(TickerTest, NewOrZeroIntervalTickerProducesNothingAndNegativeIsRefused) {
    Ticker ticker;
    EXPECT_FALSE(ticker.Enabled());
    EXPECT_EQ(ticker.Interval(), 0);
    ticker.Enabled(true);
    EXPECT_FALSE(Wait()) << "enabled with interval 0: nothing to wait for";
    try {
        ticker.Interval(-1);
        ADD_FAILURE() << "a negative interval was accepted";
    } catch (const RaisedError& e) {
        EXPECT_EQ(e.Number(), ERROR_INVALID_ARGUMENT);
    }
    EXPECT_EQ(ticker.Interval(), 0);
}

TEST_F(TickerTest, TickScaleIsPerThreadAndOnlyPositive) {
    EXPECT_EQ(TickScale(), 0.01);
    double elsewhere = 0;
    std::thread([&] { elsewhere = TickScale(); }).join();
    EXPECT_EQ(elsewhere, 1.0);
    SetTickScaleForTesting(0);
    EXPECT_EQ(TickScale(), 1.0) << "a scale of 0 or below would make every pump tick";
}

}  // namespace
}  // namespace larkpost::detail
