// A MailClient against a server whose every byte the fuzzer chooses: the reply parser, the
// capability parsing, the login and the mail transaction, each ending in a documented outcome.
// Afterwards the same client must open a clean second session: nothing of the first may leak.
//
// Input: one byte of options, then the server's replies, separated by NUL bytes. The first
// reply is sent after the connection stands, each further one after each write of the client;
// when they run out the server closes (or stays silent, as the options say).
#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include "fuzz_support.h"
#include "larkpost/error.h"
#include "larkpost/mail_client.h"
#include "larkpost/mail_message.h"

using namespace larkpost;

namespace {

// Bits of the options byte.
constexpr uint8_t kLogIn = 0x01;          // Connect with a user name and a password
constexpr uint8_t kSend = 0x02;           // Send a message after a successful Connect
constexpr uint8_t kLongMessage = 0x04;    // a text of several slices
constexpr uint8_t kCancelMask = 0x18;     // 0: no cancel; else cancel at that progress event
constexpr uint8_t kSilentAtEnd = 0x20;    // the server stays silent instead of closing
constexpr uint8_t kRefuse = 0x40;         // the connection is refused
constexpr uint8_t kForceDisconnect = 0x80;

// What a session may raise: the client's own errors, the stream's, the general conversions.
bool IsDocumented(int32_t number) {
    static const std::set<int32_t> documented = {
        ERROR_NOT_CONNECTED,    ERROR_RESPONSE_TIMEOUT, ERROR_GREETING_REFUSED,  ERROR_AUTH_FAILED,
        ERROR_AUTH_UNSUPPORTED, ERROR_COMMAND_REFUSED,  ERROR_MESSAGE_TOO_LARGE, ERROR_OVERFLOW,
        ERROR_TYPE_MISMATCH,    10061 /* refused, by the control's Error event */};
    return documented.count(number) != 0;
}

class Canceller : public MailClientEvents {
public:
    Canceller(MailClient& client, int atEvent) : m_client(client), m_atEvent(atEvent) {}
    void SendProgress(const std::shared_ptr<MailMessage>&, int32_t bytesSent, int32_t totalBytes) override {
        FUZZ_CHECK(bytesSent > m_lastBytes && bytesSent <= totalBytes);
        m_lastBytes = bytesSent;
        if (++m_events == m_atEvent) m_client.CancelSend();
    }
    void SendCanceled() override { ++m_canceled; }
    int Canceled() const { return m_canceled; }

private:
    MailClient& m_client;
    int m_atEvent;
    int m_events = 0;
    int m_canceled = 0;
    int32_t m_lastBytes = 0;
};

template <typename Call>
bool Attempt(Call call) {
    try {
        call();
        return true;
    } catch (const RaisedError& error) {
        FUZZ_CHECK(IsDocumented(error.Number()));
        return false;
    }
}

std::shared_ptr<MailMessage> MakeMessage(bool longText) {
    auto message = std::make_shared<MailMessage>();
    message->FromAddress("sender@example.org");
    message->AddRecipient("to@example.org");
    message->AddCCRecipient("cc@example.org");
    message->SubjectLine("fuzz");
    message->Body(longText ? std::string(3000, 'x') : std::string("short"));
    return message;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::UseFastTime();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const uint8_t options = data[0];
    fuzz::ScriptedControl::Script script;
    const std::string replies(reinterpret_cast<const char*>(data) + 1, size - 1);
    for (std::size_t start = 0;;) {
        const std::size_t end = replies.find('\0', start);
        script.segments.push_back(replies.substr(start, end - start));
        if (end == std::string::npos) break;
        start = end + 1;
    }
    script.silentAtEnd = options & kSilentAtEnd;
    script.refuseConnect = options & kRefuse;

    fuzz::ScriptedNetwork network;
    network.Next(script);
    MailClient client;
    client.Server("mail.example");
    client.Timeout = 0;  // every silence ends at the first tick
    const int cancelAt = (options & kCancelMask) >> 3;
    auto listener = std::make_shared<Canceller>(client, cancelAt);
    client.AddListener(listener);

    const bool connected = Attempt([&] {
        if (options & kLogIn) {
            client.Connect(u"user", u"secret");
        } else {
            client.Connect();
        }
    });
    FUZZ_CHECK(!(connected && (options & kRefuse)));
    bool sent = false;
    if (connected && (options & kSend)) {
        sent = Attempt([&] { client.Send(MakeMessage(options & kLongMessage)); });
    }
    const auto first = network.Last();
    Attempt([&] { client.Disconnect(options & kForceDisconnect); });

    // Lock-step: every write is one command line, except the message text, which goes in one
    // write with its terminating line.
    if (first) {
        for (const std::string& write : first->Writes()) {
            FUZZ_CHECK(write.size() >= 2 && write.compare(write.size() - 2, 2, "\r\n") == 0);
            const bool isText = write.size() > 5 && write.compare(write.size() - 5, 5, "\r\n.\r\n") == 0;
            if (!isText) FUZZ_CHECK(write.find("\r\n") == write.size() - 2);
        }
        if (sent && listener->Canceled() == 0) {
            bool textWritten = false;
            for (const std::string& write : first->Writes()) {
                textWritten |= write.find("Subject: fuzz\r\n") == 0;
            }
            FUZZ_CHECK(textWritten);
        }
        if (listener->Canceled() != 0) {
            // A cancel writes nothing of the text.
            for (const std::string& write : first->Writes()) FUZZ_CHECK(write.find("Subject:") == std::string::npos);
        }
    }

    // A second session on the same client sees nothing of the first one. Its server answers
    // everything, so a generous limit (a second of scaled ticks) keeps a busy machine's late
    // pump from passing for silence.
    client.Timeout = 10000;
    fuzz::ScriptedControl::Script clean;
    clean.segments = {"220 clean\r\n", "250 clean\r\n", "221 bye\r\n"};
    clean.silentAtEnd = true;
    network.Next(clean);
    const bool again = Attempt([&] { client.Connect(); });
    FUZZ_CHECK(again);
    const auto second = network.Last();
    FUZZ_CHECK(second != first);
    FUZZ_CHECK(!second->Writes().empty() && second->Writes()[0] == "EHLO fuzz.example\r\n");
    Attempt([&] { client.Disconnect(); });
    FUZZ_CHECK(second->Writes().size() == 2 && second->Writes()[1] == "QUIT\r\n");
    return 0;
}
