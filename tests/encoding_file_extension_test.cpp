#include <gtest/gtest.h>

#include "encoding/common.h"

namespace larkpost::detail {
namespace {

// The name is not read as a path: a dot in a directory counts like any other.
TEST(GetFileExtension, IsWhatFollowsTheLastDotAndNothingWithoutADot) {
    const std::pair<std::u16string, std::optional<std::u16string>> cases[] = {
        {u"report.txt", u"txt"},   {u"archive.tar.GZ", u"GZ"}, {u".profile", u"profile"},
        {u"name.", u""},           {u"/home/a.b/readme", u"b/readme"},
        {u"Makefile", std::nullopt}, {u"", std::nullopt}};
    for (const auto& [name, extension] : cases)
        EXPECT_EQ(GetFileExtension(name), extension) << testing::PrintToString(name);
}

}  // namespace
}  // namespace larkpost::detail
