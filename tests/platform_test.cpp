// The platform: the per-thread event loop, Ticker, the socket control on loopback sockets against
// the scripted peer, and the clock.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <optional>
#include <stdexcept>
#include <thread>

#include "platform/clock.h"
#include "platform/codepage.h"
#include "platform/host_kit.h"
#include "platform/posix_socket_control.h"
#include "platform/ticker.h"
#include "support/raised.h"
#include "support/scripted_peer.h"
#include "support/under_valgrind.h"

namespace larkpost::detail {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Words = std::vector<std::string>;
using test::Raised;

HostServices Services() { return HostKitGlobal().Services(); }
void Pump() { Services().PumpEvents(); }

// Pumps until done() or the limit; a 5 ms ticker (ticking to nobody) bounds every sleep.
bool PumpUntil(const std::function<bool()>& done, std::chrono::seconds limit = 5s) {
    Ticker ticker;
    ticker.Interval(5), ticker.Enabled(true);
    for (const auto end = Clock::now() + limit; !done() && Clock::now() < end;)
        Services().WaitAndPumpEvents();
    return done();
}

// Events run in posting order, once, only inside a pump of their own thread, a nested one too;
// an expired owner's are dropped. What a handler posts waits for the next pump; a handler's
// failure reaches the pumper, and the rest stays queued.
TEST(EventLoop, EventsRunInOrderOnceAndOnlyInsideAPumpOfTheirOwnThread) {
    auto owner = std::make_shared<int>(), released = std::make_shared<int>();
    std::string ran;
    auto note = [&](std::shared_ptr<void> from, char c) {
        Services().PostEvent(from, [&ran, c] { ran += c; });
    };
    Services().PostEvent(owner, [&] {
        ran += 'a';
        released.reset();
        Pump();
        ran += 'z';
    });
    note(owner, 'b'), note(released, 'x'), note(nullptr, 'y');
    std::thread([] { EXPECT_FALSE(Services().WaitAndPumpEvents()); }).join();
    EXPECT_EQ(ran, "");
    Pump();
    EXPECT_EQ(ran, "abz");
    std::function<void()> again = [&] {
        ran += 'r';
        Services().PostEvent(owner, again);
    };
    Services().PostEvent(owner, again);
    Services().PostEvent(owner, [] { throw std::runtime_error("handler failed"); });
    note(owner, 'c');
    EXPECT_THROW(Pump(), std::runtime_error);
    Pump(), owner.reset(), Pump();
    EXPECT_EQ(ran, "abzrcr");
}

// 1000 ms ticks last 10 ms here. Three tickers are due in one pump; the first one's handler
// stops the second and releases the third. Three missed ticks of the first fold into one.
TEST(Ticker, MissedTicksFoldIntoOneAndAStoppedOrReleasedTickerDeliversNoneEvenQueued) {
    struct Ticks : TickerEvents {
        void Elapsed() override { at.push_back(Clock::now()), then(); }
        std::vector<Clock::time_point> at;
        std::function<void()> then;
    } ticks;
    SetTickScaleForTesting(0.01);
    Ticker first, second, zero, slow;
    auto third = std::make_unique<Ticker>();
    ticks.then = [&] {
        second.Enabled(false);
        third.reset();
    };
    const auto start = Clock::now();
    for (Ticker* ticker : {&first, &second, third.get(), &zero}) {
        ticker->SetEvents(&ticks);
        ticker->Interval(ticker == &zero ? 0 : 5000);  // interval 0 never ticks
        ticker->Enabled(true);
    }
    std::this_thread::sleep_for(160ms);
    Pump(), Pump();
    ASSERT_EQ(ticks.at.size(), 1u);
    EXPECT_GE(ticks.at[0] - start, 50ms);
    slow.Interval(100000), slow.Enabled(true);
    EXPECT_TRUE(Services().WaitAndPumpEvents());  // sleeps until the earlier deadline only
    EXPECT_LT(Clock::now() - start, 1s);
    first.Enabled(false), slow.Enabled(false), SetTickScaleForTesting(1);
    EXPECT_FALSE(Services().WaitAndPumpEvents());
    EXPECT_EQ(Raised([&] { zero.Interval(-1); }).Number(), 5);
    EXPECT_EQ(zero.Interval(), 0);
}

// A control that notes each of its events as a word: "connect", "data:5", "error:10061", "sent".
struct Client : SocketControlEvents {
    Client(const std::u16string& host, int32_t port) {
        control->SetEvents(this), control->Connect(host, port);
    }
    void Close() override { events.push_back("close"); }
    void Connect() override { events.push_back("connect"); }
    void DataArrival(int32_t total) override { events.push_back("data:" + std::to_string(total)); }
    void SendComplete() override { events.push_back("sent"); }
    void Error(int16_t number, std::u16string& text, int32_t, const std::u16string&,
               const std::u16string&, int32_t, bool&) override {
        description = text, events.push_back("error:" + std::to_string(number));
    }
    bool Settle() {
        return PumpUntil([&] { return !events.empty(); });
    }

    std::shared_ptr<SocketControl> control = Services().CreateSocketControl();
    Words events;
    std::u16string description;
};

// Names resolve inside Connect (a label over 63 characters fails before a name server is asked),
// and every address is tried in turn; the outcome is one event in a later pump.
TEST(SocketControl, ConnectOutcomeIsOneEventInALaterPump) {
    test::ScriptedPeer listener(
        "");  // on 127.0.0.1 only; it takes one connection, its kernel the rest
    const std::u16string refused = u"The connection was refused by the remote host.",
                         unknown = u"Host not found: the name could not be resolved to an address.";
    const struct {
        std::u16string host;
        std::optional<Words> names;  // what the name service says
        std::string event;
        std::u16string description;
    } cases[] = {{u"localhost", {}, "connect", u""},
                 {u"127.0.0.2", {}, "error:10061", refused},
                 {u"mail.test", Words{"127.0.0.2", "127.0.0.1"}, "connect", u""},
                 {u"mail.test", Words{"127.0.0.2", "127.0.0.3"}, "error:10061", refused},
                 {u"mail.test", Words{}, "error:11001", unknown},
                 {u"", {}, "error:11001", unknown},
                 {std::u16string(u"127.0.0.1\0x", 11), {}, "error:11001", unknown},
                 {std::u16string(64, u'x') + u".invalid", {}, "error:11001", unknown}};
    Client highest(u"127.0.0.1", 65535);  // in range: no error at once
    for (const auto& c : cases) {
        if (c.names)
            PosixSocketControl::SetResolverForTesting([&](const std::string&) { return *c.names; });
        Client client(c.host, listener.Port());
        PosixSocketControl::SetResolverForTesting(nullptr);
        EXPECT_TRUE(client.events.empty());
        ASSERT_TRUE(client.Settle());
        for (int i = 0; i < 3; ++i) Pump();
        EXPECT_EQ(client.events, Words{c.event}) << ToAnsi(c.host);
        EXPECT_EQ(client.description, c.description);
        EXPECT_EQ(client.control->LocalIP(), c.description.empty() ? u"127.0.0.1" : u"");
        EXPECT_EQ(client.control->State(), c.description.empty() ? sckConnected : sckError);
    }
    // A listener whose queue is full drops the handshake: the attempt ends after 21 s (scaled).
    SetTickScaleForTesting(0.01);
    Client late(u"127.0.0.1", test::FullLoopbackPort());
    EXPECT_TRUE(late.Settle());
    SetTickScaleForTesting(1);
    EXPECT_EQ(late.events, Words{"error:10060"});
}

// Each SendData completes once, in order, in a later pump (an empty one too), however large;
// so do slices, the held ones kept as views (their holder) until the kernel has them. Bytes
// arrive as Windows-1252 text; GetData takes at most MaxLen, all of them for 0. After the peer's
// close we may still send; then nothing is left to wait for.
TEST(SocketControl, ExchangesBytesSendsMegabytesAndSendsAfterThePeerClosedItsSide) {
    auto held = std::make_shared<std::string>((test::UnderValgrind() ? 4 : 16) << 20, '\0');
    for (std::size_t i = 0; i < held->size(); ++i) (*held)[i] = char('a' + i % 23);
    const std::string_view payload = *held;
    const std::size_t half = payload.size() / 2;
    test::ScriptedPeer peer("> EHLO here|< 250 \xE9\x80|!wait|!accept|!close");
    Client c(u"127.0.0.1", peer.Port());
    ASSERT_TRUE(c.Settle());
    for (std::string_view bytes : {"EHLO ", "", "here\r\n"}) c.control->SendData(bytes);
    EXPECT_EQ(c.events, Words{"connect"});
    // No ticker runs: only the socket can end these waits.
    for (int i = 0; i < 9 && c.events.size() < 5 && Services().WaitAndPumpEvents(); ++i) continue;
    std::u16string text;
    c.control->GetData(text, vbString, 4);
    EXPECT_EQ(Raised([&] { c.control->GetData(text, 17, 4); }).Number(), sckInvalidArg);
    c.control->GetData(text, vbString, 0);
    EXPECT_EQ(text, u"\u00E9\u20AC\r\n");
    c.control->SendSlices(std::vector<SendSlice>{
        {payload.substr(0, half), held}, {"-", nullptr}, {payload.substr(half), held}});
    EXPECT_GT(held.use_count(), 1);
    EXPECT_TRUE(PumpUntil([&] { return c.events.size() == 6; }, 60s));
    EXPECT_EQ(held.use_count(), 1);
    for (int i = 0; i < 5; ++i) Pump();
    EXPECT_EQ(c.events, (Words{"connect", "sent", "sent", "sent", "data:8", "sent"}));
    c.control->Close();
    Client d(u"127.0.0.1", peer.Port());
    ASSERT_TRUE(PumpUntil([&] { return d.events.size() == 2; }));
    d.control->SendData("QUIT\r\n");  // State is sckClosing now
    ASSERT_TRUE(PumpUntil([&] { return d.events.size() == 3; }));
    EXPECT_EQ(d.events, (Words{"connect", "close", "sent"}));
    EXPECT_FALSE(Services().WaitAndPumpEvents());
    const std::string sent =
        std::string(payload.substr(0, half)) + "-" + std::string(payload.substr(half));
    EXPECT_TRUE(peer.Result().starts_with("EHLO here\r\n" + sent));
}

TEST(Clock, SystemTimerIsTheLocalTimeOfDayAndSleepNeverWaitsForANegativeTime) {
    const time_t now = time(nullptr);
    const tm local = *localtime(&now);  // the test's only thread here
    const double expected = local.tm_hour * 3600.0 + local.tm_min * 60 + local.tm_sec;
    const auto start = Clock::now();
    EXPECT_NEAR(SystemTimer(), expected, expected < 86398 ? 1.5 : 86400);  // unless the day turns
    Sleep(INT32_MIN);  // taken as unsigned it would sleep for weeks
    EXPECT_LT(Clock::now() - start, 1s);
}

}  // namespace
}  // namespace larkpost::detail
