// The per-thread event loop behind HostServices: posted events, their order and owners, nested
// pumps, the empty wait, and the independence of threads.
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/host_kit.h"
#include "platform/posix_socket_control.h"

namespace larkpost::detail {
namespace {

HostServices Services() { return HostKitGlobal().Services(); }

// Runs body on a new thread, whose loop starts empty, and waits for it.
template <typename Body>
void OnFreshThread(Body body) {
    std::thread thread(body);
    thread.join();
}

TEST(EventLoopPost, EventsRunInPostingOrderOnlyInsideAPump) {
    auto owner = std::make_shared<int>();
    std::vector<int> ran;
    for (int i = 0; i < 3; ++i) Services().PostEvent(owner, [&ran, i] { ran.push_back(i); });
    EXPECT_TRUE(ran.empty());
    Services().PumpEvents();
    EXPECT_EQ(ran, (std::vector<int>{0, 1, 2}));
    Services().PumpEvents();
    EXPECT_EQ(ran.size(), 3u) << "an event runs once";
}

TEST(EventLoopPost, ExpiredOwnerDropsItsEventsEvenMidPump) {
    auto kept = std::make_shared<int>();
    auto released = std::make_shared<int>();
    auto releasedByHandler = std::make_shared<int>();
    std::vector<std::string> ran;
    Services().PostEvent(released, [&] { ran.push_back("released"); });
    Services().PostEvent(kept, [&] {
        ran.push_back("kept");
        releasedByHandler.reset();
    });
    Services().PostEvent(releasedByHandler, [&] { ran.push_back("releasedByHandler"); });
    Services().PostEvent(std::weak_ptr<void>(), [&] { ran.push_back("no owner"); });
    released.reset();
    Services().PumpEvents();
    EXPECT_EQ(ran, std::vector<std::string>{"kept"});
}

TEST(EventLoopPost, EventPostedByAHandlerWaitsForTheNextPump) {
    auto owner = std::make_shared<int>();
    int rounds = 0;
    // A handler that always posts again must not hold the pump forever.
    std::function<void()> again = [&] {
        ++rounds;
        Services().PostEvent(owner, again);
    };
    Services().PostEvent(owner, again);
    Services().PumpEvents();
    EXPECT_EQ(rounds, 1);
    Services().PumpEvents();
    EXPECT_EQ(rounds, 2);
    owner.reset();
    Services().PumpEvents();
    EXPECT_EQ(rounds, 2);
}

TEST(EventLoopPost, NestedPumpKeepsOrderAndRunsEachEventOnce) {
    auto owner = std::make_shared<int>();
    std::vector<std::string> ran;
    Services().PostEvent(owner, [&] {
        ran.push_back("a");
        Services().PumpEvents();  // a handler that waits, as a blocking call from host code does
        ran.push_back("a-end");
    });
    Services().PostEvent(owner, [&] { ran.push_back("b"); });
    Services().PostEvent(owner, [&] { ran.push_back("c"); });
    Services().PumpEvents();
    EXPECT_EQ(ran, (std::vector<std::string>{"a", "b", "c", "a-end"}));
}

TEST(EventLoopPost, HandlerFailureReachesThePumperAndLosesNoOtherEvent) {
    auto owner = std::make_shared<int>();
    std::vector<std::string> ran;
    Services().PostEvent(owner, [&] { throw std::runtime_error("handler failed"); });
    Services().PostEvent(owner, [&] { ran.push_back("next"); });
    EXPECT_THROW(Services().PumpEvents(), std::runtime_error);
    EXPECT_TRUE(ran.empty());
    Services().PumpEvents();
    EXPECT_EQ(ran, std::vector<std::string>{"next"});
}

TEST(EventLoopWait, ReturnsFalseAtOnceWhenNothingCanHappen) {
    OnFreshThread([] {
        EXPECT_FALSE(Services().WaitAndPumpEvents());
        // A control that was made but never connected has nothing to wait for either.
        auto control = Services().CreateSocketControl();
        EXPECT_FALSE(Services().WaitAndPumpEvents());
    });
}

TEST(EventLoopWait, DeliversWhatIsQueuedWithoutSleeping) {
    OnFreshThread([] {
        auto owner = std::make_shared<int>();
        bool ran = false;
        Services().PostEvent(owner, [&] { ran = true; });
        EXPECT_TRUE(Services().WaitAndPumpEvents());
        EXPECT_TRUE(ran);
        EXPECT_FALSE(Services().WaitAndPumpEvents());
    });
}

TEST(EventLoopThreads, EachThreadHasItsOwnLoopAndGlobal) {
    auto owner = std::make_shared<int>();
    bool ranHere = false;
    Services().PostEvent(owner, [&] { ranHere = true; });
    HostKitGlobalObject* mainGlobal = &HostKitGlobal();

    OnFreshThread([&] {
        EXPECT_NE(&HostKitGlobal(), mainGlobal);
        EXPECT_EQ(&HostKitGlobal(), &HostKitGlobal()) << "one object per thread, kept";
        // This thread's pump knows nothing of the other thread's queue.
        EXPECT_FALSE(Services().WaitAndPumpEvents());
        std::thread::id ranOn;
        Services().PostEvent(owner, [&] { ranOn = std::this_thread::get_id(); });
        Services().PumpEvents();
        EXPECT_EQ(ranOn, std::this_thread::get_id());
    });
    EXPECT_FALSE(ranHere);
    Services().PumpEvents();
    EXPECT_TRUE(ranHere);
}

// A control that does nothing, to tell the test factory's product apart.
class InertControl : public SocketControl {
public:
    void SetEvents(SocketControlEvents*) override {}
    void Protocol(int32_t) override {}
    void LocalPort(int32_t) override {}
    void Connect(const std::u16string&, int32_t) override {}
    int16_t State() override { return sckClosed; }
    void Close() override {}
    void SendData(std::string_view) override {}
    void GetData(std::u16string&, int32_t, int32_t) override {}
    std::u16string LocalHostName() override { return u"inert"; }
    std::u16string LocalIP() override { return {}; }
};

TEST(EventLoopThreads, SocketControlFactorySeamIsPerThread) {
    Services().SetSocketControlFactoryForTesting([] { return std::make_shared<InertControl>(); });
    EXPECT_NE(dynamic_cast<InertControl*>(Services().CreateSocketControl().get()), nullptr);
    OnFreshThread([] {
        EXPECT_NE(dynamic_cast<PosixSocketControl*>(Services().CreateSocketControl().get()), nullptr);
    });
    Services().SetSocketControlFactoryForTesting(nullptr);
    EXPECT_NE(dynamic_cast<PosixSocketControl*>(Services().CreateSocketControl().get()), nullptr);
}

}  // namespace
}  // namespace larkpost::detail
