// MailClient against real SMTP servers on loopback: aiosmtpd (with and without a required login,
// with a SIZE limit) and Postfix's smtp-sink. What they store is read back with Python's email
// package.
#include <gtest/gtest.h>

#include <optional>

#include "larkpost/error.h"
#include "larkpost/mail_client.h"
#include "larkpost/mail_message.h"
#include "support/mail_client_access.h"
#include "support/message_testing.h"
#include "support/mime_parse.h"
#include "support/process.h"
#include "support/smtp_servers.h"

namespace larkpost {
namespace {

using detail::MailClientAccess;
using test::AiosmtpdServer;
using test::ParsedMime;
using test::StoredMessage;

std::string AllBytes() {  // every byte value, three times
    std::string bytes;
    for (int b = 0; b < 768; ++b) bytes.push_back(static_cast<char>(b));
    return bytes;
}

// A message with both bodies and two attachments written into dir.
std::shared_ptr<MailMessage> FullMessage(const test::TempDir& dir, const std::string& subject) {
    test::WriteFileBytes(dir.File("bytes.bin"), AllBytes());
    test::WriteFileBytes(dir.File("notes.txt"), "line one\r\n.line with a leading period\r\nlast");
    auto message = std::make_shared<MailMessage>();
    message->FromAddress("ann@example.test");
    message->SenderName("Ann Lee");
    message->AddRecipient("bob@example.test");
    message->AddCCRecipient("carl@example.test");
    message->AddBCCRecipient("dana@example.test");
    message->SubjectLine(subject);
    message->Body("Hello Bob,\r\n.\r\nA line with only a period stood above.\r\n");
    message->BodyHTML("<p>Hello <b>Bob</b></p>");
    message->AttachFile(dir.File("bytes.bin"));
    message->AttachFile(dir.File("notes.txt"));
    return message;
}

// What a server stored is what was sent: headers, both bodies, attachments byte for byte.
void ExpectFullMessage(const std::string& content, const std::string& subject) {
    const ParsedMime parsed = test::ParseMime(content);
    EXPECT_TRUE(parsed.defects.empty());
    EXPECT_EQ(parsed.Header("Subject"), subject);
    EXPECT_EQ(parsed.Header("From"), "\"Ann Lee\" <ann@example.test>");
    EXPECT_EQ(parsed.Header("To"), "bob@example.test");
    EXPECT_TRUE(parsed.structure.starts_with(
        "multipart/mixed(multipart/alternative(text/plain,text/html)"))
        << parsed.structure;
    // The first part of this type with this file name (none for a body).
    auto leaf = [&](const std::string& type, std::optional<std::string> filename) -> std::string {
        for (const auto& part : parsed.parts)
            if (part.contentType == type && part.filename == filename) return part.payload;
        ADD_FAILURE() << "no part " << type << " " << filename.value_or("");
        return {};
    };
    // The blank line that the format puts between an encoded body and the next delimiter reads
    // as one more line end of the body.
    EXPECT_EQ(leaf("text/plain", {}),
              "Hello Bob,\r\n.\r\nA line with only a period stood above.\r\n\r\n");
    EXPECT_EQ(leaf("text/html", {}), "<p>Hello <b>Bob</b></p>\r\n");
    EXPECT_EQ(leaf("application/octet-stream", "bytes.bin"), AllBytes());
    EXPECT_EQ(leaf("text/plain", "notes.txt"), "line one\r\n.line with a leading period\r\nlast");
}

RaisedError Failure(auto&& call) {
    return test::CaptureError(call).value_or(RaisedError(0, u""));
}

TEST(SmtpAiosmtpdTest, DeliversSeveralMessagesInOneSessionWithoutLogin) {
    test::TempDir files;
    AiosmtpdServer server;
    MailClient client;
    test::PointAt(client, server.Port());
    client.Connect();
    auto message = FullMessage(files, "first");
    client.Send(message);
    message->SubjectLine("second");
    message->RemoveBCCRecipient("dana@example.test");
    client.Send(message);
    client.Send(FullMessage(files, "third"));
    client.Disconnect();

    const auto stored = server.Messages(3);
    ASSERT_EQ(stored.size(), 3u);
    EXPECT_EQ(stored[0].mailFrom, "ann@example.test");
    EXPECT_EQ(stored[0].rcptTos,
              (std::vector<std::string>{"bob@example.test", "carl@example.test", "dana@example.test"}));
    EXPECT_EQ(stored[0].authMechanism, "");
    EXPECT_EQ(stored[1].rcptTos, (std::vector<std::string>{"bob@example.test", "carl@example.test"}));
    ExpectFullMessage(stored[0].content, "first");
    ExpectFullMessage(stored[1].content, "second");
    ExpectFullMessage(stored[2].content, "third");
}

struct LoginCase {
    const char* name;
    std::string offered;
    std::string expectedMechanism;
    std::u16string wrongPasswordDescription;
};
// Named in test listings (the default would print the bytes of the struct).
void PrintTo(const LoginCase& c, std::ostream* os) { *os << c.name; }

class SmtpAiosmtpdLoginTest : public ::testing::TestWithParam<LoginCase> {};

// Without credentials the server refuses the sender; a wrong password is refused at Connect; the
// right one logs in with the scheme the client prefers among those offered.
TEST_P(SmtpAiosmtpdLoginTest, ServerChecksTheCredentials) {
    AiosmtpdServer::Options options;
    options.user = "ann";
    options.password = "s3cret pass";
    options.mechanisms = GetParam().offered;
    AiosmtpdServer server(options);
    test::TempDir files;
    MailClient client;
    test::PointAt(client, server.Port());
    client.Connect();
    RaisedError error = Failure([&] { client.Send(FullMessage(files, "refused")); });
    EXPECT_EQ(error.Number(), ERROR_COMMAND_REFUSED);
    EXPECT_EQ(error.Description(), u"530 5.7.0 Authentication required\r\n");
    error = Failure([&] { client.Connect(u"ann", u"wrong"); });
    EXPECT_EQ(error.Number(), ERROR_AUTH_FAILED);
    EXPECT_EQ(error.Description(), GetParam().wrongPasswordDescription);
    EXPECT_TRUE(MailClientAccess::Stream(client).Connected());
    client.Connect(u"ann", u"s3cret pass");
    client.Send(FullMessage(files, "after login"));
    client.Disconnect();

    const auto stored = server.Messages(1);
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(stored[0].authMechanism, GetParam().expectedMechanism);
    EXPECT_EQ(stored[0].authLogin, "ann");
    ExpectFullMessage(stored[0].content, "after login");
}

INSTANTIATE_TEST_SUITE_P(
    Schemes, SmtpAiosmtpdLoginTest,
    ::testing::Values(LoginCase{"Login", "LOGIN,PLAIN", "LOGIN",
                                u"535 5.7.8 Authentication credentials invalid\r\n"},
                      LoginCase{"Plain", "PLAIN", "PLAIN",
                                u"The mail server could not authenticate you. It replied with "
                                u"'535 5.7.8 Authentication credentials invalid\r\n'"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(SmtpAiosmtpdTest, AnnouncedSizeLimitIsKeptByTheClient) {
    AiosmtpdServer::Options options;
    options.sizeLimit = 1500;
    AiosmtpdServer server(options);
    test::TempDir files;
    MailClient client;
    test::PointAt(client, server.Port());
    client.Connect();
    EXPECT_EQ(MailClientAccess::HasCapability(client, CAP_SIZE), CAP_SIZE);
    EXPECT_EQ(MailClientAccess::MaxMessageSize(client), 1500);

    // 768 bytes in Base64, the second file and both bodies come to well over 1500 characters.
    const RaisedError error = Failure([&] { client.Send(FullMessage(files, "too large")); });
    EXPECT_EQ(error.Number(), ERROR_MESSAGE_TOO_LARGE);

    auto small = std::make_shared<MailMessage>();
    small->FromAddress("ann@example.test");
    small->AddRecipient("bob@example.test");
    small->SubjectLine("small");
    small->Body("fits");
    client.Send(small);
    client.Disconnect();

    const auto stored = server.Messages(1);
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(test::ParseMime(stored[0].content).Header("Subject"), "small");
}

TEST(SmtpSinkTest, TheSameSendAgainstPostfixSmtpSink) {
    if (!test::SmtpSink::Available()) GTEST_SKIP() << "smtp-sink needs /usr/sbin/smtp-sink and root";
    test::TempDir files;
    test::SmtpSink sink;
    MailClient client;
    test::PointAt(client, sink.Port());
    client.Connect();
    client.Send(FullMessage(files, "to the sink"));
    client.Send(FullMessage(files, "again"));
    client.Disconnect();

    const auto stored = sink.Messages(2);
    ASSERT_EQ(stored.size(), 2u);
    for (const StoredMessage& message : stored) {
        EXPECT_EQ(message.mailFrom, "<ann@example.test>");
        EXPECT_EQ(message.rcptTos,
                  (std::vector<std::string>{"<bob@example.test>", "<carl@example.test>",
                                            "<dana@example.test>"}));
    }
    ExpectFullMessage(stored[0].content, "to the sink");
    ExpectFullMessage(stored[1].content, "again");
}

}  // namespace
}  // namespace larkpost
