// MailClient: one ESMTP session with one relay: connect, log in, send messages, disconnect.
#ifndef LARKPOST_MAIL_CLIENT_H
#define LARKPOST_MAIL_CLIENT_H

#include <any>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "larkpost/export.h"

namespace larkpost {

class MailMessage;

namespace detail {
class MailClientImpl;
struct ImplAccess;
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

// Values of MailClient::Security (an extension).
inline constexpr int32_t SECURITY_NONE = 0;      // plaintext, the classic dialogue
inline constexpr int32_t SECURITY_STARTTLS = 1;  // EHLO, STARTTLS, TLS handshake, EHLO again
inline constexpr int32_t SECURITY_TLS = 2;       // TLS from the first byte (port 465)

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
    // Extension: opens the session as Connect does, then logs in with AUTH XOAUTH2: the user name
    // and an OAuth 2.0 access token (as Gmail and Microsoft 365 take them). Raises
    // ERROR_TOKEN_LOGIN_UNAVAILABLE when the server does not offer it, ERROR_TOKEN_REFUSED with
    // the server's words when it refuses the token.
    std::any ConnectWithToken(const std::u16string& Username, const std::u16string& AccessToken);
    std::any ConnectWithToken(std::string_view Username, std::string_view AccessToken);
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

    // Extension: TLS, read by each Connect. Security is one of SECURITY_* (SECURITY_NONE by
    // default; any other value raises 5). With STARTTLS the server must offer it, else Connect
    // fails: there is no quiet fallback to plaintext. VerifyCertificate (true by default) checks
    // the chain against CaFile (empty: the system's trust store) and the server's name.
    void Security(int32_t rhs);
    int32_t Security() const;
    void VerifyCertificate(bool rhs);
    bool VerifyCertificate() const;
    void CaFile(std::u16string rhs);
    void CaFile(std::string_view rhs);
    const std::u16string& CaFile() const;

    // Extension: strict delivery (default false): a refusal after the data raises
    // ERROR_MESSAGE_REFUSED, a transaction that did not complete is reset (RSET) before the next
    // MAIL FROM, a read that finds the connection closed fails at once (ERROR_CONNECTION_CLOSED),
    // the connect attempt ends after Timeout seconds (10060), a text line that starts with "." goes
    // out doubled, replies are limited (ERROR_REPLY_TOO_LONG), and a refused "AUTH LOGIN" or "AUTH
    // PLAIN" ends the login before any credential goes out.
    void StrictDelivery(bool rhs);
    bool StrictDelivery() const;
    // The pause before the first and every fourth slice of Send (default 5; 0 or less: none).
    void PauseMilliseconds(int32_t rhs);
    int32_t PauseMilliseconds() const;
    // For logs and progress displays; called on the client's thread inside its calls. The
    // dialogue: each command line sent (login tokens masked, the message text summed up) and
    // each reply line read, without CR LF. The write: how much of the message text and its end
    // has gone to the server, as the one write after the last SendProgress goes out.
    using DialogueWatcher = std::function<void(bool sent, const std::u16string& line)>;
    using WriteWatcher = std::function<void(int64_t written, int64_t total)>;
    void WatchDialogue(DialogueWatcher watcher);
    void WatchWrite(WriteWatcher watcher);

private:
    friend struct detail::ImplAccess;
    // Shared with each running call, so a client released inside its own event finishes the call.
    std::shared_ptr<detail::MailClientImpl> m_impl;
};

}  // namespace larkpost

#endif
