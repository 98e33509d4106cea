// MailMessage: its exact text, the recipient lists and their keys, the search of AttachFile, and
// every way a file fails at the build and at SaveToFile (Python reads saved files back in
// tests/scripts/hosts_test.py).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <set>

#include "encoding/boundary.h"
#include "larkpost/text.h"
#include "message/attachment_search.h"
#include "platform/clock.h"
#include "platform/codepage.h"
#include "platform/files.h"
#include "support/mail_message_access.h"
#include "support/process.h"
#include "support/raised.h"

namespace larkpost {
namespace {

namespace fs = std::filesystem;
using Access = detail::MailMessageAccess;
using Texts = std::vector<std::u16string>;
using std::u16string, detail::BoundaryCounterForTesting;

u16string Build(MailMessage& message) { return Access::BuildMessage(message); }
Texts Items(const Access::List& list) { return {list->begin(), list->end()}; }
int Descriptors() { return int(std::distance(fs::directory_iterator("/proc/self/fd"), {})); }
std::string Fault(int32_t n, const std::string& text, std::string from = "Larkpost.MailMessage") {
    return std::to_string(n) + " " + text + " [" + from + "]";
}
// What call raises, as Fault writes it; as nobody when asked and root (who may read anything).
std::string What(const std::function<void()>& call, bool asNobody = false) {
    const bool root = asNobody && ::geteuid() == 0;
    if (root && ::seteuid(65534) != 0) ADD_FAILURE() << "cannot become nobody";
    const RaisedError e = test::Raised(call);
    if (root && ::seteuid(0) != 0) ADD_FAILURE() << "cannot become root again";
    return Fault(e.Number(), ToUtf8(e.Description()), ToUtf8(e.Source()));
}

// With the timer at 36000.5 s and the counter at 0, the boundaries are _1_360005 and _2_360005.
const u16string kB1 = u"--=-MessageBoundary_1_360005", kB2 = u"--=-MessageBoundary_2_360005";
u16string Part(const u16string& type, const u16string& length, const u16string& text) {
    return u"\r\n\r\n--" + kB2 + u"\r\nContent-Type: " + type +
           u"\r\nContent-Transfer-Encoding: quoted-printable\r\nContent-Length: " + length +
           u"\r\n\r\n" + text;
}
// The text whose rows up to the recipients are head, with these body parts and file parts.
u16string Text(const u16string& head, const u16string& parts, const u16string& files = u"") {
    return head + u"Content-Type: multipart/mixed;boundary=\"" + kB1 +
           u"\"\r\nMIME-Version: 1.0\r\n\r\n\r\n--" + kB1 +
           u"\r\nContent-Type: multipart/alternative;boundary=\"" + kB2 +
           u"\"\r\nMIME-Version: 1.0\r\n\r\n" + parts + u"\r\n\r\n--" + kB2 + u"--\r\n" + files +
           u"\r\n\r\n--" + kB1 + u"--\r\n";
}

// Every row of a text with each header, both bodies and a file.
TEST(MessageText, EveryRowCharacterForCharacter) {
    detail::SetSystemTimerForTesting([] { return 36000.5f; });
    detail::SetBoundaryCounterForTesting(0);
    test::TempDir dir;
    MailMessage full;
    full.SubjectLine(u"caf\u00E9 \u4E2D");  // values go unescaped, in the code page
    full.FromAddress(u"ann");
    full.SenderName(u"A \"B\" C");
    for (auto to : {u" b ", u"cid"}) full.AddRecipient(to);
    full.AddCCRecipient(u"c");
    for (auto bcc : {u"d", u"e"}) full.AddBCCRecipient(bcc);
    full.Body(u16string(80, u'a'));  // Content-Length counts the soft line break
    full.BodyHTML(u"<p>a.b</p>");
    full.MimeType(u"");  // types the plain body, even empty
    full.AddHeader(u"X-Tag", u"caf\u00E9");  // after the recipients, as given
    for (auto [name, bytes] : {std::pair{"e1.txt", ""}, {"a.txt", "hello"}, {"e2", ""}}) {
        test::WriteFileBytes(dir.File(name), bytes);  // empty files get no part
        full.AttachFile(dir.File(name));
    }
    EXPECT_EQ(ToUtf8(Build(full)),
              ToUtf8(Text(u"Subject: caf\u00E9 ?\r\nFrom: \"A \"B\" C\" <ann>\r\n"
                          u"To:  b ;cid\r\nCc: c\r\nBcc: d;e\r\nX-Tag: caf\u00E9\r\n",
                          Part(u"", u"83", u16string(75, u'a') + u"=\r\naaaaa") +
                              Part(u"text/html; charset=iso-8859-1", u"12", u"<p>a=2Eb</p>"),
                          u"\r\n\r\n--" + kB1 + u"\r\nContent-Type: text/plain;name=\"a.txt\"\r\n"
                          u"Content-Transfer-Encoding: base64\r\n"
                          u"Content-Disposition: attachment;filename=\"a.txt\"\r\n"
                          u"Content-Length: 8\r\n\r\naGVsbG8=")));
    EXPECT_EQ(BoundaryCounterForTesting(), 3);  // two boundaries, no more
    detail::SetSystemTimerForTesting({});
}

// The standard format refuses the header values it cannot write when the text is built, before
// a file is made; AddHeader refuses at once and changes nothing. Each build has its own id.
TEST(StandardFormat, RefusesWhatItCannotWriteAndGivesEachBuildAMessageIdOfItsOwn) {
    test::TempDir dir;
    const std::string breaks = " holds a line break (CR or LF), which a header cannot carry.";
    const std::string ascii = "' holds a character that is not printable ASCII: a standard message "
                              "writes addresses and types in ASCII only.";
    const std::pair<std::function<void(MailMessage&)>, std::string> refused[] = {
        {[](MailMessage& m) { m.SubjectLine(u"a\r\nBcc: x"); }, "4020 The subject" + breaks},
        {[](MailMessage& m) { m.SenderName(u"\n"); }, "4020 The sender name" + breaks},
        {[](MailMessage& m) { m.AddBCCRecipient(u"d\r@x"); }, "4020 The Bcc address 'd\r@x'" + breaks},
        {[](MailMessage& m) { m.AddCCRecipient(u"ren\u00E9@x"); }, "4021 The Cc address 'ren\u00E9@x" + ascii},
        {[](MailMessage& m) { m.MimeType(u"text/plain\t"); }, "4021 The MIME type 'text/plain\t" + ascii},
        {[](MailMessage& m) { m.FromAddress(u16string(991, u'a')); },
         "4022 The From address is longer than a header line can hold (990 characters)."}};
    for (const auto& [set, fault] : refused) {
        MailMessage message;
        message.StandardFormat(true);
        message.AddRecipient(u"b@x");
        set(message);
        EXPECT_EQ(What([&] { message.SaveToFile(dir.File("m.eml")); }),
                  Fault(ERROR_BASE + std::stoi(fault), "Error in MailMessage.SaveToFile: " + fault.substr(5)));
        EXPECT_FALSE(fs::exists(dir.File("m.eml")));
    }
    MailMessage message;
    const std::string name = " is not a header field name: 1 to 76 printable ASCII characters "
                             "other than ':' and space.";
    const std::tuple<u16string, u16string, int32_t, std::string> headers[] = {
        {u"", u"", ERROR_HEADER_NAME, "''" + name}, {u"X Y", u"", ERROR_HEADER_NAME, "'X Y'" + name},
        {u16string(77, u'X'), u"", ERROR_HEADER_NAME, "'" + std::string(77, 'X') + "'" + name},
        {u"content-id", u"", ERROR_HEADER_NAME,
         "The message writes the header 'content-id' itself: it cannot be added."},
        {u"Message-Id", u"", ERROR_HEADER_NAME,
         "The message writes the header 'Message-Id' itself: it cannot be added."},
        {u"X-A", u"a\nb", ERROR_HEADER_LINE_BREAK, "The value of the header 'X-A'" + breaks}};
    for (const auto& [header, value, number, text] : headers)
        EXPECT_EQ(What([&] { message.AddHeader(header, value); }), Fault(number, text));
    EXPECT_FALSE(Access::Changed(message));
    // The domain of the From address names the id, unless it is no plain host name.
    message.StandardFormat(true);
    std::set<u16string> ids;
    for (auto from : {u"ann@example.org", u"ann@[127.0.0.1]"}) {
        message.FromAddress(from);
        for (int i = 0; i < 5000; ++i) {
            message.Body(u"x");
            const u16string& text = Build(message);
            const auto at = text.find(u"\r\nMessage-ID: <") + 15;
            ids.insert(text.substr(at, text.find(u'>', at) - at));
        }
    }
    EXPECT_EQ(ids.size(), 10000u);
    EXPECT_EQ(std::count_if(ids.begin(), ids.end(), [](const u16string& id) {
                  return id.size() == 42 && id.ends_with(u"@localhost");
              }), 5000);
}

// Failed calls change nothing, not even the cached text; a setter call or a removal drops it.
TEST(MailMessageLists, FailuresChangeNothingAndKeysAreTheExactTextApartFromCase) {
    MailMessage message;
    detail::SetBoundaryCounterForTesting(10);
    EXPECT_EQ(Build(message), u"");  // a new message has an empty text, and makes no boundary
    // Only the space character makes a recipient blank; spaces around one make another key.
    for (auto to : {u"\t", u" \r\n ", u"\u00A0", u" ann ", u"ann", u"b@x", u"ren\u00E9"})
        message.AddRecipient(to);
    message.AddCCRecipient(u"ann");  // the three lists are independent
    message.AddBCCRecipient(u"dan");
    const u16string copy = Build(message);
    const std::pair<std::function<void()>, std::string> failures[] = {
        {[&] { message.AddCCRecipient(u"   "); }, Fault(ERROR_BLANK_RECIPIENT, "Blank recipient")},
        {[&] { message.AddRecipient(u"REN\u00C9"); },
         Fault(ERROR_DUPLICATE_RECIPIENT, "'REN\u00C9' is already on the list")},
        {[&] { message.AddBCCRecipient(u"DAN"); },
         Fault(ERROR_DUPLICATE_RECIPIENT, "'DAN' is already on the list")},
        {[&] { message.RemoveRecipient(u"dan"); }, Fault(5, "Invalid procedure call or argument")},
        {[&] { message.RemoveCCRecipient(u"an"); }, Fault(5, "Invalid procedure call or argument")},
        {[&] { message.AddRecipient("\xFF"); }, Fault(5, "Invalid UTF-8 text", "Larkpost")},
        {[&] { message.AttachFile(u"/none/a"); },
         Fault(ERROR_FILE_NOT_FOUND, "File /none/a not found. Cannot attach to message.")}};
    for (const auto& [call, fault] : failures) EXPECT_EQ(What(call), fault);
    EXPECT_FALSE(Access::Changed(message));
    EXPECT_EQ(Build(message), copy);
    EXPECT_EQ(BoundaryCounterForTesting(), 12);  // served from the cache
    message.MimeType(message.MimeType());  // the value already held also counts as a change
    EXPECT_TRUE(Access::Changed(message));
    EXPECT_NE(Build(message), copy);
    message.RemoveRecipient(u"B@X");
    EXPECT_TRUE(Access::Changed(message));
    message.AddRecipient(u"b@x");  // to the end now
    message.RemoveCCRecipient(u"ANN");
    EXPECT_EQ(Items(Access::Recipients(message)),
              (Texts{u"\t", u" \r\n ", u"\u00A0", u" ann ", u"ann", u"ren\u00E9", u"b@x"}));
    EXPECT_EQ(Items(Access::CCRecipients(message)), Texts{});
    EXPECT_EQ(Items(Access::BCCRecipients(message)), Texts{u"dan"});
    // Keys fold the letters of Latin-1, Latin Extended-A, basic Greek and Cyrillic one to one.
    EXPECT_EQ(detail::FoldKeyCase(u"AZ@[\u00C0\u00DE\u00D7\u00DF\u0100\u014A\u0130\u0131\u017F"
                                  u"\u0178\u03A3\u03C2\u038F\u0401\u042F\uFF21"),
              u"az@[\u00E0\u00FE\u00D7\u00DF\u0101\u014B\u0130\u0131\u017F"
              u"\u00FF\u03C3\u03C3\u03CE\u0451\u044F\uFF21");
    // what() is a C string: a NUL of the description shows there as U+2400, the rest follows it.
    message.AddCCRecipient(u16string(u"n\0l", 3));
    const RaisedError nul = test::Raised([&] { message.AddCCRecipient(u16string(u"N\0L", 3)); });
    EXPECT_EQ(nul.Description(), u16string(u"'N\0L' is already on the list", 28));
    EXPECT_STREQ(nul.what(), "'N\u2400L' is already on the list");
}

TEST(AttachFile, FindsPlainFilesAndLinksToThemWithWildcardsInTheLastElement) {
    test::TempDir dir;
    MailMessage message;
    for (auto name : {"sub.dat", "x*"}) fs::create_directory(dir.File(name));
    for (auto name : {"a.txt", ".hid", ".s.txt", "x*/in", "\xF0\x9F\x98\x80.t", "c\r\n.\r\nMAIL", "d\x7F"})
        test::WriteFileBytes(dir.File(name), "");
    fs::create_symlink(dir.File("a.txt"), dir.File("link.txt"));
    ASSERT_EQ(::mkfifo(dir.File("fifo").c_str(), 0600), 0);
    // Stored as given, wildcards kept; an exact name finds a dot file; a surrogate pair is one "?".
    Texts found;
    for (auto name : {"a.txt", "/./a.txt", "link.txt", ".hid", "*.t*t", "l?nk.t*", ".*", "x*/in",
                      "?.t"}) {
        found.push_back(FromUtf8(dir.File(name)));
        message.AttachFile(found.back());
    }
    // No plain file; a wildcard meeting a directory, a dot file, another case; "[" is no class.
    for (const std::string& path :
         {std::string(), dir.Path() + "/", dir.File("sub.dat"), dir.File("missing.txt"),
          dir.File("fifo"), dir.File("*.dat"), dir.File("?s.txt"), dir.File("*.TXT"),
          dir.File("*/in"), dir.File("??.t"), dir.File("[a]?txt"), dir.File("c\r\n.\r\nMAIL"),
          dir.File("c*"), dir.File("d\x7F"), dir.File("d?")})  // control characters name no file
        EXPECT_EQ(What([&] { message.AttachFile(path); }),
                  Fault(ERROR_FILE_NOT_FOUND, "File " + path + " not found. Cannot attach to "
                                                               "message."));
    EXPECT_EQ(Items(Access::Attachments(message)), found);
}

// A file that fails at the build stops it: the first in list order is named, the old text stays,
// the boundaries are used up, no descriptor stays open. SaveToFile opens its file before that.
TEST(FileFailures, NameTheCauseAndLoseNothing) {
    ::alarm(60);  // a build or save blocked on a FIFO ends the test
    test::TempDir dir;
    const std::string victim = dir.File("victim"), pattern = dir.File("vic*");
    MailMessage message;
    for (const auto& path : {dir.File("good"), victim}) {
        test::WriteFileBytes(path, "first");
        message.AttachFile(path);
    }
    const u16string cached = Build(message);
    message.AttachFile(pattern);  // found now; the build opens the path as stored: no such file
    auto expectFails = [&](const std::function<void()>& call, const std::string& fault,
                           bool asNobody = false, int boundaries = 2) {
        const int descriptors = Descriptors(), counter = BoundaryCounterForTesting();
        EXPECT_EQ(What(call, asNobody), fault);
        EXPECT_EQ(Descriptors(), descriptors);
        EXPECT_TRUE(Access::Changed(message));
        EXPECT_EQ(Access::CachedMessage(message), cached);
        EXPECT_EQ(BoundaryCounterForTesting(), counter + boundaries);
    };
    auto attach = [](const std::string& path, const std::string& cause, const char* save = "") {
        return Fault(ERROR_ATTACHMENT_FAILED,
                     save + ("Error attaching file '" + path + "'. (Details: " + cause + ")"));
    };
    // What stands in the file's place decides the cause; a FIFO fails at once.
    const std::pair<std::string, std::function<void()>> kinds[] = {
        {"File not found", [] {}},
        {"Path/File access error", [&] { fs::create_directory(victim); }},
        {"Path/File access error", [&] { ASSERT_EQ(::mkfifo(victim.c_str(), 0600), 0); }},
        {"Path/File access error", [&] { fs::create_symlink(victim, victim); }}};
    for (const auto& [cause, make] : kinds) {
        fs::remove(victim);
        make();
        expectFails([&] { Build(message); }, attach(victim, cause));
    }
    // A failed build in SaveToFile leaves an existing file as it was, and a new one empty.
    test::WriteFileBytes(dir.File("kept"), "precious");
    for (auto path : {dir.File("kept"), dir.File("new")})
        expectFails([&] { message.SaveToFile(path); },
                    attach(victim, "Path/File access error", "Error in MailMessage.SaveToFile: "));
    EXPECT_EQ(test::ReadFileBytes(dir.File("kept")), "precious");
    EXPECT_EQ(test::ReadFileBytes(dir.File("new")), "");
    fs::remove(victim);
    test::WriteFileBytes(victim, "back");
    expectFails([&] { Build(message); }, attach(pattern, "File not found"));
    // Paths that cannot be opened fail before the build; a FIFO that nobody reads at once.
    fs::permissions(dir.Path(), fs::perms::owner_all | fs::perms::others_exec);
    fs::create_directory(dir.File("ro"));
    fs::permissions(dir.File("ro"), fs::perms::owner_read | fs::perms::owner_exec);
    ASSERT_EQ(::mkfifo(dir.File("fifo").c_str(), 0600), 0);
    const std::string access = "Path/File access error", badName = "Bad file name or number";
    const std::tuple<std::string, int32_t, std::string> paths[] = {
        {dir.File("none/m"), 76, "Path not found"}, {dir.File("kept/m"), 76, "Path not found"},
        {dir.File("ro/m"), 70, "Permission denied"}, {dir.File("n/"), 75, access},
        {dir.File("fifo"), 75, access}, {"", 52, badName}, {std::string("a\0b", 3), 52, badName},
        {dir.File("a\r\nb"), 52, badName}};
    for (const auto& [path, number, cause] : paths)
        expectFails([&] { message.SaveToFile(FromUtf8(path)); },
                    Fault(number, "Error in MailMessage.SaveToFile: " + cause), number == 70, 0);
    // A device is written, not truncated; a full one fails the write after the build, which stays.
    MailMessage other;
    other.SubjectLine(u"x");
    const int descriptors = Descriptors();
    other.SaveToFile(u"/dev/null");
    EXPECT_EQ(What([&] { other.SaveToFile(u"/dev/full"); }),
              Fault(61, "Error in MailMessage.SaveToFile: Disk full"));
    EXPECT_FALSE(Access::Changed(other));
    EXPECT_EQ(Descriptors(), descriptors);
    ::alarm(0);
}

// A file step that the system fails reaches the host with its number, from the step that failed;
// a save that fails leaves the old file whole and nothing beside it; once the fault is gone the
// same message saves.
TEST(FileFailures, EachInjectedStepFailsWithItsNumber) {
    using detail::FileStep;
    test::TempDir dir;
    const std::string file = dir.File("a.txt"), save = "Error in MailMessage.SaveToFile: ";
    const std::string attach = save + "Error attaching file '" + file + "'. (Details: ";
    const std::string target = dir.File("m.eml"), old(100000, 'o');
    test::WriteFileBytes(file, "attached");
    const std::tuple<FileStep, int, int, std::string> faults[] = {  // step, its nth call, errno
        {FileStep::Open, 1, EACCES, Fault(70, save + "Permission denied")},
        {FileStep::Open, 2, EMFILE, Fault(ERROR_ATTACHMENT_FAILED, attach + "Too many files)")},
        {FileStep::Open, 3, ENOENT, Fault(ERROR_ATTACHMENT_FAILED, attach + "File not found)")},
        {FileStep::Read, 1, EIO, Fault(ERROR_ATTACHMENT_FAILED, attach + "Device I/O error)")},
        {FileStep::Write, 1, ENOSPC, Fault(61, save + "Disk full")},
        {FileStep::Write, 1, EFBIG, Fault(75, save + "Path/File access error")},
        {FileStep::Close, 1, EIO, Fault(57, save + "Device I/O error")},
        {FileStep::Replace, 1, EACCES, Fault(70, save + "Permission denied")},
        {FileStep::Search, 1, EIO,
         Fault(ERROR_FILE_NOT_FOUND, "File " + file + " not found. Cannot attach to message.")}};
    for (const auto& [step, nth, err, fault] : faults) {
        MailMessage message;
        if (step != FileStep::Search) message.AttachFile(file);
        test::WriteFileBytes(target, old);
        int seen = 0;
        detail::SetFileFaultForTesting([&](FileStep s) { return s == step && ++seen == nth ? err : 0; });
        EXPECT_EQ(What([&] {
                      if (step == FileStep::Search) message.AttachFile(file);
                      else message.SaveToFile(target);
                  }),
                  fault);
        detail::SetFileFaultForTesting({});
        EXPECT_EQ(test::ReadFileBytes(target), old);
        EXPECT_EQ(std::distance(fs::directory_iterator(dir.Path()), {}), 2);
        message.AttachFile(file);
        message.SaveToFile(target);
        EXPECT_NE(test::ReadFileBytes(target).find("YXR0YWNoZWQ="), std::string::npos);
    }
    // Where no file can be made beside it, a regular file is written in place and cut to length.
    // A replaced file keeps its permissions, and a link stays a link.
    MailMessage small;
    fs::permissions(target, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
    fs::create_symlink(target, dir.File("link"));
    for (const std::string& path : {target, dir.File("link")}) {
        test::WriteFileBytes(target, old);
        int opens = 0;
        detail::SetFileFaultForTesting([&](FileStep s) {
            return s == FileStep::Open && ++opens == 2 && path == target ? EACCES : 0;
        });
        small.SaveToFile(path);
        detail::SetFileFaultForTesting({});
        EXPECT_EQ(test::ReadFileBytes(target), detail::ToAnsi(Build(small)));
    }
    EXPECT_TRUE(fs::is_symlink(dir.File("link")));
    EXPECT_EQ(fs::status(target).permissions(),
              fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
    // A file that shrinks while it is read fails; it is not padded.
    MailMessage shrinking;
    shrinking.AttachFile(file);
    detail::SetFileFaultForTesting([&](FileStep s) {
        if (s == FileStep::Read) fs::resize_file(file, 3);
        return 0;
    });
    EXPECT_EQ(What([&] { Build(shrinking); }),
              Fault(ERROR_ATTACHMENT_FAILED, "Error attaching file '" + file +
                                                 "'. (Details: The file changed while it was read.)"));
    detail::SetFileFaultForTesting({});
}

}  // namespace
}  // namespace larkpost
