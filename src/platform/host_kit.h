// HostKitGlobal: the per-thread event loop that makes socket controls and pumps their events.
// It is the one way into the loop: the stream waits and pumps through it, the socket control and
// the ticker register and post through it.
#ifndef LARKPOST_PLATFORM_HOST_KIT_H
#define LARKPOST_PLATFORM_HOST_KIT_H

#include <functional>
#include <memory>

#include "platform/socket_control.h"

namespace larkpost::detail {

class EventLoop;
class IoWatcher;
class TimerWatcher;

class HostServices {
public:
    explicit HostServices(EventLoop& loop) : m_loop(loop) {}

    std::shared_ptr<SocketControl> CreateSocketControl();

    // Delivers the events pending now for this thread, on this thread, and returns at once.
    void PumpEvents();

    // Sleeps until at least one event is pending (socket readiness, a due tick or a queued
    // event), then delivers like PumpEvents. A waiting stream calls this instead of spinning on
    // PumpEvents. Returns false, without sleeping, when nothing on this thread could ever
    // produce an event (no open socket, no running ticker, nothing queued).
    bool WaitAndPumpEvents();

    // Queues an event for the next pump of this thread. It is dropped, not run, if owner has
    // expired by then. Events run in the order they were posted. Socket controls (the real one
    // and the scripted one of the tests) deliver their events through this.
    void PostEvent(std::weak_ptr<void> owner, std::function<void()> event);

    // Lets the loop poll a descriptor or keep a deadline. The loop holds the watcher weakly: one
    // that is destroyed simply drops out.
    void Watch(std::weak_ptr<IoWatcher> watcher);
    void Watch(std::weak_ptr<TimerWatcher> watcher);

    // Test seam: the factory behind CreateSocketControl on this thread (empty restores the real
    // one).
    using SocketControlFactory = std::function<std::shared_ptr<SocketControl>()>;
    void SetSocketControlFactoryForTesting(SocketControlFactory factory);

private:
    EventLoop& m_loop;
};

class HostKitGlobalObject {
public:
    HostServices Services();
};

// The object of this thread, made at its first use.
HostKitGlobalObject& HostKitGlobal();

}  // namespace larkpost::detail

#endif
