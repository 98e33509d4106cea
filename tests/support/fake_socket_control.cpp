#include "support/fake_socket_control.h"

#include <algorithm>
#include <utility>

#include "platform/codepage.h"
#include "platform/host_kit.h"

namespace larkpost::test {

namespace {

// Takes a failure that was set up for one call, leaving none behind.
void RaiseOnce(std::optional<RaisedError>& failure) {
    if (!failure) return;
    RaisedError error = std::move(*failure);
    failure.reset();
    throw error;
}

}  // namespace

FakeSocketControl::FakeSocketControl(FakeScript onConnect) : m_onConnect(std::move(onConnect)) {}

void FakeSocketControl::Post(FakeScript events) {
    auto services = detail::HostKitGlobal().Services();
    for (auto& event : events) {
        // The control itself is the owner: a released control delivers nothing.
        services.PostEvent(weak_from_this(), [weak = weak_from_this(), generation = m_generation,
                                              event = std::move(event)] {
            if (auto self = weak.lock()) self->Deliver(generation, event);
        });
    }
}

void FakeSocketControl::PostAfter(int pumps, FakeScript events) {
    if (pumps <= 1) {
        Post(std::move(events));
        return;
    }
    // An event posted while a pump delivers waits for the next pump.
    Post({FakeEvent::Run([this, pumps, events = std::move(events)]() mutable {
        PostAfter(pumps - 1, std::move(events));
    })});
}

void FakeSocketControl::OnSendData(FakeScript events) {
    m_onSendData.push_back(std::move(events));
}

void FakeSocketControl::Deliver(uint64_t generation, const FakeEvent& event) {
    if (generation != m_generation || !m_sink) return;
    switch (event.kind) {
        case FakeEvent::Kind::Connect:
            m_state = detail::sckConnected;
            m_sink->Connect();
            break;
        case FakeEvent::Kind::Close:
            m_state = detail::sckClosing;
            m_sink->Close();
            break;
        case FakeEvent::Kind::DataArrival:
            m_incoming += event.bytes;
            m_sink->DataArrival(static_cast<int32_t>(m_incoming.size()));
            break;
        case FakeEvent::Kind::SendComplete:
            m_sink->SendComplete();
            break;
        case FakeEvent::Kind::Error: {
            m_state = detail::sckError;
            std::u16string description = event.description;
            bool cancelDisplay = false;
            m_sink->Error(event.number, description, 0, u"FakeSocketControl", u"", 0,
                          cancelDisplay);
            break;
        }
        case FakeEvent::Kind::Run:
            event.action();
            break;
    }
}

void FakeSocketControl::Connect(const std::u16string& RemoteHost, int32_t RemotePort) {
    m_remoteHost = RemoteHost;
    m_remotePort = RemotePort;
    RaiseOnce(m_connectFailure);
    m_state = detail::sckConnecting;
    Post(std::move(m_onConnect));
    m_onConnect.clear();
}

int16_t FakeSocketControl::State() {
    RaiseOnce(m_stateFailure);
    return m_state;
}

void FakeSocketControl::Close() {
    ++m_closeCalls;
    m_state = detail::sckClosed;
    ++m_generation;
}

void FakeSocketControl::SendData(std::string_view bytes) {
    m_writes.emplace_back(bytes);
    FakeScript reaction{FakeEvent::SendDone()};
    if (!m_onSendData.empty()) {
        reaction = std::move(m_onSendData.front());
        m_onSendData.pop_front();
    }
    Post(std::move(reaction));
}

void FakeSocketControl::GetData(std::u16string& Data, int32_t /*Type*/, int32_t MaxLen) {
    RaiseOnce(m_getDataFailure);
    // Like the real control, a MaxLen of 0 or less takes everything queued.
    const std::size_t count =
        MaxLen > 0 ? std::min<std::size_t>(m_incoming.size(), MaxLen) : m_incoming.size();
    Data = detail::FromAnsi(std::string_view(m_incoming).substr(0, count));
    m_incoming.erase(0, count);
}

FakeSocketFactory::FakeSocketFactory() {
    detail::HostKitGlobal().Services().SetSocketControlFactoryForTesting([this] { return Make(); });
}

FakeSocketFactory::~FakeSocketFactory() {
    detail::HostKitGlobal().Services().SetSocketControlFactoryForTesting({});
}

void FakeSocketFactory::NextConnect(FakeScript events) {
    m_connectScripts.push_back(std::move(events));
}

std::shared_ptr<FakeSocketControl> FakeSocketFactory::Last() const {
    return m_made.empty() ? nullptr : m_made.back().lock();
}

std::shared_ptr<detail::SocketControl> FakeSocketFactory::Make() {
    RaiseOnce(m_createFailure);
    FakeScript onConnect{FakeEvent::Connected()};
    if (!m_connectScripts.empty()) {
        onConnect = std::move(m_connectScripts.front());
        m_connectScripts.pop_front();
    }
    auto control = std::make_shared<FakeSocketControl>(std::move(onConnect));
    if (m_connectCallFailure) {
        control->FailConnect(std::move(*m_connectCallFailure));
        m_connectCallFailure.reset();
    }
    m_made.push_back(control);
    return control;
}

}  // namespace larkpost::test
