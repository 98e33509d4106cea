// Test access to the private state of a MailClient.
#ifndef LARKPOST_TESTS_MAIL_CLIENT_ACCESS_H
#define LARKPOST_TESTS_MAIL_CLIENT_ACCESS_H

#include <cstdint>
#include <string>
#include <string_view>

#include "larkpost/mail_client.h"
#include "larkpost/tcp_stream.h"
#include "platform/impl_access.h"
#include "smtp/mail_client_impl.h"
#include "smtp/smtp_response.h"

namespace larkpost::detail {

struct MailClientAccess {
    static MailClientImpl& Of(const MailClient& client) { return ImplAccess::Of(client); }
    static SmtpResponse ReadResponse(MailClient& client) { return Of(client).ReadResponse(); }
    static SmtpResponse SendCommand(MailClient& client, std::u16string_view command) {
        return Of(client).SendCommand(command);
    }
    static SmtpResponse SendCommandChecked(MailClient& client, std::u16string_view command) {
        return Of(client).SendCommandChecked(command);
    }
    static void SendRaw(MailClient& client, std::u16string_view text) { Of(client).SendRaw(text); }
    static void SendRawLine(MailClient& client, std::u16string_view text) { Of(client).SendRawLine(text); }
    static int32_t HasCapability(const MailClient& client, int32_t flag) { return Of(client).HasCapability(flag); }
    static int32_t Capabilities(const MailClient& client) { return Of(client).m_capabilities; }
    static int32_t MaxMessageSize(const MailClient& client) { return Of(client).m_maxMessageSize; }
    static bool CancelRequested(const MailClient& client) { return Of(client).m_cancelRequested; }
    static TcpStream& Stream(MailClient& client) { return Of(client).m_stream; }
};

}  // namespace larkpost::detail

#endif
