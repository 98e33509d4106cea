// The events of MailClient and the listeners that receive them.
#include <algorithm>

#include "platform/errors.h"
#include "smtp/mail_client_impl.h"

namespace larkpost {

MailClientEvents::~MailClientEvents() = default;
void MailClientEvents::SendProgress(const std::shared_ptr<MailMessage>&, int32_t, int32_t) {}
void MailClientEvents::CancelPending() {}
void MailClientEvents::SendCanceled() {}

}  // namespace larkpost

namespace larkpost::detail {

void MailClientImpl::AddListener(std::shared_ptr<MailClientEvents> listener) {
    if (!listener) RaiseRuntime(ERROR_INVALID_ARGUMENT, kSourceMailClient);
    m_listeners.push_back(std::move(listener));
}

void MailClientImpl::RemoveListener(const std::shared_ptr<MailClientEvents>& listener) {
    // One registration goes per call; a listener added twice needs two removals.
    auto found = std::find(m_listeners.begin(), m_listeners.end(), listener);
    if (found != m_listeners.end()) m_listeners.erase(found);
}

// Each event goes to a copy of the list, so that a handler may add or remove listeners: a
// listener removed during an event still receives that event, one added receives the next.
// An exception from a handler ends the dispatch and reaches the caller unchanged.

void MailClientImpl::RaiseSendProgress(const std::shared_ptr<MailMessage>& message,
                                       int32_t bytesSent, int32_t totalBytes) {
    if (m_listeners.empty()) return;
    const auto listeners = m_listeners;
    for (const auto& listener : listeners) listener->SendProgress(message, bytesSent, totalBytes);
}

void MailClientImpl::RaiseCancelPending() {
    const auto listeners = m_listeners;
    for (const auto& listener : listeners) listener->CancelPending();
}

void MailClientImpl::RaiseSendCanceled() {
    const auto listeners = m_listeners;
    for (const auto& listener : listeners) listener->SendCanceled();
}

}  // namespace larkpost::detail
