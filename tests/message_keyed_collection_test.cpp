#include <gtest/gtest.h>

#include "larkpost/error.h"
#include "message/keyed_collection.h"

namespace larkpost::detail {
namespace {

using Items = std::vector<std::u16string>;
Items ItemsOf(const KeyedCollection& list) { return {list.begin(), list.end()}; }

// Runs the call, expects the runtime failure number, and that the list did not change.
template <typename Call>
void ExpectFailureLeavesListAsItWas(const KeyedCollection& list, int32_t number, Call call) {
    const auto before = ItemsOf(list);
    try {
        call();
        ADD_FAILURE() << "no failure raised";
    } catch (const RaisedError& e) {
        EXPECT_EQ(e.Number(), number);
        EXPECT_FALSE(e.Description().empty());
    }
    EXPECT_EQ(ItemsOf(list), before);
    EXPECT_EQ(list.Count(), static_cast<int32_t>(before.size()));
}

TEST(KeyedCollection, KeepsTheOrderOfAddAndRemovesOnlyByKey) {
    KeyedCollection list;
    EXPECT_EQ(list.Count(), 0);
    list.Add(u"b@x", u"b@x");
    list.Add(u"/tmp/a.txt");
    list.Add(u"/tmp/a.txt");  // items without a key may repeat
    list.Add(u"a@x", u"a@x");
    EXPECT_EQ(ItemsOf(list), (Items{u"b@x", u"/tmp/a.txt", u"/tmp/a.txt", u"a@x"}));
    EXPECT_EQ(list[3], u"a@x");
    // An item added without a key cannot be removed by its text.
    ExpectFailureLeavesListAsItWas(list, ERROR_INVALID_ARGUMENT,
                                   [&] { list.Remove(u"/tmp/a.txt"); });
}

TEST(KeyedCollection, KeysIgnoreCaseInAddAndRemove) {
    KeyedCollection list;
    for (std::u16string key : {u"a@x", u"Anna@Example.org", u"ren\u00E9@x", u"d@x"})
        list.Add(key, key);
    ExpectFailureLeavesListAsItWas(list, ERROR_KEY_IN_USE,
                                   [&] { list.Add(u"new", u"anna@EXAMPLE.ORG"); });
    ExpectFailureLeavesListAsItWas(list, ERROR_KEY_IN_USE,
                                   [&] { list.Add(u"new", u"REN\u00C9@X"); });
    list.Remove(u"ANNA@example.ORG");
    EXPECT_EQ(ItemsOf(list), (Items{u"a@x", u"ren\u00E9@x", u"d@x"}));
    ExpectFailureLeavesListAsItWas(list, ERROR_INVALID_ARGUMENT,
                                   [&] { list.Remove(u"anna@example.org"); });
    ExpectFailureLeavesListAsItWas(list, ERROR_INVALID_ARGUMENT, [&] { list.Remove(u""); });
    list.Add(u" a@x", u" a@x");                          // a space makes it another key
    list.Add(u"anna@example.org", u"anna@example.org");  // a removed key is free again
    EXPECT_EQ(ItemsOf(list), (Items{u"a@x", u"ren\u00E9@x", u"d@x", u" a@x", u"anna@example.org"}));
}

TEST(KeyedCollection, ThousandsOfRecipientsStayConsistent) {
    KeyedCollection list;
    for (int i = 0; i < 5000; ++i) {
        const std::string address = "user" + std::to_string(i);
        list.Add(std::u16string(address.begin(), address.end()) + u"@x",
                 std::u16string(address.begin(), address.end()) + u"@X");
    }
    ExpectFailureLeavesListAsItWas(list, ERROR_KEY_IN_USE,
                                   [&] { list.Add(u"dup", u"USER4999@x"); });
    list.Remove(u"user0@x");
    list.Remove(u"user2500@x");
    EXPECT_EQ(list.Count(), 4998);
    EXPECT_EQ(list[0], u"user1@x");
    EXPECT_EQ(list[2498], u"user2499@x");
    EXPECT_EQ(list[2499], u"user2501@x");
}

TEST(FoldKeyCase, FoldsOneToOneOnlyTheLettersOfLatinGreekAndCyrillic) {
    EXPECT_EQ(FoldKeyCase(u"AZaz@[`{"), u"azaz@[`{");
    EXPECT_EQ(FoldKeyCase(u"\u00C0\u00D6\u00D8\u00DE"), u"\u00E0\u00F6\u00F8\u00FE");
    EXPECT_EQ(FoldKeyCase(u"\u0160\u0152\u017D\u0178"), u"\u0161\u0153\u017E\u00FF");  // Š Œ Ž Ÿ
    EXPECT_EQ(FoldKeyCase(u"\u00D7\u00F7\u00DF\u00B5"), u"\u00D7\u00F7\u00DF\u00B5");  // × ÷ ß µ stay
    EXPECT_EQ(FoldKeyCase(u"\u0100\u0139\u0147\u014A\u0179"), u"\u0101\u013A\u0148\u014B\u017A");
    EXPECT_EQ(FoldKeyCase(u"\u0130\u0131\u017F"), u"\u0130\u0131\u017F");  // no one-to-one partner
    EXPECT_EQ(FoldKeyCase(u"\u03A3\u03C2\u0386\u038F"), u"\u03C3\u03C3\u03AC\u03CE");
    EXPECT_EQ(FoldKeyCase(u"\u0416\u0401\u042F"), u"\u0436\u0451\u044F");
    EXPECT_EQ(FoldKeyCase(u"\uFF21\u0531"), u"\uFF21\u0531");  // other scripts compare exactly
}

}  // namespace
}  // namespace larkpost::detail
