// MailClient: creation, destruction and the plain properties.
#include "larkpost/mail_client.h"

#include "larkpost/tcp_stream.h"
#include "larkpost/text.h"
#include "smtp/smtp_response.h"

namespace larkpost {

MailClient::MailClient() : m_stream(std::make_unique<TcpStream>()) {}

MailClient::~MailClient() {
    // Going away closes the connection without QUIT and never fails.
    try {
        Disconnect(true);
    } catch (...) {
    }
}

void MailClient::Server(std::u16string rhs) { m_server = std::move(rhs); }

void MailClient::Server(std::string_view rhs) { m_server = FromUtf8(rhs); }

const std::u16string& MailClient::Server() const { return m_server; }

void MailClient::Port(int32_t rhs) { m_port = rhs; }

int32_t MailClient::Port() const { return m_port; }

}  // namespace larkpost
