// How every function of the C interface runs: the work inside one barrier that turns any
// exception into an error number plus a per-thread description and source, and the conversions
// of its UTF-8 arguments and results.
#ifndef LARKPOST_COMPONENT_C_CALL_H
#define LARKPOST_COMPONENT_C_CALL_H

#include <cstddef>
#include <cstdint>
#include <new>
#include <string>
#include <string_view>

#include "component/c_handles.h"
#include "larkpost/error.h"

namespace larkpost::capi {

// The thread's record of the last call.
void ClearLastError() noexcept;
void SetLastError(int32_t number, std::string_view description, std::string_view source) noexcept;
int32_t LastErrorNumber() noexcept;
const char* LastErrorDescription() noexcept;
const char* LastErrorSource() noexcept;

// Records the exception in flight, in a catch block; returns its number. A RaisedError without a
// source gets defaultSource, the class whose member was called.
int32_t RecordCurrentException(std::string_view defaultSource) noexcept;

// Runs work; 0 on success, else the recorded error number. Nothing escapes.
template <class Work>
int32_t Guard(std::string_view defaultSource, Work&& work) noexcept {
    try {
        work();
        ClearLastError();
        return 0;
    } catch (...) {
        return RecordCurrentException(defaultSource);
    }
}

// Runs work(T&) on the instance behind the handle, after checking handle and class.
template <class T, class Work>
int32_t CallOn(std::string_view function, larkpost_object* handle, std::string_view className,
               Work&& work) noexcept {
    return Guard(className, [&] {
        std::shared_ptr<T> self = CheckedInstance<T>(function, handle);
        work(*self);
    });
}

// A UTF-8 argument as 16-bit text; NULL is the empty string. Raises 5 naming function and
// argument for invalid UTF-8.
std::u16string InText(std::string_view function, std::string_view argument, const char* text);

// Raises 5 when a result pointer is null; otherwise sets the result to "nothing yet".
void RequireOut(std::string_view function, void* out);
void RequireOutText(std::string_view function, char** out, std::size_t* outLength);

// Stores a result string as a new UTF-8 buffer for larkpost_string_free.
void OutText(char** out, std::size_t* outLength, std::u16string_view text);

}  // namespace larkpost::capi

#endif
