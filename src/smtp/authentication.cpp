// Logging in at the end of Connect: AUTH LOGIN, or AUTH PLAIN when the server offers only that;
// AUTH XOAUTH2 for an access token.
#include "encoding/base64.h"
#include "platform/errors.h"
#include "smtp/mail_client_impl.h"
#include "smtp/smtp_response.h"

namespace larkpost::detail {

namespace {
// What a dialogue watcher hears in place of a login token.
constexpr char16_t kHiddenToken[] = u"(login token hidden)";

// False when neither is given (no login); raises when only one is. `what` names the secret
// ("a password"). Only the empty string counts as missing: a single space is a credential.
bool WantsLogin(const std::u16string& user, const std::u16string& secret,
                std::u16string_view what) {
    if (user.empty() && secret.empty()) return false;
    if (secret.empty()) {
        Raise(ERROR_CREDENTIALS_INCOMPLETE,
              u"You supplied a username, but you need " + std::u16string(what) + u" as well.",
              kSourceMailClient);
    }
    if (user.empty()) {
        Raise(ERROR_CREDENTIALS_INCOMPLETE,
              u"You supplied " + std::u16string(what) + u", but you need a username as well.",
              kSourceMailClient);
    }
    return true;
}
}  // namespace

void MailClientImpl::Authenticate(const std::u16string& Username, const std::u16string& Password) {
    if (!WantsLogin(Username, Password, u"a password")) return;

    if (HasCapability(CAP_AUTH_LOGIN)) {
        AuthenticateLogin(Username, Password);
    } else if (HasCapability(CAP_AUTH_PLAIN)) {
        AuthenticatePlain(Username, Password);
    } else {
        Raise(
            ERROR_AUTH_UNSUPPORTED,
            u"The mail server does not support the AUTH LOGIN or AUTH PLAIN authenication schemes.",
            kSourceMailClient);
    }
}

// The lines go out in their fixed order whatever the prompts say; only the last reply counts.

void MailClientImpl::AuthenticateLogin(const std::u16string& Username,
                                       const std::u16string& Password) {
    const SmtpResponse start = SendCommand(u"AUTH LOGIN");
    // Strict: a refusal of the scheme itself ends the exchange before any credential goes out.
    if (m_strict && start.IsError) Raise(ERROR_AUTH_FAILED, start.Text, kSourceMailClient);
    SendCommandShown(Base64Encode(Username), kHiddenToken);
    const SmtpResponse reply = SendCommandShown(Base64Encode(Password), kHiddenToken);
    if (reply.IsError) Raise(ERROR_AUTH_FAILED, reply.Text, kSourceMailClient);
}

void MailClientImpl::AuthenticatePlain(const std::u16string& Username,
                                       const std::u16string& Password) {
    // RFC 4616 with an empty authorisation identity: NUL, user name, NUL, password.
    std::u16string token;
    token.reserve(Username.size() + Password.size() + 2);
    token.append(1, u'\0').append(Username).append(1, u'\0').append(Password);

    const SmtpResponse start = SendCommand(u"AUTH PLAIN");
    // Strict: the token holds the password; it does not follow a refusal of the scheme.
    const SmtpResponse& reply =
        m_strict && start.IsError ? start : SendCommandShown(Base64Encode(token), kHiddenToken);
    if (reply.IsError) {
        Raise(ERROR_AUTH_FAILED,
              u"The mail server could not authenticate you. It replied with '" + reply.Text + u"'",
              kSourceMailClient);
    }
}

void MailClientImpl::AuthenticateToken(const std::u16string& Username,
                                       const std::u16string& AccessToken) {
    if (!WantsLogin(Username, AccessToken, u"an access token")) return;
    if (!(m_extensionCapabilities & kCapAuthXOAuth2)) {
        Raise(ERROR_TOKEN_LOGIN_UNAVAILABLE, u"The mail server does not offer AUTH XOAUTH2.",
              kSourceMailClient);
    }
    // The initial response: "user=" name ^A "auth=Bearer " token ^A ^A.
    constexpr char16_t kSeparator = u'\x01';
    std::u16string initial = u"user=" + Username;
    initial.append(1, kSeparator).append(u"auth=Bearer ").append(AccessToken);
    initial.append(2, kSeparator);
    SmtpResponse reply = SendCommand(u"AUTH XOAUTH2 " + Base64Encode(initial));
    // A refusal comes as a challenge holding the details; an empty line asks for the verdict.
    if (reply.Code == 334) {
        const std::u16string details = reply.Text;
        reply = SendCommand(u"");
        reply.Text.insert(0, details);
    }
    if (reply.Code / 100 != 2) {
        Raise(ERROR_TOKEN_REFUSED, u"The mail server refused the access token: " + reply.Text,
              kSourceMailClient);
    }
}

}  // namespace larkpost::detail
