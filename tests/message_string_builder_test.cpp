#include <gtest/gtest.h>

#include "larkpost/string_builder.h"

namespace larkpost {
namespace {

TEST(StringBuilder, StartsEmptyAndChainsOnTheSameObject) {
    StringBuilder builder;
    EXPECT_EQ(builder.Contents(), u"");
    StringBuilder& chained = builder.Append(u"Subject: x").AppendCRLF().AppendLine(u"").Append(u"");
    EXPECT_EQ(&chained, &builder);
    EXPECT_EQ(&builder.AppendLine(u"body"), &builder);
    EXPECT_EQ(builder.Contents(), u"Subject: x\r\n\r\nbody\r\n");
    EXPECT_EQ(builder.Contents(), builder.Contents());  // reading does not clear
}

TEST(StringBuilder, KeepsEveryCharacterAsItIs) {
    StringBuilder builder;
    const std::u16string odd(u"a\0b\rc\nd\uFFFF", 8);
    builder.Append(odd).AppendLine(odd);
    EXPECT_EQ(builder.Contents(), odd + odd + u"\r\n");
}

TEST(StringBuilder, ClearEmptiesAndTheBuilderGoesOn) {
    StringBuilder builder;
    builder.Append(std::u16string(100000, u'x'));
    builder.Clear();
    EXPECT_EQ(builder.Contents(), u"");
    builder.AppendLine(u"again");
    EXPECT_EQ(builder.Contents(), u"again\r\n");
}

}  // namespace
}  // namespace larkpost
