// One mail transaction: MAIL FROM, RCPT TO for every address, DATA, the text, the end of data.
#include <limits>
#include <vector>

#include "larkpost/mail_message.h"
#include "message/mail_message_impl.h"
#include "net/tcp_stream_impl.h"
#include "platform/clock.h"
#include "platform/errors.h"
#include "platform/impl_access.h"
#include "smtp/mail_client_impl.h"
#include "smtp/smtp_response.h"

namespace larkpost::detail {

namespace {

constexpr std::size_t kSliceLength = 512;
// Before the first slice and then before every fourth one the thread pauses briefly.
constexpr std::size_t kPausePeriod = 2048;

void AppendAll(std::vector<std::u16string>& out, const KeyedCollection& list) {
    out.insert(out.end(), list.begin(), list.end());
}

}  // namespace

void MailClientImpl::Send(const std::shared_ptr<MailMessage>& message) {
    if (!message) {
        Raise(ERROR_NO_MESSAGE, u"No MailMessage object provided to Send().", kSourceMailClient);
    }
    // Only the To list counts: Cc and Bcc alone are not enough.
    MailMessageImpl& parts = ImplAccess::Of(*message);
    if (parts.recipients->Count() == 0) {
        Raise(ERROR_NO_RECIPIENTS, u"No recipient(s) specified in message.", kSourceMailClient);
    }

    // Held for the whole transfer: a progress handler that rebuilds the message (SaveToFile
    // after a change) replaces the message's text, not the one being sent.
    const BuiltText built = parts.BuildMessageText();
    // A SIZE of 0 announces no fixed limit (RFC 1870), so it is not a limit of 0 characters.
    if (HasCapability(CAP_SIZE) && m_maxMessageSize > 0 &&
        built->size() > static_cast<std::size_t>(m_maxMessageSize)) {
        Raise(ERROR_MESSAGE_TOO_LARGE, u"The message was too large to send.", kSourceMailClient);
    }
    if (built->size() > static_cast<std::size_t>(std::numeric_limits<int32_t>::max())) {
        RaiseRuntime(ERROR_OVERFLOW, kSourceMailClient);
    }

    const std::size_t length = built->size();

    std::vector<std::u16string> recipients;
    AppendAll(recipients, *parts.recipients);
    AppendAll(recipients, *parts.ccRecipients);
    AppendAll(recipients, *parts.bccRecipients);

    // A CancelSend from before this point does not concern this transfer.
    m_cancelRequested = false;
    ++m_transactionEpoch;

    if (m_strict && m_transactionOpen) SendCommandChecked(u"RSET");
    m_transactionOpen = true;
    SendCommandChecked(u"MAIL FROM: <" + message->FromAddress() + u">");
    for (const std::u16string& recipient : recipients)
        SendCommandChecked(u"RCPT TO: <" + recipient + u">");
    SendCommandChecked(u"DATA");

    if (!TransferText(message, built)) return;

    // The read of the reply writes the whole text in one go; only strict delivery judges it.
    EndData(length);
}

void MailClientImpl::SendTextSlice(std::string_view slice, const BuiltText& text) {
    ImplAccess::Of(m_stream).SendShared(slice, text);
}

bool MailClientImpl::TransferText(const std::shared_ptr<MailMessage>& message,
                                  const BuiltText& built) {
    const std::string_view text = *built;
    const uint64_t connection = m_connectionEpoch;
    const uint64_t transaction = m_transactionEpoch;
    const auto totalBytes = static_cast<int32_t>(text.size());
    int32_t bytesSent = 0;
    for (std::size_t start = 0; start < text.size(); start += kSliceLength) {
        if (start % kPausePeriod == 0 && m_pauseMilliseconds > 0) Sleep(m_pauseMilliseconds);
        const std::string_view slice = text.substr(start, kSliceLength);
        if (m_strict) {
            SendTextSliceStuffed(
                slice, start == 0 || text[start - 1] == '\r' || text[start - 1] == '\n', built);
        } else {
            SendTextSlice(slice, built);
        }
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
            Raise(ERROR_NOT_CONNECTED, u"Not connected.", kSourceMailClient);
        }

        if (m_cancelRequested) {
            m_cancelRequested = false;
            m_stream.Disconnect();
            RaiseSendCanceled();
            return false;
        }
    }
    return true;
}

void MailClientImpl::CancelSend() {
    m_cancelRequested = true;
    RaiseCancelPending();
}

}  // namespace larkpost::detail
