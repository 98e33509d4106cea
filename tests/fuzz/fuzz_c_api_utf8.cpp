// The C interface's UTF-8 input: text that is valid UTF-8 (by a strict reference check) is
// accepted and comes back byte for byte; anything else is refused with error 5 and changes
// nothing; every error description handed out is valid UTF-8 itself.
//
// Input: one byte that picks the member, then the text (up to its first NUL, as C sees it).
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz_support.h"
#include "larkpost/larkpost_c.h"

namespace {

// RFC 3629: no overlong forms, no surrogates, nothing above U+10FFFF.
bool IsValidUtf8(std::string_view text) {
    for (std::size_t i = 0; i < text.size();) {
        const auto b = static_cast<unsigned char>(text[i]);
        std::size_t length;
        uint32_t code;
        if (b < 0x80) {
            ++i;
            continue;
        } else if (b >= 0xC2 && b <= 0xDF) {
            length = 2, code = b & 0x1F;
        } else if (b >= 0xE0 && b <= 0xEF) {
            length = 3, code = b & 0x0F;
        } else if (b >= 0xF0 && b <= 0xF4) {
            length = 4, code = b & 0x07;
        } else {
            return false;
        }
        if (i + length > text.size()) return false;
        for (std::size_t k = 1; k < length; ++k) {
            const auto c = static_cast<unsigned char>(text[i + k]);
            if ((c & 0xC0) != 0x80) return false;
            code = code << 6 | (c & 0x3F);
        }
        if ((length == 3 && code < 0x800) || (length == 4 && (code < 0x10000 || code > 0x10FFFF))) return false;
        if (code >= 0xD800 && code <= 0xDFFF) return false;
        i += length;
    }
    return true;
}

void CheckErrorText(int32_t status) {
    FUZZ_CHECK(status == larkpost_error_number());
    const char* description = larkpost_error_description();
    FUZZ_CHECK(description != nullptr && IsValidUtf8(description));
    if (status == 0) FUZZ_CHECK(*description == '\0');
}

using Setter = int32_t (*)(larkpost_object*, const char*);
using Getter = int32_t (*)(larkpost_object*, char**, size_t*);

// A text property: valid text round-trips, invalid text leaves the old value.
void CheckProperty(larkpost_object* object, Setter set, Getter get, const std::string& text) {
    FUZZ_CHECK(set(object, "before") == 0);
    const int32_t status = set(object, text.c_str());
    CheckErrorText(status);
    char* value = nullptr;
    size_t length = 0;
    FUZZ_CHECK(get(object, &value, &length) == 0);
    const std::string readBack(value, length);
    larkpost_string_free(value);
    if (IsValidUtf8(text)) {
        FUZZ_CHECK(status == 0);
        FUZZ_CHECK(readBack == text);
    } else {
        FUZZ_CHECK(status == LARKPOST_ERROR_INVALID_ARGUMENT);
        FUZZ_CHECK(readBack == "before");
    }
}

// A recipient: valid text is added or refused for what it holds (blank, duplicate); invalid
// text is refused as invalid.
void CheckRecipient(larkpost_object* message, const std::string& text) {
    const int32_t status = larkpost_mail_message_add_recipient(message, text.c_str());
    CheckErrorText(status);
    if (!IsValidUtf8(text)) {
        FUZZ_CHECK(status == LARKPOST_ERROR_INVALID_ARGUMENT);
        return;
    }
    FUZZ_CHECK(status == 0 || status == LARKPOST_ERROR_BASE + 3001);
    if (status == 0) {
        // The same text again is a duplicate, and its description quotes the text.
        const int32_t again = larkpost_mail_message_add_recipient(message, text.c_str());
        CheckErrorText(again);
        FUZZ_CHECK(again == LARKPOST_ERROR_BASE + 3002);
        FUZZ_CHECK(std::string(larkpost_error_description()) == "'" + text + "' is already on the list");
        FUZZ_CHECK(larkpost_mail_message_remove_recipient(message, text.c_str()) == 0);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const uint8_t member = data[0];
    std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    text.resize(std::strlen(text.c_str()));  // C sees the text up to its first NUL

    larkpost_object* message = nullptr;
    larkpost_object* builder = nullptr;
    larkpost_object* client = nullptr;
    FUZZ_CHECK(larkpost_create("Larkpost.MailMessage", &message) == 0);
    FUZZ_CHECK(larkpost_create("Larkpost.StringBuilder", &builder) == 0);
    FUZZ_CHECK(larkpost_create("Larkpost.MailClient", &client) == 0);

    switch (member % 6) {
        case 0:
            CheckProperty(message, larkpost_mail_message_set_subject_line,
                          larkpost_mail_message_get_subject_line, text);
            break;
        case 1:
            CheckProperty(message, larkpost_mail_message_set_body, larkpost_mail_message_get_body, text);
            break;
        case 2:
            CheckProperty(client, larkpost_mail_client_set_server, larkpost_mail_client_get_server, text);
            break;
        case 3:
            CheckRecipient(message, text);
            break;
        case 4: {
            FUZZ_CHECK(larkpost_string_builder_append(builder, "<") == 0);
            const int32_t status = larkpost_string_builder_append_line(builder, text.c_str());
            CheckErrorText(status);
            char* contents = nullptr;
            size_t length = 0;
            FUZZ_CHECK(larkpost_string_builder_get_contents(builder, &contents, &length) == 0);
            const std::string expected = IsValidUtf8(text) ? "<" + text + "\r\n" : "<";
            FUZZ_CHECK(std::string(contents, length) == expected);
            larkpost_string_free(contents);
            break;
        }
        case 5: {
            // A class name: known names (ASCII case aside) create, others fail cleanly.
            larkpost_object* made = nullptr;
            const int32_t status = larkpost_create(text.c_str(), &made);
            CheckErrorText(status);
            FUZZ_CHECK((status == 0) == (made != nullptr));
            if (!IsValidUtf8(text)) FUZZ_CHECK(status != 0);
            larkpost_release(made);
            break;
        }
    }

    larkpost_release(client);
    larkpost_release(builder);
    larkpost_release(message);
    return 0;
}
