// TcpStream over real loopback sockets: a scripted peer for exact dialogues and faults, and
// Debian's aiosmtpd for a real server.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "larkpost/error.h"
#include "larkpost/tcp_stream.h"
#include "larkpost/text.h"
#include "platform/clock.h"
#include "support/process.h"
#include "support/scripted_peer.h"

namespace larkpost {
namespace {

using namespace std::chrono_literals;
using test::ScriptedPeer;

template <typename Call>
RaisedError Raised(Call&& call) {
    try {
        call();
    } catch (const RaisedError& error) {
        return error;
    }
    ADD_FAILURE() << "nothing was raised";
    return RaisedError(0, u"(nothing raised)");
}

// A loopback port that nobody listens on: bound once by us, then let go.
int32_t UnusedPort() {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof addr;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &length) != 0) {
        ADD_FAILURE() << "could not bind a loopback port";
    }
    ::close(fd);
    return ntohs(addr.sin_port);
}

bool Accepts(int32_t port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    ::close(fd);
    return ok;
}

class LoopbackTest : public ::testing::Test {
protected:
    // A tick lasts 50 ms: time-outs stay short and clearly longer than a loopback round trip.
    static constexpr double kTickScale = 0.05;
    static constexpr auto kTick = 50ms;

    void SetUp() override { detail::SetTickScaleForTesting(kTickScale); }
    void TearDown() override {
        detail::SetTickScaleForTesting(1);
        EXPECT_TRUE(peer.Join());
    }

    void ConnectToPeer() {
        peer.Start();
        stream.Connect(u"127.0.0.1", peer.Port());
    }

    ScriptedPeer peer;
    TcpStream stream;
};

TEST_F(LoopbackTest, CommandsLeaveTogetherWhenTheirReplyIsRead) {
    peer.Send("220 ready\r\n")
        .ExpectLine()
        .Send("250-first\r\n250 last\r\n")
        .ExpectLines(2)
        .Send("354 go ahead\r\n")
        .WaitForClose();
    ConnectToPeer();
    EXPECT_EQ(stream.ReadLine(), u"220 ready");
    stream.SendLine(u"EHLO client.test");
    EXPECT_EQ(stream.ReadLine(), u"250-first");
    EXPECT_EQ(stream.ReadLine(), u"250 last");
    EXPECT_TRUE(stream.AtEndOfStream());
    stream.Send(u"MAIL FROM:<a@example.com>\r\n");
    stream.SendLine(u"RCPT TO:<b@example.com>");
    EXPECT_EQ(stream.ReadLine(), u"354 go ahead");
    stream.Disconnect();
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(peer.Received(),
              "EHLO client.test\r\nMAIL FROM:<a@example.com>\r\nRCPT TO:<b@example.com>\r\n");
    EXPECT_TRUE(peer.Problems().empty());
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

TEST_F(LoopbackTest, CloseInMidLineEndsInTheTimeOutAndLeavesNoConnection) {
    peer.Send("250 half a li").Close();
    ConnectToPeer();
    stream.ResponseTimeout = 0;
    EXPECT_EQ(Raised([&] { stream.ReadLine(); }).Number(), ERROR_RESPONSE_TIMEOUT);
    EXPECT_FALSE(stream.Connected());
    stream.Send(u"QUIT\r\n");
    EXPECT_EQ(Raised([&] { stream.Flush(); }).Number(), ERROR_NOT_CONNECTED);
}

TEST_F(LoopbackTest, GreetingOfAServerThatClosesAtOnceIsReadable) {
    peer.Send("421 too busy\r\n").Close();
    ConnectToPeer();
    EXPECT_EQ(stream.ReadLine(), u"421 too busy");
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

TEST_F(LoopbackTest, BytesAboveAsciiTravelAsWindows1252) {
    peer.ExpectLine().Send("250 \xE9\x80\r\n").WaitForClose();
    ConnectToPeer();
    stream.SendLine(u"caf\u00E9 \u20AC \u4E2D");
    EXPECT_EQ(stream.ReadLine(), u"250 \u00E9\u20AC");
    stream.Disconnect();
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(peer.Lines().at(0), "caf\xE9 \x80 ?");
}

TEST(LoopbackConnect, RefusedPortRaisesTheSocketsOwnError) {
    TcpStream stream;
    const int32_t port = UnusedPort();
    RaisedError error = Raised([&] { stream.Connect(u"127.0.0.1", port); });
    EXPECT_EQ(error.Number(), 10061) << error.what();
    EXPECT_FALSE(error.Description().empty());
    EXPECT_FALSE(stream.Connected());
}

TEST(LoopbackConnect, UnknownHostRaisesHostNotFound) {
    TcpStream stream;
    // A 64-character label is refused by the resolver itself, so no name server is asked.
    const std::u16string host = std::u16string(64, u'x') + u".invalid";
    RaisedError error = Raised([&] { stream.Connect(host, 25); });
    EXPECT_EQ(error.Number(), 11001) << error.what();
    EXPECT_FALSE(stream.Connected());
}

TEST(LoopbackConnect, PortOutOfRangeFailsInsideTheCall) {
    TcpStream stream;
    RaisedError error = Raised([&] { stream.Connect(u"127.0.0.1", 70000); });
    EXPECT_EQ(error.Number(), ERROR_CONNECTION_FAILED);
    EXPECT_EQ(error.Description().rfind(
                  u"Connection could not be established to host 127.0.0.1 on port 70000\r\n"
                  u"Reason: ",
                  0),
              0u)
        << error.what();
}

// A real server: Debian's aiosmtpd, spoken to line by line.
TEST(RealServer, AiosmtpdGreetsAnswersEhloAndSaysGoodbye) {
    const int32_t port = UnusedPort();
    test::BackgroundProcess server(
        {test::kSystemPython, "-m", "aiosmtpd", "-n", "-l", "127.0.0.1:" + std::to_string(port)});
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (!Accepts(port) && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(50ms);
    ASSERT_TRUE(Accepts(port)) << "aiosmtpd did not start";

    TcpStream stream;
    stream.Connect("127.0.0.1", port);
    stream.ResponseTimeout = 10;
    EXPECT_EQ(stream.ReadLine().substr(0, 4), u"220 ");
    stream.SendLine(u"EHLO larkpost.test");
    std::vector<std::u16string> reply;
    do {
        reply.push_back(stream.ReadLine());
    } while (reply.back().size() >= 4 && reply.back()[3] == u'-' && reply.size() < 50);
    ASSERT_GE(reply.size(), 2u);
    EXPECT_EQ(reply.back().substr(0, 4), u"250 ");
    for (const auto& line : reply) EXPECT_EQ(line.substr(0, 3), u"250") << ToUtf8(line);
    stream.SendLine(u"QUIT");
    EXPECT_EQ(stream.ReadLine().substr(0, 4), u"221 ");
    stream.Disconnect();
}

}  // namespace
}  // namespace larkpost
