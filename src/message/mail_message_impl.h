// MailMessageImpl: what a MailMessage holds (its six texts, four lists, its added headers and
// format, the change flag and the text of its last assembly) and what the client reads of it.
#ifndef LARKPOST_MESSAGE_MAIL_MESSAGE_IMPL_H
#define LARKPOST_MESSAGE_MAIL_MESSAGE_IMPL_H

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "message/keyed_collection.h"

namespace larkpost::detail {

struct MailMessageImpl {
    std::u16string fromAddress;
    std::u16string senderName;
    std::u16string subjectLine;
    std::u16string body;
    std::u16string bodyHTML;
    std::u16string mimeType = u"text/plain";
    std::shared_ptr<KeyedCollection> recipients = std::make_shared<KeyedCollection>();
    std::shared_ptr<KeyedCollection> ccRecipients = std::make_shared<KeyedCollection>();
    std::shared_ptr<KeyedCollection> bccRecipients = std::make_shared<KeyedCollection>();
    std::shared_ptr<KeyedCollection> attachments = std::make_shared<KeyedCollection>();
    std::vector<std::pair<std::u16string, std::u16string>> addedHeaders;
    bool standardFormat = false;
    // The text of the last assembly in the code page, one byte a character: the bytes the socket
    // and the file writer take, so neither converts or copies it.
    std::shared_ptr<const std::string> cachedMessage = std::make_shared<const std::string>();
    bool changed = false;

    // The whole message text, from the cache while nothing has changed since the last build.
    const std::string& BuildMessage() { return *BuildMessageText(); }
    // The same text, shared: a holder keeps it alive even when the message is rebuilt meanwhile.
    std::shared_ptr<const std::string> BuildMessageText();

    void AddTo(KeyedCollection& list, const std::u16string& Recipient);
    void RemoveFrom(KeyedCollection& list, const std::u16string& Recipient);
};

}  // namespace larkpost::detail

#endif
