// The C interface as the callbacks of a host meet it.
#include <gtest/gtest.h>

#include "larkpost/larkpost_c.h"
#include "support/scripted_peer.h"

namespace {

struct Sending {
    larkpost_object *client = nullptr, *message = nullptr, *release = nullptr;
    int events = 0;
    bool ownHandle = false;  // the callback got the caller's message handle, not one lent
};

void Progress(void* data, larkpost_object* message, int32_t, int32_t) {
    Sending& s = *static_cast<Sending*>(data);
    if (s.events++ == 0) s.ownHandle = message == s.message, larkpost_release(s.release);
}

// A progress callback may release the client or the message whose send is running: the send
// goes on to its end safely (ASan and Valgrind watch), and what was released is gone after it.
TEST(CApiCallbacks, MayReleaseWhatTheRunningSendUses) {
    for (bool client : {true, false}) {
        larkpost::test::ScriptedPeer peer(
            "< 220 hi|> EHLO <host>|< 250 hi|> MAIL FROM: <a@x>|< 250 ok|> RCPT TO: <b@x>|< 250 ok|"
            "> DATA|< 354 go|> <text>|< 250 queued|!wait");
        Sending s;
        larkpost_create("Larkpost.MailClient", &s.client);
        larkpost_create("Larkpost.MailMessage", &s.message);
        s.release = client ? s.client : s.message;
        larkpost_mail_message_set_from_address(s.message, "a@x");
        larkpost_mail_message_add_recipient(s.message, "b@x");
        larkpost_mail_message_set_body(s.message, std::string(1500, 'c').c_str());
        larkpost_mail_client_set_server(s.client, "127.0.0.1");
        larkpost_mail_client_set_port(s.client, peer.Port());
        larkpost_mail_client_set_events(s.client, Progress, nullptr, nullptr, &s);
        ASSERT_EQ(larkpost_mail_client_connect(s.client, nullptr, nullptr), 0);
        EXPECT_EQ(larkpost_mail_client_send(s.client, s.message), 0);
        EXPECT_TRUE(s.events > 2 && s.ownHandle);  // the transfer went on after the release
        EXPECT_EQ(larkpost_class_name(s.release), nullptr);
        larkpost_release(s.client), larkpost_release(s.message);  // a dead handle is passed over
        EXPECT_NE(peer.Result().find("\r\n.\r\n"), std::string::npos);
    }
}

}  // namespace
