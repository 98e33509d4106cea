// One mail transaction: MAIL FROM, RCPT TO for every address, DATA, the text, the end of data.
#include "larkpost/mail_client.h"

#include <limits>
#include <vector>

#include "larkpost/mail_message.h"
#include "larkpost/tcp_stream.h"
#include "message/keyed_collection.h"
#include "net/tcp_stream_access.h"
#include "platform/clock.h"
#include "platform/errors.h"
#include "smtp/smtp_response.h"

namespace larkpost {

namespace {

constexpr std::size_t kSliceLength = 512;
// Before the first slice and then before every fourth one the thread pauses briefly.
constexpr std::size_t kPausePeriod = 2048;
constexpr int32_t kPauseMilliseconds = 5;

void AppendAll(std::vector<std::u16string>& out, const detail::KeyedCollection& list) {
    out.insert(out.end(), list.begin(), list.end());
}

}  // namespace

void MailClient::Send(std::shared_ptr<MailMessage> message) {
    if (!message) {
        detail::Raise(ERROR_NO_MESSAGE, u"No MailMessage object provided to Send().", detail::kSourceMailClient);
    }
    // Only the To list counts: Cc and Bcc alone are not enough.
    if (message->Recipients()->Count() == 0) {
        detail::Raise(ERROR_NO_RECIPIENTS, u"No recipient(s) specified in message.", detail::kSourceMailClient);
    }

    // Held for the whole transfer: a progress handler that rebuilds the message (SaveToFile
    // after a change) replaces the message's text, not the one being sent.
    const std::shared_ptr<const std::u16string> built = message->BuildMessageText();
    // A SIZE of 0 announces no fixed limit (RFC 1870), so it is not a limit of 0 characters.
    if (HasCapability(CAP_SIZE) && m_maxMessageSize > 0 &&
        built->size() > static_cast<std::size_t>(m_maxMessageSize)) {
        detail::Raise(ERROR_MESSAGE_TOO_LARGE, u"The message was too large to send.", detail::kSourceMailClient);
    }
    if (built->size() > static_cast<std::size_t>(std::numeric_limits<int32_t>::max())) {
        detail::RaiseRuntime(ERROR_OVERFLOW, detail::kSourceMailClient);
    }

    const std::u16string_view text = *built;

    std::vector<std::u16string> recipients;
    AppendAll(recipients, *message->Recipients());
    AppendAll(recipients, *message->CCRecipients());
    AppendAll(recipients, *message->BCCRecipients());

    // A CancelSend from before this point does not concern this transfer.
    m_cancelRequested = false;
    ++m_transactionEpoch;

    SendCommandChecked(u"MAIL FROM: <" + message->FromAddress() + u">");
    for (const std::u16string& recipient : recipients) SendCommandChecked(u"RCPT TO: <" + recipient + u">");
    SendCommandChecked(u"DATA");

    // The slices and the terminating line will sit in the send buffer together.
    detail::TcpStreamAccess::ReserveSend(*m_stream, text.size() + 5);
    if (!TransferText(message, text)) return;

    // With the CR LF of the line itself this ends the data with CR LF "." CR LF. The read of
    // the reply writes the whole text in one go; the reply itself is not judged.
    SendCommand(u"\r\n.");
}

bool MailClient::TransferText(const std::shared_ptr<MailMessage>& message, std::u16string_view text) {
    const uint64_t connection = m_connectionEpoch;
    const uint64_t transaction = m_transactionEpoch;
    const auto totalBytes = static_cast<int32_t>(text.size());
    int32_t bytesSent = 0;
    for (std::size_t start = 0; start < text.size(); start += kSliceLength) {
        if (start % kPausePeriod == 0) detail::Sleep(kPauseMilliseconds);
        const std::u16string_view slice = text.substr(start, kSliceLength);
        SendRaw(slice);
        bytesSent += static_cast<int32_t>(slice.size());

        try {
            RaiseSendProgress(message, bytesSent, totalBytes);
        } catch (...) {
            // The server is inside DATA and part of the text sits in the send buffer: the
            // session cannot be reused, so it ends here (unless the handler already closed or
            // replaced it), and the handler's error goes on.
            if (m_connectionEpoch == connection) DropConnectionQuietly();
            throw;
        }

        // A handler that closed or replaced the connection, or ran another Send on it, has
        // ended this transaction: nothing more of the text may go out, least of all to a
        // server that now reads commands.
        if (m_connectionEpoch != connection || m_transactionEpoch != transaction) {
            detail::Raise(ERROR_NOT_CONNECTED, u"Not connected.", detail::kSourceMailClient);
        }

        if (m_cancelRequested) {
            m_cancelRequested = false;
            m_stream->Disconnect();
            RaiseSendCanceled();
            return false;
        }
    }
    return true;
}

void MailClient::CancelSend() {
    m_cancelRequested = true;
    RaiseCancelPending();
}

}  // namespace larkpost
