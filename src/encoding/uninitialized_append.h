// Growing a string by a known number of characters that the caller fills in at once.
#ifndef LARKPOST_ENCODING_UNINITIALIZED_APPEND_H
#define LARKPOST_ENCODING_UNINITIALIZED_APPEND_H

#include <cstddef>
#include <string>

namespace larkpost::detail {

// Makes out longer by count characters and returns where they start. The encoders overwrite
// every one of them, so where the library allows it the new space is not zero-filled first.
template <class Char>
Char* AppendUninitialized(std::basic_string<Char>& out, std::size_t count) {
    const std::size_t at = out.size();
#if defined(__cpp_lib_string_resize_and_overwrite)
    out.resize_and_overwrite(at + count, [](Char*, std::size_t n) { return n; });
#else
    out.resize(at + count);
#endif
    return out.data() + at;
}

}  // namespace larkpost::detail

#endif
