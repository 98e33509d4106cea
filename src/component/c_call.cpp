#include "component/c_call.h"

#include <cstdlib>
#include <cstring>

#include "larkpost/larkpost_c.h"
#include "larkpost/text.h"

namespace larkpost::capi {
namespace {

struct LastError {
    int32_t number = 0;
    std::string description;
    std::string source;
};

thread_local LastError t_lastError;

std::u16string Ascii(std::string_view text) { return std::u16string(text.begin(), text.end()); }

}  // namespace

void ClearLastError() noexcept {
    t_lastError.number = 0;
    t_lastError.description.clear();
    t_lastError.source.clear();
}

void SetLastError(int32_t number, std::string_view description, std::string_view source) noexcept {
    t_lastError.number = number;
    try {
        t_lastError.description.assign(description);
        t_lastError.source.assign(source);
    } catch (...) {
        // Out of memory while recording: the number alone must do.
        t_lastError.description.clear();
        t_lastError.source.clear();
    }
}

int32_t LastErrorNumber() noexcept { return t_lastError.number; }
const char* LastErrorDescription() noexcept { return t_lastError.description.c_str(); }
const char* LastErrorSource() noexcept { return t_lastError.source.c_str(); }

int32_t RecordCurrentException(std::string_view defaultSource) noexcept {
    try {
        throw;
    } catch (const RaisedError& error) {
        // A number of 0 would read as success.
        int32_t number = error.Number() != 0 ? error.Number() : LARKPOST_ERROR_INTERNAL;
        try {
            std::string source =
                error.Source().empty() ? std::string(defaultSource) : ToUtf8(error.Source());
            SetLastError(number, error.what(), source);
        } catch (...) {
            SetLastError(number, {}, {});
        }
        return number;
    } catch (const std::bad_alloc&) {
        SetLastError(LARKPOST_ERROR_OUT_OF_MEMORY, "Out of memory", "Larkpost");
        return LARKPOST_ERROR_OUT_OF_MEMORY;
    } catch (const std::exception& error) {
        try {
            SetLastError(LARKPOST_ERROR_INTERNAL, std::string("Internal error: ") + error.what(),
                         "Larkpost");
        } catch (...) {
            SetLastError(LARKPOST_ERROR_INTERNAL, "Internal error", "Larkpost");
        }
        return LARKPOST_ERROR_INTERNAL;
    } catch (...) {
        SetLastError(LARKPOST_ERROR_INTERNAL, "Internal error", "Larkpost");
        return LARKPOST_ERROR_INTERNAL;
    }
}

std::u16string InText(std::string_view function, std::string_view argument, const char* text) {
    std::u16string out;
    if (text == nullptr) return out;
    if (!TryFromUtf8(text, out)) {
        throw RaisedError(
            ERROR_INVALID_ARGUMENT,
            Ascii(function) + u": the argument '" + Ascii(argument) + u"' is not valid UTF-8 text.",
            u"Larkpost");
    }
    return out;
}

void RequireOut(std::string_view function, void* out) {
    if (out == nullptr) {
        throw RaisedError(ERROR_INVALID_ARGUMENT,
                          Ascii(function) + u": the pointer for the result is null.", u"Larkpost");
    }
}

void RequireOutText(std::string_view function, char** out, std::size_t* outLength) {
    RequireOut(function, out);
    *out = nullptr;
    if (outLength) *outLength = 0;
}

void OutText(char** out, std::size_t* outLength, std::u16string_view text) {
    std::string utf8 = ToUtf8(text);
    auto* buffer = static_cast<char*>(std::malloc(utf8.size() + 1));
    if (buffer == nullptr) throw std::bad_alloc();
    std::memcpy(buffer, utf8.data(), utf8.size());
    buffer[utf8.size()] = '\0';
    *out = buffer;
    if (outLength) *outLength = utf8.size();
}

}  // namespace larkpost::capi
