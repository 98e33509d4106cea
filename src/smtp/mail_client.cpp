// MailClient: the public object, which hands every call to its implementation.
#include <utility>

#include "larkpost/error.h"
#include "larkpost/text.h"
#include "platform/errors.h"
#include "smtp/mail_client_impl.h"

namespace larkpost {

MailClient::MailClient() : m_impl(std::make_shared<detail::MailClientImpl>()) {}

MailClient::~MailClient() {
    // Going away closes the connection without QUIT and never fails.
    try {
        Disconnect(true);
    } catch (...) {}
}

void MailClient::Server(std::u16string rhs) { m_impl->Server(std::move(rhs)); }
void MailClient::Server(std::string_view rhs) { m_impl->Server(FromUtf8(rhs)); }
const std::u16string& MailClient::Server() const { return m_impl->Server(); }
void MailClient::Port(int32_t rhs) { m_impl->Port(rhs); }
int32_t MailClient::Port() const { return m_impl->Port(); }

// The calls that can raise events hold the implementation: a host may release this client from
// inside an event, and the running call then finishes on what it holds.

std::any MailClient::Connect(const std::u16string& Username, const std::u16string& Password) {
    const auto running = m_impl;
    running->Connect(detail::Login{Username, Password, false}, Timeout);
    return {};
}

std::any MailClient::Connect(std::string_view Username, std::string_view Password) {
    return Connect(FromUtf8(Username), FromUtf8(Password));
}

std::any MailClient::ConnectWithToken(const std::u16string& Username,
                                      const std::u16string& AccessToken) {
    const auto running = m_impl;
    running->Connect(detail::Login{Username, AccessToken, true}, Timeout);
    return {};
}

std::any MailClient::ConnectWithToken(std::string_view Username, std::string_view AccessToken) {
    return ConnectWithToken(FromUtf8(Username), FromUtf8(AccessToken));
}

std::any MailClient::Disconnect(bool bForce) {
    m_impl->Disconnect(bForce);
    return {};
}

// The message comes by value, as the class has always taken it; the call holds it throughout.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
void MailClient::Send(std::shared_ptr<MailMessage> message) {
    const auto running = m_impl;
    running->Send(message);
}
void MailClient::CancelSend() {
    const auto running = m_impl;
    running->CancelSend();
}
void MailClient::AddListener(std::shared_ptr<MailClientEvents> listener) {
    m_impl->AddListener(std::move(listener));
}
void MailClient::RemoveListener(const std::shared_ptr<MailClientEvents>& listener) {
    m_impl->RemoveListener(listener);
}
void MailClient::StrictDelivery(bool rhs) { m_impl->StrictDelivery(rhs); }
bool MailClient::StrictDelivery() const { return m_impl->StrictDelivery(); }
void MailClient::PauseMilliseconds(int32_t rhs) { m_impl->PauseMilliseconds(rhs); }
int32_t MailClient::PauseMilliseconds() const { return m_impl->PauseMilliseconds(); }
void MailClient::WatchDialogue(DialogueWatcher watcher) {
    m_impl->WatchDialogue(std::move(watcher));
}
void MailClient::WatchWrite(WriteWatcher watcher) { m_impl->WatchWrite(std::move(watcher)); }

void MailClient::Security(int32_t rhs) {
    if (rhs < SECURITY_NONE || rhs > SECURITY_TLS)
        detail::RaiseRuntime(ERROR_INVALID_ARGUMENT, detail::kSourceMailClient);
    m_impl->Tls().security = rhs;
}
int32_t MailClient::Security() const { return m_impl->Tls().security; }
void MailClient::VerifyCertificate(bool rhs) { m_impl->Tls().verify = rhs; }
bool MailClient::VerifyCertificate() const { return m_impl->Tls().verify; }
void MailClient::CaFile(std::u16string rhs) { m_impl->Tls().caFile = std::move(rhs); }
void MailClient::CaFile(std::string_view rhs) { m_impl->Tls().caFile = FromUtf8(rhs); }
const std::u16string& MailClient::CaFile() const { return m_impl->Tls().caFile; }

}  // namespace larkpost
