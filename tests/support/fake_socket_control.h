// FakeSocketControl: a scripted socket control for the orders of events real sockets rarely give.
// Its events go through the thread's loop like the real control's: events posted together land
// in one pump, in order; Close drops what is queued; a released or unhooked control delivers none.
#ifndef LARKPOST_TESTS_FAKE_SOCKET_CONTROL_H
#define LARKPOST_TESTS_FAKE_SOCKET_CONTROL_H

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "larkpost/error.h"
#include "platform/codepage.h"
#include "platform/host_kit.h"

namespace larkpost::test {

struct FakeEvent {
    enum Kind { kConnect, kClose, kArrival, kSendComplete, kError, kRun } kind;
    int16_t state = -1;    // the control's State after the event; -1 leaves it
    std::string bytes{};   // join the received queue; DataArrival reports the whole queue
    int16_t number = 0;
    std::u16string description{};
    std::function<void()> code{};

    static FakeEvent Connected() { return {kConnect, detail::sckConnected}; }
    static FakeEvent Closed() { return {kClose, detail::sckClosing}; }  // by the peer
    static FakeEvent Arrival(std::string bytes) { return {kArrival, -1, std::move(bytes)}; }
    static FakeEvent SendDone() { return {kSendComplete}; }
    static FakeEvent Failure(int16_t number, std::u16string text) { return {kError, detail::sckError, {}, number, text}; }
    // Test code, run inside the pump where a handler would run.
    static FakeEvent Run(std::function<void()> code) { return {kRun, -1, {}, 0, {}, code}; }
};
using FakeScript = std::vector<FakeEvent>;

class FakeSocketControl final : public detail::SocketControl,
                                public std::enable_shared_from_this<FakeSocketControl> {
public:
    explicit FakeSocketControl(FakeScript onConnect) : m_onConnect(std::move(onConnect)) {}

    // Posts the events to land together `pumps` pumps from now (1: the next pump).
    void Post(FakeScript events, int pumps = 1) {
        if (pumps > 1) return Post({FakeEvent::Run([=, this] { Post(events, pumps - 1); })});
        for (FakeEvent& event : events)
            detail::HostKitGlobal().Services().PostEvent(
                weak_from_this(), [this, closes = m_closeCalls, event = std::move(event)] {
                    if (closes == m_closeCalls && sink) Deliver(event);
                });
    }
    // What the next SendData posts; beyond the scripted calls each posts SendDone alone.
    void OnSendData(FakeScript events) { m_onSendData.push_back(std::move(events)); }
    void SetState(int16_t value) { state = value; }
    const std::vector<std::string>& Writes() const { return m_writes; }
    int CloseCalls() const { return m_closeCalls; }

    void SetEvents(detail::SocketControlEvents* events) override { sink = events; }
    void Protocol(int32_t) override {}  // TCP is all there is
    void LocalPort(int32_t) override {}
    void Connect(const std::u16string&, int32_t) override { state = detail::sckConnecting, Post(std::exchange(m_onConnect, {})); }
    int16_t State() override { return state; }
    void Close() override { state = detail::sckClosed, ++m_closeCalls; }
    void SendData(std::string_view bytes) override {
        m_writes.emplace_back(bytes);
        if (m_onSendData.empty()) m_onSendData.push_back({FakeEvent::SendDone()});
        Post(std::move(m_onSendData.front()));
        m_onSendData.pop_front();
    }
    void GetData(std::u16string& data, int32_t, int32_t maxLen) override {
        if (failGetData) throw *std::exchange(failGetData, std::nullopt);
        data = detail::FromAnsi(m_queue.substr(0, maxLen > 0 ? size_t(maxLen) : m_queue.size()));
        m_queue.erase(0, data.size());
    }
    std::u16string LocalHostName() override { return u"fake-host.test"; }
    std::u16string LocalIP() override { return u"192.0.2.7"; }

    detail::SocketControlEvents* sink = nullptr;
    int16_t state = detail::sckClosed;
    std::optional<RaisedError> failGetData;  // the next GetData raises it

private:
    void Deliver(const FakeEvent& e) {
        std::u16string description = e.description;  // the handler may change it, as a real one may
        bool cancelDisplay = false;
        m_queue += e.bytes, state = e.state >= 0 ? e.state : state;
        switch (e.kind) {
            case FakeEvent::kConnect: return sink->Connect();
            case FakeEvent::kClose: return sink->Close();
            case FakeEvent::kArrival: return sink->DataArrival(int32_t(m_queue.size()));
            case FakeEvent::kSendComplete: return sink->SendComplete();
            case FakeEvent::kError: return sink->Error(e.number, description, 0, u"", u"", 0, cancelDisplay);
            case FakeEvent::kRun: return e.code();
        }
    }

    std::string m_queue;  // received, not yet taken by GetData
    FakeScript m_onConnect;
    std::deque<FakeScript> m_onSendData;
    std::vector<std::string> m_writes;
    int m_closeCalls = 0;  // what was posted before the last Close is dropped
};

// While it lives, CreateSocketControl on this thread makes fake controls.
class FakeSocketFactory {
public:
    FakeSocketFactory() { Services().SetSocketControlFactoryForTesting([this] { return Make(); }); }
    ~FakeSocketFactory() { Services().SetSocketControlFactoryForTesting(nullptr); }
    // What the next control's Connect posts; unscripted controls post Connected alone.
    void NextConnect(FakeScript events) { m_scripts.push_back(std::move(events)); }
    // The control made last, while someone still holds it.
    std::shared_ptr<FakeSocketControl> Last() const { return m_last.lock(); }

private:
    static detail::HostServices Services() { return detail::HostKitGlobal().Services(); }
    std::shared_ptr<detail::SocketControl> Make() {
        if (m_scripts.empty()) m_scripts.push_back({FakeEvent::Connected()});
        auto control = std::make_shared<FakeSocketControl>(std::move(m_scripts.front()));
        m_scripts.pop_front();
        m_last = control;
        return control;
    }

    std::deque<FakeScript> m_scripts;
    std::weak_ptr<FakeSocketControl> m_last;
};

}  // namespace larkpost::test

#endif
