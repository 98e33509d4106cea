// The C interface: creation, reference counting, errors and string results.
#include <cstdlib>
#include <optional>

#include "component/c_call.h"
#include "larkpost/larkpost_c.h"

using namespace larkpost;
using namespace larkpost::capi;

extern "C" {

LARKPOST_API int32_t larkpost_create(const char* class_name, larkpost_object** out) {
    const std::string_view function = __func__;
    return Guard("Larkpost", [&] {
        RequireOut(function, out);
        *out = nullptr;
        if (class_name == nullptr) {
            throw RaisedError(ERROR_CANNOT_CREATE_OBJECT,
                              u"larkpost_create: the class name is null.", u"Larkpost");
        }
        std::u16string name = InText(function, "class_name", class_name);
        *out = NewHandle(CreateObject(std::u16string_view(name)));
    });
}

LARKPOST_API larkpost_object* larkpost_retain(larkpost_object* object) {
    try {
        return Retain(object) ? object : nullptr;
    } catch (...) {
        return nullptr;
    }
}

LARKPOST_API void larkpost_release(larkpost_object* object) {
    if (object == nullptr) return;
    try {
        Release(object);
    } catch (...) {
        // Terminate behaviour never raises; neither does a release.
    }
}

LARKPOST_API const char* larkpost_class_name(const larkpost_object* object) {
    try {
        const std::optional<Object> live = LiveObject(object);
        // The names are static, NUL-terminated literals.
        return live ? live->ClassName().data() : nullptr;
    } catch (...) {
        return nullptr;
    }
}

LARKPOST_API int32_t larkpost_error_number(void) { return LastErrorNumber(); }
LARKPOST_API const char* larkpost_error_description(void) { return LastErrorDescription(); }
LARKPOST_API const char* larkpost_error_source(void) { return LastErrorSource(); }

LARKPOST_API void larkpost_string_free(char* text) { std::free(text); }

}  // extern "C"
