// The C interface's UTF-8 input: text that glibc's strict iconv takes as UTF-8 is taken and comes
// back byte for byte; anything else is error 5 and changes nothing; every error description handed
// out is UTF-8; only known class names create. The text ends at its first NUL, as C sees it.
#include <iconv.h>

#include <cstring>

#include "fuzz_support.h"
#include "larkpost/larkpost_c.h"

namespace {

// Refuses overlong forms, surrogates, cut sequences and anything past U+10FFFF.
bool IsUtf8(std::string text) {
    static const iconv_t utf8 = iconv_open("UTF-16LE", "UTF-8");
    std::string out(2 * text.size(), '\0');
    char *in = text.data(), *to = out.data();
    std::size_t inLeft = text.size(), outLeft = out.size();
    return iconv(utf8, nullptr, nullptr, nullptr, nullptr) == 0 &&
           iconv(utf8, &in, &inLeft, &to, &outLeft) != std::size_t(-1);
}

// The call's number, once the thread's record agrees with it.
int32_t Status(int32_t status) {
    const std::string description = larkpost_error_description();
    assert(status == larkpost_error_number() && IsUtf8(description) &&
           (status != 0 || description.empty()));
    return status;
}

std::string Text(int32_t (*get)(larkpost_object*, char**, size_t*), larkpost_object* object) {
    char* value = nullptr;
    size_t length = 0;
    assert(get(object, &value, &length) == 0);
    const std::string text(value, length);
    larkpost_string_free(value);
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data),
                           strnlen(reinterpret_cast<const char*>(data), size));
    const bool valid = IsUtf8(text);
    larkpost_object *message = nullptr, *client = nullptr, *made = nullptr;
    larkpost_create("Larkpost.MailMessage", &message);
    larkpost_create("Larkpost.MailClient", &client);
    larkpost_mail_message_set_subject_line(message, "before");
    larkpost_mail_client_set_server(client, "before");
    assert(Status(larkpost_mail_message_set_subject_line(message, text.c_str())) ==
           (valid ? 0 : 5));
    assert(Status(larkpost_mail_client_set_server(client, text.c_str())) == (valid ? 0 : 5));
    assert(Text(larkpost_mail_message_get_subject_line, message) == (valid ? text : "before"));
    assert(Text(larkpost_mail_client_get_server, client) == (valid ? text : "before"));

    // A class name: a known one (ASCII case aside) creates, anything else fails cleanly.
    assert((Status(larkpost_create(text.c_str(), &made)) == 0) == (made != nullptr) &&
           (valid || !made));
    larkpost_release(made);
    larkpost_release(client);
    larkpost_release(message);
    return 0;
}
