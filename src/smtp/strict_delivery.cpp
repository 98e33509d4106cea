// Strict delivery and the watchers: what the client does beyond the classic behaviour when a
// host asks for it. The transaction and the reply layer call in here at the points that differ.
#include "net/byte_queue.h"
#include "net/tcp_stream_impl.h"
#include "platform/errors.h"
#include "platform/impl_access.h"
#include "smtp/mail_client_impl.h"

namespace larkpost::detail {

namespace {

// Generous for any real server (RFC 5321 asks for 512 characters a reply line), small enough
// that a hostile one cannot make the client hold gigabytes.
constexpr std::size_t kReplyLineLimit = 64 * 1024;
constexpr std::size_t kReplyLimit = 1024 * 1024;

bool IsLineEnd(char c) { return c == '\r' || c == '\n'; }

}  // namespace

void MailClientImpl::StrictDelivery(bool rhs) {
    m_strict = rhs;
    ApplyStreamLimits(0);  // the connect limit is set by each Connect, which knows Timeout
}

void MailClientImpl::ApplyStreamLimits(int32_t timeout) {
    TcpStreamImpl::Limits limits;
    if (m_strict) {
        // A Timeout of 0 or less allows one tick, as it does a read.
        limits.connectTicks = timeout > 0 ? timeout : 1;
        limits.lineLength = kReplyLineLimit;
        limits.failOnPeerClose = true;
    }
    ImplAccess::Of(m_stream).SetLimits(limits);
}

// A "." that begins a line goes out doubled (RFC 5321, section 4.5.2), so that no text can end
// the data early. A bare CR or LF counts as a line end too, as lenient servers take it for one.
void MailClientImpl::SendTextSliceStuffed(std::string_view slice, bool atLineStart,
                                          const BuiltText& text) {
    std::size_t from = 0;
    for (std::size_t dot = slice.find('.'); dot != std::string_view::npos;
         dot = slice.find('.', dot + 1)) {
        if (dot == 0 ? !atLineStart : !IsLineEnd(slice[dot - 1])) continue;
        SendTextSlice(slice.substr(from, dot + 1 - from), text);
        from = dot;  // the same "." begins the next piece: it goes out twice
    }
    SendTextSlice(slice.substr(from), text);
}

SmtpResponse MailClientImpl::EndData(std::size_t textLength) {
    if (m_dialogueWatcher) {
        const std::string count = std::to_string(textLength);
        Show(true,
             u"(the message text, " + std::u16string(count.begin(), count.end()) + u" characters)");
    }
    // The one write of the text and its end goes to the write watcher, if there is one.
    TcpStreamImpl& stream = ImplAccess::Of(m_stream);
    struct Unwatch {
        TcpStreamImpl& stream;
        ~Unwatch() { stream.WatchWrites({}); }
    } unwatch{stream};
    stream.WatchWrites(m_writeWatcher);
    // With the CR LF of the line itself this ends the data with CR LF "." CR LF.
    SmtpResponse reply = SendCommandShown(u"\r\n.", u".");
    if (!reply.IsError) {
        m_transactionOpen = false;
    } else if (m_strict) {
        Raise(ERROR_MESSAGE_REFUSED, reply.Text, kSourceMailClient);
    }
    return reply;
}

void MailClientImpl::ReadReplyLine(ByteQueue& lines) {
    const std::size_t start = lines.Size();
    try {
        ImplAccess::Of(m_stream).ReadLineTo(lines);
    } catch (const RaisedError& error) {
        // The rest of an endless line cannot be told from what follows it: the session is over.
        if (error.Number() == ERROR_REPLY_TOO_LONG) DropConnectionQuietly();
        throw;
    }
    if (m_dialogueWatcher) Show(false, lines.Peek(start, lines.Size() - start - 2));
}

void MailClientImpl::CheckReplyLength(std::size_t length) {
    if (!m_strict || length <= kReplyLimit) return;
    DropConnectionQuietly();
    Raise(ERROR_REPLY_TOO_LONG, u"The server's reply is longer than 1048576 characters.",
          kSourceMailClient);
}

void MailClientImpl::Show(bool sent, std::u16string_view line) {
    if (!m_dialogueWatcher) return;
    // A copy: the watcher may replace itself while it runs.
    const MailClient::DialogueWatcher watcher = m_dialogueWatcher;
    watcher(sent, std::u16string(line));
}

}  // namespace larkpost::detail
