// Test access to the members of MailMessage that only the library's own classes may call.
#ifndef LARKPOST_TESTS_MAIL_MESSAGE_ACCESS_H
#define LARKPOST_TESTS_MAIL_MESSAGE_ACCESS_H

#include "larkpost/mail_message.h"
#include "message/mail_message_impl.h"
#include "platform/codepage.h"
#include "platform/impl_access.h"

namespace larkpost::detail {
struct MailMessageAccess {
    using List = std::shared_ptr<KeyedCollection>;
    static MailMessageImpl& Of(const MailMessage& m) { return ImplAccess::Of(m); }
    static List Recipients(const MailMessage& m) { return Of(m).recipients; }
    static List CCRecipients(const MailMessage& m) { return Of(m).ccRecipients; }
    static List BCCRecipients(const MailMessage& m) { return Of(m).bccRecipients; }
    static List Attachments(const MailMessage& m) { return Of(m).attachments; }
    // The built text as it goes out (code-page bytes), and as 16-bit text.
    static const std::string& BuildBytes(MailMessage& m) { return Of(m).BuildMessage(); }
    static std::u16string BuildMessage(MailMessage& m) { return FromAnsi(BuildBytes(m)); }
    // The change flag and the cached text, for checking what an operation leaves behind.
    static bool Changed(const MailMessage& m) { return Of(m).changed; }
    static std::u16string CachedMessage(const MailMessage& m) {
        return FromAnsi(*Of(m).cachedMessage);
    }
};
}  // namespace larkpost::detail

#endif
