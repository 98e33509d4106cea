// Errors: every failure of the library is a thrown larkpost::RaisedError with a number,
// an English description and a source.
#ifndef LARKPOST_ERROR_H
#define LARKPOST_ERROR_H

#include <cstdint>
#include <exception>
#include <string>

#include "larkpost/export.h"

namespace larkpost {

// The library's own numbers are ERROR_BASE plus a decimal. As a signed 32-bit number
// ERROR_BASE is -1550909440 (0xA38F0000).
inline constexpr int32_t ERROR_BASE = static_cast<int32_t>(0xA38F0000u);

// TcpStream: "Not connected." when text has to go out without a connection.
inline constexpr int32_t ERROR_NOT_CONNECTED = ERROR_BASE + 1000;
// MailMessage.AttachFile: "File <path> not found. Cannot attach to message." (same number).
inline constexpr int32_t ERROR_FILE_NOT_FOUND = ERROR_BASE + 1000;
// TcpStream.Connect: the attempt broke down inside the call.
inline constexpr int32_t ERROR_CONNECTION_FAILED = ERROR_BASE + 1001;
// TcpStream: "The server did not respond in time."
inline constexpr int32_t ERROR_RESPONSE_TIMEOUT = ERROR_BASE + 1002;
// MailClient.Connect: the server's greeting was an error reply.
inline constexpr int32_t ERROR_GREETING_REFUSED = ERROR_BASE + 2000;
// MailClient.Connect: AUTH LOGIN or AUTH PLAIN was refused.
inline constexpr int32_t ERROR_AUTH_FAILED = ERROR_BASE + 2001;
// MailClient.Connect: credentials given, but the server offers neither AUTH LOGIN nor AUTH PLAIN.
inline constexpr int32_t ERROR_AUTH_UNSUPPORTED = ERROR_BASE + 2002;
// MailClient: a command was refused; also an incomplete credential pair and a bad SIZE value.
inline constexpr int32_t ERROR_COMMAND_REFUSED = ERROR_BASE + 2003;
inline constexpr int32_t ERROR_CREDENTIALS_INCOMPLETE = ERROR_BASE + 2003;
inline constexpr int32_t ERROR_INVALID_SIZE_VALUE = ERROR_BASE + 2003;
// MailClient.Send: "No MailMessage object provided to Send()."
inline constexpr int32_t ERROR_NO_MESSAGE = ERROR_BASE + 2004;
// MailClient.Send: "No recipient(s) specified in message."
inline constexpr int32_t ERROR_NO_RECIPIENTS = ERROR_BASE + 2005;
// MailClient.Send: "The message was too large to send."
inline constexpr int32_t ERROR_MESSAGE_TOO_LARGE = ERROR_BASE + 2006;
// MailMessage: an attached file could not be read while the message text was built.
inline constexpr int32_t ERROR_ATTACHMENT_FAILED = ERROR_BASE + 3000;
// MailMessage: "Blank recipient".
inline constexpr int32_t ERROR_BLANK_RECIPIENT = ERROR_BASE + 3001;
// MailMessage: "'<recipient>' is already on the list".
inline constexpr int32_t ERROR_DUPLICATE_RECIPIENT = ERROR_BASE + 3002;

// Extension errors, for behaviour beyond the classic table: ERROR_BASE + 4000 and up.
// TcpStream, and MailClient through its stream: a call from another thread than the one whose
// Connect made the connection: "This object is in use by another thread; use it only from the
// thread that connected it."
inline constexpr int32_t ERROR_WRONG_THREAD = ERROR_BASE + 4000;
// MailClient with Security STARTTLS: the server's EHLO reply does not offer STARTTLS.
inline constexpr int32_t ERROR_STARTTLS_UNAVAILABLE = ERROR_BASE + 4001;
// MailClient: the server answered STARTTLS with something other than 220 (its reply follows).
inline constexpr int32_t ERROR_STARTTLS_REFUSED = ERROR_BASE + 4002;
// TcpStream::StartTls: the TLS handshake failed (the reason follows); the connection is closed.
inline constexpr int32_t ERROR_TLS_HANDSHAKE_FAILED = ERROR_BASE + 4003;
// TcpStream::StartTls: the server's certificate failed a check (which check, for which name).
inline constexpr int32_t ERROR_CERTIFICATE_REJECTED = ERROR_BASE + 4004;
// TcpStream::StartTls: the server sent data before the handshake; nothing of it is used.
inline constexpr int32_t ERROR_TLS_UNEXPECTED_DATA = ERROR_BASE + 4005;
// MailClient::ConnectWithToken: the server does not offer AUTH XOAUTH2.
inline constexpr int32_t ERROR_TOKEN_LOGIN_UNAVAILABLE = ERROR_BASE + 4006;
// MailClient::ConnectWithToken: the server refused the access token (its reply follows).
inline constexpr int32_t ERROR_TOKEN_REFUSED = ERROR_BASE + 4007;
// TcpStream: TLS failed on an established connection (a corrupt or forged record).
inline constexpr int32_t ERROR_TLS_FAILED = ERROR_BASE + 4008;
// TcpStream::StartTls: the CA file could not be read or holds no certificate.
inline constexpr int32_t ERROR_CA_FILE_UNREADABLE = ERROR_BASE + 4009;
// MailMessage in the standard format (ERROR_BASE + 4020 to 4029), raised when the text is built,
// before anything is sent or written: a subject, name, address, MIME type or added header holds
// CR or LF; also MailMessage.AddHeader for a value with CR or LF.
inline constexpr int32_t ERROR_HEADER_LINE_BREAK = ERROR_BASE + 4020;
// An address (From, To, Cc) or the MIME type holds a character that is not printable ASCII.
inline constexpr int32_t ERROR_HEADER_NOT_ASCII = ERROR_BASE + 4021;
// An address longer than a header line can hold (990 characters).
inline constexpr int32_t ERROR_HEADER_TOO_LONG = ERROR_BASE + 4022;
// MailMessage.AddHeader: not a field name (1 to 76 printable ASCII characters other than ":"),
// or a field that the message writes itself (Date, From, To, Cc, Bcc, Subject, Message-ID,
// MIME-Version, Content-*).
inline constexpr int32_t ERROR_HEADER_NAME = ERROR_BASE + 4023;
// Strict delivery (MailClient::StrictDelivery): the server refused the message after its data;
// the description is the reply's text.
inline constexpr int32_t ERROR_MESSAGE_REFUSED = ERROR_BASE + 4010;
// Strict delivery: a read found the connection closed by the server: "The server closed the
// connection."
inline constexpr int32_t ERROR_CONNECTION_CLOSED = ERROR_BASE + 4011;
// Strict delivery: a reply line over 65536 characters or a reply over 1048576; the connection is
// dropped, as the rest of the reply cannot be told from what follows it.
inline constexpr int32_t ERROR_REPLY_TOO_LONG = ERROR_BASE + 4012;

// General runtime failures keep their classic numbers.
inline constexpr int32_t ERROR_INVALID_ARGUMENT = 5;
inline constexpr int32_t ERROR_OVERFLOW = 6;
inline constexpr int32_t ERROR_TYPE_MISMATCH = 13;
inline constexpr int32_t ERROR_KEY_IN_USE = 457;

class LARKPOST_API RaisedError : public std::exception {
public:
    RaisedError(int32_t number, std::u16string description, std::u16string source = {});

    int32_t Number() const noexcept { return m_number; }
    const std::u16string& Description() const noexcept { return m_description; }
    const std::u16string& Source() const noexcept { return m_source; }

    // The description in UTF-8. A C string cannot hold a NUL, so a NUL inside the description
    // shows here as U+2400 (SYMBOL FOR NULL); Description() keeps it as it is.
    const char* what() const noexcept override;

private:
    int32_t m_number;
    std::u16string m_description;
    std::u16string m_source;
    std::string m_what;
};

}  // namespace larkpost

#endif
