// The C interface driven from C++: handles, errors and their per-thread record, strings, and
// the events of MailClient against a scripted server.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "larkpost/error.h"
#include "larkpost/larkpost_c.h"
#include "support/scripted_peer.h"

namespace {

using larkpost::test::ScriptedPeer;

// Owns one handle for a test.
struct Handle {
    explicit Handle(const char* name) { EXPECT_EQ(larkpost_create(name, &object), 0); }
    ~Handle() { larkpost_release(object); }
    larkpost_object* object = nullptr;
};

std::string TakeText(char* text) {
    std::string out = text ? text : "";
    larkpost_string_free(text);
    return out;
}

std::string Description() { return larkpost_error_description(); }

TEST(CApiHandles, CreateRetainReleaseAndClassName) {
    larkpost_object* builder = nullptr;
    ASSERT_EQ(larkpost_create("larkpost.stringbuilder", &builder), 0);
    EXPECT_STREQ(larkpost_class_name(builder), "Larkpost.StringBuilder");
    EXPECT_EQ(larkpost_retain(builder), builder);
    larkpost_release(builder);
    // One reference is left: the object still works.
    EXPECT_EQ(larkpost_string_builder_append(builder, "x"), 0);
    larkpost_release(builder);
    EXPECT_EQ(larkpost_class_name(builder), nullptr);
    EXPECT_EQ(larkpost_retain(builder), nullptr);
    larkpost_release(builder);  // a second release of a dead handle is ignored
    larkpost_release(nullptr);

    larkpost_object* object = reinterpret_cast<larkpost_object*>(0x1);
    EXPECT_EQ(larkpost_create("Larkpost.Common", &object), LARKPOST_ERROR_CANNOT_CREATE);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(larkpost_error_number(), 429);
    EXPECT_NE(Description().find("'Larkpost.Common'"), std::string::npos) << Description();
    EXPECT_STREQ(larkpost_error_source(), "Larkpost");
    EXPECT_EQ(larkpost_create(nullptr, &object), LARKPOST_ERROR_CANNOT_CREATE);
    EXPECT_EQ(larkpost_create("Larkpost.\xFF", &object), LARKPOST_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(larkpost_create("Larkpost.MailClient", nullptr), LARKPOST_ERROR_INVALID_ARGUMENT);
}

TEST(CApiHandles, NullDeadAndWrongClassHandlesGiveClearErrors) {
    EXPECT_EQ(larkpost_mail_client_set_port(nullptr, 25), LARKPOST_ERROR_NULL_HANDLE);
    EXPECT_EQ(Description(), "larkpost_mail_client_set_port: the object handle is null.");

    larkpost_object* dead = nullptr;
    ASSERT_EQ(larkpost_create("Larkpost.MailMessage", &dead), 0);
    larkpost_release(dead);
    EXPECT_EQ(larkpost_mail_message_set_body(dead, "x"), LARKPOST_ERROR_INVALID_ARGUMENT);
    EXPECT_NE(Description().find("not a live Larkpost object"), std::string::npos);
    int32_t garbage[16] = {};
    EXPECT_EQ(larkpost_string_builder_clear(reinterpret_cast<larkpost_object*>(garbage)),
              LARKPOST_ERROR_INVALID_ARGUMENT);

    Handle builder("Larkpost.StringBuilder");
    EXPECT_EQ(larkpost_mail_client_connect(builder.object, nullptr, nullptr),
              LARKPOST_ERROR_TYPE_MISMATCH);
    EXPECT_EQ(Description(),
              "larkpost_mail_client_connect: type mismatch: the handle is a "
              "Larkpost.StringBuilder, but this function needs a Larkpost.MailClient.");
    // Send checks its message handle's class too, but hands a null message on to Send.
    Handle client("Larkpost.MailClient");
    EXPECT_EQ(larkpost_mail_client_send(client.object, builder.object), LARKPOST_ERROR_TYPE_MISMATCH);
    EXPECT_EQ(larkpost_mail_client_send(client.object, nullptr), larkpost::ERROR_NO_MESSAGE);
    EXPECT_EQ(Description(), "No MailMessage object provided to Send().");
}

TEST(CApiStrings, Utf8InAndOutNullAsEmptyAndInvalidInputChangesNothing) {
    Handle message("Larkpost.MailMessage");
    ASSERT_EQ(larkpost_mail_message_set_subject_line(message.object, "Caf\xC3\xA9 \xE2\x82\xAC 1"), 0);
    char* text = nullptr;
    size_t length = 99;
    ASSERT_EQ(larkpost_mail_message_get_subject_line(message.object, &text, &length), 0);
    EXPECT_EQ(length, 11u);
    EXPECT_EQ(TakeText(text), "Caf\xC3\xA9 \xE2\x82\xAC 1");
    for (const char* bad : {"\xC3\x28", "\xFF", "a\xE2\x82", "\xED\xA0\x80", "\xC0\xAF"}) {
        EXPECT_EQ(larkpost_mail_message_set_subject_line(message.object, bad),
                  LARKPOST_ERROR_INVALID_ARGUMENT);
        EXPECT_EQ(Description(), "larkpost_mail_message_set_subject_line: the argument 'value' is not "
                                 "valid UTF-8 text.");
    }
    EXPECT_EQ(larkpost_mail_message_add_recipient(message.object, "\xFF"),
              LARKPOST_ERROR_INVALID_ARGUMENT);
    EXPECT_NE(Description().find("'recipient'"), std::string::npos);
    // Nothing changed; the length pointer may be left out.
    ASSERT_EQ(larkpost_mail_message_get_subject_line(message.object, &text, nullptr), 0);
    EXPECT_EQ(TakeText(text), "Caf\xC3\xA9 \xE2\x82\xAC 1");
    // NULL is the empty string.
    ASSERT_EQ(larkpost_mail_message_set_subject_line(message.object, nullptr), 0);
    ASSERT_EQ(larkpost_mail_message_get_subject_line(message.object, &text, nullptr), 0);
    EXPECT_EQ(TakeText(text), "");
    // A null pointer for the result is refused before the member runs.
    Handle builder("Larkpost.StringBuilder");
    EXPECT_EQ(larkpost_string_builder_get_contents(builder.object, nullptr, nullptr),
              LARKPOST_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Description(),
              "larkpost_string_builder_get_contents: the pointer for the result is null.");
    Handle client("Larkpost.MailClient");
    EXPECT_EQ(larkpost_mail_client_get_port(client.object, nullptr), LARKPOST_ERROR_INVALID_ARGUMENT);
}

TEST(CApiErrors, SuccessClearsTheRecordAndLibraryErrorsKeepTheirNumbers) {
    Handle message("Larkpost.MailMessage");
    EXPECT_EQ(larkpost_mail_message_add_recipient(message.object, "   "),
              larkpost::ERROR_BLANK_RECIPIENT);
    EXPECT_EQ(larkpost_error_number(), larkpost::ERROR_BLANK_RECIPIENT);
    EXPECT_EQ(Description(), "Blank recipient");
    EXPECT_STRNE(larkpost_error_source(), "");
    EXPECT_EQ(larkpost_mail_message_add_recipient(message.object, "bob@example.org"), 0);
    EXPECT_EQ(larkpost_error_number(), 0);
    EXPECT_STREQ(larkpost_error_description(), "");
    EXPECT_STREQ(larkpost_error_source(), "");
    EXPECT_EQ(larkpost_mail_message_add_recipient(message.object, "BOB@example.org"),
              larkpost::ERROR_DUPLICATE_RECIPIENT);
    EXPECT_EQ(Description(), "'BOB@example.org' is already on the list");
    EXPECT_EQ(larkpost_mail_message_remove_cc_recipient(message.object, "nobody"),
              LARKPOST_ERROR_INVALID_ARGUMENT);
}

TEST(CApiErrors, EachThreadKeepsItsOwnRecord) {
    EXPECT_EQ(larkpost_create("Nope", nullptr), LARKPOST_ERROR_INVALID_ARGUMENT);
    std::string otherDescription;
    int32_t otherNumber = -1;
    std::thread other([&] {
        larkpost_object* builder = nullptr;
        larkpost_create("Larkpost.NoSuchClass", &builder);
        otherNumber = larkpost_error_number();
        otherDescription = larkpost_error_description();
    });
    other.join();
    EXPECT_EQ(otherNumber, 429);
    EXPECT_NE(otherDescription.find("Larkpost.NoSuchClass"), std::string::npos);
    EXPECT_EQ(larkpost_error_number(), LARKPOST_ERROR_INVALID_ARGUMENT);
    EXPECT_NE(Description().find("larkpost_create"), std::string::npos);
}

// What the callbacks of one client saw.
struct EventLog {
    larkpost_object* client = nullptr;
    std::vector<std::string> events;
    std::vector<larkpost_object*> progressMessages;
    int32_t cancelResult = -1;
};

extern "C" void LogProgress(void* user, larkpost_object* message, int32_t sent, int32_t total) {
    auto* log = static_cast<EventLog*>(user);
    log->events.push_back("progress " + std::to_string(sent) + "/" + std::to_string(total));
    log->progressMessages.push_back(message);
    if (log->progressMessages.size() == 1)
        log->cancelResult = larkpost_mail_client_cancel_send(log->client);
}
extern "C" void LogCancelPending(void* user) {
    static_cast<EventLog*>(user)->events.push_back("cancel pending");
}
extern "C" void LogSendCanceled(void* user) {
    static_cast<EventLog*>(user)->events.push_back("send canceled");
}

TEST(CApiEvents, CancelFromTheFirstProgressCallbackSendsNoText) {
    ScriptedPeer peer;
    // Greeting, then the replies to EHLO, MAIL FROM, RCPT TO and DATA.
    peer.Send("220 ready\r\n").Reply("250 hello\r\n").Reply("250 ok\r\n").Reply("250 ok\r\n");
    peer.Reply("354 go ahead\r\n").WaitForClose().Start();
    Handle client("Larkpost.MailClient");
    Handle message("Larkpost.MailMessage");
    ASSERT_EQ(larkpost_mail_message_set_from_address(message.object, "ann@example.org"), 0);
    ASSERT_EQ(larkpost_mail_message_add_recipient(message.object, "bob@example.org"), 0);
    ASSERT_EQ(larkpost_mail_message_set_subject_line(message.object, "Figures"), 0);
    ASSERT_EQ(larkpost_mail_message_set_body(message.object, std::string(3000, 'x').c_str()), 0);
    EventLog log;
    log.client = client.object;
    ASSERT_EQ(larkpost_mail_client_set_events(client.object, LogProgress, LogCancelPending,
                                              LogSendCanceled, &log),
              0);
    ASSERT_EQ(larkpost_mail_client_set_server(client.object, "127.0.0.1"), 0);
    ASSERT_EQ(larkpost_mail_client_set_port(client.object, peer.Port()), 0);
    ASSERT_EQ(larkpost_mail_client_connect(client.object, nullptr, nullptr), 0) << Description();
    ASSERT_EQ(larkpost_mail_client_send(client.object, message.object), 0) << Description();

    EXPECT_EQ(log.cancelResult, 0);
    ASSERT_EQ(log.events.size(), 3u);
    EXPECT_EQ(log.events[0].rfind("progress 512/", 0), 0u) << log.events[0];
    EXPECT_EQ(log.events[1], "cancel pending");
    EXPECT_EQ(log.events[2], "send canceled");
    EXPECT_EQ(log.progressMessages.front(), message.object);  // the caller's own handle
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(peer.Received().find("Subject:"), std::string::npos);
    EXPECT_EQ(peer.Received().find("xxx"), std::string::npos);

    // Detached callbacks are not called; a later Send finds the connection closed by the cancel.
    ASSERT_EQ(larkpost_mail_client_set_events(client.object, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(larkpost_mail_client_send(client.object, message.object), larkpost::ERROR_NOT_CONNECTED);
    EXPECT_EQ(Description(), "Not connected.");
    ASSERT_EQ(larkpost_mail_client_cancel_send(client.object), 0);
    EXPECT_EQ(log.events.size(), 3u);
}

TEST(CApiEvents, CancelPendingComesWithoutASend) {
    Handle client("Larkpost.MailClient");
    EventLog log;
    ASSERT_EQ(larkpost_mail_client_set_events(client.object, nullptr, LogCancelPending, nullptr, &log),
              0);
    ASSERT_EQ(larkpost_mail_client_cancel_send(client.object), 0);
    EXPECT_EQ(log.events, std::vector<std::string>{"cancel pending"});
}

}  // namespace
