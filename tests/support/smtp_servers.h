// SMTP servers for the MailClient tests: scripted dialogue helpers, and real servers on loopback
// (aiosmtpd through tests/servers/smtp_server.py, and Postfix's smtp-sink).
#ifndef LARKPOST_TESTS_SMTP_SERVERS_H
#define LARKPOST_TESTS_SMTP_SERVERS_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/process.h"
#include "support/scripted_peer.h"

namespace larkpost::test {

// Script steps for the start of a session: the greeting, then the reply to EHLO.
ScriptedPeer& Greet(ScriptedPeer& peer, std::string ehloReply = "250 peer.test\r\n");

// While it lives, every socket control this thread makes is a real one that also records each
// write (SendData) it is given, so tests can count and compare the writes a client makes.
// localHostName, when set, replaces what the controls report as the local machine's name.
class WireRecorder {
public:
    explicit WireRecorder(std::optional<std::u16string> localHostName = std::nullopt);
    ~WireRecorder();
    WireRecorder(const WireRecorder&) = delete;
    WireRecorder& operator=(const WireRecorder&) = delete;

    // Every write so far, over all controls, in order.
    std::vector<std::string> Writes() const { return *m_writes; }

private:
    std::shared_ptr<std::vector<std::string>> m_writes = std::make_shared<std::vector<std::string>>();
};

// One message as a real server stored it.
struct StoredMessage {
    std::string mailFrom;
    std::vector<std::string> rcptTos;
    std::string authMechanism;  // empty when the session did not log in
    std::string authLogin;
    std::string content;  // the DATA text as the server stored it
};

class AiosmtpdServer {
public:
    struct Options {
        // When set, the server requires AUTH with exactly these credentials.
        std::optional<std::string> user;
        std::string password;
        std::string mechanisms = "LOGIN,PLAIN";  // what it offers
        std::optional<int64_t> sizeLimit;        // announced and enforced SIZE
    };

    AiosmtpdServer();
    explicit AiosmtpdServer(Options options);
    ~AiosmtpdServer();
    AiosmtpdServer(const AiosmtpdServer&) = delete;
    AiosmtpdServer& operator=(const AiosmtpdServer&) = delete;

    int32_t Port() const { return m_port; }
    // The messages stored so far, in order of arrival; waits (bounded) until there are `count`.
    std::vector<StoredMessage> Messages(std::size_t count,
                                        std::chrono::milliseconds limit = std::chrono::seconds(10)) const;
    std::vector<StoredMessage> MessagesNow() const;

private:
    TempDir m_dir;
    std::unique_ptr<BackgroundProcess> m_process;
    int32_t m_port = 0;
};

// Postfix's smtp-sink, run as root with -u nobody, dumping each transaction to a file.
class SmtpSink {
public:
    SmtpSink();
    ~SmtpSink();
    SmtpSink(const SmtpSink&) = delete;
    SmtpSink& operator=(const SmtpSink&) = delete;

    static bool Available();
    int32_t Port() const { return m_port; }
    // The dumps, split into the sink's envelope headers and the message, whose line ends are
    // turned back into CR LF; waits (bounded) until there are `count` complete ones.
    std::vector<StoredMessage> Messages(std::size_t count,
                                        std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

private:
    TempDir m_dir;
    std::unique_ptr<BackgroundProcess> m_process;
    int32_t m_port = 0;
};

// A loopback port that nobody listens on at this moment.
int32_t FreeLoopbackPort();
// Waits (bounded) until something accepts connections on the loopback port.
bool WaitUntilListening(int32_t port, std::chrono::milliseconds limit);

}  // namespace larkpost::test

#endif
