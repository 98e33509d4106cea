// Attached files: the search of AttachFile, the Base64 parts, and every way a file can fail.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "larkpost/mail_message.h"
#include "message/attachment_search.h"
#include "platform/codepage.h"
#include "support/mail_message_access.h"
#include "support/message_testing.h"
#include "support/mime_parse.h"
#include "support/process.h"
#include "support/under_valgrind.h"

namespace larkpost {
namespace {

namespace fs = std::filesystem;
using Access = detail::MailMessageAccess;
using test::Utf8;

const std::u16string& Build(MailMessage& message) { return Access::BuildMessage(message); }
test::ParsedMime Parse(const std::u16string& text) { return test::ParseMime(detail::ToAnsi(text)); }
std::u16string U(const std::string& utf8) { return FromUtf8(utf8); }

class Attachments : public ::testing::Test {
protected:
    std::string File(const std::string& name, const std::string& bytes) {
        std::string path = dir.File(name);
        test::WriteFileBytes(path, bytes);
        return path;
    }
    void ExpectNotFound(const std::string& path) {
        SCOPED_TRACE(path);
        const int before = Access::Attachments(message)->Count();
        EXPECT_RAISES(message.AttachFile(U(path)), ERROR_FILE_NOT_FOUND,
                      "File " + path + " not found. Cannot attach to message.");
        EXPECT_EQ(Access::Attachments(message)->Count(), before);
    }
    void ExpectFound(const std::string& path) {
        SCOPED_TRACE(path);
        const int before = Access::Attachments(message)->Count();
        message.AttachFile(U(path));
        auto list = Access::Attachments(message);
        ASSERT_EQ(list->Count(), before + 1);
        EXPECT_EQ(Utf8((*list)[before]), path);  // the path as given, wildcards and all
    }

    test::TempDir dir;
    MailMessage message;
};

TEST(WildcardMatching, StarAndQuestionMarkOnlyOtherCharactersLiteral) {
    const std::tuple<std::u16string, std::u16string, bool> cases[] = {
        {u"*", u"report.pdf", true},     {u"*.txt", u"a.b.txt", true}, {u"*.txt", u"a.txt.gz", false},
        {u"a*b*c", u"axxbyybzzc", true}, {u"a*b*c", u"axxbyybzz", false}, {u"??.txt", u"ab.txt", true},
        {u"??.txt", u"a.txt", false},     {u"*.TXT", u"a.txt", false},     // case counts
        {u"[ab].txt", u"[ab].txt", true}, {u"[ab].txt", u"a.txt", false},  // no classes
        // One character in two code units.
        {u"?.txt", u"\U0001F600.txt", true}, {u"??.txt", u"\U0001F600.txt", false},
        // A leading dot matches only a leading dot of the pattern, as in the shell.
        {u"*", u".profile", false}, {u"?profile", u".profile", false}, {u".*", u".profile", true}};
    for (const auto& [pattern, name, matches] : cases)
        EXPECT_EQ(detail::WildcardMatches(pattern, name), matches) << Utf8(pattern + u" " + name);
}

TEST_F(Attachments, TheSearchFindsPlainFilesAndLinksToThemOnly) {
    std::string file = File("a.txt", "x"), readOnly = File("ro.txt", "read only");
    fs::permissions(readOnly, fs::perms::owner_read);
    fs::create_symlink(file, dir.File("link.txt"));
    // Stored as given, not normalised; an exact name finds a dot file.
    for (const std::string& path :
         {file, dir.Path() + "//./a.txt", dir.File("link.txt"), readOnly, File(".hidden", "h")})
        ExpectFound(path);
    EXPECT_TRUE(Access::Changed(message));
    // Every one of them is read at the build, the read-only file too.
    test::ParsedMime parsed = Parse(Build(message));
    ASSERT_EQ(parsed.parts.size(), 6u);  // the empty alternative entity and five files
    EXPECT_EQ(parsed.parts[4].payload, "read only");
    EXPECT_EQ(parsed.parts[4].filename, "ro.txt");

    fs::create_directory(dir.File("sub.dat"));
    fs::create_symlink(dir.File("missing.txt"), dir.File("dangling"));
    fs::create_directory_symlink(dir.File("sub.dat"), dir.File("dirlink"));
    ASSERT_EQ(::mkfifo(dir.File("fifo").c_str(), 0600), 0);
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    const std::string socketPath = dir.File("sock");
    ASSERT_LT(socketPath.size(), sizeof address.sun_path);
    socketPath.copy(address.sun_path, socketPath.size());
    int sock = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(::bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ::close(sock);
    for (const std::string& path :
         {dir.File("sub.dat"), dir.File("sub.dat") + "/", dir.Path() + "/", std::string(),
          dir.File("missing.txt"), dir.File("no-such-dir/a.txt"), dir.File("dangling"),
          dir.File("dirlink"), dir.File("fifo"), socketPath, std::string("/dev/null")})
        ExpectNotFound(path);

    // Wildcards in the last element; elsewhere they are literal characters.
    File(".secret.txt", "s");
    fs::create_directory(dir.File("x*"));
    File("x*/inner.txt", "i");
    for (auto name : {"*.txt", "r?.t*", ".*.txt", "x*/inner.txt"}) ExpectFound(dir.File(name));
    // Only a directory matches; a wildcard does not match a leading dot; case counts.
    for (auto name : {"*.dat", "?secret.txt", "*.TXT", "*/a.txt"}) ExpectNotFound(dir.File(name));
}

TEST_F(Attachments, OnePartHasItsRowsExactlyAndEmptyFilesNone) {
    message.AttachFile(U(File("empty1.txt", "")));
    message.AttachFile(U(File("a.txt", "hello")));
    message.AttachFile(U(File("empty2.bin", "")));
    test::FixedBoundaries fixed;
    EXPECT_EQ(Utf8(Build(message)),
              Utf8(u"Subject: \r\nFrom: \r\nTo: \r\n" + test::kFixedEntityHead +
                   test::kFixedAlternativeClose +
                   u"\r\n\r\n----=-MessageBoundary_1_360005\r\n"
                   u"Content-Type: text/plain;name=\"a.txt\"\r\n"
                   u"Content-Transfer-Encoding: base64\r\n"
                   u"Content-Disposition: attachment;filename=\"a.txt\"\r\n"
                   u"Content-Length: 8\r\n"
                   u"\r\n"
                   u"aGVsbG8=" +
                   test::kFixedMixedClose));
}

TEST_F(Attachments, FilesDecodeBackTypedByTheirExtensionWithLinesWithinTheLimit) {
    std::string all, photo(300000, '\0');
    for (int b = 0; b < 512; ++b) all += static_cast<char>(b);  // every byte value twice
    std::mt19937 random(7);
    for (auto& b : photo) b = static_cast<char>(random());
    const std::string octets = "application/octet-stream", plain = "text/plain";
    // Name, content, type; the same path attached twice makes two parts.
    const std::tuple<std::string, std::string, std::string> files[] = {
        {"one", "\x80", octets},      {"all.bin", all, octets},     {"all.bin", all, octets},
        {"photo.JPG", photo, "image/jpeg"},  {"a.TXT", "c", plain},  {"b.txt", "c", plain},
        {"c.TxT", "c", plain},        {".txt", "c", plain},         {"d.htm", "c", "text/html"},
        {"e.HTML", "c", "text/html"}, {"f.jpeg", "c", "image/jpeg"}, {"report.txt.gz", "c", octets},
        {"photo.gif", "c", octets},   {"noextension", "c", octets}, {"endsin.", "c", octets}};
    message.Body(u"see files");
    std::string structure = "multipart/mixed(multipart/alternative(text/plain)";
    for (const auto& [name, bytes, type] : files) {
        message.AttachFile(U(File(name, bytes)));
        structure += "," + type;
    }
    const std::u16string& text = Build(message);
    for (std::u16string row : {u"Content-Length: 4\r\n\r\ngA==\r\n",
                               u"\r\nContent-Type: text/plain;name=\"a.TXT\"\r\n",
                               u"\r\nContent-Disposition: attachment;filename=\"photo.JPG\"\r\n"})
        EXPECT_NE(text.find(row), std::u16string::npos) << Utf8(row);
    for (std::size_t start = 0, end; (end = text.find(u"\r\n", start)) != std::u16string::npos;
         start = end + 2)
        ASSERT_LE(end - start, 76u);
    EXPECT_EQ(text.find(u'\n', 0) - 1, text.find(u'\r'));  // no bare LF before the first CR LF
    test::ParsedMime parsed = Parse(text);
    EXPECT_TRUE(parsed.defects.empty());
    EXPECT_EQ(parsed.structure, structure + ")");
    ASSERT_EQ(parsed.parts.size(), std::size(files) + 1);
    for (std::size_t i = 0; i < std::size(files); ++i) {
        const auto& [name, bytes, type] = files[i];
        const test::MimeLeaf& part = parsed.parts[i + 1];
        SCOPED_TRACE(name);
        EXPECT_EQ(part.payload, bytes);
        EXPECT_EQ(part.filename, name);
        EXPECT_EQ(part.disposition, "attachment");
        EXPECT_EQ(part.transferEncoding, "base64");
        EXPECT_FALSE(part.charset);
        // The length counts the encoded text with the CR LFs between its lines.
        EXPECT_EQ(std::stoul(part.contentLength.value()) + 2, part.rawLength);
    }
    EXPECT_EQ(parsed.parts[2].contentLength, "700");  // 684 characters in 9 lines
}

TEST_F(Attachments, FilesAreReadAtTheBuildAndNotWhileTheCacheServes) {
    std::string path = File("note.txt", "first");
    message.AttachFile(U(path));
    test::WriteFileBytes(path, "second");  // changed after AttachFile: the build sees this
    const std::u16string built = Build(message);
    EXPECT_NE(built.find(u"c2Vjb25k"), std::u16string::npos);
    test::WriteFileBytes(path, "third");
    EXPECT_EQ(Build(message), built);  // the cache keeps the old content
    message.SubjectLine(u"again");
    EXPECT_NE(Build(message).find(u"dGhpcmQ="), std::u16string::npos);
}

// A message with two files, built once, then changed; each test breaks a file and builds again.
class AttachmentFailures : public Attachments {
protected:
    void SetUp() override {
        good = File("good.txt", "good");
        victim = File("victim.txt", "victim");
        message.AddRecipient(u"bob");
        message.AttachFile(U(good));
        message.AttachFile(U(victim));
        cached = Build(message);
        message.SubjectLine(u"changed");  // the next build must assemble
    }
    // Builds, expecting the attachment error with this text, and checks that nothing moved. Root
    // reads files whatever their mode, so it builds as "nobody" when a test needs that.
    void ExpectBuildFails(const std::string& description, bool asNobody = false) {
        const int descriptors = test::OpenDescriptorCount();
        const int count = Access::Attachments(message)->Count();
        const int16_t counter = detail::BoundaryCounterForTesting();
        const bool switchUser = asNobody && ::geteuid() == 0;
        if (switchUser && ::seteuid(65534) != 0) ADD_FAILURE() << "cannot become nobody";
        auto error = test::CaptureError([&] { Build(message); });
        if (switchUser && ::seteuid(0) != 0) ADD_FAILURE() << "cannot become root again";
        ASSERT_TRUE(error);
        EXPECT_EQ(error->Number(), ERROR_ATTACHMENT_FAILED);
        EXPECT_EQ(Utf8(error->Description()), description);
        EXPECT_EQ(test::OpenDescriptorCount(), descriptors);
        EXPECT_TRUE(Access::Changed(message));
        EXPECT_EQ(Access::CachedMessage(message), cached);
        EXPECT_EQ(Access::Attachments(message)->Count(), count);
        // The boundaries of the failed build are used up, not given back.
        EXPECT_EQ(detail::BoundaryCounterForTesting(), counter + 2);
    }
    static std::string Details(const std::string& path, const std::string& cause) {
        return "Error attaching file '" + path + "'. (Details: " + cause + ")";
    }

    std::string good, victim;
    std::u16string cached;
};

// What stands in the file's place decides the cause; a FIFO fails at once rather than wait for a
// writer. Once the file is back, the build is complete.
TEST_F(AttachmentFailures, WhatStandsInPlaceOfTheFileDecidesTheCause) {
    fs::remove(victim);
    ExpectBuildFails(Details(victim, "File not found"));
    fs::create_directory(victim);
    ExpectBuildFails(Details(victim, "Path/File access error"));
    fs::remove(victim);
    ASSERT_EQ(::mkfifo(victim.c_str(), 0600), 0);
    ExpectBuildFails(Details(victim, "Path/File access error"));
    fs::remove(victim);
    fs::create_symlink(dir.File("nowhere"), victim);
    ExpectBuildFails(Details(victim, "File not found"));
    fs::remove(victim);
    fs::create_symlink(victim, victim);
    ExpectBuildFails(Details(victim, "Path/File access error"));
    fs::remove(victim);
    File("victim.txt", "back");
    test::ParsedMime parsed = Parse(Build(message));
    EXPECT_FALSE(Access::Changed(message));
    ASSERT_EQ(parsed.parts.size(), 3u);  // the empty alternative entity, then the two files
    EXPECT_EQ(parsed.parts[1].payload, "good");
    EXPECT_EQ(parsed.parts[2].payload, "back");
}

// The loop stops at the first failing file in the order of the list.
TEST_F(AttachmentFailures, TheFirstFailingFileIsNamed) {
    fs::create_directory(dir.File("sub"));
    std::string inner = File("sub/inner.txt", "x");
    message.AttachFile(U(inner));
    fs::remove_all(dir.File("sub"));
    ExpectBuildFails(Details(inner, "Path not found"));
    // The search accepted the pattern; the build opens the path as stored, which names no file.
    std::string pattern = dir.File("vic*.txt");
    message.AttachFile(U(pattern));
    ExpectBuildFails(Details(inner, "Path not found"));
    fs::create_directory(dir.File("sub"));
    File("sub/inner.txt", "x");
    ExpectBuildFails(Details(pattern, "File not found"));
}

TEST_F(AttachmentFailures, AnUnreadableFileIsPermissionDenied) {
    fs::permissions(victim, fs::perms::none);
    fs::permissions(good, fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
    using fs::perms;
    fs::permissions(dir.Path(), perms::owner_all | perms::group_read | perms::group_exec |
                                    perms::others_read | perms::others_exec);
    ExpectBuildFails(Details(victim, "Permission denied"), /*asNobody=*/true);
}

#if !defined(__SANITIZE_ADDRESS__)
TEST_F(AttachmentFailures, AFileTooLargeForMemoryFailsBeforeAnyPath) {
    std::ifstream overcommit("/proc/sys/vm/overcommit_memory");
    int mode = 0;
    overcommit >> mode;
    if (mode == 1) GTEST_SKIP() << "the kernel grants any allocation";
    if (test::UnderValgrind()) GTEST_SKIP() << "Valgrind ends the process instead of failing 1 TiB";
    // A sparse file of 1 TiB: its text cannot be held, so the reservation of the text fails.
    std::string huge = File("huge.bin", "");
    if (::truncate(huge.c_str(), off_t{1} << 40) != 0) GTEST_SKIP() << "no sparse files here";
    message.AttachFile(U(huge));
    ExpectBuildFails(
        "Error occurred while adding attachments to the message. (Details: Out of memory)");
}
#endif

}  // namespace
}  // namespace larkpost
