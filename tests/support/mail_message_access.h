// Test access to the members of MailMessage that only the library's own classes may call.
#ifndef LARKPOST_TESTS_MAIL_MESSAGE_ACCESS_H
#define LARKPOST_TESTS_MAIL_MESSAGE_ACCESS_H

#include <memory>
#include <string>

#include "larkpost/mail_message.h"
#include "message/keyed_collection.h"

namespace larkpost::detail {

struct MailMessageAccess {
    static std::shared_ptr<KeyedCollection> Recipients(const MailMessage& m) {
        return m.Recipients();
    }
    static std::shared_ptr<KeyedCollection> CCRecipients(const MailMessage& m) {
        return m.CCRecipients();
    }
    static std::shared_ptr<KeyedCollection> BCCRecipients(const MailMessage& m) {
        return m.BCCRecipients();
    }
    static std::shared_ptr<KeyedCollection> Attachments(const MailMessage& m) {
        return m.Attachments();
    }
    static const std::u16string& BuildMessage(MailMessage& m) { return m.BuildMessage(); }
    // The change flag and the cache, for checking what an operation leaves behind.
    static bool Changed(const MailMessage& m) { return m.m_changed; }
    static const std::u16string& CachedMessage(const MailMessage& m) { return *m.m_cachedMessage; }
};

}  // namespace larkpost::detail

#endif
