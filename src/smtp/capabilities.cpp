// EHLO and the capabilities the server announces in its reply.
#include <vector>

#include "net/tcp_stream_impl.h"
#include "platform/errors.h"
#include "platform/impl_access.h"
#include "smtp/ehlo_domain.h"
#include "smtp/mail_client_impl.h"
#include "smtp/smtp_reply.h"
#include "smtp/smtp_response.h"

namespace larkpost::detail {

namespace {

constexpr std::size_t kCodeAndSeparator = 4;

// Keywords are ASCII; no character of the code page upper-cases to an ASCII letter, so ASCII
// folding recognises exactly what a full upper-casing would.
std::u16string AsciiUpper(std::u16string_view text) {
    std::u16string upper(text);
    for (char16_t& c : upper) {
        if (c >= u'a' && c <= u'z') c = static_cast<char16_t>(c - u'a' + u'A');
    }
    return upper;
}

// Splits at every single space: two spaces in a row give an empty piece, the empty text none.
std::vector<std::u16string_view> SplitAtSpaces(std::u16string_view text) {
    std::vector<std::u16string_view> pieces;
    if (text.empty()) return pieces;
    std::size_t start = 0;
    for (;;) {
        const std::size_t space = text.find(u' ', start);
        pieces.push_back(text.substr(start, space - start));
        if (space == std::u16string_view::npos) break;
        start = space + 1;
    }
    return pieces;
}

}  // namespace

void MailClientImpl::NegotiateCapabilities() {
    const SmtpResponse reply = SendCommandChecked(u"EHLO " + EhloName());
    // A one-line reply announces nothing, and what an earlier session learnt stays.
    if (reply.LineStarts.size() < 2) return;

    m_capabilities = 0;
    m_extensionCapabilities = 0;
    // The first line carries the server's name, not a keyword.
    for (std::size_t i = 1; i < reply.LineStarts.size(); ++i) RecordCapability(reply.Line(i));
}

void MailClientImpl::RecordCapability(std::u16string_view keywordLine) {
    const std::u16string_view afterCode = keywordLine.size() > kCodeAndSeparator
                                              ? keywordLine.substr(kCodeAndSeparator)
                                              : std::u16string_view();
    const std::u16string upper = AsciiUpper(afterCode);
    const std::vector<std::u16string_view> pieces = SplitAtSpaces(upper);
    if (pieces.empty()) return;

    const std::u16string_view keyword = pieces[0];
    if (keyword == u"AUTH") {
        for (std::size_t i = 1; i < pieces.size(); ++i) {
            if (pieces[i] == u"LOGIN")
                m_capabilities |= CAP_AUTH_LOGIN;
            else if (pieces[i] == u"PLAIN")
                m_capabilities |= CAP_AUTH_PLAIN;
            else if (pieces[i] == u"XOAUTH2")
                m_extensionCapabilities |= kCapAuthXOAuth2;
        }
    } else if (keyword == u"STARTTLS") {
        m_extensionCapabilities |= kCapStartTls;
    } else if (keyword == u"8BITMIME") {
        m_capabilities |= CAP_8BITMIME;
    } else if (keyword == u"PIPELINING") {
        m_capabilities |= CAP_PIPELINING;
    } else if (keyword == u"SIZE") {
        m_capabilities |= CAP_SIZE;
        if (pieces.size() < 2) {
            Raise(ERROR_INVALID_SIZE_VALUE,
                  u"Server sent back an invalid value for SIZE extension.", kSourceMailClient);
        }
        m_maxMessageSize = ParseWholeNumber(pieces[1]);
    }
}

std::u16string MailClientImpl::EhloName() {
    std::u16string hostName = m_stream.LocalHostName();
    if (!hostName.empty()) return hostName;
    return EhloDomain(std::move(hostName), ImplAccess::Of(m_stream).LocalIP());
}

}  // namespace larkpost::detail
