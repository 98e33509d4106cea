// The creatable classes of the library and their names, shared by CreateObject and the C interface.
#ifndef LARKPOST_COMPONENT_CLASS_NAMES_H
#define LARKPOST_COMPONENT_CLASS_NAMES_H

#include <array>
#include <string_view>

namespace larkpost::detail {

// In the order of the alternatives of Object::Instance.
inline constexpr std::array<std::string_view, 4> kClassNames = {
    "Larkpost.MailClient", "Larkpost.TcpStream", "Larkpost.MailMessage", "Larkpost.StringBuilder"};

}  // namespace larkpost::detail

#endif
