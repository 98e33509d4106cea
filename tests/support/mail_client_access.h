// Test access to the private state of a MailClient.
#ifndef LARKPOST_TESTS_MAIL_CLIENT_ACCESS_H
#define LARKPOST_TESTS_MAIL_CLIENT_ACCESS_H

#include <cstdint>
#include <string_view>

#include "larkpost/mail_client.h"
#include "larkpost/tcp_stream.h"
#include "platform/impl_access.h"
#include "smtp/mail_client_impl.h"

namespace larkpost::detail {

struct MailClientAccess {
    static MailClientImpl& Of(const MailClient& client) { return ImplAccess::Of(client); }
    static void SendRawLine(MailClient& client, std::u16string_view text) { Of(client).SendRawLine(text); }
    static int32_t Capabilities(const MailClient& client) { return Of(client).m_capabilities; }
    static int32_t MaxMessageSize(const MailClient& client) { return Of(client).m_maxMessageSize; }
    static TcpStream& Stream(MailClient& client) { return Of(client).m_stream; }
};

}  // namespace larkpost::detail

#endif
