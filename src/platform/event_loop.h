// EventLoop: the per-thread loop behind HostServices. It polls the file descriptors of the
// socket controls, runs the tickers on the monotonic clock and delivers queued events, all on
// the owning thread and only inside PumpEvents / WaitAndPumpEvents.
#ifndef LARKPOST_PLATFORM_EVENT_LOOP_H
#define LARKPOST_PLATFORM_EVENT_LOOP_H

#include <poll.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace larkpost::detail {

using MonotonicClock = std::chrono::steady_clock;  // CLOCK_MONOTONIC on Linux

// Something with a file descriptor the loop polls. Its OnReady does the I/O and posts events;
// it must not run handlers itself.
class IoWatcher {
public:
    // The descriptor to poll, or -1 while there is nothing to poll.
    virtual int PollFd() const = 0;
    // POLLIN / POLLOUT wanted now; 0 when the descriptor can produce nothing.
    virtual short PollEvents() const = 0;
    virtual void OnReady(short revents) = 0;

protected:
    ~IoWatcher() = default;
};

// Something that wants a call at a point of the monotonic clock. OnDue posts events.
class TimerWatcher {
public:
    virtual std::optional<MonotonicClock::time_point> Deadline() const = 0;
    virtual void OnDue(MonotonicClock::time_point now) = 0;

protected:
    ~TimerWatcher() = default;
};

class EventLoop {
public:
    // The loop of the calling thread, made at its first use.
    static EventLoop& Current();

    EventLoop() = default;
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    // The loop keeps weak references only: a watcher that is destroyed simply drops out.
    // Watching the same object twice registers it once.
    void Watch(std::weak_ptr<IoWatcher> watcher);
    void Watch(std::weak_ptr<TimerWatcher> watcher);

    // Queues an event; dropped at delivery if owner has expired. Events run in posting order.
    void Post(std::weak_ptr<void> owner, std::function<void()> event);

    // One round without sleeping: I/O that is ready, due timers, then delivery.
    void Pump();
    // Sleeps until something is ready or due, then delivers. False at once when nothing is
    // queued and no watcher could ever produce an event.
    bool WaitAndPump();

private:
    struct QueuedEvent {
        uint64_t sequence;
        std::weak_ptr<void> owner;
        std::function<void()> run;
    };

    // Polls once with the given limit (nullopt: no limit), does the ready I/O and queues due
    // timer events.
    void Collect(std::optional<MonotonicClock::duration> limit);
    void QueueDueTimers();
    void Deliver();
    std::optional<MonotonicClock::time_point> NextDeadline();
    bool AnyIoInterest();
    void PruneExpired();

    std::vector<std::weak_ptr<IoWatcher>> m_ioWatchers;
    std::vector<std::weak_ptr<TimerWatcher>> m_timerWatchers;
    // Scratch for the snapshots of a round, kept so that a pump allocates nothing. A nested
    // round (a watcher that pumps) finds them taken and makes its own.
    std::vector<std::shared_ptr<IoWatcher>> m_readyScratch;
    std::vector<pollfd> m_pollScratch;
    std::vector<std::shared_ptr<TimerWatcher>> m_timerScratch;
    std::deque<QueuedEvent> m_queue;
    uint64_t m_nextSequence = 0;
};

}  // namespace larkpost::detail

#endif
