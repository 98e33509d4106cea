#include <gtest/gtest.h>

#include "larkpost/error.h"
#include "message/keyed_collection.h"

namespace larkpost::detail {
namespace {

std::vector<std::u16string> Items(const KeyedCollection& list) { return {list.begin(), list.end()}; }

// Runs the call, expects the runtime failure number, and that the list did not change.
template <typename Call>
void ExpectFailureLeavesListAsItWas(const KeyedCollection& list, int32_t number, Call call) {
    const auto before = Items(list);
    try {
        call();
        ADD_FAILURE() << "no failure raised";
    } catch (const RaisedError& e) {
        EXPECT_EQ(e.Number(), number);
        EXPECT_FALSE(e.Description().empty());
    }
    EXPECT_EQ(Items(list), before);
    EXPECT_EQ(list.Count(), static_cast<int32_t>(before.size()));
}

TEST(KeyedCollection, KeepsTheOrderOfAddWithOrWithoutKeys) {
    KeyedCollection list;
    EXPECT_EQ(list.Count(), 0);
    list.Add(u"b@x", u"b@x");
    list.Add(u"/tmp/a.txt");
    list.Add(u"/tmp/a.txt");  // items without a key may repeat
    list.Add(u"a@x", u"a@x");
    EXPECT_EQ(Items(list), (std::vector<std::u16string>{u"b@x", u"/tmp/a.txt", u"/tmp/a.txt", u"a@x"}));
    EXPECT_EQ(list[3], u"a@x");
}

TEST(KeyedCollection, KeyInAnyCaseIsAlreadyInUse) {
    KeyedCollection list;
    list.Add(u"Anna@Example.org", u"Anna@Example.org");
    list.Add(u"ren\u00E9@x", u"ren\u00E9@x");
    ExpectFailureLeavesListAsItWas(list, ERROR_KEY_IN_USE, [&] { list.Add(u"new", u"anna@EXAMPLE.ORG"); });
    ExpectFailureLeavesListAsItWas(list, ERROR_KEY_IN_USE, [&] { list.Add(u"new", u"REN\u00C9@X"); });
    list.Add(u" anna@example.org", u" anna@example.org");  // a space makes it another key
    EXPECT_EQ(list.Count(), 3);
}

TEST(KeyedCollection, RemoveIgnoresCaseAndKeepsTheOthersInOrder) {
    KeyedCollection list;
    for (auto name : {u"a@x", u"b@x", u"c@x", u"d@x"}) list.Add(name, std::u16string(name));
    list.Remove(u"B@X");
    EXPECT_EQ(Items(list), (std::vector<std::u16string>{u"a@x", u"c@x", u"d@x"}));
    ExpectFailureLeavesListAsItWas(list, ERROR_INVALID_ARGUMENT, [&] { list.Remove(u"b@x"); });
    ExpectFailureLeavesListAsItWas(list, ERROR_INVALID_ARGUMENT, [&] { list.Remove(u""); });
    list.Add(u"b@x", u"b@x");  // a removed key is free again
    EXPECT_EQ(Items(list), (std::vector<std::u16string>{u"a@x", u"c@x", u"d@x", u"b@x"}));
}

TEST(KeyedCollection, ItemsWithoutKeysCannotBeRemovedByTheirText) {
    KeyedCollection list;
    list.Add(u"/tmp/a.txt");
    ExpectFailureLeavesListAsItWas(list, ERROR_INVALID_ARGUMENT, [&] { list.Remove(u"/tmp/a.txt"); });
}

TEST(KeyedCollection, ThousandsOfRecipientsStayConsistent) {
    KeyedCollection list;
    for (int i = 0; i < 5000; ++i) {
        std::u16string address = u"user";
        for (char c : std::to_string(i)) address += static_cast<char16_t>(c);
        list.Add(address + u"@x", address + u"@X");
    }
    ExpectFailureLeavesListAsItWas(list, ERROR_KEY_IN_USE, [&] { list.Add(u"dup", u"USER4999@x"); });
    list.Remove(u"user0@x");
    list.Remove(u"user2500@x");
    EXPECT_EQ(list.Count(), 4998);
    EXPECT_EQ(list[0], u"user1@x");
    EXPECT_EQ(list[2498], u"user2499@x");
    EXPECT_EQ(list[2499], u"user2501@x");
}

TEST(FoldKeyCase, FoldsTheLettersOfTheCodePage) {
    EXPECT_EQ(FoldKeyCase(u"AZaz@[`{"), u"azaz@[`{");
    EXPECT_EQ(FoldKeyCase(u"\u00C0\u00D6\u00D8\u00DE"), u"\u00E0\u00F6\u00F8\u00FE");
    EXPECT_EQ(FoldKeyCase(u"\u0160\u0152\u017D\u0178"), u"\u0161\u0153\u017E\u00FF");  // Š Œ Ž Ÿ
    EXPECT_EQ(FoldKeyCase(u"\u00D7\u00F7\u00DF\u00B5"), u"\u00D7\u00F7\u00DF\u00B5");  // × ÷ ß µ stay
}

TEST(FoldKeyCase, FoldsLatinExtendedGreekAndCyrillicOnly) {
    EXPECT_EQ(FoldKeyCase(u"\u0100\u0139\u0147\u014A\u0179"), u"\u0101\u013A\u0148\u014B\u017A");
    EXPECT_EQ(FoldKeyCase(u"\u0130\u0131\u017F"), u"\u0130\u0131\u017F");  // no one-to-one partner
    EXPECT_EQ(FoldKeyCase(u"\u03A3\u03C2\u0386\u038F"), u"\u03C3\u03C3\u03AC\u03CE");
    EXPECT_EQ(FoldKeyCase(u"\u0416\u0401\u042F"), u"\u0436\u0451\u044F");
    EXPECT_EQ(FoldKeyCase(u"\uFF21\u0531"), u"\uFF21\u0531");  // other scripts compare exactly
}

}  // namespace
}  // namespace larkpost::detail
