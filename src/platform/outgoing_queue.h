// OutgoingQueue: the bytes a socket control has accepted and the kernel has not taken yet, in
// order. Slices with a holder are kept as views (a large message text is never copied here);
// the rest are copied.
#ifndef LARKPOST_PLATFORM_OUTGOING_QUEUE_H
#define LARKPOST_PLATFORM_OUTGOING_QUEUE_H

#include <sys/uio.h>

#include <cstddef>
#include <deque>
#include <vector>

#include "platform/socket_control.h"

namespace larkpost::detail {

class OutgoingQueue {
public:
    // Queues the slice's bytes from byte `skip` on.
    void Push(const SendSlice& slice, std::size_t skip = 0);
    bool Empty() const { return m_size == 0; }
    std::size_t Size() const { return m_size; }
    // Replaces vectors with views of the queued bytes, front first, for one gathered write.
    void Gather(std::vector<iovec>& vectors) const;
    // Drops count bytes from the front (those a write took).
    void Consume(std::size_t count);
    void Clear();

private:
    std::deque<SendSlice> m_slices;
    std::size_t m_size = 0;
};

}  // namespace larkpost::detail

#endif
