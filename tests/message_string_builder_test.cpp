#include <gtest/gtest.h>

#include "larkpost/string_builder.h"

namespace larkpost {
namespace {

TEST(StringBuilder, ChainsOnTheSameObjectAndKeepsEveryCharacter) {
    StringBuilder builder;
    EXPECT_EQ(builder.Contents(), u"");
    const std::u16string odd(u"a\0b\rc\nd\uFFFF", 8);
    EXPECT_EQ(&builder.Append(odd).AppendCRLF().AppendLine(u"").Append(u"").AppendLine(odd),
              &builder);
    EXPECT_EQ(builder.Contents(), odd + u"\r\n\r\n" + odd + u"\r\n");
    EXPECT_EQ(builder.Contents(), builder.Contents());  // reading does not clear
}

TEST(StringBuilder, ClearEmptiesAndTheBuilderGoesOn) {
    StringBuilder builder;
    builder.Append(std::u16string(100000, u'x')).Clear();
    EXPECT_EQ(builder.Contents(), u"");
    builder.AppendLine(u"again");
    EXPECT_EQ(builder.Contents(), u"again\r\n");
}

}  // namespace
}  // namespace larkpost
