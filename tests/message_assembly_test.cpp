// The MIME assembly: the exact text of each row group, the cache, and what Python reads back.
#include <gtest/gtest.h>

#include <string>

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

// The text as the wire and the file see it: one code-page byte per character.
test::ParsedMime Parse(const std::u16string& text) { return test::ParseMime(detail::ToAnsi(text)); }

const std::u16string& kEntityHead = test::kFixedEntityHead;
const std::u16string kEntityTail = test::kFixedAlternativeClose + test::kFixedMixedClose;

TEST(MimeAssembly, WorkedExampleCharacterForCharacter) {
    test::FixedBoundaries fixed;
    MailMessage message;
    message.SubjectLine(u"Hello");
    message.FromAddress(u"ann");
    message.SenderName(u"Ann Lee");
    message.AddRecipient(u"bob");
    message.AddRecipient(u"cid");
    message.Body(u"Hi there.\r\n");
    const std::u16string expected =
        u"Subject: Hello\r\n"
        u"From: \"Ann Lee\" <ann>\r\n"
        u"To: bob;cid\r\n"
        u"Content-Type: multipart/mixed;boundary=\"--=-MessageBoundary_1_360005\"\r\n"
        u"MIME-Version: 1.0\r\n"
        u"\r\n"
        u"\r\n"
        u"----=-MessageBoundary_1_360005\r\n"
        u"Content-Type: multipart/alternative;boundary=\"--=-MessageBoundary_2_360005\"\r\n"
        u"MIME-Version: 1.0\r\n"
        u"\r\n"
        u"\r\n"
        u"\r\n"
        u"----=-MessageBoundary_2_360005\r\n"
        u"Content-Type: text/plain\r\n"
        u"Content-Transfer-Encoding: quoted-printable\r\n"
        u"Content-Length: 19\r\n"
        u"\r\n"
        u"Hi=20there=2E=0D=0A\r\n"
        u"\r\n"
        u"----=-MessageBoundary_2_360005--\r\n"
        u"\r\n"
        u"\r\n"
        u"----=-MessageBoundary_1_360005--\r\n";
    const std::u16string& text = Build(message);
    EXPECT_EQ(Utf8(text), Utf8(expected));
    EXPECT_EQ(text.size(), 500u);
    EXPECT_EQ(detail::BoundaryCounterForTesting(), 3);  // two boundaries, no more
}

TEST(MimeAssembly, NoBodiesGiveAnEmptyAlternativeEntity) {
    test::FixedBoundaries fixed;
    MailMessage message;
    message.FromAddress(u"ann@x");
    EXPECT_EQ(Utf8(Build(message)), Utf8(u"Subject: \r\nFrom: ann@x\r\nTo: \r\n" + kEntityHead +
                                         kEntityTail));
}

TEST(MimeAssembly, HtmlOnlyStandsBehindThreeBlankLinesWithItsFixedType) {
    test::FixedBoundaries fixed;
    MailMessage message;
    message.MimeType(u"text/enriched");  // applies to the plain body alone
    message.BodyHTML(u"<p>a.b</p>");
    EXPECT_EQ(Utf8(Build(message)),
              Utf8(u"Subject: \r\nFrom: \r\nTo: \r\n" + kEntityHead +
                   u"\r\n\r\n----=-MessageBoundary_2_360005\r\n"
                   u"Content-Type: text/html; charset=iso-8859-1\r\n"
                   u"Content-Transfer-Encoding: quoted-printable\r\n"
                   u"Content-Length: 12\r\n"
                   u"\r\n"
                   u"<p>a=2Eb</p>" +
                   kEntityTail));
}

TEST(MimeAssembly, BothBodiesCcBccAndABareAddress) {
    test::FixedBoundaries fixed;
    MailMessage message;
    message.SubjectLine(u"S");
    message.FromAddress(u"ann@x");
    message.AddRecipient(u"a");
    message.AddRecipient(u" b ");
    message.AddCCRecipient(u"c");
    message.AddBCCRecipient(u"d");
    message.AddBCCRecipient(u"e");
    message.Body(u"x y");
    message.BodyHTML(u"=");
    EXPECT_EQ(Utf8(Build(message)),
              Utf8(u"Subject: S\r\nFrom: ann@x\r\nTo: a; b \r\nCc: c\r\nBcc: d;e\r\n" + kEntityHead +
                   u"\r\n\r\n----=-MessageBoundary_2_360005\r\n"
                   u"Content-Type: text/plain\r\n"
                   u"Content-Transfer-Encoding: quoted-printable\r\n"
                   u"Content-Length: 5\r\n"
                   u"\r\n"
                   u"x=20y"
                   u"\r\n\r\n----=-MessageBoundary_2_360005\r\n"
                   u"Content-Type: text/html; charset=iso-8859-1\r\n"
                   u"Content-Transfer-Encoding: quoted-printable\r\n"
                   u"Content-Length: 3\r\n"
                   u"\r\n"
                   u"=3D" +
                   kEntityTail));
}

TEST(MimeAssembly, OnlyTheListsThatHoldAddressesGetALine) {
    MailMessage message;
    message.AddCCRecipient(u"c");
    std::u16string text = Build(message);
    EXPECT_NE(text.find(u"\r\nTo: \r\nCc: c\r\nContent-Type: multipart/mixed"), std::u16string::npos);
    EXPECT_EQ(text.find(u"Bcc:"), std::u16string::npos);
    message.RemoveCCRecipient(u"c");
    message.AddBCCRecipient(u"d");
    text = Build(message);
    EXPECT_NE(text.find(u"\r\nTo: \r\nBcc: d\r\nContent-Type: multipart/mixed"), std::u16string::npos);
    EXPECT_EQ(text.find(u"Cc:"), std::u16string::npos);
}

TEST(MimeAssembly, SenderValuesAreWrittenUnescaped) {
    MailMessage message;
    message.SenderName(u"Ann \"the\" Lee");
    EXPECT_TRUE(Build(message).starts_with(u"Subject: \r\nFrom: \"Ann \"the\" Lee\" <>\r\nTo: \r\nC"));
    message.FromAddress(u"a@x");
    message.SubjectLine(u"caf\u00E9 \u4E2D");  // no encoded words: the value as it stands
    EXPECT_TRUE(Build(message).starts_with(
        u"Subject: caf\u00E9 \u4E2D\r\nFrom: \"Ann \"the\" Lee\" <a@x>\r\nTo: \r\n"));
}

TEST(MimeAssembly, MimeTypeGoesIntoThePlainPartUnchanged) {
    MailMessage message;
    message.Body(u"b");
    message.MimeType(u"");
    EXPECT_NE(Build(message).find(u"\r\nContent-Type: \r\nContent-Transfer-Encoding: quoted-printable"),
              std::u16string::npos);
    message.MimeType(u"text/html");
    message.BodyHTML(u"h");
    test::ParsedMime parsed = Parse(Build(message));
    EXPECT_EQ(parsed.structure, "multipart/mixed(multipart/alternative(text/html,text/html))");
}

TEST(MimeAssembly, LengthCountsSoftBreaksOfTheEncodedText) {
    MailMessage message;
    message.Body(std::u16string(200, u'a'));
    const std::u16string& text = Build(message);
    EXPECT_NE(text.find(u"Content-Length: 206\r\n\r\n" + std::u16string(75, u'a') + u"=\r\n"),
              std::u16string::npos);
}

TEST(MimeAssembly, TheCacheServesUntilSomethingChanges) {
    MailMessage message;
    message.AddRecipient(u"bob");
    message.Body(u"one");
    const std::u16string& first = Build(message);
    const std::u16string copy = first;
    int16_t counter = detail::BoundaryCounterForTesting();
    const std::u16string& second = Build(message);
    EXPECT_EQ(&first, &second);  // the cached text itself
    EXPECT_EQ(second, copy);
    EXPECT_EQ(detail::BoundaryCounterForTesting(), counter);
    // A failed operation changes nothing, so the cache still serves.
    test::CaptureError([&] { message.AddRecipient(u"BOB"); });
    test::CaptureError([&] { message.AttachFile(u"/nonexistent/file.txt"); });
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
    test::ParsedMime parsed = Parse(Build(message));
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
