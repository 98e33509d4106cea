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
using Access = detail::MailMessageAccess;

class SaveToFile : public ::testing::Test {
protected:
    void Fill() {
        attachment = dir.File("data.bin");
        test::WriteFileBytes(attachment, std::string("\x00\x01\xFE\xFF\r\n", 6));
        message.SubjectLine(u"Saved");
        message.FromAddress(u"ann@example.org");
        message.AddRecipient(u"bob@example.org");
        message.Body(u"Plain body.\r\n");
        message.BodyHTML(u"<b>HTML</b>");
        message.AttachFile(FromUtf8(attachment));
    }
    void Save(const std::string& path) { message.SaveToFile(FromUtf8(path)); }
    // Saves, expecting a failure with this number and cause, and no descriptor left open. Root
    // writes anywhere, so it saves as "nobody" when a test needs that.
    void ExpectSaveFails(const std::string& path, int32_t number, const std::string& cause,
                         bool asNobody = false) {
        const int descriptors = test::OpenDescriptorCount();
        const bool switchUser = asNobody && ::geteuid() == 0;
        if (switchUser && ::seteuid(65534) != 0) ADD_FAILURE() << "cannot become nobody";
        auto error = test::CaptureError([&] { Save(path); });
        if (switchUser && ::seteuid(0) != 0) ADD_FAILURE() << "cannot become root again";
        EXPECT_EQ(test::OpenDescriptorCount(), descriptors);
        ASSERT_TRUE(error);
        EXPECT_EQ(error->Number(), number);
        EXPECT_EQ(test::Utf8(error->Description()), "Error in MailMessage.SaveToFile: " + cause);
        EXPECT_EQ(test::Utf8(error->Source()), "Larkpost.MailMessage");
    }

    test::TempDir dir;
    std::string attachment;
    MailMessage message;
};

TEST_F(SaveToFile, WritesTheBuiltTextThatPythonParsesAndReplacesALongerFile) {
    Fill();
    std::string path = dir.File("message.eml"), longer = dir.File("longer.eml");
    Save(path);
    EXPECT_FALSE(Access::Changed(message));
    const std::u16string& text = Access::BuildMessage(message);  // from the cache
    const std::string bytes = test::ReadFileBytes(path);
    EXPECT_EQ(bytes, detail::ToAnsi(text));
    ASSERT_GE(bytes.size(), 2u);
    EXPECT_EQ(bytes.substr(bytes.size() - 2), "\r\n");
    test::ParsedMime fromFile = test::ParseMimeFile(path);
    EXPECT_TRUE(fromFile.defects.empty());
    EXPECT_EQ(fromFile.structure, "multipart/mixed(multipart/alternative(text/plain,text/html),"
                                  "application/octet-stream)");
    ASSERT_EQ(fromFile.parts.size(), 3u);
    EXPECT_EQ(fromFile.parts[0].payload, "Plain body.\r\n\r\n");
    EXPECT_EQ(fromFile.parts[1].payload, "<b>HTML</b>\r\n");
    EXPECT_EQ(fromFile.parts[2].payload, test::ReadFileBytes(attachment));
    EXPECT_EQ(fromFile.parts[2].filename, "data.bin");
    EXPECT_EQ(fromFile.headers, test::ParseMime(bytes).headers);
    // Saved again over a file longer than the text: the file holds exactly the text.
    test::WriteFileBytes(longer, std::string(100000, 'z'));
    Save(longer);
    EXPECT_EQ(test::ReadFileBytes(longer), bytes);
}

TEST_F(SaveToFile, EmptyTextsCodePageBytesUtf8PathsAndDevices) {
    std::string path = dir.File("empty.eml");
    Save(path);
    ASSERT_TRUE(fs::exists(path));
    EXPECT_EQ(test::ReadFileBytes(path), "");
    test::WriteFileBytes(path, "old content");
    Save(path);
    EXPECT_EQ(test::ReadFileBytes(path), "");
    // Characters the code page lacks become question marks.
    message.SubjectLine(u"caf\u00E9 \u20AC \u4E2D");
    std::string utf8Path = dir.File("caf\xC3\xA9.eml");
    message.SaveToFile(std::string_view(utf8Path));
    EXPECT_EQ(test::ReadFileBytes(utf8Path).substr(0, 19), "Subject: caf\xE9 \x80 ?\r\n");
    message.SaveToFile(u"/dev/null");  // no truncation of a device, and no error
}

TEST_F(SaveToFile, AFailedBuildLeavesAnExistingFileAsItWasAndANewOneEmpty) {
    Fill();
    const std::u16string cached = Access::BuildMessage(message);
    message.SubjectLine(u"changed");
    fs::remove(attachment);
    std::string existing = dir.File("existing.eml"), fresh = dir.File("fresh.eml");
    test::WriteFileBytes(existing, "precious");
    const std::string cause =
        "Error attaching file '" + attachment + "'. (Details: File not found)";
    ExpectSaveFails(existing, ERROR_ATTACHMENT_FAILED, cause);
    EXPECT_EQ(test::ReadFileBytes(existing), "precious");
    ExpectSaveFails(fresh, ERROR_ATTACHMENT_FAILED, cause);
    ASSERT_TRUE(fs::exists(fresh));
    EXPECT_EQ(fs::file_size(fresh), 0u);
    EXPECT_TRUE(Access::Changed(message));
    EXPECT_EQ(Access::CachedMessage(message), cached);
}

TEST_F(SaveToFile, PathsThatCannotBeOpenedFailBeforeTheBuild) {
    Fill();
    const int16_t counter = detail::BoundaryCounterForTesting();
    test::WriteFileBytes(dir.File("plain"), "p");
    for (auto name : {"no-such-dir/m.eml", "plain/m.eml"})
        ExpectSaveFails(dir.File(name), 76, "Path not found");
    EXPECT_FALSE(fs::exists(dir.File("no-such-dir")));
    for (const std::string& path : {dir.Path(), dir.Path() + "/", dir.File("new-name/")})
        ExpectSaveFails(path, 75, "Path/File access error");
    ExpectSaveFails("", 52, "Bad file name or number");
    auto error = test::CaptureError([&] { message.SaveToFile(std::u16string(u"a\0b", 3)); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->Number(), 52);
    // The text was never assembled.
    EXPECT_EQ(detail::BoundaryCounterForTesting(), counter);
    EXPECT_TRUE(Access::Changed(message));
    EXPECT_TRUE(Access::CachedMessage(message).empty());
}

TEST_F(SaveToFile, AnUnwritableDirectoryIsPermissionDenied) {
    fs::create_directory(dir.File("locked"));
    fs::permissions(dir.File("locked"), fs::perms::owner_read | fs::perms::owner_exec);
    using fs::perms;
    fs::permissions(dir.Path(), perms::owner_all | perms::group_exec | perms::others_exec);
    message.SubjectLine(u"x");
    ExpectSaveFails(dir.File("locked/m.eml"), 70, "Permission denied", /*asNobody=*/true);
    EXPECT_FALSE(fs::exists(dir.File("locked/m.eml")));
}

TEST_F(SaveToFile, AFullDiskFailsTheWriteAfterASuccessfulBuild) {
    if (!fs::exists("/dev/full")) GTEST_SKIP() << "no /dev/full";
    Fill();
    ExpectSaveFails("/dev/full", 61, "Disk full");
    // The build itself succeeded and stays cached.
    EXPECT_FALSE(Access::Changed(message));
    EXPECT_FALSE(Access::CachedMessage(message).empty());
}

}  // namespace
}  // namespace larkpost
