// Forwards the events of one MailClient to the C callbacks attached to its handle.
#ifndef LARKPOST_COMPONENT_C_EVENT_BRIDGE_H
#define LARKPOST_COMPONENT_C_EVENT_BRIDGE_H

#include <memory>

#include "larkpost/larkpost_c.h"
#include "larkpost/mail_client.h"

namespace larkpost::capi {

class EventBridge final : public MailClientEvents {
public:
    void SetCallbacks(larkpost_send_progress_callback sendProgress,
                      larkpost_event_callback cancelPending, larkpost_event_callback sendCanceled,
                      void* userData);

    void SendProgress(const std::shared_ptr<MailMessage>& message, int32_t bytesSent,
                      int32_t totalBytes) override;
    void CancelPending() override;
    void SendCanceled() override;

private:
    larkpost_send_progress_callback m_sendProgress = nullptr;
    larkpost_event_callback m_cancelPending = nullptr;
    larkpost_event_callback m_sendCanceled = nullptr;
    void* m_userData = nullptr;
};

// Marks, for the events of one larkpost_mail_client_send on this thread, which handle stands for
// the message being sent, so SendProgress hands the host its own handle back.
class SendingMessageScope {
public:
    SendingMessageScope(const MailMessage* instance, larkpost_object* handle);
    ~SendingMessageScope();
    SendingMessageScope(const SendingMessageScope&) = delete;
    SendingMessageScope& operator=(const SendingMessageScope&) = delete;

private:
    const MailMessage* m_previousInstance;
    larkpost_object* m_previousHandle;
};

}  // namespace larkpost::capi

#endif
