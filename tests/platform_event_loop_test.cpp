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
#include "support/fake_socket_control.h"

namespace larkpost::detail {
namespace {

using Strings = std::vector<std::string>;

HostServices Services() { return HostKitGlobal().Services(); }
void Pump() { Services().PumpEvents(); }

// Posts an event that notes its name in ran.
void PostNote(std::weak_ptr<void> owner, Strings& ran, std::string name) {
    Services().PostEvent(std::move(owner), [&ran, name] { ran.push_back(name); });
}

// Runs body on a new thread, whose loop starts empty, and waits for it.
template <typename Body>
void OnFreshThread(Body body) {
    std::thread(body).join();
}

TEST(EventLoopPost, EventsRunInOrderOnceAndOnlyInsideAPumpEvenANestedOne) {
    auto owner = std::make_shared<int>();
    Strings ran;
    Services().PostEvent(owner, [&] {
        ran.push_back("a");
        Pump();  // a handler that waits, as a blocking call from host code does
        ran.push_back("a-end");
    });
    PostNote(owner, ran, "b");
    PostNote(owner, ran, "c");
    EXPECT_TRUE(ran.empty());
    Pump();
    Pump();
    EXPECT_EQ(ran, (Strings{"a", "b", "c", "a-end"}));
}

TEST(EventLoopPost, ExpiredOwnerDropsItsEventsEvenMidPump) {
    auto kept = std::make_shared<int>();
    auto released = std::make_shared<int>();
    auto releasedByHandler = std::make_shared<int>();
    Strings ran;
    PostNote(released, ran, "released");
    Services().PostEvent(kept, [&] {
        ran.push_back("kept");
        releasedByHandler.reset();
    });
    PostNote(releasedByHandler, ran, "releasedByHandler");
    PostNote(std::weak_ptr<void>(), ran, "no owner");
    released.reset();
    Pump();
    EXPECT_EQ(ran, Strings{"kept"});
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
    Pump();
    EXPECT_EQ(rounds, 1);
    Pump();
    EXPECT_EQ(rounds, 2);
    owner.reset();
    Pump();
    EXPECT_EQ(rounds, 2);
}

TEST(EventLoopPost, HandlerFailureReachesThePumperAndLosesNoOtherEvent) {
    auto owner = std::make_shared<int>();
    Strings ran;
    Services().PostEvent(owner, [&] { throw std::runtime_error("handler failed"); });
    PostNote(owner, ran, "next");
    EXPECT_THROW(Pump(), std::runtime_error);
    EXPECT_TRUE(ran.empty());
    Pump();
    EXPECT_EQ(ran, Strings{"next"});
}

TEST(EventLoopWait, DeliversWhatIsQueuedAndReturnsFalseAtOnceWhenNothingCanHappen) {
    OnFreshThread([] {
        EXPECT_FALSE(Services().WaitAndPumpEvents());
        auto owner = std::make_shared<int>();
        Strings ran;
        PostNote(owner, ran, "queued");
        EXPECT_TRUE(Services().WaitAndPumpEvents());
        EXPECT_EQ(ran, Strings{"queued"});
        // A control that was made but never connected has nothing to wait for either.
        auto control = Services().CreateSocketControl();
        EXPECT_FALSE(Services().WaitAndPumpEvents());
    });
}

TEST(EventLoopThreads, EachThreadHasItsOwnLoopGlobalAndSocketFactory) {
    auto owner = std::make_shared<int>();
    Strings ran;
    PostNote(owner, ran, "main");
    HostKitGlobalObject* mainGlobal = &HostKitGlobal();
    Services().SetSocketControlFactoryForTesting(
        [] { return std::make_shared<test::FakeSocketControl>(test::FakeScript{}); });
    EXPECT_NE(dynamic_cast<test::FakeSocketControl*>(Services().CreateSocketControl().get()),
              nullptr);

    OnFreshThread([&] {
        EXPECT_NE(&HostKitGlobal(), mainGlobal);
        EXPECT_EQ(&HostKitGlobal(), &HostKitGlobal()) << "one object per thread, kept";
        EXPECT_NE(dynamic_cast<PosixSocketControl*>(Services().CreateSocketControl().get()),
                  nullptr);
        // This thread's pump knows nothing of the other thread's queue.
        EXPECT_FALSE(Services().WaitAndPumpEvents());
        std::thread::id ranOn;
        Services().PostEvent(owner, [&] { ranOn = std::this_thread::get_id(); });
        Pump();
        EXPECT_EQ(ranOn, std::this_thread::get_id());
    });
    EXPECT_TRUE(ran.empty());
    Pump();
    EXPECT_EQ(ran, Strings{"main"});
    Services().SetSocketControlFactoryForTesting(nullptr);
    EXPECT_NE(dynamic_cast<PosixSocketControl*>(Services().CreateSocketControl().get()), nullptr);
}

}  // namespace
}  // namespace larkpost::detail
