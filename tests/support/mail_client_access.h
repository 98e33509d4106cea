// Test access to the private members of MailClient, and a listener that records its events.
#ifndef LARKPOST_TESTS_MAIL_CLIENT_ACCESS_H
#define LARKPOST_TESTS_MAIL_CLIENT_ACCESS_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "larkpost/mail_client.h"
#include "larkpost/tcp_stream.h"
#include "larkpost/text.h"
#include "platform/clock.h"
#include "smtp/smtp_response.h"

namespace larkpost::detail {

struct MailClientAccess {
    static SmtpResponse ReadResponse(MailClient& client) { return client.ReadResponse(); }
    static SmtpResponse SendCommand(MailClient& client, std::u16string_view command) {
        return client.SendCommand(command);
    }
    static SmtpResponse SendCommandChecked(MailClient& client, std::u16string_view command) {
        return client.SendCommandChecked(command);
    }
    static void SendRaw(MailClient& client, std::u16string_view text) { client.SendRaw(text); }
    static void SendRawLine(MailClient& client, std::u16string_view text) { client.SendRawLine(text); }
    static int32_t HasCapability(const MailClient& client, int32_t flag) { return client.HasCapability(flag); }
    static int32_t Capabilities(const MailClient& client) { return client.m_capabilities; }
    static int32_t MaxMessageSize(const MailClient& client) { return client.m_maxMessageSize; }
    static bool CancelRequested(const MailClient& client) { return client.m_cancelRequested; }
    static TcpStream& Stream(MailClient& client) { return *client.m_stream; }
};

}  // namespace larkpost::detail

namespace larkpost::test {

// Points the client at a loopback port.
inline void PointAt(MailClient& client, int32_t port) {
    client.Server(std::string_view("127.0.0.1"));
    client.Port(port);
}

// The EHLO line this client sends, without CR LF. Valid once the client is connected.
inline std::string EhloLine(MailClient& client) {
    return "EHLO " + ToUtf8(detail::MailClientAccess::Stream(client).LocalHostName());
}

// Makes every ticker second last 10 ms on this thread while it lives, so time-outs come fast.
class FastTicks {
public:
    FastTicks() { detail::SetTickScaleForTesting(0.01); }
    ~FastTicks() { detail::SetTickScaleForTesting(1); }
    FastTicks(const FastTicks&) = delete;
    FastTicks& operator=(const FastTicks&) = delete;
};

// Replaces Sleep on this thread while it lives and records each call's milliseconds.
class SleepRecorder {
public:
    SleepRecorder() {
        detail::SetSleepForTesting([calls = m_calls](int32_t ms) { calls->push_back(ms); });
    }
    ~SleepRecorder() { detail::SetSleepForTesting({}); }
    SleepRecorder(const SleepRecorder&) = delete;
    SleepRecorder& operator=(const SleepRecorder&) = delete;
    const std::vector<int32_t>& Calls() const { return *m_calls; }

private:
    std::shared_ptr<std::vector<int32_t>> m_calls = std::make_shared<std::vector<int32_t>>();
};

// Records every event in order as text ("progress 512/1000", "pending", "canceled"), and runs
// an optional action inside each.
class RecordingListener : public MailClientEvents {
public:
    std::vector<std::string> events;
    std::vector<int32_t> progress;  // bytesSent of each SendProgress
    std::shared_ptr<MailMessage> lastMessage;
    std::function<void(int32_t bytesSent, int32_t totalBytes)> onProgress;
    std::function<void()> onCancelPending;
    std::function<void()> onCanceled;

    void SendProgress(const std::shared_ptr<MailMessage>& message, int32_t bytesSent,
                      int32_t totalBytes) override {
        events.push_back("progress " + std::to_string(bytesSent) + "/" + std::to_string(totalBytes));
        progress.push_back(bytesSent);
        lastMessage = message;
        if (onProgress) onProgress(bytesSent, totalBytes);
    }
    void CancelPending() override {
        events.push_back("pending");
        if (onCancelPending) onCancelPending();
    }
    void SendCanceled() override {
        events.push_back("canceled");
        if (onCanceled) onCanceled();
    }
};

}  // namespace larkpost::test

#endif
