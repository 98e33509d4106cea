#include <gtest/gtest.h>

#include "encoding/common.h"

namespace larkpost::detail {
namespace {

TEST(GetFileExtension, IsWhatFollowsTheLastDot) {
    EXPECT_EQ(GetFileExtension(u"report.txt"), u"txt");
    EXPECT_EQ(GetFileExtension(u"archive.tar.GZ"), u"GZ");
    EXPECT_EQ(GetFileExtension(u".profile"), u"profile");
    EXPECT_EQ(GetFileExtension(u"name."), u"");
    // The name is not read as a path: a dot in a directory counts like any other.
    EXPECT_EQ(GetFileExtension(u"/home/a.b/readme"), u"b/readme");
}

TEST(GetFileExtension, NoDotGivesNoValue) {
    EXPECT_EQ(GetFileExtension(u"Makefile"), std::nullopt);
    EXPECT_EQ(GetFileExtension(u""), std::nullopt);
}

}  // namespace
}  // namespace larkpost::detail
