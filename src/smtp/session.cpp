// Opening and closing a session: connection, TLS when asked, greeting, EHLO, credentials; QUIT
// and close.
#include "platform/errors.h"
#include "smtp/mail_client_impl.h"
#include "smtp/smtp_response.h"

namespace larkpost::detail {

void MailClientImpl::Connect(const Login& login, int32_t timeout) {
    ++m_connectionEpoch;
    // An open connection is dropped without QUIT; the stream starts the new one with empty
    // buffers, so nothing the old one left behind reaches the new server.
    if (m_stream.Connected()) m_stream.Disconnect();

    m_transactionOpen = false;
    ApplyStreamLimits(timeout);
    const int32_t port = m_port;
    m_stream.Connect(m_server, port);
    // The stream's Connect sets a time limit of its own, so ours goes in afterwards, before the
    // greeting is read.
    m_stream.ResponseTimeout = timeout;
    if (m_tls.security == SECURITY_TLS) StartTls();

    SmtpResponse greeting = ReadResponse();
    if (greeting.IsError)
        Raise(ERROR_GREETING_REFUSED, std::move(greeting.Text), kSourceMailClient);

    NegotiateCapabilities();
    if (m_tls.security == SECURITY_STARTTLS) UpgradeToTls();
    if (login.token)
        AuthenticateToken(login.user, login.secret);
    else
        Authenticate(login.user, login.secret);
}

void MailClientImpl::UpgradeToTls() {
    // No quiet fallback: a server (or a man in the middle) that hides STARTTLS gets no login.
    if (!(m_extensionCapabilities & kCapStartTls)) {
        DropConnectionQuietly();
        Raise(ERROR_STARTTLS_UNAVAILABLE, u"The mail server does not offer STARTTLS.",
              kSourceMailClient);
    }
    const SmtpResponse reply = SendCommand(u"STARTTLS");
    if (reply.Code != 220) {
        DropConnectionQuietly();
        Raise(ERROR_STARTTLS_REFUSED, u"The mail server refused STARTTLS: " + reply.Text,
              kSourceMailClient);
    }
    StartTls();
    // What the server announced in plaintext may have been forged: learn it again.
    m_capabilities = 0;
    m_extensionCapabilities = 0;
    m_maxMessageSize = 0;
    NegotiateCapabilities();
}

// The stream closes the connection when TLS cannot be set up.
void MailClientImpl::StartTls() { m_stream.StartTls(m_tls.verify, m_tls.caFile); }

void MailClientImpl::Disconnect(bool bForce) {
    ++m_connectionEpoch;
    if (!m_stream.Connected()) return;
    if (!bForce) {
        // QUIT must leave before the close; its reply is not awaited. Should that write fail,
        // the connection is closed all the same and the write's error reaches the caller.
        try {
            Show(true, u"QUIT");
            SendRawLine(u"QUIT");
            m_stream.Flush();
        } catch (...) {
            DropConnectionQuietly();
            throw;
        }
    }
    m_stream.Disconnect();
}

void MailClientImpl::DropConnectionQuietly() noexcept {
    try {
        m_stream.Disconnect();
    } catch (...) {
        // The error that brought us here is the one the caller needs to see.
    }
}

}  // namespace larkpost::detail
