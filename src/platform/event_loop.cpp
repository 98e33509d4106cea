#include "platform/event_loop.h"

#include <poll.h>
#include <signal.h>
#include <time.h>

#include <algorithm>
#include <cerrno>

namespace larkpost::detail {

namespace {

template <typename T>
void Register(std::vector<std::weak_ptr<T>>& list, std::weak_ptr<T> watcher) {
    auto wanted = watcher.lock();
    if (!wanted) return;
    for (auto& entry : list) {
        if (entry.lock() == wanted) return;
    }
    list.push_back(std::move(watcher));
}

template <typename T>
void RemoveExpired(std::vector<std::weak_ptr<T>>& list) {
    std::erase_if(list, [](const std::weak_ptr<T>& entry) { return entry.expired(); });
}

// Takes a member's scratch vector for the length of a round and gives it back, emptied but with
// its capacity, at the end.
template <typename T>
class Scratch {
public:
    explicit Scratch(std::vector<T>& home) : m_home(home) { m_items.swap(home); }
    ~Scratch() {
        m_items.clear();
        m_home.swap(m_items);
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    std::vector<T>& operator*() { return m_items; }

private:
    std::vector<T>& m_home;
    std::vector<T> m_items;
};

}  // namespace

EventLoop& EventLoop::Current() {
    thread_local EventLoop loop;
    return loop;
}

void EventLoop::Watch(std::weak_ptr<IoWatcher> watcher) {
    Register(m_ioWatchers, std::move(watcher));
}

void EventLoop::Watch(std::weak_ptr<TimerWatcher> watcher) {
    Register(m_timerWatchers, std::move(watcher));
}

void EventLoop::Post(std::weak_ptr<void> owner, std::function<void()> event) {
    m_queue.push_back(QueuedEvent{m_nextSequence++, std::move(owner), std::move(event)});
}

void EventLoop::Pump() {
    Collect(MonotonicClock::duration::zero());
    Deliver();
}

bool EventLoop::WaitAndPump() {
    // Loops only when a wake-up produced nothing (a readiness that came to nothing, a signal);
    // every turn sleeps in ppoll, so this never spins.
    for (;;) {
        if (!m_queue.empty()) {
            Collect(MonotonicClock::duration::zero());
            Deliver();
            return true;
        }
        auto deadline = NextDeadline();
        if (!deadline && !AnyIoInterest()) return false;
        std::optional<MonotonicClock::duration> limit;
        if (deadline)
            limit = std::max(*deadline - MonotonicClock::now(), MonotonicClock::duration::zero());
        Collect(limit);
        if (!m_queue.empty()) {
            Deliver();
            return true;
        }
    }
}

void EventLoop::Collect(std::optional<MonotonicClock::duration> limit) {
    PruneExpired();
    // Snapshots: OnReady may register or drop watchers while we go through them.
    Scratch watchersLease(m_readyScratch);
    Scratch fdsLease(m_pollScratch);
    std::vector<std::shared_ptr<IoWatcher>>& watchers = *watchersLease;
    std::vector<pollfd>& fds = *fdsLease;
    for (auto& entry : m_ioWatchers) {
        auto watcher = entry.lock();
        if (!watcher) continue;
        int fd = watcher->PollFd();
        short events = watcher->PollEvents();
        if (fd < 0 || events == 0) continue;
        fds.push_back(pollfd{fd, events, 0});
        watchers.push_back(std::move(watcher));
    }

    timespec timeout{};
    timespec* timeoutPtr = nullptr;
    if (limit) {
        auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(*limit).count();
        timeout.tv_sec = static_cast<time_t>(ns / 1'000'000'000);
        timeout.tv_nsec = static_cast<long>(ns % 1'000'000'000);
        timeoutPtr = &timeout;
    }

    int ready = 0;
    if (!fds.empty() || (limit && *limit > MonotonicClock::duration::zero())) {
        ready = ppoll(fds.data(), fds.size(), timeoutPtr, nullptr);
    }
    if (ready > 0) {
        for (std::size_t i = 0; i < fds.size(); ++i) {
            // A watcher that an earlier OnReady of this round closed reports fd -1 now.
            if (fds[i].revents != 0 && watchers[i]->PollFd() == fds[i].fd) {
                watchers[i]->OnReady(fds[i].revents);
            }
        }
    }
    QueueDueTimers();
}

void EventLoop::QueueDueTimers() {
    auto now = MonotonicClock::now();
    // A snapshot, as OnDue may register timers.
    Scratch timersLease(m_timerScratch);
    std::vector<std::shared_ptr<TimerWatcher>>& timers = *timersLease;
    for (auto& entry : m_timerWatchers) {
        if (auto timer = entry.lock()) timers.push_back(std::move(timer));
    }
    for (auto& timer : timers) {
        auto deadline = timer->Deadline();
        if (deadline && *deadline <= now) timer->OnDue(now);
    }
}

void EventLoop::Deliver() {
    // Only what was queued before delivery began: an event posted by a handler waits for the
    // next pump, so a handler that keeps posting cannot hold the pump forever. A handler may
    // pump again (nested); sequences keep the order right in that case too.
    const uint64_t end = m_nextSequence;
    while (!m_queue.empty() && m_queue.front().sequence < end) {
        QueuedEvent event = std::move(m_queue.front());
        m_queue.pop_front();
        // Holding the owner keeps it alive for the length of its own event.
        if (auto owner = event.owner.lock()) event.run();
    }
}

// These two only ask, so they go through the lists as they are.
std::optional<MonotonicClock::time_point> EventLoop::NextDeadline() {
    std::optional<MonotonicClock::time_point> first;
    for (auto& entry : m_timerWatchers) {
        auto timer = entry.lock();
        if (!timer) continue;
        auto deadline = timer->Deadline();
        if (deadline && (!first || *deadline < *first)) first = deadline;
    }
    return first;
}

bool EventLoop::AnyIoInterest() {
    for (auto& entry : m_ioWatchers) {
        auto watcher = entry.lock();
        if (watcher && watcher->PollFd() >= 0 && watcher->PollEvents() != 0) return true;
    }
    return false;
}

void EventLoop::PruneExpired() {
    RemoveExpired(m_ioWatchers);
    RemoveExpired(m_timerWatchers);
}

}  // namespace larkpost::detail
