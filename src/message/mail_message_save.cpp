// MailMessage.SaveToFile: the message text, in code-page bytes, as the whole content of a file.
#include <string>

#include "larkpost/error.h"
#include "larkpost/mail_message.h"
#include "larkpost/text.h"
#include "message/mail_message_impl.h"
#include "platform/errors.h"
#include "platform/file_errors.h"
#include "platform/files.h"

namespace larkpost {

void MailMessage::SaveToFile(const std::u16string& FileSpec) {
    try {
        // A standard text is built first: a header value that it refuses leaves no file behind.
        if (m_impl->standardFormat) m_impl->BuildMessage();
        auto nativePath = detail::NativePath(FileSpec);
        if (!nativePath)
            detail::RaiseFileError(detail::ERROR_BAD_FILE_NAME, detail::kSourceMailMessage);
        // Opened before the build and not truncated, so a failed build leaves the file as it was.
        auto file = detail::PlatformFile::OpenForWriting(std::move(*nativePath),
                                                         detail::kSourceMailMessage);
        const std::string& text = m_impl->BuildMessage();
        // A regular file gets its new text whole or keeps its old one: the text goes to a new
        // file beside it, which takes its place once complete.
        if (auto replacement = file.CreateReplacement()) {
            replacement->WriteAll(text);
            file.ReplaceWith(std::move(*replacement));
        } else {
            file.WriteAll(text);
            // Whatever an older, longer content left behind the new text goes.
            file.TruncateIfRegular(text.size());
        }
        file.Close();
    } catch (const RaisedError& failure) {
        detail::Raise(failure.Number(),
                      u"Error in MailMessage.SaveToFile: " + failure.Description(),
                      failure.Source());
    }
}

void MailMessage::SaveToFile(std::string_view FileSpec) { SaveToFile(FromUtf8(FileSpec)); }

}  // namespace larkpost
