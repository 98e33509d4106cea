// The message model: text properties, recipient lists, their failures and the change flag.
#include <gtest/gtest.h>

#include <vector>

#include "larkpost/mail_message.h"
#include "support/mail_message_access.h"
#include "support/message_testing.h"

namespace larkpost {
namespace {

using detail::MailMessageAccess;
using test::Utf8;

std::vector<std::string> Items(const std::shared_ptr<detail::KeyedCollection>& list) {
    std::vector<std::string> out;
    for (const auto& item : *list) out.push_back(Utf8(item));
    return out;
}

// A message built once, so its flag is false and its cache holds text.
class BuiltMessage : public ::testing::Test {
protected:
    void SetUp() override {
        message.AddRecipient(u"bob");
        message.AddCCRecipient(u"cid");
        message.AddBCCRecipient(u"dan");
        cached = MailMessageAccess::BuildMessage(message);
        ASSERT_FALSE(MailMessageAccess::Changed(message));
    }
    // Nothing of the message moved: flag, cache and all four lists.
    void ExpectUntouched() {
        EXPECT_FALSE(MailMessageAccess::Changed(message));
        EXPECT_EQ(MailMessageAccess::CachedMessage(message), cached);
        EXPECT_EQ(Items(MailMessageAccess::Recipients(message)), std::vector<std::string>{"bob"});
        EXPECT_EQ(Items(MailMessageAccess::CCRecipients(message)), std::vector<std::string>{"cid"});
        EXPECT_EQ(Items(MailMessageAccess::BCCRecipients(message)),
                  std::vector<std::string>{"dan"});
        EXPECT_EQ(MailMessageAccess::Attachments(message)->Count(), 0);
        EXPECT_EQ(MailMessageAccess::BuildMessage(message), cached);  // still from the cache
    }

    MailMessage message;
    std::u16string cached;
};

TEST(MailMessageModel, NewMessageHasDefaultsAndAnEmptyText) {
    MailMessage message;
    EXPECT_EQ(message.FromAddress(), u"");
    EXPECT_EQ(message.SenderName(), u"");
    EXPECT_EQ(message.SubjectLine(), u"");
    EXPECT_EQ(message.Body(), u"");
    EXPECT_EQ(message.BodyHTML(), u"");
    EXPECT_EQ(message.MimeType(), u"text/plain");
    EXPECT_FALSE(MailMessageAccess::Changed(message));
    int16_t counter = detail::BoundaryCounterForTesting();
    EXPECT_EQ(MailMessageAccess::BuildMessage(message), u"");
    EXPECT_EQ(detail::BoundaryCounterForTesting(), counter);  // no boundary was made
}

TEST(MailMessageModel, SettersStoreValuesUnalteredAndSetTheFlag) {
    using Setter = void (MailMessage::*)(std::u16string);
    using Getter = const std::u16string& (MailMessage::*)() const;
    const std::vector<std::pair<Setter, Getter>> properties = {
        {&MailMessage::FromAddress, &MailMessage::FromAddress},
        {&MailMessage::SenderName, &MailMessage::SenderName},
        {&MailMessage::SubjectLine, &MailMessage::SubjectLine},
        {&MailMessage::Body, &MailMessage::Body},
        {&MailMessage::BodyHTML, &MailMessage::BodyHTML},
        {&MailMessage::MimeType, &MailMessage::MimeType}};
    const std::u16string value = u"  padded\t\r\nvalue \u00E9\u4E2D ";
    for (auto [set, get] : properties) {
        MailMessage message;
        (message.*set)(value);
        EXPECT_EQ((message.*get)(), value);
        EXPECT_TRUE(MailMessageAccess::Changed(message));
    }
}

TEST(MailMessageModel, Utf8SettersConvertAndRefuseMalformedInput) {
    MailMessage message;
    message.SubjectLine("caf\xC3\xA9 \xE2\x82\xAC");
    EXPECT_EQ(message.SubjectLine(), u"caf\u00E9 \u20AC");
    MailMessageAccess::BuildMessage(message);
    auto error = test::CaptureError([&] { message.SubjectLine("bad \xC3"); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->Number(), ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(message.SubjectLine(), u"caf\u00E9 \u20AC");
    EXPECT_FALSE(MailMessageAccess::Changed(message));
    test::CaptureError([&] { message.AddRecipient("\xFF"); });
    EXPECT_EQ(MailMessageAccess::Recipients(message)->Count(), 0);
}

TEST_F(BuiltMessage, SettingTheValueAlreadyHeldStillRebuilds) {
    test::FixedBoundaries fixed;
    const std::u16string first = MailMessageAccess::BuildMessage(message);
    EXPECT_EQ(first, cached);  // nothing changed: the cache, old boundaries and all
    message.MimeType(message.MimeType());
    EXPECT_TRUE(MailMessageAccess::Changed(message));
    const std::u16string& rebuilt = MailMessageAccess::BuildMessage(message);
    EXPECT_NE(rebuilt, cached);
    EXPECT_NE(rebuilt.find(u"MessageBoundary_1_360005"), std::u16string::npos);
    EXPECT_EQ(MailMessageAccess::CachedMessage(message), rebuilt);
    EXPECT_FALSE(MailMessageAccess::Changed(message));
}

TEST_F(BuiltMessage, GettersAndAccessorsLeaveTheFlagAlone) {
    (void)message.Body();
    (void)MailMessageAccess::Recipients(message);
    (void)MailMessageAccess::Attachments(message);
    ExpectUntouched();
}

TEST_F(BuiltMessage, BlankRecipientsAreRefusedInEveryList) {
    using Add = void (MailMessage::*)(const std::u16string&);
    for (Add add : {static_cast<Add>(&MailMessage::AddRecipient),
                    static_cast<Add>(&MailMessage::AddCCRecipient),
                    static_cast<Add>(&MailMessage::AddBCCRecipient)}) {
        for (const std::u16string blank : {u"", u" ", u"     "}) {
            auto error = test::CaptureError([&] { (message.*add)(blank); });
            ASSERT_TRUE(error);
            EXPECT_EQ(error->Number(), ERROR_BLANK_RECIPIENT);
            EXPECT_EQ(Utf8(error->Description()), "Blank recipient");
            EXPECT_EQ(Utf8(error->Source()), "Larkpost.MailMessage");
        }
    }
    ExpectUntouched();
}

TEST(MailMessageModel, OnlySpacesMakeARecipientBlank) {
    MailMessage message;
    message.AddRecipient(u"\t");
    message.AddRecipient(u" \r\n ");
    message.AddRecipient(u"\u00A0");  // a no-break space is content too
    EXPECT_EQ(MailMessageAccess::Recipients(message)->Count(), 3);
}

TEST_F(BuiltMessage, DuplicatesDifferingOnlyInCaseAreRefusedWithTheNewText) {
    EXPECT_RAISES(message.AddRecipient(u"BOB"), ERROR_DUPLICATE_RECIPIENT,
                  "'BOB' is already on the list");
    EXPECT_RAISES(message.AddCCRecipient(u"Cid"), ERROR_DUPLICATE_RECIPIENT,
                  "'Cid' is already on the list");
    EXPECT_RAISES(message.AddBCCRecipient(u"dan"), ERROR_DUPLICATE_RECIPIENT,
                  "'dan' is already on the list");
    ExpectUntouched();  // the element first added keeps its text
}

TEST(MailMessageModel, SpacesAroundARecipientAreKeptAndMakeAnotherKey) {
    MailMessage message;
    message.AddRecipient(u" ann ");
    message.AddRecipient(u"ann");
    EXPECT_EQ(Items(MailMessageAccess::Recipients(message)),
              (std::vector<std::string>{" ann ", "ann"}));
    EXPECT_RAISES(message.AddRecipient(u" ANN "), ERROR_DUPLICATE_RECIPIENT,
                  "' ANN ' is already on the list");
}

TEST(MailMessageModel, TheThreeListsAreIndependent) {
    MailMessage message;
    message.AddRecipient(u"ann");
    message.AddCCRecipient(u"ann");
    message.AddBCCRecipient(u"ann");
    message.RemoveCCRecipient(u"ANN");
    EXPECT_EQ(MailMessageAccess::Recipients(message)->Count(), 1);
    EXPECT_EQ(MailMessageAccess::CCRecipients(message)->Count(), 0);
    EXPECT_EQ(MailMessageAccess::BCCRecipients(message)->Count(), 1);
}

TEST(MailMessageModel, RemovalIgnoresCaseKeepsOrderAndSetsTheFlag) {
    MailMessage message;
    for (auto r : {u"a@x", u"b@x", u"c@x", u"d@x"}) message.AddRecipient(r);
    MailMessageAccess::BuildMessage(message);
    message.RemoveRecipient(u"B@X");
    EXPECT_TRUE(MailMessageAccess::Changed(message));
    EXPECT_EQ(Items(MailMessageAccess::Recipients(message)),
              (std::vector<std::string>{"a@x", "c@x", "d@x"}));
    message.AddRecipient(u"b@x");  // goes to the end now
    EXPECT_EQ(Items(MailMessageAccess::Recipients(message)),
              (std::vector<std::string>{"a@x", "c@x", "d@x", "b@x"}));
}

TEST_F(BuiltMessage, UnknownKeysOnRemovalFailWithFiveAndChangeNothing) {
    using Remove = void (MailMessage::*)(const std::u16string&);
    for (Remove remove : {static_cast<Remove>(&MailMessage::RemoveRecipient),
                          static_cast<Remove>(&MailMessage::RemoveCCRecipient),
                          static_cast<Remove>(&MailMessage::RemoveBCCRecipient)}) {
        for (const std::u16string key : {u"", u"nobody", u" bob"}) {
            auto error = test::CaptureError([&] { (message.*remove)(key); });
            ASSERT_TRUE(error);
            EXPECT_EQ(error->Number(), ERROR_INVALID_ARGUMENT);
        }
    }
    // "dan" is a Bcc, not a To: removing it from To is an unknown key.
    auto error = test::CaptureError([&] { message.RemoveRecipient(u"dan"); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->Number(), ERROR_INVALID_ARGUMENT);
    ExpectUntouched();
}

TEST(MailMessageModel, ASecondRemovalFailsAndKeepsTheFlagFalse) {
    MailMessage message;
    message.AddRecipient(u"ann");
    message.RemoveRecipient(u"Ann");
    MailMessageAccess::BuildMessage(message);
    auto error = test::CaptureError([&] { message.RemoveRecipient(u"ann"); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->Number(), ERROR_INVALID_ARGUMENT);
    EXPECT_FALSE(MailMessageAccess::Changed(message));
}

TEST(MailMessageModel, AccessorsReturnTheLiveCollections) {
    MailMessage message;
    auto to = MailMessageAccess::Recipients(message);
    EXPECT_EQ(to, MailMessageAccess::Recipients(message));  // the same object, not a copy
    message.AddRecipient(u"late@x");
    EXPECT_EQ(Items(to), std::vector<std::string>{"late@x"});
    EXPECT_NE(MailMessageAccess::CCRecipients(message), to);
    EXPECT_NE(MailMessageAccess::BCCRecipients(message), MailMessageAccess::CCRecipients(message));
}

}  // namespace
}  // namespace larkpost
