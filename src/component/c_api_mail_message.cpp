// The C interface of MailMessage.
#include "component/c_call.h"
#include "larkpost/larkpost_c.h"
#include "larkpost/mail_message.h"

using namespace larkpost;
using namespace larkpost::capi;

namespace {

constexpr std::string_view kClass = "Larkpost.MailMessage";

using TextSetter = void (MailMessage::*)(std::u16string);
using TextGetter = const std::u16string& (MailMessage::*)() const;
using PathMethod = void (MailMessage::*)(const std::u16string&);

int32_t SetText(std::string_view function, larkpost_object* handle, const char* value,
                TextSetter setter) noexcept {
    return CallOn<MailMessage>(function, handle, kClass, [&](MailMessage& self) {
        (self.*setter)(InText(function, "value", value));
    });
}

int32_t GetText(std::string_view function, larkpost_object* handle, char** out, size_t* outLength,
                TextGetter getter) noexcept {
    return CallOn<MailMessage>(function, handle, kClass, [&](MailMessage& self) {
        RequireOutText(function, out, outLength);
        OutText(out, outLength, (self.*getter)());
    });
}

int32_t CallWithText(std::string_view function, larkpost_object* handle, std::string_view argument,
                     const char* value, PathMethod method) noexcept {
    return CallOn<MailMessage>(function, handle, kClass, [&](MailMessage& self) {
        (self.*method)(InText(function, argument, value));
    });
}

}  // namespace

// Each text property: a setter and a getter.
#define LARKPOST_TEXT_PROPERTY(name, Member)                                                    \
    LARKPOST_API int32_t larkpost_mail_message_set_##name(larkpost_object* message,             \
                                                          const char* value) {                  \
        return SetText(__func__, message, value, &MailMessage::Member);                         \
    }                                                                                           \
    LARKPOST_API int32_t larkpost_mail_message_get_##name(larkpost_object* message, char** out, \
                                                          size_t* out_length) {                 \
        return GetText(__func__, message, out, out_length, &MailMessage::Member);               \
    }

// Each method that takes one text argument. `argument` names a parameter, so it takes no
// parentheses.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define LARKPOST_TEXT_METHOD(name, Member, argument)                                       \
    LARKPOST_API int32_t larkpost_mail_message_##name(larkpost_object* message,            \
                                                      const char* argument) {              \
        return CallWithText(__func__, message, #argument, argument, &MailMessage::Member); \
    }
// NOLINTEND(bugprone-macro-parentheses)

extern "C" {

LARKPOST_TEXT_PROPERTY(from_address, FromAddress)
LARKPOST_TEXT_PROPERTY(sender_name, SenderName)
LARKPOST_TEXT_PROPERTY(subject_line, SubjectLine)
LARKPOST_TEXT_PROPERTY(body, Body)
LARKPOST_TEXT_PROPERTY(body_html, BodyHTML)
LARKPOST_TEXT_PROPERTY(mime_type, MimeType)

LARKPOST_TEXT_METHOD(attach_file, AttachFile, file_path)
LARKPOST_TEXT_METHOD(add_recipient, AddRecipient, recipient)
LARKPOST_TEXT_METHOD(remove_recipient, RemoveRecipient, recipient)
LARKPOST_TEXT_METHOD(add_cc_recipient, AddCCRecipient, recipient)
LARKPOST_TEXT_METHOD(remove_cc_recipient, RemoveCCRecipient, recipient)
LARKPOST_TEXT_METHOD(add_bcc_recipient, AddBCCRecipient, recipient)
LARKPOST_TEXT_METHOD(remove_bcc_recipient, RemoveBCCRecipient, recipient)
LARKPOST_TEXT_METHOD(save_to_file, SaveToFile, file_spec)

LARKPOST_API int32_t larkpost_mail_message_set_standard_format(larkpost_object* message,
                                                               int32_t value) {
    return CallOn<MailMessage>(__func__, message, kClass,
                               [&](MailMessage& self) { self.StandardFormat(value != 0); });
}

LARKPOST_API int32_t larkpost_mail_message_get_standard_format(larkpost_object* message,
                                                               int32_t* out) {
    const std::string_view function = __func__;
    return CallOn<MailMessage>(function, message, kClass, [&](MailMessage& self) {
        RequireOut(function, out);
        *out = self.StandardFormat() ? 1 : 0;
    });
}

LARKPOST_API int32_t larkpost_mail_message_add_header(larkpost_object* message, const char* name,
                                                      const char* value) {
    const std::string_view function = __func__;
    return CallOn<MailMessage>(function, message, kClass, [&](MailMessage& self) {
        self.AddHeader(InText(function, "name", name), InText(function, "value", value));
    });
}

LARKPOST_API int32_t larkpost_mail_message_clear_headers(larkpost_object* message) {
    return CallOn<MailMessage>(__func__, message, kClass,
                               [](MailMessage& self) { self.ClearHeaders(); });
}

}  // extern "C"
