#include "platform/ticker.h"

#include <chrono>
#include <optional>

#include "larkpost/error.h"
#include "platform/clock.h"
#include "platform/errors.h"
#include "platform/event_loop.h"
#include "platform/host_kit.h"

namespace larkpost::detail {

// The loop watches this through a weak reference; the Ticker owns it alone, so a released
// ticker drops out of the loop and its queued ticks expire with the token.
struct Ticker::State final : TimerWatcher {
    TickerEvents* sink = nullptr;
    bool enabled = false;
    int32_t interval = 0;
    std::optional<MonotonicClock::time_point> deadline;
    std::shared_ptr<char> token = std::make_shared<char>();  // owner of the queued ticks

    MonotonicClock::duration Period() const {
        const double nanoseconds = interval * 1e6 * TickScale();
        return std::chrono::duration_cast<MonotonicClock::duration>(
            std::chrono::duration<double, std::nano>(nanoseconds));
    }

    // The first tick one period from now; an interval of 0 never ticks.
    void Restart() {
        deadline.reset();
        if (enabled && interval > 0) deadline = MonotonicClock::now() + Period();
    }

    std::optional<MonotonicClock::time_point> Deadline() const override {
        return enabled ? deadline : std::nullopt;
    }

    void OnDue(MonotonicClock::time_point now) override {
        // The raw pointer is valid whenever the tick runs: the tick lives only as long as the
        // token, which this object owns.
        HostKitGlobal().Services().PostEvent(token, [this] {
            if (sink) sink->Elapsed();
        });
        // Keep the beat; ticks missed while the thread was busy fold into this one.
        auto next = *deadline + Period();
        if (next <= now) next = now + Period();
        deadline = next;
    }
};

Ticker::Ticker() : m_state(std::make_shared<State>()) {}

Ticker::~Ticker() = default;

void Ticker::SetEvents(TickerEvents* sink) { m_state->sink = sink; }

void Ticker::Enabled(bool value) {
    if (value == m_state->enabled) return;
    m_state->enabled = value;
    if (value) {
        HostKitGlobal().Services().Watch(std::weak_ptr<TimerWatcher>(m_state));
    } else {
        m_state->token = std::make_shared<char>();  // ticks already queued are not delivered
    }
    m_state->Restart();
}

bool Ticker::Enabled() const { return m_state->enabled; }

void Ticker::Interval(int32_t milliseconds) {
    if (milliseconds < 0) RaiseRuntime(ERROR_INVALID_ARGUMENT, u"Larkpost.Ticker");
    m_state->interval = milliseconds;
    m_state->Restart();
}

int32_t Ticker::Interval() const { return m_state->interval; }

}  // namespace larkpost::detail
