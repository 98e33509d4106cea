#include "net/send_buffer.h"

#include <algorithm>

#include "platform/codepage.h"
#include "platform/memory.h"

namespace larkpost::detail {
namespace {

// Own bytes kept between flushes; a larger buffer is given back once it has gone.
constexpr std::size_t kKeptCapacity = 64 * 1024;

}  // namespace

SendBuffer::Piece& SendBuffer::OwnTail() {
    if (m_pieces.empty() || m_pieces.back().holder ||
        m_pieces.back().ownStart + m_pieces.back().ownLength != m_own.size()) {
        m_pieces.push_back({nullptr, {}, m_own.size(), 0});
    }
    return m_pieces.back();
}

void SendBuffer::Append(std::u16string_view text) {
    const std::size_t needed = m_own.size() + text.size();
    if (needed > m_own.capacity()) {
        // Geometric growth keeps appends amortised O(1); a large buffer asks for huge pages so
        // that filling fresh memory does not cost a page fault every 4 KiB.
        m_own.reserve(std::max(needed, 2 * m_own.capacity()));
        AdviseHugePages(m_own.data(), m_own.capacity());
    }
    OwnTail().ownLength += text.size();
    AppendAnsi(m_own, text);
    m_size += text.size();
}

void SendBuffer::AppendBytes(std::string_view bytes) {
    OwnTail().ownLength += bytes.size();
    m_own += bytes;
    m_size += bytes.size();
}

void SendBuffer::AppendShared(std::string_view bytes, std::shared_ptr<const void> holder) {
    if (bytes.empty()) return;
    m_size += bytes.size();
    // A slice that continues the last one of the same text joins it.
    if (!m_pieces.empty() && m_pieces.back().holder == holder &&
        m_pieces.back().shared.data() + m_pieces.back().shared.size() == bytes.data()) {
        std::string_view& last = m_pieces.back().shared;
        last = std::string_view(last.data(), last.size() + bytes.size());
        return;
    }
    m_pieces.push_back({std::move(holder), bytes, 0, 0});
}

const std::vector<SendSlice>& SendBuffer::Slices() const {
    m_slices.clear();
    for (const Piece& piece : m_pieces) {
        m_slices.push_back(piece.holder ? SendSlice{piece.shared, piece.holder}
                                        : SendSlice{std::string_view(m_own).substr(piece.ownStart,
                                                                                   piece.ownLength),
                                                    nullptr});
    }
    return m_slices;
}

void SendBuffer::Clear() {
    m_pieces.clear();
    m_slices.clear();
    m_size = 0;
    m_own.clear();
    if (m_own.capacity() > kKeptCapacity) std::string().swap(m_own);
}

}  // namespace larkpost::detail
