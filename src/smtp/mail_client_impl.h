// MailClientImpl: the state and the work behind a MailClient: its stream, the capabilities of
// the server, the listeners, and the command, session and transaction logic.
#ifndef LARKPOST_SMTP_MAIL_CLIENT_IMPL_H
#define LARKPOST_SMTP_MAIL_CLIENT_IMPL_H

#include <any>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "larkpost/mail_client.h"
#include "larkpost/tcp_stream.h"
#include "smtp/smtp_response.h"

namespace larkpost::detail {

class ByteQueue;

// The credentials of a Connect: a password, or an OAuth 2.0 access token (XOAUTH2).
struct Login {
    const std::u16string& user;
    const std::u16string& secret;
    bool token;
};

// How a session secures its connection.
struct TlsSettings {
    int32_t security = SECURITY_NONE;
    bool verify = true;
    std::u16string caFile;
};

// Capabilities that only the extensions look at; kept apart from the classic flags.
inline constexpr int32_t kCapStartTls = 1;
inline constexpr int32_t kCapAuthXOAuth2 = 2;

class MailClientImpl {
public:
    // The public members, one for one.
    void Server(std::u16string rhs) { m_server = std::move(rhs); }
    const std::u16string& Server() const { return m_server; }
    void Port(int32_t rhs) { m_port = rhs; }
    int32_t Port() const { return m_port; }
    // timeout (the client's Timeout) becomes the stream's time limit for this session.
    void Connect(const Login& login, int32_t timeout);
    TlsSettings& Tls() { return m_tls; }
    const TlsSettings& Tls() const { return m_tls; }
    void Disconnect(bool bForce);
    void Send(const std::shared_ptr<MailMessage>& message);
    void CancelSend();
    void AddListener(std::shared_ptr<MailClientEvents> listener);
    void RemoveListener(const std::shared_ptr<MailClientEvents>& listener);
    void StrictDelivery(bool rhs);
    bool StrictDelivery() const { return m_strict; }
    void PauseMilliseconds(int32_t rhs) { m_pauseMilliseconds = rhs; }
    int32_t PauseMilliseconds() const { return m_pauseMilliseconds; }
    void WatchDialogue(MailClient::DialogueWatcher watcher) {
        m_dialogueWatcher = std::move(watcher);
    }
    void WatchWrite(MailClient::WriteWatcher watcher) { m_writeWatcher = std::move(watcher); }

    // The command and reply layer: every SMTP line of the session passes through these.
    SmtpResponse SendCommand(std::u16string_view command);
    // As SendCommand; a dialogue watcher hears `shown` in place of the command (a login token).
    SmtpResponse SendCommandShown(std::u16string_view command, std::u16string_view shown);
    SmtpResponse SendCommandChecked(std::u16string_view command);
    SmtpResponse ReadResponse();
    void SendRaw(std::u16string_view text);
    void SendRawLine(std::u16string_view text);
    int32_t HasCapability(int32_t flag) const { return m_capabilities & flag; }

private:
    friend struct MailClientAccess;  // the tests' view of the session state

    void NegotiateCapabilities();
    // STARTTLS on the open session, then EHLO afresh: nothing learnt before TLS is kept.
    void UpgradeToTls();
    void StartTls();
    void RecordCapability(std::u16string_view keywordLine);
    std::u16string EhloName();
    void Authenticate(const std::u16string& Username, const std::u16string& Password);
    void AuthenticateLogin(const std::u16string& Username, const std::u16string& Password);
    void AuthenticatePlain(const std::u16string& Username, const std::u16string& Password);
    void AuthenticateToken(const std::u16string& Username, const std::u16string& AccessToken);
    // The built text goes out in slices, each a view of text (which it keeps alive), not a copy.
    using BuiltText = std::shared_ptr<const std::string>;
    bool TransferText(const std::shared_ptr<MailMessage>& message, const BuiltText& text);
    void SendTextSlice(std::string_view slice, const BuiltText& text);
    void SendTextSliceStuffed(std::string_view slice, bool atLineStart, const BuiltText& text);
    SmtpResponse EndData(std::size_t textLength);
    // The next reply line, with its CR LF, onto the end of lines; shown to the dialogue watcher.
    void ReadReplyLine(ByteQueue& lines);
    void CheckReplyLength(std::size_t length);
    void ApplyStreamLimits(int32_t timeout);
    void Show(bool sent, std::u16string_view line);
    void DropConnectionQuietly() noexcept;

    void RaiseSendProgress(const std::shared_ptr<MailMessage>& message, int32_t bytesSent,
                           int32_t totalBytes);
    void RaiseCancelPending();
    void RaiseSendCanceled();

    TcpStream m_stream;
    std::u16string m_server;
    int32_t m_port = 25;
    int32_t m_capabilities = 0;
    int32_t m_extensionCapabilities = 0;  // kCap* flags
    TlsSettings m_tls;
    int32_t m_maxMessageSize = 0;
    bool m_cancelRequested = false;
    // Counts of Connect/Disconnect calls and of Send calls, so that a Send notices when an event
    // handler has closed or replaced its connection, or run another transaction on it.
    uint64_t m_connectionEpoch = 0;
    uint64_t m_transactionEpoch = 0;
    std::vector<std::shared_ptr<MailClientEvents>> m_listeners;
    // Extensions (see MailClient); a transaction that began and did not complete is reset with
    // RSET before the next under strict delivery.
    bool m_strict = false;
    int32_t m_pauseMilliseconds = 5;
    bool m_transactionOpen = false;
    MailClient::DialogueWatcher m_dialogueWatcher;
    MailClient::WriteWatcher m_writeWatcher;
};

}  // namespace larkpost::detail

#endif
