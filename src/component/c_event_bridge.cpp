#include "component/c_event_bridge.h"

#include "component/c_handles.h"

namespace larkpost::capi {
namespace {

// The message of the innermost larkpost_mail_client_send running on this thread.
thread_local const MailMessage* t_sendingInstance = nullptr;
thread_local larkpost_object* t_sendingHandle = nullptr;

}  // namespace

SendingMessageScope::SendingMessageScope(const MailMessage* instance, larkpost_object* handle)
    : m_previousInstance(t_sendingInstance), m_previousHandle(t_sendingHandle) {
    t_sendingInstance = instance;
    t_sendingHandle = handle;
}

SendingMessageScope::~SendingMessageScope() {
    t_sendingInstance = m_previousInstance;
    t_sendingHandle = m_previousHandle;
}

void EventBridge::SetCallbacks(larkpost_send_progress_callback sendProgress,
                               larkpost_event_callback cancelPending,
                               larkpost_event_callback sendCanceled, void* userData) {
    m_sendProgress = sendProgress;
    m_cancelPending = cancelPending;
    m_sendCanceled = sendCanceled;
    m_userData = userData;
}

void EventBridge::SendProgress(const std::shared_ptr<MailMessage>& message, int32_t bytesSent,
                               int32_t totalBytes) {
    if (m_sendProgress == nullptr) return;
    // The callback may replace the callbacks; this event still goes where it was meant to.
    auto callback = m_sendProgress;
    void* userData = m_userData;
    if (message.get() == t_sendingInstance && IsLive(t_sendingHandle)) {
        callback(userData, t_sendingHandle, bytesSent, totalBytes);
        return;
    }
    // A message that no handle of this send stands for gets a handle lent for the callback.
    larkpost_object* lent = nullptr;
    try {
        lent = NewHandle(Object(message));
    } catch (...) {
        return;  // no memory for the handle: the event is dropped rather than the send broken
    }
    callback(userData, lent, bytesSent, totalBytes);
    Release(lent);
}

void EventBridge::CancelPending() {
    if (m_cancelPending) m_cancelPending(m_userData);
}

void EventBridge::SendCanceled() {
    if (m_sendCanceled) m_sendCanceled(m_userData);
}

}  // namespace larkpost::capi
