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

namespace larkpost {
namespace {

namespace fs = std::filesystem;
using detail::MailMessageAccess;
using test::Utf8;

const std::u16string& Build(MailMessage& message) {
    return MailMessageAccess::BuildMessage(message);
}

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
        const int before = MailMessageAccess::Attachments(message)->Count();
        EXPECT_RAISES(message.AttachFile(U(path)), ERROR_FILE_NOT_FOUND,
                      "File " + path + " not found. Cannot attach to message.");
        EXPECT_EQ(MailMessageAccess::Attachments(message)->Count(), before);
    }
    void ExpectFound(const std::string& path) {
        SCOPED_TRACE(path);
        const int before = MailMessageAccess::Attachments(message)->Count();
        message.AttachFile(U(path));
        auto list = MailMessageAccess::Attachments(message);
        ASSERT_EQ(list->Count(), before + 1);
        EXPECT_EQ(Utf8((*list)[before]), path);  // the path as given, wildcards and all
    }

    test::TempDir dir;
    MailMessage message;
};

TEST(WildcardMatching, StarAndQuestionMarkOnlyOtherCharactersLiteral) {
    using detail::WildcardMatches;
    EXPECT_TRUE(WildcardMatches(u"*", u"report.pdf"));
    EXPECT_TRUE(WildcardMatches(u"*.txt", u"a.b.txt"));
    EXPECT_FALSE(WildcardMatches(u"*.txt", u"a.txt.gz"));
    EXPECT_TRUE(WildcardMatches(u"a*b*c", u"axxbyybzzc"));
    EXPECT_FALSE(WildcardMatches(u"a*b*c", u"axxbyybzz"));
    EXPECT_TRUE(WildcardMatches(u"??.txt", u"ab.txt"));
    EXPECT_FALSE(WildcardMatches(u"??.txt", u"a.txt"));
    EXPECT_FALSE(WildcardMatches(u"*.TXT", u"a.txt"));  // case counts, as on the file system
    EXPECT_TRUE(WildcardMatches(u"[ab].txt", u"[ab].txt"));
    EXPECT_FALSE(WildcardMatches(u"[ab].txt", u"a.txt"));
    EXPECT_TRUE(WildcardMatches(u"?.txt", u"\U0001F600.txt"));  // one character, two code units
    EXPECT_FALSE(WildcardMatches(u"??.txt", u"\U0001F600.txt"));
    // A leading dot matches only a leading dot of the pattern, as in the shell.
    EXPECT_FALSE(WildcardMatches(u"*", u".profile"));
    EXPECT_FALSE(WildcardMatches(u"?profile", u".profile"));
    EXPECT_TRUE(WildcardMatches(u".*", u".profile"));
}

TEST_F(Attachments, PlainFilesAndLinksToThemAreFound) {
    std::string file = File("a.txt", "x");
    ExpectFound(file);
    ExpectFound(dir.Path() + "//./a.txt");  // stored as given, not normalised
    fs::create_symlink(file, dir.File("link.txt"));
    ExpectFound(dir.File("link.txt"));
    std::string readOnly = File("ro.txt", "read only");
    fs::permissions(readOnly, fs::perms::owner_read);
    ExpectFound(readOnly);
    ExpectFound(File(".hidden", "h"));  // an exact name finds a dot file
    EXPECT_TRUE(MailMessageAccess::Changed(message));
    // Every one of them is read at the build, the read-only file too.
    test::ParsedMime parsed = Parse(Build(message));
    ASSERT_EQ(parsed.parts.size(), 6u);  // the empty alternative entity and five files
    EXPECT_EQ(parsed.parts[4].payload, "read only");
    EXPECT_EQ(parsed.parts[4].filename, "ro.txt");
}

TEST_F(Attachments, EverythingButAPlainFileIsNotFound) {
    fs::create_directory(dir.File("sub"));
    ExpectNotFound(dir.File("sub"));
    ExpectNotFound(dir.File("sub") + "/");
    ExpectNotFound(dir.Path() + "/");
    ExpectNotFound("");
    ExpectNotFound(dir.File("missing.txt"));
    ExpectNotFound(dir.File("no-such-dir/a.txt"));
    fs::create_symlink(dir.File("missing.txt"), dir.File("dangling"));
    ExpectNotFound(dir.File("dangling"));
    fs::create_directory_symlink(dir.File("sub"), dir.File("dirlink"));
    ExpectNotFound(dir.File("dirlink"));
    ASSERT_EQ(::mkfifo(dir.File("fifo").c_str(), 0600), 0);
    ExpectNotFound(dir.File("fifo"));
    int sock = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string socketPath = dir.File("sock");
    ASSERT_LT(socketPath.size(), sizeof address.sun_path);
    std::copy(socketPath.begin(), socketPath.end(), address.sun_path);
    ASSERT_EQ(::bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ::close(sock);
    ExpectNotFound(socketPath);
    ExpectNotFound("/dev/null");
    EXPECT_FALSE(MailMessageAccess::Changed(message));
}

TEST_F(Attachments, WildcardsInTheLastElementMatchPlainFilesOnly) {
    File("report.txt", "r");
    File(".secret.txt", "s");
    fs::create_directory(dir.File("folder.dat"));
    ExpectFound(dir.File("*.txt"));
    ExpectFound(dir.File("repor?.t*"));
    ExpectFound(dir.File(".*.txt"));
    ExpectNotFound(dir.File("*.dat"));        // only a directory matches
    ExpectNotFound(dir.File("?secret.txt"));  // a wildcard does not match a leading dot
    ExpectNotFound(dir.File("*.TXT"));
    // Wildcards elsewhere than in the last element are literal characters.
    ExpectNotFound(dir.Path() + "/*/report.txt");
    fs::create_directory(dir.File("x*"));
    File("x*/inner.txt", "i");
    ExpectFound(dir.File("x*/inner.txt"));
}

TEST_F(Attachments, AFailedAttachAfterABuildKeepsTheCache) {
    message.AddRecipient(u"bob");
    const std::u16string cached = Build(message);
    test::CaptureError([&] { message.AttachFile(U(dir.File("missing"))); });
    EXPECT_FALSE(MailMessageAccess::Changed(message));
    EXPECT_EQ(MailMessageAccess::Attachments(message)->Count(), 0);
    EXPECT_EQ(Build(message), cached);
}

TEST_F(Attachments, OnePartHasItsRowsExactly) {
    std::string path = File("a.txt", "hello");
    message.AttachFile(U(path));
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

TEST_F(Attachments, EmptyFilesGetNoPart) {
    message.Body(u"b");
    std::u16string withoutFiles;
    {
        test::FixedBoundaries fixed;
        withoutFiles = Build(message);
    }
    message.AttachFile(U(File("empty1.txt", "")));
    message.AttachFile(U(File("empty2.bin", "")));
    test::FixedBoundaries fixed;
    EXPECT_EQ(Build(message), withoutFiles);
}

TEST_F(Attachments, OneByteSamePathTwiceAndAllByteValuesDecodeBack) {
    std::string all;
    for (int b = 0; b < 256; ++b) all += static_cast<char>(b);
    all += all;  // every byte value, also CR LF and NUL in runs
    std::string one = File("one", "\x80");
    std::string every = File("all.bin", all);
    message.Body(u"see files");
    message.AttachFile(U(one));
    message.AttachFile(U(every));
    message.AttachFile(U(every));
    const std::u16string& text = Build(message);
    EXPECT_NE(text.find(u"Content-Length: 4\r\n\r\ngA==\r\n"), std::u16string::npos);
    test::ParsedMime parsed = Parse(text);
    EXPECT_TRUE(parsed.defects.empty());
    EXPECT_EQ(parsed.structure,
              "multipart/mixed(multipart/alternative(text/plain),application/octet-stream,"
              "application/octet-stream,application/octet-stream)");
    ASSERT_EQ(parsed.parts.size(), 4u);
    EXPECT_EQ(parsed.parts[1].payload, "\x80");
    EXPECT_EQ(parsed.parts[1].filename, "one");
    for (std::size_t i : {2u, 3u}) {
        EXPECT_EQ(parsed.parts[i].payload, all);
        EXPECT_EQ(parsed.parts[i].filename, "all.bin");
        EXPECT_EQ(parsed.parts[i].disposition, "attachment");
        EXPECT_EQ(parsed.parts[i].transferEncoding, "base64");
        // The length counts the encoded text with the CR LFs between its lines.
        EXPECT_EQ(parsed.parts[i].contentLength, "700");  // 684 characters in 9 lines
        EXPECT_EQ(parsed.parts[i].rawLength, 700u + 2);
    }
}

TEST_F(Attachments, ALargerFileRoundTripsWithLinesWithinTheLimit) {
    std::mt19937 random(7);
    std::string bytes(300000, '\0');
    for (auto& b : bytes) b = static_cast<char>(random());
    message.AttachFile(U(File("photo.JPG", bytes)));
    const std::u16string& text = Build(message);
    for (std::size_t start = 0, end; (end = text.find(u"\r\n", start)) != std::u16string::npos;
         start = end + 2)
        ASSERT_LE(end - start, 76u);
    EXPECT_EQ(text.find(u'\n', 0) - 1, text.find(u'\r'));  // no bare LF before the first CR LF
    test::ParsedMime parsed = Parse(text);
    // Without bodies the alternative entity is empty; the reader lists it as a leaf of its own.
    EXPECT_EQ(parsed.structure, "multipart/mixed(multipart/alternative,image/jpeg)");
    ASSERT_EQ(parsed.parts.size(), 2u);
    EXPECT_EQ(parsed.parts[1].payload, bytes);
    EXPECT_EQ(std::stoul(parsed.parts[1].contentLength.value()) + 2, parsed.parts[1].rawLength);
}

TEST_F(Attachments, TheExtensionChoosesTheContentType) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"a.TXT", "text/plain"},        {"b.txt", "text/plain"},
        {"c.TxT", "text/plain"},        {".txt", "text/plain"},
        {"d.htm", "text/html"},         {"e.HTML", "text/html"},
        {"f.jpeg", "image/jpeg"},       {"g.JPG", "image/jpeg"},
        {"report.txt.gz", "application/octet-stream"},
        {"photo.gif", "application/octet-stream"},
        {"noextension", "application/octet-stream"},
        {"endsin.", "application/octet-stream"}};
    message.Body(u"body");
    for (const auto& [name, type] : cases) message.AttachFile(U(File(name, "content")));
    const std::u16string& text = Build(message);
    EXPECT_NE(text.find(u"\r\nContent-Type: text/plain;name=\"a.TXT\"\r\n"), std::u16string::npos);
    EXPECT_NE(text.find(u"\r\nContent-Disposition: attachment;filename=\"g.JPG\"\r\n"),
              std::u16string::npos);
    test::ParsedMime parsed = Parse(text);
    ASSERT_EQ(parsed.parts.size(), cases.size() + 1);
    for (std::size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(cases[i].first);
        const test::MimeLeaf& part = parsed.parts[i + 1];
        EXPECT_EQ(part.contentType, cases[i].second);
        EXPECT_EQ(part.filename, cases[i].first);
        EXPECT_EQ(part.payload, "content");
        EXPECT_FALSE(part.charset);
    }
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

// A message with a good file, built once; then each test breaks a file and builds again.
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
    // Builds, expecting the attachment error with this text, and checks that nothing moved.
    void ExpectBuildFails(const std::string& description) {
        const int descriptors = test::OpenDescriptorCount();
        const int16_t counter = detail::BoundaryCounterForTesting();
        EXPECT_RAISES(Build(message), ERROR_ATTACHMENT_FAILED, description);
        EXPECT_EQ(test::OpenDescriptorCount(), descriptors);
        EXPECT_TRUE(MailMessageAccess::Changed(message));
        EXPECT_EQ(MailMessageAccess::CachedMessage(message), cached);
        EXPECT_EQ(MailMessageAccess::Attachments(message)->Count(), 2);
        // The boundaries of the failed build are used up, not given back.
        EXPECT_EQ(detail::BoundaryCounterForTesting(), counter + 2);
    }
    std::string Details(const std::string& path, const std::string& cause) {
        return "Error attaching file '" + path + "'. (Details: " + cause + ")";
    }

    std::string good, victim;
    std::u16string cached;
};

TEST_F(AttachmentFailures, AFileRemovedAfterAttachIsNotFound) {
    fs::remove(victim);
    ExpectBuildFails(Details(victim, "File not found"));
    // Once the file is back the build succeeds, complete and with new boundaries.
    File("victim.txt", "back");
    const std::u16string& text = Build(message);
    EXPECT_FALSE(MailMessageAccess::Changed(message));
    test::ParsedMime parsed = Parse(text);
    ASSERT_EQ(parsed.parts.size(), 3u);  // the empty alternative entity, then the two files
    EXPECT_EQ(parsed.parts[1].payload, "good");
    EXPECT_EQ(parsed.parts[2].payload, "back");
}

TEST_F(AttachmentFailures, AMissingDirectoryIsPathNotFound) {
    fs::create_directory(dir.File("sub"));
    std::string inner = File("sub/inner.txt", "x");
    message.AttachFile(U(inner));
    fs::remove_all(dir.File("sub"));
    const int descriptors = test::OpenDescriptorCount();
    EXPECT_RAISES(Build(message), ERROR_ATTACHMENT_FAILED, Details(inner, "Path not found"));
    EXPECT_EQ(test::OpenDescriptorCount(), descriptors);
}

TEST_F(AttachmentFailures, ADirectoryInPlaceOfTheFile) {
    fs::remove(victim);
    fs::create_directory(victim);
    ExpectBuildFails(Details(victim, "Path/File access error"));
}

TEST_F(AttachmentFailures, AFifoInPlaceOfTheFileFailsWithoutWaiting) {
    fs::remove(victim);
    ASSERT_EQ(::mkfifo(victim.c_str(), 0600), 0);
    ExpectBuildFails(Details(victim, "Path/File access error"));
}

TEST_F(AttachmentFailures, ADanglingLinkOrALoopInPlaceOfTheFile) {
    fs::remove(victim);
    fs::create_symlink(dir.File("nowhere"), victim);
    ExpectBuildFails(Details(victim, "File not found"));
    fs::remove(victim);
    fs::create_symlink(victim, victim);
    ExpectBuildFails(Details(victim, "Path/File access error"));
}

TEST_F(AttachmentFailures, AnUnreadableFileIsPermissionDenied) {
    fs::permissions(victim, fs::perms::none);
    fs::permissions(good, fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
    fs::permissions(dir.Path(), fs::perms::owner_all | fs::perms::group_read |
                                    fs::perms::group_exec | fs::perms::others_read |
                                    fs::perms::others_exec);
    // Root reads files whatever their mode, so root builds as "nobody" for this test.
    const bool asRoot = ::geteuid() == 0;
    const int descriptors = test::OpenDescriptorCount();
    if (asRoot) {
        ASSERT_EQ(::seteuid(65534), 0);
    }
    auto error = test::CaptureError([&] { Build(message); });
    if (asRoot) {
        ASSERT_EQ(::seteuid(0), 0);
    }
    ASSERT_TRUE(error);
    EXPECT_EQ(error->Number(), ERROR_ATTACHMENT_FAILED);
    EXPECT_EQ(Utf8(error->Description()), Details(victim, "Permission denied"));
    EXPECT_EQ(test::OpenDescriptorCount(), descriptors);
    EXPECT_TRUE(MailMessageAccess::Changed(message));
    EXPECT_EQ(MailMessageAccess::CachedMessage(message), cached);
}

TEST_F(AttachmentFailures, AWildcardPathPassesAttachButNotTheBuild) {
    // The search accepted it; the build opens the path as stored, which names no file.
    std::string pattern = dir.File("vic*.txt");
    message.AttachFile(U(pattern));
    const int descriptors = test::OpenDescriptorCount();
    EXPECT_RAISES(Build(message), ERROR_ATTACHMENT_FAILED, Details(pattern, "File not found"));
    EXPECT_EQ(test::OpenDescriptorCount(), descriptors);
}

TEST_F(AttachmentFailures, TheLoopStopsAtTheFirstFailingFile) {
    std::string third = File("third.txt", "3");
    message.AttachFile(U(third));
    fs::remove(victim);
    fs::remove(third);  // would fail too, but is never reached
    const int descriptors = test::OpenDescriptorCount();
    EXPECT_RAISES(Build(message), ERROR_ATTACHMENT_FAILED, Details(victim, "File not found"));
    EXPECT_EQ(test::OpenDescriptorCount(), descriptors);
    EXPECT_EQ(MailMessageAccess::CachedMessage(message), cached);
}

#if !defined(__SANITIZE_ADDRESS__)
TEST_F(AttachmentFailures, AFileTooLargeForMemoryFailsBeforeAnyPath) {
    std::ifstream overcommit("/proc/sys/vm/overcommit_memory");
    int mode = 0;
    overcommit >> mode;
    if (mode == 1) GTEST_SKIP() << "the kernel grants any allocation";
    // A sparse file of 1 TiB: its text cannot be held, so the reservation of the text fails.
    std::string huge = dir.File("huge.bin");
    test::WriteFileBytes(huge, "");
    if (::truncate(huge.c_str(), off_t{1} << 40) != 0) GTEST_SKIP() << "no sparse files here";
    message.AttachFile(U(huge));
    const int descriptors = test::OpenDescriptorCount();
    EXPECT_RAISES(Build(message), ERROR_ATTACHMENT_FAILED,
                  "Error occurred while adding attachments to the message. "
                  "(Details: Out of memory)");
    EXPECT_EQ(test::OpenDescriptorCount(), descriptors);
    EXPECT_TRUE(MailMessageAccess::Changed(message));
    EXPECT_EQ(MailMessageAccess::CachedMessage(message), cached);
}
#endif

}  // namespace
}  // namespace larkpost
