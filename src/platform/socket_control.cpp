#include "platform/socket_control.h"

#include "platform/errors.h"
#include "platform/socket_errors.h"

namespace larkpost::detail {

void SocketControl::StartTls(const TlsOptions& /*options*/) {
    Raise(sckBadState, u"This socket control cannot start TLS.", u"Larkpost.Socket");
}

}  // namespace larkpost::detail
