// The MIME assembly: the exact text of each row group, the cache, and what Python reads back.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "larkpost/mail_message.h"
#include "platform/codepage.h"
#include "support/mail_message_access.h"
#include "support/message_testing.h"
#include "support/mime_parse.h"

namespace larkpost {
namespace {

using detail::MailMessageAccess;
using test::Utf8;

const std::u16string& Build(MailMessage& message) {
    return MailMessageAccess::BuildMessage(message);
}

// With fixed boundaries: the rows of one body part of the alternative entity, then its text.
std::u16string Part(std::u16string_view type, std::u16string_view length,
                    std::u16string_view text) {
    return u"\r\n\r\n----=-MessageBoundary_2_360005\r\nContent-Type: " + std::u16string(type) +
           u"\r\nContent-Transfer-Encoding: quoted-printable\r\nContent-Length: " +
           std::u16string(length) + u"\r\n\r\n" + std::u16string(text);
}
const std::u16string kHtmlType = u"text/html; charset=iso-8859-1";
const std::u16string kTail = test::kFixedAlternativeClose + test::kFixedMixedClose;
// The text of a message whose To (or Bcc) line ends `headers` and whose bodies give `parts`.
std::u16string Text(const std::u16string& headers, const std::u16string& parts = u"") {
    return headers + test::kFixedEntityHead + parts + kTail;
}

// A message's fields (in the order the setters are called) and its expected text.
struct ExactCase {
    const char* name;
    std::u16string subject{}, from{}, sender{};
    std::vector<std::u16string> to{}, cc{}, bcc{};
    std::u16string body{}, html{};
    std::optional<std::u16string> mimeType{};
    std::u16string expected;
};

TEST(MimeAssembly, EveryRowGroupCharacterForCharacter) {
    const std::u16string none = u"Subject: \r\nFrom: \r\nTo: \r\n", a75(75, u'a');
    const ExactCase cases[] = {
        {.name = "worked example", .subject = u"Hello", .from = u"ann", .sender = u"Ann Lee",
         .to = {u"bob", u"cid"}, .body = u"Hi there.\r\n",
         .expected = Text(u"Subject: Hello\r\nFrom: \"Ann Lee\" <ann>\r\nTo: bob;cid\r\n",
                          Part(u"text/plain", u"19", u"Hi=20there=2E=0D=0A"))},
        {.name = "no bodies give an empty alternative entity", .from = u"ann@x",
         .expected = Text(u"Subject: \r\nFrom: ann@x\r\nTo: \r\n")},
        {.name = "HTML alone; MimeType concerns the plain body only", .html = u"<p>a.b</p>",
         .mimeType = u"text/enriched", .expected = Text(none, Part(kHtmlType, u"12", u"<p>a=2Eb</p>"))},
        {.name = "both bodies, Cc, Bcc, addresses with spaces", .subject = u"S", .from = u"ann@x",
         .to = {u"a", u" b "}, .cc = {u"c"}, .bcc = {u"d", u"e"}, .body = u"x y", .html = u"=",
         .expected = Text(u"Subject: S\r\nFrom: ann@x\r\nTo: a; b \r\nCc: c\r\nBcc: d;e\r\n",
                          Part(u"text/plain", u"5", u"x=20y") + Part(kHtmlType, u"3", u"=3D"))},
        {.name = "Cc alone", .cc = {u"c"}, .expected = Text(none + u"Cc: c\r\n")},
        {.name = "Bcc alone", .bcc = {u"d"}, .expected = Text(none + u"Bcc: d\r\n")},
        {.name = "a sender name without an address", .sender = u"Ann \"the\" Lee",
         .expected = Text(u"Subject: \r\nFrom: \"Ann \"the\" Lee\" <>\r\nTo: \r\n")},
        {.name = "values unescaped, no encoded words", .subject = u"caf\u00E9 \u4E2D", .from = u"a@x",
         .sender = u"Ann \"the\" Lee",
         .expected = Text(u"Subject: caf\u00E9 \u4E2D\r\nFrom: \"Ann \"the\" Lee\" <a@x>\r\nTo: \r\n")},
        {.name = "an empty MimeType", .body = u"b", .mimeType = u"",
         .expected = Text(none, Part(u"", u"1", u"b"))},
        {.name = "MimeType text/html", .body = u"b", .html = u"h", .mimeType = u"text/html",
         .expected = Text(none, Part(u"text/html", u"1", u"b") + Part(kHtmlType, u"1", u"h"))},
        {.name = "the length counts the soft line breaks", .body = std::u16string(200, u'a'),
         .expected = Text(none, Part(u"text/plain", u"206",
                                     a75 + u"=\r\n" + a75 + u"=\r\n" + std::u16string(50, u'a')))},
    };
    for (const ExactCase& c : cases) {
        SCOPED_TRACE(c.name);
        test::FixedBoundaries fixed;
        MailMessage message;
        message.SubjectLine(c.subject);
        message.FromAddress(c.from);
        message.SenderName(c.sender);
        for (const auto& address : c.to) message.AddRecipient(address);
        for (const auto& address : c.cc) message.AddCCRecipient(address);
        for (const auto& address : c.bcc) message.AddBCCRecipient(address);
        message.Body(c.body);
        message.BodyHTML(c.html);
        if (c.mimeType) message.MimeType(*c.mimeType);
        EXPECT_EQ(Utf8(Build(message)), Utf8(c.expected));
        EXPECT_EQ(detail::BoundaryCounterForTesting(), 3);  // two boundaries, no more
    }
    EXPECT_EQ(cases[0].expected.size(), 500u);
}

TEST(MimeAssembly, TheCacheServesUntilSomethingChanges) {
    MailMessage message;
    message.AddRecipient(u"bob");
    message.Body(u"one");
    const std::u16string& first = Build(message);
    const std::u16string copy = first;
    int16_t counter = detail::BoundaryCounterForTesting();
    EXPECT_EQ(&Build(message), &first);  // the cached text itself
    EXPECT_EQ(first, copy);
    // A failed operation changes nothing, so the cache still serves.
    test::CaptureError([&] { message.AddRecipient(u"BOB"); });
    test::CaptureError([&] { message.AttachFile(u"/nonexistent/file.txt"); });
    EXPECT_FALSE(MailMessageAccess::Changed(message));
    EXPECT_EQ(MailMessageAccess::Attachments(message)->Count(), 0);
    EXPECT_EQ(Build(message), copy);
    EXPECT_EQ(detail::BoundaryCounterForTesting(), counter);
    message.Body(u"one");
    EXPECT_NE(Build(message), copy);
    EXPECT_EQ(detail::BoundaryCounterForTesting(), counter + 2);
}

TEST(MimeAssembly, PythonReadsTheHeadersAndBothBodiesBack) {
    MailMessage message;
    message.SubjectLine(u"Report");
    message.FromAddress(u"ann@example.org");
    message.SenderName(u"Ann Lee");
    message.AddRecipient(u"bob@example.org");
    message.AddRecipient(u"cid@example.org");
    message.AddCCRecipient(u"dan@example.org");
    message.AddBCCRecipient(u"eve@example.org");
    // Dots at line starts, trailing blanks, long lines, characters of the code page above 127.
    std::u16string body = u".\r\n..leading dots\r\ntrailing blanks  \t\r\nFrom here\r\n";
    body += std::u16string(300, u'x') + u"\r\ncaf\u00E9 \u20AC 100\r\n";
    message.Body(body);
    message.BodyHTML(u"<html><body><p>caf\u00E9 = caf&eacute;.</p></body></html>");
    test::ParsedMime parsed = test::ParseMime(detail::ToAnsi(Build(message)));
    EXPECT_TRUE(parsed.defects.empty());
    EXPECT_EQ(parsed.HeaderNames(), (std::vector<std::string>{"Subject", "From", "To", "Cc", "Bcc",
                                                               "Content-Type", "MIME-Version"}));
    EXPECT_EQ(parsed.Header("From"), "\"Ann Lee\" <ann@example.org>");
    EXPECT_EQ(parsed.Header("To"), "bob@example.org;cid@example.org");
    EXPECT_EQ(parsed.Header("Bcc"), "eve@example.org");
    EXPECT_EQ(parsed.structure, "multipart/mixed(multipart/alternative(text/plain,text/html))");
    ASSERT_EQ(parsed.parts.size(), 2u);
    // The line end that closes the encoded text is a real line break to a reader, so each body
    // comes back with one CR LF more.
    EXPECT_EQ(parsed.parts[0].payload, detail::ToAnsi(body) + "\r\n");
    EXPECT_EQ(parsed.parts[1].payload, detail::ToAnsi(message.BodyHTML()) + "\r\n");
    EXPECT_EQ(parsed.parts[1].charset, "iso-8859-1");
    for (const auto& part : parsed.parts) {
        EXPECT_EQ(part.transferEncoding, "quoted-printable");
        ASSERT_TRUE(part.contentLength);
        EXPECT_EQ(std::stoul(*part.contentLength) + 2, part.rawLength);
    }
}

}  // namespace
}  // namespace larkpost
