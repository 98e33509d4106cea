// The command and reply layer: every SMTP line of the session passes through here, in lock-step.
// Nothing here flushes: a command leaves the host when the stream's read of its reply runs.
#include <algorithm>

#include "net/byte_queue.h"
#include "net/tcp_stream_impl.h"
#include "platform/errors.h"
#include "platform/impl_access.h"
#include "smtp/mail_client_impl.h"
#include "smtp/smtp_reply.h"
#include "smtp/smtp_response.h"

namespace larkpost::detail {

SmtpResponse MailClientImpl::SendCommand(std::u16string_view command) {
    return SendCommandShown(command, command);
}

SmtpResponse MailClientImpl::SendCommandShown(std::u16string_view command,
                                              std::u16string_view shown) {
    Show(true, shown);
    m_stream.SendLine(command);
    return ReadResponse();
}

SmtpResponse MailClientImpl::SendCommandChecked(std::u16string_view command) {
    SmtpResponse reply = SendCommand(command);
    if (reply.IsError) Raise(ERROR_COMMAND_REFUSED, std::move(reply.Text), kSourceMailClient);
    return reply;
}

SmtpResponse MailClientImpl::ReadResponse() {
    SmtpResponse reply;
    // The lines stay in the code page until the reply is whole, and then become its text in one
    // conversion that frees the bytes as it goes: a long reply never holds two full copies.
    ByteQueue lines;
    bool more = true;
    while (more) {
        const std::size_t start = lines.Size();
        ReadReplyLine(lines);
        CheckReplyLength(lines.Size());
        reply.LineStarts.push_back(start);
        more =
            ContinuesReply(lines.Peek(start, std::min<std::size_t>(4, lines.Size() - start - 2)));
        ++reply.LineCount;
    }
    reply.Text = lines.Take(lines.Size());
    // Only the last line decides; the codes of the lines before it are not looked at.
    reply.Code = ReplyCode(reply.Line(reply.LineStarts.size() - 1));
    reply.IsError = reply.Code >= 400;
    return reply;
}

void MailClientImpl::SendRaw(std::u16string_view text) { m_stream.Send(text); }

void MailClientImpl::SendRawLine(std::u16string_view text) {
    std::u16string line;
    line.reserve(text.size() + 2);
    line.append(text).append(u"\r\n");
    SendRaw(line);
}

}  // namespace larkpost::detail
