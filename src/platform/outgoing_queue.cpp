#include "platform/outgoing_queue.h"

#include <string>

namespace larkpost::detail {

void OutgoingQueue::Push(const SendSlice& slice, std::size_t skip) {
    const std::string_view bytes = slice.bytes.substr(skip);
    if (bytes.empty()) return;
    if (slice.holder) {
        m_slices.push_back({bytes, slice.holder});
    } else {
        auto copy = std::make_shared<const std::string>(bytes);
        m_slices.push_back({*copy, copy});
    }
    m_size += bytes.size();
}

void OutgoingQueue::Gather(std::vector<iovec>& vectors) const {
    vectors.clear();
    for (const SendSlice& slice : m_slices)
        vectors.push_back({const_cast<char*>(slice.bytes.data()), slice.bytes.size()});
}

void OutgoingQueue::Consume(std::size_t count) {
    m_size -= count;
    while (count != 0) {
        std::string_view& front = m_slices.front().bytes;
        if (count < front.size()) {
            front.remove_prefix(count);
            return;
        }
        count -= front.size();
        m_slices.pop_front();
    }
}

void OutgoingQueue::Clear() {
    m_slices.clear();
    m_size = 0;
}

}  // namespace larkpost::detail
