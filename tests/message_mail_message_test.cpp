// The message model: text properties, recipient lists, their failures and the change flag.
#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "larkpost/mail_message.h"
#include "support/mail_message_access.h"
#include "support/message_testing.h"

namespace larkpost {
namespace {

using Access = detail::MailMessageAccess;
using Strings = std::vector<std::string>;
using ListCall = void (MailMessage::*)(const std::u16string&);

Strings Items(const std::shared_ptr<detail::KeyedCollection>& list) {
    Strings out;
    for (const auto& item : *list) out.push_back(test::Utf8(item));
    return out;
}
const ListCall kAdds[] = {&MailMessage::AddRecipient, &MailMessage::AddCCRecipient,
                          &MailMessage::AddBCCRecipient};
const ListCall kRemoves[] = {&MailMessage::RemoveRecipient, &MailMessage::RemoveCCRecipient,
                             &MailMessage::RemoveBCCRecipient};
// The number that call raises (0, and a test failure, when it raises nothing).
int32_t Raised(const std::function<void()>& call) {
    auto error = test::CaptureError(call);
    return error ? error->Number() : 0;
}

TEST(MailMessageModel, NewMessageHasDefaultsAndAnEmptyText) {
    MailMessage message;
    for (const std::u16string& value : {message.FromAddress(), message.SenderName(),
                                        message.SubjectLine(), message.Body(), message.BodyHTML()})
        EXPECT_EQ(value, u"");
    EXPECT_EQ(message.MimeType(), u"text/plain");
    EXPECT_FALSE(Access::Changed(message));
    int16_t counter = detail::BoundaryCounterForTesting();
    EXPECT_EQ(Access::BuildMessage(message), u"");
    EXPECT_EQ(detail::BoundaryCounterForTesting(), counter);  // no boundary was made
}

TEST(MailMessageModel, SettersStoreValuesUnalteredAndSetTheFlag) {
    using Setter = void (MailMessage::*)(std::u16string);
    using Getter = const std::u16string& (MailMessage::*)() const;
#define LARKPOST_PROPERTY(name) {&MailMessage::name, &MailMessage::name}
    const std::pair<Setter, Getter> properties[] = {
        LARKPOST_PROPERTY(FromAddress), LARKPOST_PROPERTY(SenderName), LARKPOST_PROPERTY(SubjectLine),
        LARKPOST_PROPERTY(Body),        LARKPOST_PROPERTY(BodyHTML),   LARKPOST_PROPERTY(MimeType)};
#undef LARKPOST_PROPERTY
    const std::u16string value = u"  padded\t\r\nvalue \u00E9\u4E2D ";
    for (auto [set, get] : properties) {
        MailMessage message;
        (message.*set)(value);
        EXPECT_EQ((message.*get)(), value);
        EXPECT_TRUE(Access::Changed(message));
    }
}

TEST(MailMessageModel, Utf8SettersConvertAndRefuseMalformedInput) {
    MailMessage message;
    message.SubjectLine("caf\xC3\xA9 \xE2\x82\xAC");
    EXPECT_EQ(message.SubjectLine(), u"caf\u00E9 \u20AC");
    Access::BuildMessage(message);
    EXPECT_EQ(Raised([&] { message.SubjectLine("bad \xC3"); }), ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Raised([&] { message.AddRecipient("\xFF"); }), ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(message.SubjectLine(), u"caf\u00E9 \u20AC");
    EXPECT_EQ(Access::Recipients(message)->Count(), 0);
    EXPECT_FALSE(Access::Changed(message));
}

// Reads, blanks, duplicates in any case and unknown keys change nothing of a built message: not
// the flag, the cache or any list. Setting a value already held does.
TEST(MailMessageModel, OnlyRealChangesDropTheCache) {
    test::FixedBoundaries fixed;
    MailMessage message;
    message.AddRecipient(u"bob");
    message.AddCCRecipient(u"cid");
    message.AddBCCRecipient(u"dan");
    const std::u16string cached = Access::BuildMessage(message);
    (void)message.Body();
    (void)Access::Recipients(message);
    (void)Access::Attachments(message);
    for (ListCall add : kAdds)
        for (const std::u16string blank : {u"", u" ", u"     "})
            EXPECT_RAISES((message.*add)(blank), ERROR_BLANK_RECIPIENT, "Blank recipient");
    EXPECT_EQ(test::CaptureError([&] { message.AddRecipient(u""); }).value().Source(),
              u"Larkpost.MailMessage");
    // The text of the refused element is named; the one first added keeps its own.
    const int32_t duplicate = ERROR_DUPLICATE_RECIPIENT;
    EXPECT_RAISES(message.AddRecipient(u"BOB"), duplicate, "'BOB' is already on the list");
    EXPECT_RAISES(message.AddCCRecipient(u"Cid"), duplicate, "'Cid' is already on the list");
    EXPECT_RAISES(message.AddBCCRecipient(u"dan"), duplicate, "'dan' is already on the list");
    for (ListCall remove : kRemoves)
        for (const std::u16string key : {u"", u"nobody", u" bob"})
            EXPECT_EQ(Raised([&] { (message.*remove)(key); }), ERROR_INVALID_ARGUMENT);
    // "dan" is a Bcc, not a To: removing it from To is an unknown key.
    EXPECT_EQ(Raised([&] { message.RemoveRecipient(u"dan"); }), ERROR_INVALID_ARGUMENT);

    EXPECT_FALSE(Access::Changed(message));
    EXPECT_EQ(Items(Access::Recipients(message)), Strings{"bob"});
    EXPECT_EQ(Items(Access::CCRecipients(message)), Strings{"cid"});
    EXPECT_EQ(Items(Access::BCCRecipients(message)), Strings{"dan"});
    EXPECT_EQ(Access::Attachments(message)->Count(), 0);
    EXPECT_EQ(Access::BuildMessage(message), cached);  // from the cache, old boundaries and all

    message.MimeType(message.MimeType());
    EXPECT_TRUE(Access::Changed(message));
    const std::u16string& rebuilt = Access::BuildMessage(message);
    EXPECT_NE(rebuilt, cached);
    EXPECT_NE(rebuilt.find(u"MessageBoundary_3_360005"), std::u16string::npos);
    EXPECT_EQ(Access::CachedMessage(message), rebuilt);
    EXPECT_FALSE(Access::Changed(message));
}

TEST(MailMessageModel, KeysAreTheExactTextInEachListApartFromCase) {
    MailMessage message;
    // Only the space character makes a recipient blank; spaces around one make another key.
    for (auto r : {u"\t", u" \r\n ", u"\u00A0", u" ann ", u"ann"}) message.AddRecipient(r);
    EXPECT_EQ(Items(Access::Recipients(message)),
              (Strings{"\t", " \r\n ", "\u00A0", " ann ", "ann"}));
    EXPECT_RAISES(message.AddRecipient(u" ANN "), ERROR_DUPLICATE_RECIPIENT,
                  "' ANN ' is already on the list");
    // The three lists are independent.
    message.AddCCRecipient(u"ann");
    message.AddBCCRecipient(u"ann");
    message.RemoveCCRecipient(u"ANN");
    EXPECT_EQ(Access::Recipients(message)->Count(), 5);
    EXPECT_EQ(Access::CCRecipients(message)->Count(), 0);
    EXPECT_EQ(Access::BCCRecipients(message)->Count(), 1);
}

TEST(MailMessageModel, RemovalIgnoresCaseKeepsOrderAndSetsTheFlagOnTheLiveList) {
    MailMessage message;
    auto to = Access::Recipients(message);
    EXPECT_EQ(to, Access::Recipients(message));  // the same object, not a copy
    for (auto r : {u"a@x", u"b@x", u"c@x", u"d@x"}) message.AddRecipient(r);
    Access::BuildMessage(message);
    message.RemoveRecipient(u"B@X");
    EXPECT_TRUE(Access::Changed(message));
    EXPECT_EQ(Items(to), (Strings{"a@x", "c@x", "d@x"}));
    message.AddRecipient(u"b@x");  // goes to the end now
    EXPECT_EQ(Items(to), (Strings{"a@x", "c@x", "d@x", "b@x"}));
}

}  // namespace
}  // namespace larkpost
