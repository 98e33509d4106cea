// A MailClient against servers that misbehave at every step of a session: silence, an orderly
// close, a close in the middle of a line, a reset, garbage, refusals, a huge line, a trickle, an
// unknown host, a refused port, and a cancel at every progress event. Each ends in the
// documented error or outcome, and then the same client opens a second connection to the same
// peer, which must receive exactly a fresh dialogue: nothing of the first connection leaks.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "larkpost/error.h"
#include "larkpost/mail_client.h"
#include "larkpost/mail_message.h"
#include "larkpost/text.h"
#include "platform/clock.h"
#include "platform/codepage.h"
#include "net/tcp_stream_access.h"
#include "platform/posix_socket_control.h"
#include "support/mail_client_access.h"
#include "support/mail_message_access.h"
#include "support/message_testing.h"
#include "support/scripted_peer.h"
#include "support/under_valgrind.h"

namespace larkpost::test {
namespace {

using namespace std::chrono_literals;

// A tick of 100 ms (a full second under Valgrind, where the peer thread is slow to answer).
// With Timeout 1 a silence fails after two ticks.
double TickScale() { return UnderValgrind() ? 1.0 : 0.1; }
std::chrono::milliseconds Tick() { return std::chrono::milliseconds(static_cast<int>(1000 * TickScale())); }

class ShortTicks {
public:
    ShortTicks() { detail::SetTickScaleForTesting(TickScale()); }
    ~ShortTicks() { detail::SetTickScaleForTesting(1); }
    ShortTicks(const ShortTicks&) = delete;
    ShortTicks& operator=(const ShortTicks&) = delete;
};

// The steps of a session that logs in with AUTH LOGIN and sends one message.
enum Step { kGreeting, kEhlo, kAuthLogin, kAuthUser, kAuthPassword, kMailFrom, kRcptTo, kData, kEndOfData, kSteps };

const char* const kStepNames[] = {"Greeting", "Ehlo",   "AuthLogin", "AuthUser", "AuthPassword",
                                  "MailFrom", "RcptTo", "Data",      "EndOfData"};

const char* const kReplies[] = {
    "220 faults.test ready\r\n",  "250-faults.test\r\n250 AUTH LOGIN PLAIN\r\n",
    "334 VXNlcm5hbWU6\r\n",       "334 UGFzc3dvcmQ6\r\n",
    "235 2.7.0 accepted\r\n",     "250 2.1.0 sender ok\r\n",
    "250 2.1.5 recipient ok\r\n", "354 go ahead\r\n",
    "250 2.0.0 queued\r\n"};

// What the peer reads before it answers a step: nothing for the greeting, the text and its
// terminating line for the end of the data, one line for every command.
void ReadStepInput(ScriptedPeer& peer, int step) {
    if (step == kEndOfData) {
        peer.ReadUntil("\r\n.\r\n");
    } else if (step != kGreeting) {
        peer.ExpectLine();
    }
}

void PlaySteps(ScriptedPeer& peer, int from, int to) {
    for (int step = from; step < to; ++step) {
        ReadStepInput(peer, step);
        peer.Send(kReplies[step]);
    }
}

std::shared_ptr<MailMessage> MakeMessage(std::size_t bodyLength = 40) {
    auto message = std::make_shared<MailMessage>();
    message->FromAddress("sender@faults.test");
    message->AddRecipient("rcpt@faults.test");
    message->SubjectLine("fault injection");
    message->Body(std::string(bodyLength, 'b'));
    return message;
}

// The peer's part of the clean session that every test ends with, on a new connection (the
// peer's first connection is accepted without a step of its own).
void PlayCleanSession(ScriptedPeer& peer, bool firstConnection = false) {
    if (!firstConnection) peer.Accept();
    peer.Send("220 clean.test ready\r\n")
        .Reply("250 clean.test\r\n")
        .Reply("250 ok\r\n")
        .Reply("250 ok\r\n")
        .Reply("354 go\r\n")
        .ReadUntil("\r\n.\r\n")
        .Send("250 queued\r\n")
        .ExpectLine()
        .Close();
}

// The client's part: connect without login, send the message, say QUIT. The peer of that
// connection must have received exactly this dialogue and nothing else.
void ExpectCleanSession(MailClient& client, ScriptedPeer& peer, const std::shared_ptr<MailMessage>& message,
                        int connection = 1) {
    ASSERT_NO_THROW(client.Connect());
    const std::string ehlo = EhloLine(client);
    ASSERT_NO_THROW(client.Send(message));
    ASSERT_NO_THROW(client.Disconnect());
    ASSERT_TRUE(peer.Join()) << "the peer's script did not finish";
    const std::string text = detail::ToAnsi(detail::MailMessageAccess::BuildMessage(*message));
    EXPECT_EQ(peer.ReceivedOn(connection), ehlo + "\r\n" + "MAIL FROM: <sender@faults.test>\r\n" +
                                               "RCPT TO: <rcpt@faults.test>\r\n" + "DATA\r\n" + text +
                                               "\r\n.\r\nQUIT\r\n");
    EXPECT_EQ(peer.Connections(), connection + 1);
}

// Runs Connect with credentials and, if it succeeds, Send; the first error, if any.
std::optional<RaisedError> RunSession(MailClient& client, const std::shared_ptr<MailMessage>& message) {
    try {
        client.Connect(u"user", u"secret");
        client.Send(message);
    } catch (const RaisedError& error) {
        return error;
    }
    return std::nullopt;
}

class FaultTest : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override {
        PointAt(client, peer.Port());
        client.Timeout = 1;
    }

    // The fault happens at the step of the parameter, after the peer has read its input.
    void PlayUpToFault() {
        PlaySteps(peer, kGreeting, GetParam());
        ReadStepInput(peer, GetParam());
    }

    ShortTicks ticks;
    ScriptedPeer peer;
    MailClient client;
    std::shared_ptr<MailMessage> message = MakeMessage();
};

std::string StepName(const ::testing::TestParamInfo<int>& info) { return kStepNames[info.param]; }

// --- Silence: each silence ends in the time-out; the connection stays up until the next Connect.

using SilenceAtStep = FaultTest;

TEST_P(SilenceAtStep, TimesOutAndTheNextConnectionIsClean) {
    PlayUpToFault();
    peer.WaitForClose();  // the client's next Connect closes this connection
    PlayCleanSession(peer);
    peer.Start();

    const auto start = std::chrono::steady_clock::now();
    const auto error = RunSession(client, message);
    const auto waited = std::chrono::steady_clock::now() - start;
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->Number(), ERROR_RESPONSE_TIMEOUT);
    EXPECT_EQ(ToUtf8(error->Description()), "The server did not respond in time.");
    EXPECT_GE(waited, Tick());  // two ticks of silence, not an early give-up
    EXPECT_TRUE(detail::MailClientAccess::Stream(client).Connected());

    ExpectCleanSession(client, peer, message);
}

INSTANTIATE_TEST_SUITE_P(EveryStep, SilenceAtStep, ::testing::Range(0, int{kSteps}), StepName);

// --- An orderly close instead of a reply: no error of its own; the read runs into the time-out.

using CloseAtStep = FaultTest;

TEST_P(CloseAtStep, EndsInTheTimeOutAndTheNextConnectionIsClean) {
    PlayUpToFault();
    peer.Close();
    PlayCleanSession(peer);
    peer.Start();

    const auto error = RunSession(client, message);
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->Number(), ERROR_RESPONSE_TIMEOUT);
    EXPECT_FALSE(detail::MailClientAccess::Stream(client).Connected());

    ExpectCleanSession(client, peer, message);
}

INSTANTIATE_TEST_SUITE_P(EveryStep, CloseAtStep, ::testing::Range(0, int{kSteps}), StepName);

// --- A close in the middle of a reply line: the part-line is lost with the time-out.

using CloseMidLineAtStep = FaultTest;

TEST_P(CloseMidLineAtStep, EndsInTheTimeOutAndTheNextConnectionIsClean) {
    PlayUpToFault();
    peer.Send("250-half a li").Close();
    PlayCleanSession(peer);
    peer.Start();

    const auto error = RunSession(client, message);
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->Number(), ERROR_RESPONSE_TIMEOUT);
    EXPECT_TRUE(detail::TcpStreamAccess::Unread(detail::MailClientAccess::Stream(client)).empty());

    ExpectCleanSession(client, peer, message);
}

INSTANTIATE_TEST_SUITE_P(EveryStep, CloseMidLineAtStep, ::testing::Range(0, int{kSteps}), StepName);

// --- A reset: the control's own error reaches the caller.

using ResetAtStep = FaultTest;

TEST_P(ResetAtStep, RaisesTheResetAndTheNextConnectionIsClean) {
    PlayUpToFault();
    peer.Reset();
    PlayCleanSession(peer);
    peer.Start();

    const auto error = RunSession(client, message);
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->Number(), detail::sckConnectionReset) << ToUtf8(error->Description());
    EXPECT_FALSE(error->Description().empty());
    EXPECT_FALSE(detail::MailClientAccess::Stream(client).Connected());

    ExpectCleanSession(client, peer, message);
}

INSTANTIATE_TEST_SUITE_P(EveryStep, ResetAtStep, ::testing::Range(0, int{kSteps}), StepName);

// --- Garbage where a reply code belongs: the type-mismatch error, whatever the step.

using GarbageAtStep = FaultTest;

TEST_P(GarbageAtStep, RaisesTypeMismatchAndTheNextConnectionIsClean) {
    PlayUpToFault();
    peer.Send("-garbage\x01\x02\xff\r\n").WaitForClose();
    PlayCleanSession(peer);
    peer.Start();

    const auto error = RunSession(client, message);
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->Number(), ERROR_TYPE_MISMATCH);
    EXPECT_TRUE(detail::MailClientAccess::Stream(client).Connected());  // a bad reply closes nothing

    ExpectCleanSession(client, peer, message);
}

INSTANTIATE_TEST_SUITE_P(EveryStep, GarbageAtStep, ::testing::Range(0, int{kSteps}), StepName);

// --- A server that refuses each command in turn.

struct Refusal {
    int step;
    int32_t number;  // 0: the session goes on to its end without an error
    const char* description;
};

class RefusalAtStep : public FaultTest {};

const Refusal kRefusals[] = {
    {kGreeting, ERROR_GREETING_REFUSED, "554 5.3.2 no service\r\n"},
    {kEhlo, ERROR_COMMAND_REFUSED, "554 5.3.2 no service\r\n"},
    // The challenges are not judged: the credentials go out all the same.
    {kAuthLogin, 0, nullptr},
    {kAuthUser, 0, nullptr},
    {kAuthPassword, ERROR_AUTH_FAILED, "554 5.3.2 no service\r\n"},
    {kMailFrom, ERROR_COMMAND_REFUSED, "554 5.3.2 no service\r\n"},
    {kRcptTo, ERROR_COMMAND_REFUSED, "554 5.3.2 no service\r\n"},
    {kData, ERROR_COMMAND_REFUSED, "554 5.3.2 no service\r\n"},
    // The reply to the end of the data is read and not judged.
    {kEndOfData, 0, nullptr},
};

TEST_P(RefusalAtStep, EndsAsDocumentedAndTheNextConnectionIsClean) {
    const Refusal& refusal = kRefusals[GetParam()];
    PlayUpToFault();
    peer.Send("554 5.3.2 no service\r\n");
    if (refusal.number == 0) PlaySteps(peer, GetParam() + 1, kSteps);
    peer.WaitForClose();
    PlayCleanSession(peer);
    peer.Start();

    const auto error = RunSession(client, message);
    if (refusal.number == 0) {
        EXPECT_FALSE(error.has_value()) << ToUtf8(error->Description());
    } else {
        ASSERT_TRUE(error.has_value());
        EXPECT_EQ(error->Number(), refusal.number);
        EXPECT_EQ(ToUtf8(error->Description()), refusal.description);
    }
    EXPECT_TRUE(detail::MailClientAccess::Stream(client).Connected());

    ExpectCleanSession(client, peer, message);
}

INSTANTIATE_TEST_SUITE_P(EveryStep, RefusalAtStep, ::testing::Range(0, int{kSteps}), StepName);

TEST(RefusedLogin, PlainRefusalQuotesTheReplyAndTheNextConnectionIsClean) {
    ShortTicks ticks;
    ScriptedPeer peer;
    peer.Send("220 ready\r\n").Reply("250-x\r\n250 AUTH PLAIN\r\n").Reply("334 \r\n").Reply("535 5.7.8 no\r\n");
    peer.WaitForClose();
    PlayCleanSession(peer);
    peer.Start();
    MailClient client;
    PointAt(client, peer.Port());
    client.Timeout = 1;

    const auto error = RunSession(client, MakeMessage());
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->Number(), ERROR_AUTH_FAILED);
    EXPECT_EQ(ToUtf8(error->Description()),
              "The mail server could not authenticate you. It replied with '535 5.7.8 no\r\n'");
    ExpectCleanSession(client, peer, MakeMessage());
}

// --- Replies that are no number at all, in the greeting.

class NonNumericGreeting : public ::testing::TestWithParam<std::string> {};

TEST_P(NonNumericGreeting, RaisesTypeMismatch) {
    ShortTicks ticks;
    ScriptedPeer peer;
    peer.Send(GetParam()).WaitForClose();
    PlayCleanSession(peer);
    peer.Start();
    MailClient client;
    PointAt(client, peer.Port());
    client.Timeout = 1;

    const auto error = RunSession(client, MakeMessage());
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->Number(), ERROR_TYPE_MISMATCH);
    ExpectCleanSession(client, peer, MakeMessage());
}

INSTANTIATE_TEST_SUITE_P(Forms, NonNumericGreeting,
                         ::testing::Values(std::string("\r\n"), std::string("abc ready\r\n"),
                                           std::string("x\r\n"), std::string("2x0 ready\r\n"),
                                           std::string("\0\0\0 nul\r\n", 9),
                                           std::string("220-first\r\n\r\n")));

// --- A greeting line of 10 MB: taken whole, and its whole text is the error's description.

TEST(HugeReply, TenMegabyteLineReachesTheDescriptionWhole) {
    ShortTicks ticks;
    const std::string line = "554 " + std::string(10 * 1024 * 1024, 'x');
    ScriptedPeer peer;
    peer.Send(line + "\r\n").WaitForClose();
    PlayCleanSession(peer);
    peer.Start();
    MailClient client;
    PointAt(client, peer.Port());
    client.Timeout = 1;

    const auto error = RunSession(client, MakeMessage());
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->Number(), ERROR_GREETING_REFUSED);
    ASSERT_EQ(error->Description().size(), line.size() + 2);
    EXPECT_EQ(detail::ToAnsi(error->Description()), line + "\r\n");
    ExpectCleanSession(client, peer, MakeMessage());
}

// --- A reply that trickles in: the limit holds for each silence, not for the whole reply.

TEST(TricklingReply, SucceedsWhenEveryGapIsBelowTheLimit) {
    ShortTicks ticks;
    const std::string greeting = "220 slow\r\n";
    ScriptedPeer peer;
    peer.SendSlowly(greeting, Tick()).Reply("250 ok\r\n").WaitForClose();
    PlayCleanSession(peer);
    peer.Start();
    MailClient client;
    PointAt(client, peer.Port());
    client.Timeout = 1;  // two ticks of silence; each gap is one tick

    const auto start = std::chrono::steady_clock::now();
    EXPECT_NO_THROW(client.Connect());
    // The whole greeting took far longer than one silence may.
    EXPECT_GT(std::chrono::steady_clock::now() - start, 5 * Tick());
    ExpectCleanSession(client, peer, MakeMessage());
}

TEST(TricklingReply, FailsWhenOneGapExceedsTheLimit) {
    ShortTicks ticks;
    ScriptedPeer peer;
    peer.Send("22").WaitForClose();  // the rest of the line never comes
    PlayCleanSession(peer);
    peer.Start();
    MailClient client;
    PointAt(client, peer.Port());
    client.Timeout = 0;  // one tick of silence

    const auto error = RunSession(client, MakeMessage());
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->Number(), ERROR_RESPONSE_TIMEOUT);
    ExpectCleanSession(client, peer, MakeMessage());
}

// --- Text left behind by a connection must not reach the next one.

TEST(Leftovers, UnreadRepliesOfAnOldConnectionAreNotReadOnTheNew) {
    ShortTicks ticks;
    ScriptedPeer peer;
    // An unsolicited line and half of another one follow the EHLO reply.
    peer.Send("220 ready\r\n").Reply("250 ok\r\n421-unsolicited\r\n250-hal").WaitForClose();
    PlayCleanSession(peer);
    peer.Start();
    MailClient client;
    PointAt(client, peer.Port());
    client.Timeout = 1;

    ASSERT_NO_THROW(client.Connect());
    ExpectCleanSession(client, peer, MakeMessage());
}

// --- Where there is no server at all.

TEST(NoServer, UnknownHostRaisesTheControlsErrorAndTheClientConnectsAfterwards) {
    ShortTicks ticks;
    detail::PosixSocketControl::SetResolverForTesting([](const std::string& host) {
        return host == "known.test" ? std::vector<std::string>{"127.0.0.1"} : std::vector<std::string>{};
    });
    ScriptedPeer peer;
    PlayCleanSession(peer, true);
    peer.Start();
    MailClient client;
    client.Timeout = 1;
    client.Server(std::string_view("unknown.test"));
    client.Port(peer.Port());

    const auto error = RunSession(client, MakeMessage());
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->Number(), detail::sckHostNotFound);
    EXPECT_FALSE(detail::MailClientAccess::Stream(client).Connected());

    client.Server(std::string_view("known.test"));
    ExpectCleanSession(client, peer, MakeMessage(), 0);
    detail::PosixSocketControl::SetResolverForTesting({});
}

TEST(NoServer, RefusedPortRaisesTheControlsErrorAndTheClientConnectsAfterwards) {
    ShortTicks ticks;
    // A port that is bound but not listening refuses every connection, and nobody can take it.
    const int blocker = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(blocker, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(blocker, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    socklen_t length = sizeof address;
    ASSERT_EQ(::getsockname(blocker, reinterpret_cast<sockaddr*>(&address), &length), 0);

    MailClient client;
    client.Timeout = 1;
    PointAt(client, ntohs(address.sin_port));
    const auto error = RunSession(client, MakeMessage());
    ::close(blocker);
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->Number(), detail::sckConnectionRefused);
    EXPECT_FALSE(detail::MailClientAccess::Stream(client).Connected());

    ScriptedPeer peer;
    PlayCleanSession(peer, true);
    peer.Start();
    PointAt(client, peer.Port());
    ExpectCleanSession(client, peer, MakeMessage(), 0);
}

// --- A cancel at every progress event: nothing of the text leaves, and it does not leak into
// the next connection either.

TEST(CancelAtEveryProgressEvent, NothingOfTheTextLeavesNowOrLater) {
    ShortTicks ticks;
    SleepRecorder noPauses;
    auto message = MakeMessage(1800);  // a text of five slices
    const std::size_t total = detail::MailMessageAccess::BuildMessage(*message).size();
    const int events = static_cast<int>((total + 511) / 512);
    ASSERT_GE(events, 4);

    for (int cancelAt = 1; cancelAt <= events; ++cancelAt) {
        SCOPED_TRACE("cancel at progress event " + std::to_string(cancelAt));
        ScriptedPeer peer;
        peer.Send("220 ready\r\n").Reply("250 ok\r\n").Reply("250 ok\r\n").Reply("250 ok\r\n").Reply("354 go\r\n");
        peer.WaitForClose();
        PlayCleanSession(peer);
        peer.Start();

        MailClient client;
        PointAt(client, peer.Port());
        client.Timeout = 1;
        auto listener = std::make_shared<RecordingListener>();
        int seen = 0;
        listener->onProgress = [&](int32_t, int32_t) {
            if (++seen == cancelAt) client.CancelSend();
        };
        client.AddListener(listener);

        ASSERT_NO_THROW(client.Connect());
        ASSERT_NO_THROW(client.Send(message));
        EXPECT_EQ(seen, cancelAt);
        ASSERT_FALSE(listener->events.empty());
        EXPECT_EQ(listener->events.back(), "canceled");
        EXPECT_FALSE(detail::MailClientAccess::Stream(client).Connected());
        // After a cancel the session is gone.
        const auto afterCancel = CaptureError([&] { client.Send(message); });
        ASSERT_TRUE(afterCancel.has_value());
        EXPECT_EQ(afterCancel->Number(), ERROR_NOT_CONNECTED);

        client.RemoveListener(listener);
        ExpectCleanSession(client, peer, message);
        const std::string first = peer.ReceivedOn(0);
        EXPECT_TRUE(first.ends_with("RCPT TO: <rcpt@faults.test>\r\nDATA\r\n")) << first;
    }
}

}  // namespace
}  // namespace larkpost::test
