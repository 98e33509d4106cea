// Opening and closing a session: connection, greeting, EHLO, credentials; QUIT and close.
#include "platform/errors.h"
#include "smtp/mail_client_impl.h"
#include "smtp/smtp_response.h"

namespace larkpost::detail {

void MailClientImpl::Connect(const std::u16string& Username, const std::u16string& Password,
                             int32_t timeout) {
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

    const SmtpResponse greeting = ReadResponse();
    if (greeting.IsError) Raise(ERROR_GREETING_REFUSED, greeting.Text, kSourceMailClient);

    NegotiateCapabilities();
    Authenticate(Username, Password);
}

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
