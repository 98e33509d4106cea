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

TEST(StringBuilder, ManySmallAppendsAccumulateInOrder) {
    StringBuilder builder;
    std::u16string expected;
    for (int i = 0; i < 50000; ++i) {
        const std::u16string piece(1, static_cast<char16_t>(u'a' + i % 26));
        builder.Append(piece);
        expected += piece;
        if (i % 1000 == 0) {
            builder.AppendCRLF();
            expected += u"\r\n";
        }
    }
    EXPECT_EQ(builder.Contents(), expected);
}

}  // namespace
}  // namespace larkpost
