// MailClient: one ESMTP session with one relay: connect, log in, send messages, disconnect.
#ifndef LARKPOST_MAIL_CLIENT_H
#define LARKPOST_MAIL_CLIENT_H

#include <any>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "larkpost/export.h"

namespace larkpost {

class MailMessage;
class TcpStream;

namespace detail {
struct SmtpResponse;
struct MailClientAccess;
}  // namespace detail

// The events of a MailClient. Override what you need; the defaults do nothing. Handlers run on
// the thread that called the client, inside the call that raises them.
class LARKPOST_API MailClientEvents {
public:
    virtual ~MailClientEvents();
    // After each slice of the message text has been handed to the send buffer.
    virtual void SendProgress(const std::shared_ptr<MailMessage>& message, int32_t bytesSent,
                              int32_t totalBytes);
    // Inside CancelSend, every time it is called.
    virtual void CancelPending();
    // When Send has stopped on a cancel and closed the connection.
    virtual void SendCanceled();
};

// Capability flags read from the server's EHLO reply.
inline constexpr int32_t CAP_8BITMIME = 1;
inline constexpr int32_t CAP_PIPELINING = 2;
inline constexpr int32_t CAP_AUTH_LOGIN = 4;
inline constexpr int32_t CAP_AUTH_PLAIN = 8;
inline constexpr int32_t CAP_SIZE = 16;

class LARKPOST_API MailClient {
public:
    MailClient();
    ~MailClient();
    MailClient(const MailClient&) = delete;
    MailClient& operator=(const MailClient&) = delete;

    // Seconds of silence a read of the session allows; taken over by each Connect.
    int32_t Timeout = 30;

    void Server(std::u16string rhs);
    void Server(std::string_view rhs);
    const std::u16string& Server() const;
    void Port(int32_t rhs);
    int32_t Port() const;

    // Opens the session: greeting, EHLO, and AUTH when both credentials are given.
    // The result is always the empty value.
    std::any Connect(const std::u16string& Username = u"", const std::u16string& Password = u"");
    std::any Connect(std::string_view Username, std::string_view Password);
    // Says QUIT (unless bForce) and closes. The result is always the empty value.
    std::any Disconnect(bool bForce = false);
    // Runs one mail transaction; the session stays open for the next one.
    void Send(std::shared_ptr<MailMessage> message);
    // Asks a running Send to stop after its current progress event.
    void CancelSend();

    // Listeners receive the events in the order they were added. The client keeps a reference
    // to each until it is removed; a listener that holds its client should hold it weakly.
    void AddListener(std::shared_ptr<MailClientEvents> listener);
    void RemoveListener(const std::shared_ptr<MailClientEvents>& listener);

private:
    friend struct detail::MailClientAccess;

    void NegotiateCapabilities();
    void RecordCapability(std::u16string_view keywordLine);
    std::u16string EhloName();
    void Authenticate(const std::u16string& Username, const std::u16string& Password);
    void AuthenticateLogin(const std::u16string& Username, const std::u16string& Password);
    void AuthenticatePlain(const std::u16string& Username, const std::u16string& Password);
    bool TransferText(const std::shared_ptr<MailMessage>& message, std::u16string_view text);
    void DropConnectionQuietly() noexcept;
    detail::SmtpResponse SendCommand(std::u16string_view command);
    detail::SmtpResponse SendCommandChecked(std::u16string_view command);
    detail::SmtpResponse ReadResponse();
    void SendRaw(std::u16string_view text);
    void SendRawLine(std::u16string_view text);
    int32_t HasCapability(int32_t flag) const;

    void RaiseSendProgress(const std::shared_ptr<MailMessage>& message, int32_t bytesSent,
                           int32_t totalBytes);
    void RaiseCancelPending();
    void RaiseSendCanceled();

    std::unique_ptr<TcpStream> m_stream;
    std::u16string m_server;
    int32_t m_port = 25;
    int32_t m_capabilities = 0;
    int32_t m_maxMessageSize = 0;
    bool m_cancelRequested = false;
    // Counts of Connect/Disconnect calls and of Send calls, so that a Send notices when an event
    // handler has closed or replaced its connection, or run another transaction on it.
    uint64_t m_connectionEpoch = 0;
    uint64_t m_transactionEpoch = 0;
    std::vector<std::shared_ptr<MailClientEvents>> m_listeners;
};

}  // namespace larkpost

#endif
