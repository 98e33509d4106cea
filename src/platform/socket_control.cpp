#include "platform/socket_control.h"

#include "platform/errors.h"
#include "platform/socket_errors.h"

namespace larkpost::detail {

void SocketControl::SendSlices(std::span<const SendSlice> slices) {
    std::string joined;
    for (const SendSlice& slice : slices) joined += slice.bytes;
    SendData(joined);
}

void SocketControl::StartTls(const TlsOptions& /*options*/) {
    Raise(sckBadState, u"This socket control cannot start TLS.", u"Larkpost.Socket");
}

}  // namespace larkpost::detail
