// A MailClient against a server whose every byte the fuzzer chooses: each failure is one the client
// documents; each write is one command line, or the whole text with its end line; a second session
// on the same client then meets nothing of the first.
// Input: a byte of options, then the server's replies split at NUL bytes: the first when the
// connection stands, the next after each write of the client; then it closes (or stays silent).
#include <set>

#include "fuzz_support.h"
#include "larkpost/mail_client.h"
#include "larkpost/mail_message.h"
#include "platform/socket_errors.h"
#include "support/fake_socket_control.h"

using namespace larkpost;
using test::FakeEvent;

namespace {

std::shared_ptr<test::FakeSocketControl> g_server;  // the control of the session being played

// Run when the connection stands: the replies in turn (an empty one is silence), then a close.
void Play(test::FakeSocketFactory& sockets, const std::vector<std::string>& replies, bool close) {
    g_server = sockets.Last();
    for (std::size_t i = 0; i < replies.size(); ++i) {
        test::FakeScript events{FakeEvent::SendDone(), FakeEvent::Arrival(replies[i])};
        if (replies[i].empty()) events.pop_back();
        if (close && i + 1 == replies.size())
            events.push_back(FakeEvent::Run([] { g_server->Post({FakeEvent::Closed()}); }));
        if (i > 0) g_server->OnSendData(events);
        if (i == 0) g_server->Post({events.begin() + 1, events.end()});
    }
}

// The number of the error the call raised (0: none), which must be one the client documents.
int32_t Attempt(const std::function<void()>& call) {
    static const std::set<int32_t> documented = {
        ERROR_NOT_CONNECTED,         ERROR_RESPONSE_TIMEOUT, ERROR_GREETING_REFUSED,
        ERROR_AUTH_FAILED,           ERROR_AUTH_UNSUPPORTED, ERROR_COMMAND_REFUSED,
        ERROR_MESSAGE_TOO_LARGE,     ERROR_OVERFLOW,         ERROR_TYPE_MISMATCH,
        detail::sckConnectionRefused};
    try {
        call();
        return 0;
    } catch (const RaisedError& error) {
        assert(documented.count(error.Number()));
        return error.Number();
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) { return fuzz::UseFastTime(); }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const int o = size ? data[0] : 0;
    const bool logIn = o & 1, send = o & 2, longText = o & 4, silent = o & 32, refuse = o & 64,
               force = o & 128;
    const std::string input(reinterpret_cast<const char*>(data) + !!size, size - !!size);
    std::vector<std::string> replies;
    for (std::size_t start = 0, end = 0; end != input.npos; start = end + 1)
        replies.push_back(input.substr(start, (end = input.find('\0', start)) - start));
    test::FakeSocketFactory sockets;
    const std::u16string refused = detail::SocketErrorDescription(detail::sckConnectionRefused);
    sockets.NextConnect(
        refuse ? test::FakeScript{FakeEvent::Failure(detail::sckConnectionRefused, refused)}
               : test::FakeScript{FakeEvent::Connected(),
                                  FakeEvent::Run([&] { Play(sockets, replies, !silent); })});
    g_server.reset();
    MailClient client;
    client.Server("mail.example");
    client.Timeout = 0;  // every silence ends at the first tick
    auto message = std::make_shared<MailMessage>();
    message->FromAddress("sender@example.org");
    message->AddRecipient("to@example.org");
    message->AddCCRecipient("cc@example.org");
    message->SubjectLine("fuzz");
    message->Body(longText ? std::string(3000, 'x') : std::string("short"));

    const bool connected =
        !Attempt([&] { logIn ? client.Connect(u"user", u"pw") : client.Connect(); });
    const bool sent = connected && send && !Attempt([&] { client.Send(message); });
    Attempt([&] { client.Disconnect(force); });
    bool textWritten = false;
    for (const std::string& write : g_server ? g_server->Writes() : std::vector<std::string>{}) {
        const bool text = write.starts_with("Subject: fuzz\r\n") && write.ends_with("\r\n.\r\n");
        assert(text || (write.ends_with("\r\n") && write.find("\r\n") == write.size() - 2));
        textWritten |= text;
    }
    assert(!(connected && refuse) && (textWritten || !sent));

    // This server answers everything: a generous limit (a second of scaled ticks) keeps a late
    // pump on a busy machine from passing for silence. Its limit, on the second line of its EHLO
    // reply, stops the send before MAIL FROM.
    client.Timeout = 10000;
    const std::vector<std::string> clean = {"220 clean\r\n", "250-clean\r\n250 SIZE 99\r\n",
                                            "221 bye\r\n"};
    sockets.NextConnect(
        {FakeEvent::Connected(), FakeEvent::Run([&] { Play(sockets, clean, false); })});
    assert(!Attempt([&] { client.Connect(); }) &&
           Attempt([&] { client.Send(message); }) == ERROR_MESSAGE_TOO_LARGE &&
           !Attempt([&] { client.Disconnect(); }));
    assert(g_server->Writes() == (std::vector<std::string>{"EHLO fake-host.test\r\n", "QUIT\r\n"}));
    return 0;
}
