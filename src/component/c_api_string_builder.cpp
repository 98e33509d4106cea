// The C interface of StringBuilder.
#include "component/c_call.h"
#include "larkpost/larkpost_c.h"
#include "larkpost/string_builder.h"

using namespace larkpost;
using namespace larkpost::capi;

namespace {

constexpr std::string_view kClass = "Larkpost.StringBuilder";

template <class Work>
int32_t OnBuilder(std::string_view function, larkpost_object* handle, Work&& work) noexcept {
    return CallOn<StringBuilder>(function, handle, kClass, std::forward<Work>(work));
}

}  // namespace

extern "C" {

LARKPOST_API int32_t larkpost_string_builder_get_contents(larkpost_object* builder, char** out,
                                                          size_t* out_length) {
    const std::string_view function = __func__;
    return OnBuilder(function, builder, [&](StringBuilder& self) {
        RequireOutText(function, out, out_length);
        OutText(out, out_length, self.Contents());
    });
}

LARKPOST_API int32_t larkpost_string_builder_clear(larkpost_object* builder) {
    return OnBuilder(__func__, builder, [](StringBuilder& self) { self.Clear(); });
}

LARKPOST_API int32_t larkpost_string_builder_append(larkpost_object* builder,
                                                    const char* string_to_append) {
    const std::string_view function = __func__;
    return OnBuilder(function, builder, [&](StringBuilder& self) {
        self.Append(InText(function, "string_to_append", string_to_append));
    });
}

LARKPOST_API int32_t larkpost_string_builder_append_line(larkpost_object* builder,
                                                         const char* string_to_append) {
    const std::string_view function = __func__;
    return OnBuilder(function, builder, [&](StringBuilder& self) {
        self.AppendLine(InText(function, "string_to_append", string_to_append));
    });
}

LARKPOST_API int32_t larkpost_string_builder_append_crlf(larkpost_object* builder) {
    return OnBuilder(__func__, builder, [](StringBuilder& self) { self.AppendCRLF(); });
}

}  // extern "C"
