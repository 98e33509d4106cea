#include "smtp/ehlo_domain.h"

namespace larkpost::detail {

std::u16string EhloDomain(std::u16string hostName, std::u16string_view localIP) {
    if (!hostName.empty()) return hostName;
    if (localIP.empty()) return u"localhost";
    // RFC 5321 address literals: IPv6 ones carry a tag.
    const bool isIPv6 = localIP.find(u':') != std::u16string_view::npos;
    std::u16string literal = isIPv6 ? u"[IPv6:" : u"[";
    literal.append(localIP).append(u"]");
    return literal;
}

}  // namespace larkpost::detail
