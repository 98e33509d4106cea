// The name a client gives in its EHLO line.
#ifndef LARKPOST_SMTP_EHLO_DOMAIN_H
#define LARKPOST_SMTP_EHLO_DOMAIN_H

#include <string>
#include <string_view>

namespace larkpost::detail {

// The local host name when there is one; otherwise the address literal of the local end
// ("[192.0.2.1]", "[IPv6:2001:db8::1]"), and "localhost" when even that is unknown.
std::u16string EhloDomain(std::u16string hostName, std::u16string_view localIP);

}  // namespace larkpost::detail

#endif
