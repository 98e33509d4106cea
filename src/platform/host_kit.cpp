#include "platform/host_kit.h"

#include "platform/event_loop.h"
#include "platform/posix_socket_control.h"

namespace larkpost::detail {

namespace {

thread_local HostServices::SocketControlFactory t_socketControlFactory;

}  // namespace

std::shared_ptr<SocketControl> HostServices::CreateSocketControl() {
    if (t_socketControlFactory) return t_socketControlFactory();
    return PosixSocketControl::Create();
}

void HostServices::PumpEvents() { m_loop.Pump(); }

bool HostServices::WaitAndPumpEvents() { return m_loop.WaitAndPump(); }

void HostServices::PostEvent(std::weak_ptr<void> owner, std::function<void()> event) {
    m_loop.Post(std::move(owner), std::move(event));
}

void HostServices::Watch(std::weak_ptr<IoWatcher> watcher) { m_loop.Watch(std::move(watcher)); }

void HostServices::Watch(std::weak_ptr<TimerWatcher> watcher) { m_loop.Watch(std::move(watcher)); }

void HostServices::SetSocketControlFactoryForTesting(SocketControlFactory factory) {
    t_socketControlFactory = std::move(factory);
}

HostServices HostKitGlobalObject::Services() { return HostServices(EventLoop::Current()); }

HostKitGlobalObject& HostKitGlobal() {
    thread_local HostKitGlobalObject global;
    return global;
}

}  // namespace larkpost::detail
