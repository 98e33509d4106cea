// Raising errors from inside the library.
#ifndef LARKPOST_PLATFORM_ERRORS_H
#define LARKPOST_PLATFORM_ERRORS_H

#include <cstdint>
#include <string>

#include "larkpost/error.h"

namespace larkpost::detail {

// The source each class puts on the errors it raises itself.
inline constexpr char16_t kSourceMailClient[] = u"Larkpost.MailClient";
inline constexpr char16_t kSourceTcpStream[] = u"Larkpost.TcpStream";
inline constexpr char16_t kSourceMailMessage[] = u"Larkpost.MailMessage";

// The standard description of a general runtime failure (5, 6, 13, 457).
std::u16string RuntimeDescription(int32_t number);

// A general runtime failure with its standard description.
[[noreturn]] void RaiseRuntime(int32_t number, std::u16string source);

[[noreturn]] void Raise(int32_t number, std::u16string description, std::u16string source);

}  // namespace larkpost::detail

#endif
