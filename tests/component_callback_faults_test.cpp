// Host faults at the C interface: callbacks that release the very objects whose call is running,
// a callback that starts another send on the same client, and handles that are stale, foreign
// or null. The interface promises an error and never a crash; ASan and Valgrind watch for
// anything that touches freed memory.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "larkpost/larkpost_c.h"
#include "platform/clock.h"
#include "support/scripted_peer.h"
#include "support/under_valgrind.h"

namespace larkpost::test {
namespace {

class ShortTicks {
public:
    ShortTicks() { detail::SetTickScaleForTesting(UnderValgrind() ? 1.0 : 0.1); }
    ~ShortTicks() { detail::SetTickScaleForTesting(1); }
    ShortTicks(const ShortTicks&) = delete;
    ShortTicks& operator=(const ShortTicks&) = delete;
};

larkpost_object* Create(const char* name) {
    larkpost_object* object = nullptr;
    EXPECT_EQ(larkpost_create(name, &object), 0) << name;
    return object;
}

larkpost_object* MakeMessage() {
    larkpost_object* message = Create("Larkpost.MailMessage");
    EXPECT_EQ(larkpost_mail_message_set_from_address(message, "c@callback.test"), 0);
    EXPECT_EQ(larkpost_mail_message_add_recipient(message, "r@callback.test"), 0);
    EXPECT_EQ(larkpost_mail_message_set_body(message, std::string(1500, 'c').c_str()), 0);
    return message;
}

// A peer that takes one whole message and then waits for the client to go.
void PlayOneMessage(ScriptedPeer& peer) {
    peer.Send("220 ready\r\n")
        .Reply("250 ok\r\n")
        .Reply("250 ok\r\n")
        .Reply("250 ok\r\n")
        .Reply("354 go\r\n")
        .ReadUntil("\r\n.\r\n")
        .Send("250 queued\r\n")
        .WaitForClose();
}

struct CallbackState {
    larkpost_object* toRelease = nullptr;
    larkpost_object* client = nullptr;
    larkpost_object* nestedMessage = nullptr;
    int events = 0;
    int32_t nestedStatus = 0;
};

class CallbackFault : public ::testing::Test {
protected:
    // The peer's script is complete before it starts.
    void SetUp() override {
        client = Create("Larkpost.MailClient");
        ASSERT_EQ(larkpost_mail_client_set_server(client, "127.0.0.1"), 0);
        ASSERT_EQ(larkpost_mail_client_set_port(client, peer.Port()), 0);
        ASSERT_EQ(larkpost_mail_client_set_timeout(client, 1), 0);
    }

    ShortTicks ticks;
    ScriptedPeer peer;
    larkpost_object* client = nullptr;
    CallbackState state;
};

TEST_F(CallbackFault, ReleasingTheClientInsideProgressLetsTheSendFinishSafely) {
    PlayOneMessage(peer);
    peer.Start();
    larkpost_object* message = MakeMessage();
    state.toRelease = client;
    ASSERT_EQ(larkpost_mail_client_set_events(
                  client,
                  [](void* data, larkpost_object*, int32_t, int32_t) {
                      auto* s = static_cast<CallbackState*>(data);
                      if (++s->events == 1) larkpost_release(s->toRelease);  // the host's last reference
                  },
                  nullptr, nullptr, &state),
              0);
    ASSERT_EQ(larkpost_mail_client_connect(client, nullptr, nullptr), 0);

    EXPECT_EQ(larkpost_mail_client_send(client, message), 0) << larkpost_error_description();
    EXPECT_GT(state.events, 1);  // the transfer went on after the release
    EXPECT_EQ(larkpost_class_name(client), nullptr) << "the client outlived its last reference";
    ASSERT_TRUE(peer.Join());  // the client went, and with it the connection
    EXPECT_NE(peer.Received().find("\r\n.\r\n"), std::string::npos);
    larkpost_release(message);
}

TEST_F(CallbackFault, ReleasingTheMessageInsideProgressKeepsItForTheCall) {
    PlayOneMessage(peer);
    peer.Start();
    larkpost_object* message = MakeMessage();
    state.toRelease = message;
    ASSERT_EQ(larkpost_mail_client_set_events(
                  client,
                  [](void* data, larkpost_object* lent, int32_t, int32_t) {
                      auto* s = static_cast<CallbackState*>(data);
                      EXPECT_NE(larkpost_class_name(lent), nullptr);  // alive for the callback
                      if (++s->events == 1) {
                          EXPECT_EQ(lent, s->toRelease);
                          larkpost_release(s->toRelease);
                      }
                  },
                  nullptr, nullptr, &state),
              0);
    ASSERT_EQ(larkpost_mail_client_connect(client, nullptr, nullptr), 0);

    EXPECT_EQ(larkpost_mail_client_send(client, message), 0) << larkpost_error_description();
    EXPECT_EQ(larkpost_class_name(message), nullptr);
    EXPECT_EQ(larkpost_mail_client_disconnect(client, 0), 0);
    ASSERT_TRUE(peer.Join());
    EXPECT_NE(peer.Received().find("\r\n.\r\n"), std::string::npos);
    larkpost_release(client);
}

TEST_F(CallbackFault, AnotherSendInsideProgressFailsAndTerminatesNothing) {
    peer.Send("220 ready\r\n").Reply("250 ok\r\n").Reply("250 ok\r\n").Reply("250 ok\r\n").Reply("354 go\r\n");
    peer.WaitForClose();
    peer.Start();
    larkpost_object* message = MakeMessage();
    state.client = client;
    state.nestedMessage = MakeMessage();
    ASSERT_EQ(larkpost_mail_client_set_events(
                  client,
                  [](void* data, larkpost_object*, int32_t, int32_t) {
                      auto* s = static_cast<CallbackState*>(data);
                      if (++s->events == 1) s->nestedStatus = larkpost_mail_client_send(s->client, s->nestedMessage);
                  },
                  nullptr, nullptr, &state),
              0);
    ASSERT_EQ(larkpost_mail_client_connect(client, nullptr, nullptr), 0);

    EXPECT_NE(larkpost_mail_client_send(client, message), 0);
    EXPECT_NE(state.nestedStatus, 0);
    EXPECT_EQ(larkpost_mail_client_disconnect(client, 1), 0);
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(peer.Received().find("\r\n.\r\n"), std::string::npos) << "a half-sent message was terminated";
    larkpost_release(state.nestedMessage);
    larkpost_release(message);
    larkpost_release(client);
}

TEST(CallbackFaults, StaleForeignAndNullHandlesGiveErrorsNotCrashes) {
    larkpost_object* builder = Create("Larkpost.StringBuilder");
    larkpost_release(builder);
    EXPECT_NE(larkpost_string_builder_append(builder, "x"), 0);  // released
    EXPECT_EQ(larkpost_class_name(builder), nullptr);
    larkpost_release(builder);  // a second release is ignored

    alignas(16) unsigned char foreign[64] = {};
    auto* fake = reinterpret_cast<larkpost_object*>(foreign);
    EXPECT_NE(larkpost_string_builder_append(fake, "x"), 0);
    EXPECT_EQ(larkpost_retain(fake), nullptr);
    larkpost_release(fake);

    EXPECT_EQ(larkpost_string_builder_append(nullptr, "x"), LARKPOST_ERROR_NULL_HANDLE);
    larkpost_object* message = Create("Larkpost.MailMessage");
    EXPECT_EQ(larkpost_string_builder_append(message, "x"), LARKPOST_ERROR_TYPE_MISMATCH);
    EXPECT_EQ(larkpost_mail_message_get_body(message, nullptr, nullptr), LARKPOST_ERROR_INVALID_ARGUMENT);
    larkpost_release(message);
}

}  // namespace
}  // namespace larkpost::test
