// The command and reply layer: every SMTP line of the session passes through here, in lock-step.
// Nothing here flushes: a command leaves the host when the stream's read of its reply runs.
#include "platform/errors.h"
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
    if (reply.IsError) Raise(ERROR_COMMAND_REFUSED, reply.Text, kSourceMailClient);
    return reply;
}

SmtpResponse MailClientImpl::ReadResponse() {
    SmtpResponse reply;
    bool more = true;
    while (more) {
        std::u16string line = ReadReplyLine();
        more = ContinuesReply(line);
        reply.Text.append(line).append(u"\r\n");
        CheckReplyLength(reply.Text.size());
        reply.Lines.push_back(std::move(line));
        ++reply.LineCount;
    }
    // Only the last line decides; the codes of the lines before it are not looked at.
    reply.Code = ReplyCode(reply.Lines.back());
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
