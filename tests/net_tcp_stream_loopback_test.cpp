// TcpStream over real loopback sockets, against a scripted peer for exact dialogues and faults.
// (The stream against a real server is tested through MailClient in smtp_real_server_test.)
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "larkpost/error.h"
#include "larkpost/tcp_stream.h"
#include "platform/clock.h"
#include "support/raised.h"
#include "support/scripted_peer.h"
#include "support/smtp_servers.h"

namespace larkpost {
namespace {

using namespace std::chrono_literals;
using test::ScriptedPeer;

using test::Raised;

class LoopbackTest : public ::testing::Test {
protected:
    // A tick lasts 50 ms: time-outs stay short and clearly longer than a loopback round trip.
    static constexpr double kTickScale = 0.05;
    static constexpr auto kTick = 50ms;

    void SetUp() override { detail::SetTickScaleForTesting(kTickScale); }
    void TearDown() override {
        detail::SetTickScaleForTesting(1);
        EXPECT_TRUE(peer.Join());
        EXPECT_TRUE(peer.Problems().empty());
    }

    void ConnectToPeer() {
        peer.Start();
        stream.Connect(u"127.0.0.1", peer.Port());
    }

    ScriptedPeer peer;
    TcpStream stream;
};

TEST_F(LoopbackTest, CommandsLeaveTogetherWhenTheirReplyIsReadAsWindows1252) {
    peer.Send("220 ready\r\n")
        .ExpectLine()
        .Send("250-first\r\n250 last\r\n")
        .ExpectLines(2)
        .Send("354 go \xE9\x80\r\n")
        .WaitForClose();
    ConnectToPeer();
    EXPECT_EQ(stream.ReadLine(), u"220 ready");
    stream.SendLine(u"EHLO client.test");
    EXPECT_EQ(stream.ReadLine(), u"250-first");
    EXPECT_EQ(stream.ReadLine(), u"250 last");
    EXPECT_TRUE(stream.AtEndOfStream());
    stream.Send(u"MAIL FROM:<a@example.com>\r\n");
    stream.SendLine(u"caf\u00E9 \u20AC \u4E2D");
    EXPECT_EQ(stream.ReadLine(), u"354 go \u00E9\u20AC");
    stream.Disconnect();
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(peer.Received(),
              "EHLO client.test\r\nMAIL FROM:<a@example.com>\r\ncaf\xE9 \x80 ?\r\n");
}

TEST_F(LoopbackTest, SilenceEndsInTheTimeOutAfterNPlusOneTicksAndTheConnectionStays) {
    peer.Send("220 ready\r\n").WaitForClose();
    ConnectToPeer();
    EXPECT_EQ(stream.ReadLine(), u"220 ready");
    for (int32_t timeout : {1, 0, -7}) {
        stream.ResponseTimeout = timeout;
        const auto start = std::chrono::steady_clock::now();
        RaisedError error = Raised([&] { stream.ReadLine(); });
        const auto waited = std::chrono::steady_clock::now() - start;
        EXPECT_EQ(error.Number(), ERROR_RESPONSE_TIMEOUT) << timeout;
        EXPECT_EQ(error.Description(), u"The server did not respond in time.");
        // Never before tick N + 1 (a negative count counts as 0).
        EXPECT_GE(waited, (std::max(timeout, 0) + 1) * kTick - 5ms) << timeout;
        EXPECT_TRUE(stream.Connected());
    }
    stream.Disconnect();
}

TEST_F(LoopbackTest, LineThatTricklesInByteByByteOutlastsTheLimitOfEachSilence) {
    // 22 bytes 10 ms apart: about 220 ms in all, while each silence may last 2 ticks (100 ms).
    peer.SendSlowly("250 slow but steady\r\n", 10ms).WaitForClose();
    ConnectToPeer();
    stream.ResponseTimeout = 1;
    EXPECT_EQ(stream.ReadLine(), u"250 slow but steady");
    stream.Disconnect();
}

// The peer greets and closes at once, in mid-line: the greeting is readable, the rest of the
// line runs into the time-out, and no connection is left.
TEST_F(LoopbackTest, CloseRightAfterTheGreetingInMidLineLeavesTheGreetingAndNoConnection) {
    peer.Send("421 too busy\r\n250 half a li").Close();
    ConnectToPeer();
    EXPECT_EQ(stream.ReadLine(), u"421 too busy");
    stream.ResponseTimeout = 0;
    EXPECT_EQ(Raised([&] { stream.ReadLine(); }).Number(), ERROR_RESPONSE_TIMEOUT);
    EXPECT_FALSE(stream.Connected());
    stream.Send(u"QUIT\r\n");
    EXPECT_EQ(Raised([&] { stream.Flush(); }).Number(), ERROR_NOT_CONNECTED);
}

TEST_F(LoopbackTest, OneMegabyteLineComesWhole) {
    std::string line(1 << 20, 'x');
    for (std::size_t i = 0; i < line.size(); i += 997) line[i] = static_cast<char>('a' + i % 26);
    peer.Send(line + "\r\n250 after\r\n").WaitForClose();
    ConnectToPeer();
    std::u16string got = stream.ReadLine();
    EXPECT_EQ(got.size(), line.size());
    EXPECT_TRUE(got == std::u16string(line.begin(), line.end()));
    EXPECT_EQ(stream.ReadLine(), u"250 after");
    stream.Disconnect();
}

TEST(LoopbackConnect, FailuresRaiseTheSocketsNumberOrTheConnectionMessage) {
    // A 64-character label is refused by the resolver itself, so no name server is asked.
    const std::u16string unknownHost = std::u16string(64, u'x') + u".invalid";
    const struct {
        std::u16string host;
        int32_t port;
        int32_t number;
    } cases[] = {
        {u"127.0.0.1", test::FreeLoopbackPort(), 10061},
        {unknownHost, 25, 11001},
        {u"127.0.0.1", 70000, ERROR_CONNECTION_FAILED},  // fails inside the call
    };
    for (const auto& c : cases) {
        TcpStream stream;
        RaisedError error = Raised([&] { stream.Connect(c.host, c.port); });
        EXPECT_EQ(error.Number(), c.number) << error.what();
        EXPECT_FALSE(error.Description().empty());
        EXPECT_FALSE(stream.Connected());
        if (c.number == ERROR_CONNECTION_FAILED) {
            EXPECT_EQ(error.Description().rfind(
                          u"Connection could not be established to host 127.0.0.1 on port 70000\r\n"
                          u"Reason: ", 0), 0u) << error.what();
        }
    }
}

}  // namespace
}  // namespace larkpost
