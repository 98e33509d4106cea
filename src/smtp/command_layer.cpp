// The command and reply layer: every SMTP line of the session passes through here, in lock-step.
// Nothing here flushes: a command leaves the host when the stream's read of its reply runs.
#include "larkpost/mail_client.h"

#include "larkpost/tcp_stream.h"
#include "platform/errors.h"
#include "smtp/smtp_reply.h"
#include "smtp/smtp_response.h"

namespace larkpost {

using detail::SmtpResponse;

SmtpResponse MailClient::SendCommand(std::u16string_view command) {
    m_stream->SendLine(command);
    return ReadResponse();
}

SmtpResponse MailClient::SendCommandChecked(std::u16string_view command) {
    SmtpResponse reply = SendCommand(command);
    if (reply.IsError) detail::Raise(ERROR_COMMAND_REFUSED, reply.Text, detail::kSourceMailClient);
    return reply;
}

SmtpResponse MailClient::ReadResponse() {
    SmtpResponse reply;
    bool more = true;
    while (more) {
        std::u16string line = m_stream->ReadLine();
        more = detail::ContinuesReply(line);
        reply.Text.append(line).append(u"\r\n");
        reply.Lines.push_back(std::move(line));
        ++reply.LineCount;
    }
    // Only the last line decides; the codes of the lines before it are not looked at.
    reply.Code = detail::ReplyCode(reply.Lines.back());
    reply.IsError = reply.Code >= 400;
    return reply;
}

void MailClient::SendRaw(std::u16string_view text) { m_stream->Send(text); }

void MailClient::SendRawLine(std::u16string_view text) {
    std::u16string line;
    line.reserve(text.size() + 2);
    line.append(text).append(u"\r\n");
    SendRaw(line);
}

int32_t MailClient::HasCapability(int32_t flag) const { return m_capabilities & flag; }

}  // namespace larkpost
