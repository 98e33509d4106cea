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

TEST_F(TickerTest, TicksEveryIntervalFromEnabled) {
    TickRecorder recorder;
    Ticker ticker;
    ticker.SetEvents(&recorder);
    ticker.Interval(1000);
    const auto start = Clock::now();
    ticker.Enabled(true);
    EXPECT_TRUE(ticker.Enabled());
    ASSERT_TRUE(WaitForTicks(recorder, 5));
    for (std::size_t k = 0; k < recorder.ticks.size(); ++k) {
        EXPECT_GE(recorder.ticks[k] - start, (k + 1) * 10ms) << "tick " << k << " came early";
    }
}

TEST_F(TickerTest, StopsAtEnabledFalseFromItsOwnHandler) {
    TickRecorder recorder;
    Ticker ticker;
    ticker.SetEvents(&recorder);
    ticker.Interval(500);
    recorder.onTick = [&] {
        if (recorder.ticks.size() == 3) ticker.Enabled(false);
    };
    ticker.Enabled(true);
    ASSERT_TRUE(WaitForTicks(recorder, 3));
    EXPECT_FALSE(ticker.Enabled());
    EXPECT_FALSE(Wait()) << "a stopped ticker must not keep the wait alive";
    EXPECT_EQ(recorder.ticks.size(), 3u);
}

TEST_F(TickerTest, StoppingDropsATickAlreadyQueued) {
    TickRecorder first, second;
    Ticker a, b;
    a.SetEvents(&first);
    b.SetEvents(&second);
    a.Interval(1000);
    b.Interval(1000);
    a.Enabled(true);
    b.Enabled(true);
    first.onTick = [&] { b.Enabled(false); };
    std::this_thread::sleep_for(30ms);  // both are due: one pump queues both ticks
    Pump();
    EXPECT_EQ(first.ticks.size(), 1u);
    EXPECT_TRUE(second.ticks.empty());
}

TEST_F(TickerTest, ReleasedTickerDeliversNothing) {
    TickRecorder recorder, other;
    auto ticker = std::make_unique<Ticker>();
    Ticker killer;
    ticker->SetEvents(&recorder);
    killer.SetEvents(&other);
    killer.Interval(1000);
    ticker->Interval(1000);
    killer.Enabled(true);
    ticker->Enabled(true);
    // Released from inside another ticker's handler, with its own tick already queued.
    other.onTick = [&] { ticker.reset(); };
    std::this_thread::sleep_for(30ms);
    Pump();
    EXPECT_EQ(other.ticks.size(), 1u);
    EXPECT_TRUE(recorder.ticks.empty());
    killer.Enabled(false);
    EXPECT_FALSE(Wait());

    // Unhooked: it keeps ticking, to nobody.
    killer.SetEvents(nullptr);
    killer.Enabled(true);
    std::this_thread::sleep_for(30ms);
    Pump();
    EXPECT_EQ(other.ticks.size(), 1u);
}

TEST_F(TickerTest, MissedTicksFoldIntoOne) {
    TickRecorder recorder;
    Ticker ticker;
    ticker.SetEvents(&recorder);
    ticker.Interval(5000);
    ticker.Enabled(true);
    std::this_thread::sleep_for(300ms);  // about six intervals without a pump
    Pump();
    Pump();  // without folding, the next missed tick would be due at once
    EXPECT_EQ(recorder.ticks.size(), 1u);
}

TEST_F(TickerTest, NewIntervalRestartsTheCountdown) {
    TickRecorder recorder;
    Ticker ticker;
    ticker.SetEvents(&recorder);
    ticker.Interval(1000);
    ticker.Enabled(true);
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

TEST(TickerRealTime, UnscaledIntervalIsMilliseconds) {
    TickRecorder recorder;
    Ticker ticker;
    ticker.SetEvents(&recorder);
    ticker.Interval(20);
    const auto start = Clock::now();
    ticker.Enabled(true);
    EXPECT_TRUE(Wait());
    ASSERT_EQ(recorder.ticks.size(), 1u);
    EXPECT_GE(recorder.ticks[0] - start, 20ms);
    ticker.Enabled(false);
}

}  // namespace
}  // namespace larkpost::detail
