// Host-side faults of MailMessage: attached files that vanish or turn into something unreadable
// between AttachFile and the build, and saves that cannot complete (a missing directory, a full
// device, a full small file system, a FIFO nobody reads). None may crash or hang, leave a file
// open, or lose what the host had: the message keeps its documented state, and an existing file
// is left as it was when the text could not be built.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "larkpost/error.h"
#include "larkpost/mail_message.h"
#include "larkpost/text.h"
#include "platform/codepage.h"
#include "support/mail_message_access.h"
#include "support/message_testing.h"
#include "support/process.h"
#include "support/under_valgrind.h"

namespace larkpost::test {
namespace {

namespace fs = std::filesystem;
using detail::MailMessageAccess;

std::shared_ptr<MailMessage> MakeMessage() {
    auto message = std::make_shared<MailMessage>();
    message->FromAddress("sender@faults.test");
    message->AddRecipient("rcpt@faults.test");
    message->SubjectLine("host faults");
    message->Body("body");
    return message;
}

std::string AttachmentFailure(const std::string& path) { return "Error attaching file '" + path + "'. (Details: "; }

// --- Attached files that change between AttachFile and the build.

// What becomes of the attached file after AttachFile accepted it.
struct Replacement {
    const char* name;
    std::function<void(const std::string& path)> apply;
};

const Replacement kReplacements[] = {
    {"Removed", [](const std::string& path) { fs::remove(path); }},
    {"Directory",
     [](const std::string& path) {
         fs::remove(path);
         fs::create_directory(path);
     }},
    {"DanglingLink",
     [](const std::string& path) {
         fs::remove(path);
         fs::create_symlink(path + ".gone", path);
     }},
    {"LinkLoop",
     [](const std::string& path) {
         fs::remove(path);
         fs::create_symlink(fs::path(path).filename(), path);  // points at itself
     }},
    // Opening a FIFO for reading would wait for a writer forever, unless the reader takes care.
    {"Fifo",
     [](const std::string& path) {
         fs::remove(path);
         ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
     }},
};

class AttachmentReplaced : public ::testing::TestWithParam<Replacement> {};

TEST_P(AttachmentReplaced, BuildFailsWithTheAttachmentErrorAndKeepsTheLastText) {
    TempDir dir;
    const std::string path = dir.File("report.txt");
    WriteFileBytes(path, "report");
    auto message = MakeMessage();
    message->AttachFile(path);
    const std::u16string firstText = MailMessageAccess::BuildMessage(*message);
    message->SubjectLine("rebuild");  // the next build assembles afresh
    GetParam().apply(path);
    const int descriptors = OpenDescriptorCount();

    const auto error = CaptureError([&] { MailMessageAccess::BuildMessage(*message); });
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->Number(), ERROR_ATTACHMENT_FAILED);
    EXPECT_TRUE(ToUtf8(error->Description()).starts_with(AttachmentFailure(path))) << ToUtf8(error->Description());
    EXPECT_TRUE(ToUtf8(error->Description()).ends_with(")"));
    EXPECT_TRUE(MailMessageAccess::Changed(*message));
    EXPECT_EQ(MailMessageAccess::CachedMessage(*message), firstText);
    EXPECT_EQ(OpenDescriptorCount(), descriptors);

    // Once the file is back, the same message builds.
    fs::remove(path);
    WriteFileBytes(path, "report again");
    EXPECT_NO_THROW(MailMessageAccess::BuildMessage(*message));
    EXPECT_FALSE(MailMessageAccess::Changed(*message));
}

INSTANTIATE_TEST_SUITE_P(Kinds, AttachmentReplaced, ::testing::ValuesIn(kReplacements),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(AttachmentUnreadable, PermissionRemovedFailsLikeAVanishedFile) {
    if (::geteuid() == 0) GTEST_SKIP() << "root reads a file whatever its permissions";
    TempDir dir;
    const std::string path = dir.File("secret.txt");
    WriteFileBytes(path, "secret");
    auto message = MakeMessage();
    message->AttachFile(path);
    fs::permissions(path, fs::perms::none);
    const int descriptors = OpenDescriptorCount();

    const auto error = CaptureError([&] { MailMessageAccess::BuildMessage(*message); });
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->Number(), ERROR_ATTACHMENT_FAILED);
    EXPECT_TRUE(ToUtf8(error->Description()).starts_with(AttachmentFailure(path)));
    EXPECT_EQ(OpenDescriptorCount(), descriptors);
}

TEST(AttachmentVanished, FailureAtTheSecondOfThreeDropsEverythingAndClosesEverything) {
    TempDir dir;
    for (const char* name : {"one.txt", "two.txt", "three.txt"}) WriteFileBytes(dir.File(name), name);
    auto message = MakeMessage();
    for (const char* name : {"one.txt", "two.txt", "three.txt"}) message->AttachFile(dir.File(name));
    fs::remove(dir.File("two.txt"));
    const int descriptors = OpenDescriptorCount();

    const auto error = CaptureError([&] { MailMessageAccess::BuildMessage(*message); });
    ASSERT_TRUE(error.has_value());
    EXPECT_TRUE(ToUtf8(error->Description()).starts_with(AttachmentFailure(dir.File("two.txt"))));
    EXPECT_TRUE(MailMessageAccess::CachedMessage(*message).empty());
    EXPECT_TRUE(MailMessageAccess::Changed(*message));
    EXPECT_EQ(OpenDescriptorCount(), descriptors);
}

TEST(AttachmentVanished, FailedSaveLeavesAnExistingFileAsItWas) {
    TempDir dir;
    WriteFileBytes(dir.File("a.txt"), "a");
    auto message = MakeMessage();
    message->AttachFile(dir.File("a.txt"));
    fs::remove(dir.File("a.txt"));
    const std::string precious = "the host's earlier content, longer than nothing\r\n";
    WriteFileBytes(dir.File("out.eml"), precious);
    const int descriptors = OpenDescriptorCount();

    const auto error = CaptureError([&] { message->SaveToFile(dir.File("out.eml")); });
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->Number(), ERROR_ATTACHMENT_FAILED);
    EXPECT_TRUE(ToUtf8(error->Description())
                    .starts_with("Error in MailMessage.SaveToFile: " + AttachmentFailure(dir.File("a.txt"))));
    EXPECT_EQ(ReadFileBytes(dir.File("out.eml")), precious);
    EXPECT_EQ(OpenDescriptorCount(), descriptors);
}

// --- Saves that cannot complete.

TEST(SaveFails, MissingDirectoryCreatesNothingAndLeavesTheMessageUnbuilt) {
    TempDir dir;
    auto message = MakeMessage();
    const std::string path = dir.File("missing/out.eml");
    const int descriptors = OpenDescriptorCount();

    const auto error = CaptureError([&] { message->SaveToFile(path); });
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->Number(), 76);  // path not found
    EXPECT_TRUE(ToUtf8(error->Description()).starts_with("Error in MailMessage.SaveToFile: "));
    EXPECT_FALSE(fs::exists(dir.File("missing")));
    EXPECT_TRUE(MailMessageAccess::Changed(*message));  // the file is opened before the build
    EXPECT_EQ(OpenDescriptorCount(), descriptors);
}

TEST(SaveFails, FullDeviceRaisesDiskFullAndTheMessageSavesElsewhereAfterwards) {
    if (!fs::exists("/dev/full")) GTEST_SKIP() << "no /dev/full";
    TempDir dir;
    auto message = MakeMessage();
    const int descriptors = OpenDescriptorCount();

    const auto error = CaptureError([&] { message->SaveToFile(std::string_view("/dev/full")); });
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->Number(), 61);  // disk full
    EXPECT_TRUE(ToUtf8(error->Description()).starts_with("Error in MailMessage.SaveToFile: "));
    EXPECT_EQ(OpenDescriptorCount(), descriptors);

    // The text was built before the write failed; the next save writes that same text.
    EXPECT_FALSE(MailMessageAccess::Changed(*message));
    ASSERT_NO_THROW(message->SaveToFile(dir.File("out.eml")));
    EXPECT_EQ(detail::FromAnsi(ReadFileBytes(dir.File("out.eml"))), MailMessageAccess::CachedMessage(*message));
}

// A tmpfs of 64 KiB, mounted for the test where the sandbox allows it.
class SmallFileSystem {
public:
    SmallFileSystem() {
        m_mounted = ::mount("tmpfs", m_dir.Path().c_str(), "tmpfs", 0, "size=64k") == 0;
    }
    ~SmallFileSystem() {
        if (m_mounted) ::umount2(m_dir.Path().c_str(), MNT_DETACH);
    }
    bool Mounted() const { return m_mounted; }
    std::string File(const std::string& name) const { return m_dir.File(name); }

private:
    TempDir m_dir;
    bool m_mounted = false;
};

TEST(SaveFails, FullFileSystemRaisesDiskFullAndASmallerTextFitsAfterwards) {
    SmallFileSystem small;
    if (!small.Mounted()) GTEST_SKIP() << "this sandbox does not allow mounting a tmpfs";
    TempDir dir;
    WriteFileBytes(dir.File("big.bin"), std::string(200 * 1024, '\x5a'));
    auto big = MakeMessage();
    big->AttachFile(dir.File("big.bin"));
    const int descriptors = OpenDescriptorCount();

    const auto error = CaptureError([&] { big->SaveToFile(small.File("out.eml")); });
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->Number(), 61);
    EXPECT_TRUE(ToUtf8(error->Description()).starts_with("Error in MailMessage.SaveToFile: "));
    EXPECT_EQ(OpenDescriptorCount(), descriptors);

    // The same path takes a text that fits, whole, with nothing of the failed one behind it.
    auto small_message = MakeMessage();
    ASSERT_NO_THROW(small_message->SaveToFile(small.File("out.eml")));
    EXPECT_EQ(detail::FromAnsi(ReadFileBytes(small.File("out.eml"))),
              MailMessageAccess::CachedMessage(*small_message));
}

// Runs body in a child process and waits at most limit for it: true when it ended with exit
// code 0, false when it failed or had to be killed (a hang).
bool EndsInTime(const std::function<int()>& body, std::chrono::seconds limit) {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(body());
    const auto deadline = std::chrono::steady_clock::now() + limit;
    int status = 0;
    while (::waitpid(child, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(child, SIGKILL);
            ::waitpid(child, &status, 0);
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(SaveFails, FifoThatNobodyReadsDoesNotHang) {
    TempDir dir;
    const std::string fifo = dir.File("pipe.eml");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    WriteFileBytes(dir.File("big.bin"), std::string(256 * 1024, 'x'));  // more than a pipe holds
    auto message = MakeMessage();
    message->AttachFile(dir.File("big.bin"));

    const bool ended = EndsInTime(
        [&] {
            try {
                message->SaveToFile(fifo);
            } catch (const RaisedError& e) {
                // Refused as no file to save to: 75, "Path/File access error".
                return e.Number() == 75 ? 0 : 1;
            }
            return 1;
        },
        std::chrono::seconds(UnderValgrind() ? 30 : 10));
    EXPECT_TRUE(ended) << "SaveToFile blocked on a FIFO that nobody reads, or did not refuse it";
}

}  // namespace
}  // namespace larkpost::test
