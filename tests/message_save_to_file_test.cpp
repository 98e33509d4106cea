// SaveToFile: the message text as a file's whole content, and what each failure leaves behind.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "larkpost/mail_message.h"
#include "platform/codepage.h"
#include "support/mail_message_access.h"
#include "support/message_testing.h"
#include "support/mime_parse.h"
#include "support/process.h"

namespace larkpost {
namespace {

namespace fs = std::filesystem;
using detail::MailMessageAccess;
using test::Utf8;

constexpr char kPrefix[] = "Error in MailMessage.SaveToFile: ";

class SaveToFile : public ::testing::Test {
protected:
    void SetUp() override {
        attachment = dir.File("data.bin");
        test::WriteFileBytes(attachment, std::string("\x00\x01\xFE\xFF\r\n", 6));
    }
    void Fill() {
        message.SubjectLine(u"Saved");
        message.FromAddress(u"ann@example.org");
        message.AddRecipient(u"bob@example.org");
        message.Body(u"Plain body.\r\n");
        message.BodyHTML(u"<b>HTML</b>");
        message.AttachFile(FromUtf8(attachment));
    }
    // Saves, expecting a failure with this number and description, and no descriptor left open.
    void ExpectSaveFails(const std::string& path, int32_t number, const std::string& description) {
        const int descriptors = test::OpenDescriptorCount();
        auto error = test::CaptureError([&] { message.SaveToFile(FromUtf8(path)); });
        EXPECT_EQ(test::OpenDescriptorCount(), descriptors);
        ASSERT_TRUE(error);
        EXPECT_EQ(error->Number(), number);
        EXPECT_EQ(Utf8(error->Description()), kPrefix + description);
        EXPECT_EQ(Utf8(error->Source()), "Larkpost.MailMessage");
    }

    test::TempDir dir;
    std::string attachment;
    MailMessage message;
};

TEST_F(SaveToFile, WritesTheBuiltTextThatPythonParsesIntoTheSameParts) {
    Fill();
    std::string path = dir.File("message.eml");
    message.SaveToFile(FromUtf8(path));
    EXPECT_FALSE(MailMessageAccess::Changed(message));
    const std::u16string& text = MailMessageAccess::BuildMessage(message);  // from the cache
    const std::string bytes = test::ReadFileBytes(path);
    EXPECT_EQ(bytes, detail::ToAnsi(text));
    ASSERT_GE(bytes.size(), 2u);
    EXPECT_EQ(bytes.substr(bytes.size() - 2), "\r\n");
    test::ParsedMime fromFile = test::ParseMimeFile(path);
    EXPECT_TRUE(fromFile.defects.empty());
    EXPECT_EQ(fromFile.structure,
              "multipart/mixed(multipart/alternative(text/plain,text/html),"
              "application/octet-stream)");
    ASSERT_EQ(fromFile.parts.size(), 3u);
    EXPECT_EQ(fromFile.parts[0].payload, "Plain body.\r\n\r\n");
    EXPECT_EQ(fromFile.parts[1].payload, "<b>HTML</b>\r\n");
    EXPECT_EQ(fromFile.parts[2].payload, test::ReadFileBytes(attachment));
    EXPECT_EQ(fromFile.parts[2].filename, "data.bin");
    test::ParsedMime fromText = test::ParseMime(detail::ToAnsi(text));
    EXPECT_EQ(fromFile.headers, fromText.headers);
}

TEST_F(SaveToFile, SavingTwiceWritesTheSameTextAndReplacesALongerFile) {
    Fill();
    std::string first = dir.File("first.eml"), second = dir.File("second.eml");
    message.SaveToFile(FromUtf8(first));
    test::WriteFileBytes(second, std::string(100000, 'z'));  // longer than the text
    message.SaveToFile(FromUtf8(second));
    EXPECT_EQ(test::ReadFileBytes(second), test::ReadFileBytes(first));
}

TEST_F(SaveToFile, AnEmptyMessageGivesAnEmptyFile) {
    std::string path = dir.File("empty.eml");
    message.SaveToFile(FromUtf8(path));
    ASSERT_TRUE(fs::exists(path));
    EXPECT_EQ(fs::file_size(path), 0u);
    test::WriteFileBytes(path, "old content");
    message.SaveToFile(FromUtf8(path));
    EXPECT_EQ(fs::file_size(path), 0u);
}

TEST_F(SaveToFile, CharactersTheCodePageLacksBecomeQuestionMarks) {
    message.SubjectLine(u"caf\u00E9 \u20AC \u4E2D");
    std::string path = dir.File("subject.eml");
    message.SaveToFile(FromUtf8(path));
    EXPECT_EQ(test::ReadFileBytes(path).substr(0, 19), "Subject: caf\xE9 \x80 ?\r\n");
}

TEST_F(SaveToFile, Utf8PathsAndDevicesAreWritten) {
    message.SubjectLine(u"x");
    std::string path = dir.File("caf\xC3\xA9.eml");
    message.SaveToFile(std::string_view(path));
    EXPECT_TRUE(fs::exists(fs::u8path(path)));
    message.SaveToFile(u"/dev/null");  // no truncation of a device, and no error
}

TEST_F(SaveToFile, AFailedBuildLeavesAnExistingFileAsItWasAndANewOneEmpty) {
    Fill();
    const std::u16string cached = MailMessageAccess::BuildMessage(message);
    message.SubjectLine(u"changed");
    fs::remove(attachment);
    std::string existing = dir.File("existing.eml"), fresh = dir.File("fresh.eml");
    test::WriteFileBytes(existing, "precious");
    const std::string cause = "Error attaching file '" + attachment + "'. (Details: File not found)";
    ExpectSaveFails(existing, ERROR_ATTACHMENT_FAILED, cause);
    EXPECT_EQ(test::ReadFileBytes(existing), "precious");
    ExpectSaveFails(fresh, ERROR_ATTACHMENT_FAILED, cause);
    ASSERT_TRUE(fs::exists(fresh));
    EXPECT_EQ(fs::file_size(fresh), 0u);
    EXPECT_TRUE(MailMessageAccess::Changed(message));
    EXPECT_EQ(MailMessageAccess::CachedMessage(message), cached);
}

TEST_F(SaveToFile, PathsThatCannotBeOpenedFailBeforeTheBuild) {
    Fill();
    const int16_t counter = detail::BoundaryCounterForTesting();
    ExpectSaveFails(dir.File("no-such-dir/m.eml"), 76, "Path not found");
    EXPECT_FALSE(fs::exists(dir.File("no-such-dir")));
    test::WriteFileBytes(dir.File("plain"), "p");
    ExpectSaveFails(dir.File("plain/m.eml"), 76, "Path not found");
    ExpectSaveFails(dir.Path(), 75, "Path/File access error");
    ExpectSaveFails(dir.Path() + "/", 75, "Path/File access error");
    ExpectSaveFails(dir.File("new-name/"), 75, "Path/File access error");
    ExpectSaveFails("", 52, "Bad file name or number");
    auto error = test::CaptureError([&] { message.SaveToFile(std::u16string(u"a\0b", 3)); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->Number(), 52);
    // The text was never assembled.
    EXPECT_EQ(detail::BoundaryCounterForTesting(), counter);
    EXPECT_TRUE(MailMessageAccess::Changed(message));
    EXPECT_TRUE(MailMessageAccess::CachedMessage(message).empty());
}

TEST_F(SaveToFile, AnUnwritableDirectoryIsPermissionDenied) {
    fs::create_directory(dir.File("locked"));
    fs::permissions(dir.File("locked"), fs::perms::owner_read | fs::perms::owner_exec);
    fs::permissions(dir.Path(), fs::perms::owner_all | fs::perms::group_exec |
                                    fs::perms::others_exec);
    message.SubjectLine(u"x");
    // Root writes anywhere, so root saves as "nobody" for this test.
    const bool asRoot = ::geteuid() == 0;
    const int descriptors = test::OpenDescriptorCount();
    if (asRoot) {
        ASSERT_EQ(::seteuid(65534), 0);
    }
    auto error = test::CaptureError([&] { message.SaveToFile(FromUtf8(dir.File("locked/m.eml"))); });
    if (asRoot) {
        ASSERT_EQ(::seteuid(0), 0);
    }
    EXPECT_EQ(test::OpenDescriptorCount(), descriptors);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->Number(), 70);
    EXPECT_EQ(Utf8(error->Description()), std::string(kPrefix) + "Permission denied");
    EXPECT_FALSE(fs::exists(dir.File("locked/m.eml")));
}

TEST_F(SaveToFile, AFullDiskFailsTheWriteAfterASuccessfulBuild) {
    if (!fs::exists("/dev/full")) GTEST_SKIP() << "no /dev/full";
    Fill();
    ExpectSaveFails("/dev/full", 61, "Disk full");
    // The build itself succeeded and stays cached.
    EXPECT_FALSE(MailMessageAccess::Changed(message));
    EXPECT_FALSE(MailMessageAccess::CachedMessage(message).empty());
}

}  // namespace
}  // namespace larkpost
