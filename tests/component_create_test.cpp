// Creation by name: the four class names, their case, unknown names, and what new objects hold.
#include <gtest/gtest.h>

#include <tuple>

#include "larkpost/larkpost.h"
#include "support/message_testing.h"

namespace larkpost {
namespace {

// Names compare without regard to ASCII case, in UTF-8 or UTF-16. Each creation is a new instance
// held by nothing but its Object, which names its class; copies share the instance.
TEST(CreateObject, EveryClassByItsNameInAnyCaseAsANewIndependentInstance) {
    const std::pair<std::string, std::string> names[] = {
        {"Larkpost.MailClient", "Larkpost.MailClient"},
        {"larkpost.tcpstream", "Larkpost.TcpStream"},
        {"LARKPOST.MAILMESSAGE", "Larkpost.MailMessage"},
        {"LarkPost.StringBuilder", "Larkpost.StringBuilder"}};
    for (const auto& [spelling, className] : names) {
        SCOPED_TRACE(spelling);
        std::weak_ptr<void> watch;
        {
            Object object = CreateObject(spelling);
            EXPECT_EQ(object.ClassName(), className);
            EXPECT_EQ(CreateObject(FromUtf8(spelling)).ClassName(), className);
            std::visit([&](const auto& instance) { watch = instance; }, object.Get());
            EXPECT_EQ(watch.use_count(), 1) << "held by anything but the Object";
            Object copy = object;
            EXPECT_EQ(watch.use_count(), 2);
            EXPECT_EQ(copy.Get(), object.Get());
            EXPECT_NE(CreateObject(spelling).Get(), object.Get());
        }
        EXPECT_TRUE(watch.expired());
    }
    Object client = CreateObject("larkpost.mailclient");
    EXPECT_TRUE(client.Is<MailClient>());
    EXPECT_FALSE(client.Is<MailMessage>());
    // A new object holds its defaults.
    auto mailClient = client.As<MailClient>();
    EXPECT_EQ(std::tuple(mailClient->Server(), mailClient->Port(), mailClient->Timeout),
              std::tuple(std::u16string(), 25, 30));
    EXPECT_TRUE(CreateObject(u"LARKPOST.STRINGBUILDER").Is<StringBuilder>());
    EXPECT_TRUE(CreateObject("Larkpost.TcpStream").Is<TcpStream>());
    Object first = CreateObject("Larkpost.MailMessage");
    Object second = CreateObject("Larkpost.MailMessage");
    first.As<MailMessage>()->SubjectLine(std::u16string(u"one"));
    EXPECT_EQ(second.As<MailMessage>()->SubjectLine(), u"");
}

TEST(CreateObject, UnknownNamesRaise429NamingTheClassesThereAre) {
    for (std::string_view name : {"", "MailClient", "Larkpost.Common", "Larkpost.MailClient ",
                                  " Larkpost.MailClient", "Larkpost.MailClient.1", "Larkpost"}) {
        auto error = test::CaptureError([&] { CreateObject(name); });
        ASSERT_TRUE(error) << name;
        EXPECT_EQ(error->Number(), ERROR_CANNOT_CREATE_OBJECT);
        EXPECT_EQ(error->Source(), u"Larkpost");
        EXPECT_EQ(std::string(error->what()),
                  "Cannot create an object of class '" + std::string(name) +
                      "': Larkpost has no such class. Its classes are Larkpost.MailClient, "
                      "Larkpost.TcpStream, Larkpost.MailMessage and Larkpost.StringBuilder.");
    }
    auto error = test::CaptureError([&] { CreateObject("Larkpost.Mail\xC3\x28"); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->Number(), ERROR_INVALID_ARGUMENT);
    EXPECT_NE(std::string(error->what()).find("UTF-8"), std::string::npos);
}

TEST(CreateObject, AsTheWrongClassRaisesTypeMismatch) {
    EXPECT_RAISES(CreateObject("Larkpost.MailMessage").As<MailClient>(), ERROR_TYPE_MISMATCH,
                  "Type mismatch: the object is a Larkpost.MailMessage, not a Larkpost.MailClient.");
}

}  // namespace
}  // namespace larkpost
