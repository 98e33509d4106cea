// Creation by name: the four class names, their case, unknown names, and what new objects hold.
#include <gtest/gtest.h>

#include "larkpost/larkpost.h"

namespace larkpost {
namespace {

RaisedError CreateFailure(std::string_view name) {
    try {
        CreateObject(name);
    } catch (const RaisedError& error) {
        return error;
    }
    ADD_FAILURE() << "no error for '" << name << "'";
    return RaisedError(0, u"");
}

TEST(CreateObject, EachClassByItsName) {
    Object client = CreateObject("Larkpost.MailClient");
    Object stream = CreateObject("Larkpost.TcpStream");
    Object message = CreateObject("Larkpost.MailMessage");
    Object builder = CreateObject("Larkpost.StringBuilder");
    EXPECT_TRUE(client.Is<MailClient>());
    EXPECT_TRUE(stream.Is<TcpStream>());
    EXPECT_TRUE(message.Is<MailMessage>());
    EXPECT_TRUE(builder.Is<StringBuilder>());
    EXPECT_FALSE(client.Is<MailMessage>());
    EXPECT_EQ(client.ClassName(), "Larkpost.MailClient");
    EXPECT_EQ(stream.ClassName(), "Larkpost.TcpStream");
    EXPECT_EQ(message.ClassName(), "Larkpost.MailMessage");
    EXPECT_EQ(builder.ClassName(), "Larkpost.StringBuilder");
    EXPECT_NE(client.As<MailClient>(), nullptr);
    EXPECT_NE(builder.As<StringBuilder>(), nullptr);
}

TEST(CreateObject, NamesIgnoreAsciiCaseAndComeInUtf16Too) {
    EXPECT_TRUE(CreateObject("larkpost.mailclient").Is<MailClient>());
    EXPECT_TRUE(CreateObject("LARKPOST.STRINGBUILDER").Is<StringBuilder>());
    EXPECT_TRUE(CreateObject(u"LarkPost.MailMessage").Is<MailMessage>());
    EXPECT_EQ(CreateObject("larkpost.tcpstream").ClassName(), "Larkpost.TcpStream");
}

TEST(CreateObject, UnknownNamesRaise429NamingTheClassesThereAre) {
    for (std::string_view name : {"", "MailClient", "Larkpost.Common", "Larkpost.MailClient ",
                                  " Larkpost.MailClient", "Larkpost.MailClient.1", "Larkpost"}) {
        RaisedError error = CreateFailure(name);
        EXPECT_EQ(error.Number(), ERROR_CANNOT_CREATE_OBJECT) << name;
        EXPECT_EQ(error.Source(), u"Larkpost");
        std::string text = error.what();
        EXPECT_NE(text.find("'" + std::string(name) + "'"), std::string::npos) << text;
        EXPECT_NE(text.find("Larkpost.MailClient, Larkpost.TcpStream, Larkpost.MailMessage and "
                            "Larkpost.StringBuilder"),
                  std::string::npos)
            << text;
    }
}

TEST(CreateObject, InvalidUtf8NameRaises5) {
    RaisedError error = CreateFailure("Larkpost.Mail\xC3\x28");
    EXPECT_EQ(error.Number(), ERROR_INVALID_ARGUMENT);
    EXPECT_NE(std::string(error.what()).find("UTF-8"), std::string::npos);
}

TEST(CreateObject, EachCreationIsANewIndependentInstance) {
    Object first = CreateObject("Larkpost.MailMessage");
    Object second = CreateObject("Larkpost.MailMessage");
    EXPECT_NE(first.As<MailMessage>(), second.As<MailMessage>());
    first.As<MailMessage>()->SubjectLine(std::u16string(u"one"));
    EXPECT_EQ(second.As<MailMessage>()->SubjectLine(), u"");

    // A copy of an Object is another reference to the same instance.
    Object copy = first;
    EXPECT_EQ(copy.As<MailMessage>(), first.As<MailMessage>());
    EXPECT_EQ(copy.As<MailMessage>()->SubjectLine(), u"one");

    Object a = CreateObject("Larkpost.StringBuilder");
    Object b = CreateObject("Larkpost.StringBuilder");
    a.As<StringBuilder>()->Append(u"x");
    EXPECT_EQ(b.As<StringBuilder>()->Contents(), u"");
}

TEST(CreateObject, AsTheWrongClassRaisesTypeMismatch) {
    Object message = CreateObject("Larkpost.MailMessage");
    try {
        message.As<MailClient>();
        FAIL() << "no error";
    } catch (const RaisedError& error) {
        EXPECT_EQ(error.Number(), ERROR_TYPE_MISMATCH);
        EXPECT_STREQ(error.what(),
                     "Type mismatch: the object is a Larkpost.MailMessage, not a "
                     "Larkpost.MailClient.");
    }
}

TEST(CreateObject, NewObjectsHoldTheirDefaults) {
    auto client = CreateObject("Larkpost.MailClient").As<MailClient>();
    EXPECT_EQ(client->Timeout, 30);
    EXPECT_EQ(client->Server(), u"");
    EXPECT_EQ(client->Port(), 25);

    auto stream = CreateObject("Larkpost.TcpStream").As<TcpStream>();
    EXPECT_EQ(stream->ResponseTimeout, 3);
    EXPECT_FALSE(stream->Connected());

    auto message = CreateObject("Larkpost.MailMessage").As<MailMessage>();
    EXPECT_EQ(message->MimeType(), u"text/plain");
    EXPECT_EQ(message->FromAddress(), u"");
    EXPECT_EQ(message->SenderName(), u"");
    EXPECT_EQ(message->SubjectLine(), u"");
    EXPECT_EQ(message->Body(), u"");
    EXPECT_EQ(message->BodyHTML(), u"");

    EXPECT_EQ(CreateObject("Larkpost.StringBuilder").As<StringBuilder>()->Contents(), u"");
}

TEST(CreateObject, EveryClassCreatesAndReleasesWithoutAnyCallOrServer) {
    for (auto name : {"Larkpost.MailClient", "Larkpost.TcpStream", "Larkpost.MailMessage",
                      "Larkpost.StringBuilder"}) {
        std::weak_ptr<void> watch;
        {
            Object object = CreateObject(name);
            std::visit([&](const auto& instance) { watch = instance; }, object.Get());
            EXPECT_EQ(watch.use_count(), 1) << name << ": held by anything but the Object";
        }
        EXPECT_TRUE(watch.expired()) << name;
    }
}

}  // namespace
}  // namespace larkpost
