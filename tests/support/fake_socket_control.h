// FakeSocketControl: a scripted stand-in for the socket control, for exact tests of what the
// stream does with each order of events. It touches no network. Its events go through
// HostServices::PostEvent like the real control's, so everything posted together lands in one
// pump, in order (DataArrival then Close, Error then Close, SendComplete then DataArrival, ...).
//
//   FakeSocketFactory sockets;                        // this thread's streams now get fakes
//   sockets.NextConnect({FakeEvent::Connected(), FakeEvent::Arrival("220 hi\r\n")});
//   TcpStream stream;
//   stream.Connect(u"mail.test", 25);
//   auto control = sockets.Last();
//   control->OnSendData({FakeEvent::SendDone(), FakeEvent::Arrival("250 ok\r\n")});
#ifndef LARKPOST_TESTS_FAKE_SOCKET_CONTROL_H
#define LARKPOST_TESTS_FAKE_SOCKET_CONTROL_H

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "larkpost/error.h"
#include "platform/socket_control.h"

namespace larkpost::test {

// One event the fake delivers to the stream hooked to it.
struct FakeEvent {
    enum class Kind { Connect, Close, DataArrival, SendComplete, Error, Run };

    static FakeEvent Connected() { return Of(Kind::Connect); }
    // The peer closed: State becomes 8, as with the real control.
    static FakeEvent Closed() { return Of(Kind::Close); }
    // The bytes join the control's queue; DataArrival reports the whole queue.
    static FakeEvent Arrival(std::string bytes) {
        FakeEvent event = Of(Kind::DataArrival);
        event.bytes = std::move(bytes);
        return event;
    }
    static FakeEvent SendDone() { return Of(Kind::SendComplete); }
    // State becomes 9.
    static FakeEvent Failure(int16_t number, std::u16string description) {
        FakeEvent event = Of(Kind::Error);
        event.number = number;
        event.description = std::move(description);
        return event;
    }
    // Test code run inside the pump, where a handler would run.
    static FakeEvent Run(std::function<void()> action) {
        FakeEvent event = Of(Kind::Run);
        event.action = std::move(action);
        return event;
    }

    Kind kind = Kind::Run;
    std::string bytes;
    int16_t number = 0;
    std::u16string description;
    std::function<void()> action;

private:
    static FakeEvent Of(Kind kind) {
        FakeEvent event;
        event.kind = kind;
        return event;
    }
};

using FakeScript = std::vector<FakeEvent>;

class FakeSocketControl final : public detail::SocketControl,
                                public std::enable_shared_from_this<FakeSocketControl> {
public:
    explicit FakeSocketControl(FakeScript onConnect);

    // Posts the events now; the next pump delivers them all, in order.
    void Post(FakeScript events);
    // Posts the events so that they come `pumps` pumps from now (1 is the next pump).
    void PostAfter(int pumps, FakeScript events);
    // What the next SendData call posts; calls beyond the scripted ones post SendDone alone.
    void OnSendData(FakeScript events);
    void SetState(int16_t state) { m_state = state; }
    // The next calls of these fail at once with the given error.
    void FailGetData(RaisedError error) { m_getDataFailure = std::move(error); }
    void FailState(RaisedError error) { m_stateFailure = std::move(error); }
    void FailConnect(RaisedError error) { m_connectFailure = std::move(error); }

    // What the stream did with the control.
    const std::vector<std::string>& Writes() const { return m_writes; }
    int CloseCalls() const { return m_closeCalls; }
    const std::u16string& RemoteHost() const { return m_remoteHost; }
    int32_t RemotePort() const { return m_remotePort; }
    bool Hooked() const { return m_sink != nullptr; }

    // detail::SocketControl
    void SetEvents(detail::SocketControlEvents* sink) override { m_sink = sink; }
    void Protocol(int32_t) override {}
    void LocalPort(int32_t) override {}
    void Connect(const std::u16string& RemoteHost, int32_t RemotePort) override;
    int16_t State() override;
    void Close() override;
    void SendData(std::string_view bytes) override;
    void GetData(std::u16string& Data, int32_t Type, int32_t MaxLen) override;
    std::u16string LocalHostName() override { return u"fake-host.test"; }
    std::u16string LocalIP() override {
        return m_state == detail::sckConnected ? u"192.0.2.7" : u"";
    }

private:
    void Deliver(uint64_t generation, const FakeEvent& event);

    detail::SocketControlEvents* m_sink = nullptr;
    int16_t m_state = detail::sckClosed;
    // Close() drops what was posted before it, as the real control does.
    uint64_t m_generation = 0;
    std::string m_incoming;
    FakeScript m_onConnect;
    std::deque<FakeScript> m_onSendData;
    std::vector<std::string> m_writes;
    int m_closeCalls = 0;
    std::u16string m_remoteHost;
    int32_t m_remotePort = 0;
    std::optional<RaisedError> m_getDataFailure;
    std::optional<RaisedError> m_stateFailure;
    std::optional<RaisedError> m_connectFailure;
};

// While it lives, CreateSocketControl on this thread makes fake controls.
class FakeSocketFactory {
public:
    FakeSocketFactory();
    ~FakeSocketFactory();
    FakeSocketFactory(const FakeSocketFactory&) = delete;
    FakeSocketFactory& operator=(const FakeSocketFactory&) = delete;

    // What the Connect call of the next control posts; unscripted controls post Connected alone.
    void NextConnect(FakeScript events);
    // The next control's Connect call raises this at once.
    void FailNextConnectCall(RaisedError error) { m_connectCallFailure = std::move(error); }
    // The next CreateSocketControl raises this.
    void FailNextCreate(RaisedError error) { m_createFailure = std::move(error); }

    // The control made last, while someone still holds it.
    std::shared_ptr<FakeSocketControl> Last() const;
    int Made() const { return static_cast<int>(m_made.size()); }

private:
    std::shared_ptr<detail::SocketControl> Make();

    std::deque<FakeScript> m_connectScripts;
    std::optional<RaisedError> m_connectCallFailure;
    std::optional<RaisedError> m_createFailure;
    std::vector<std::weak_ptr<FakeSocketControl>> m_made;
};

}  // namespace larkpost::test

#endif
