#include "net/byte_queue.h"

#include <algorithm>

#include "platform/codepage.h"
#include "platform/memory.h"

namespace larkpost::detail {

namespace {
// Small arrivals join the last piece up to this size; larger ones stay pieces of their own.
constexpr std::size_t kPieceBytes = 256 * 1024;
// A conversion at least this large gives the pages of the pieces it empties back at once (see
// ReleasePages). Smaller ones leave them to the allocator, which reuses them without new faults.
constexpr std::size_t kReleasingTakeBytes = 1024 * 1024;
}  // namespace

std::string_view ByteQueue::Piece(std::size_t index) const {
    std::string_view piece = m_pieces[index];
    return index == 0 ? piece.substr(m_frontTaken) : piece;
}

void ByteQueue::Append(std::string_view bytes) {
    if (bytes.empty()) return;
    if (!m_pieces.empty() && m_pieces.back().size() + bytes.size() <= kPieceBytes)
        m_pieces.back().append(bytes);
    else
        m_pieces.emplace_back(bytes);
    m_size += bytes.size();
}

void ByteQueue::Append(std::string&& bytes) {
    if (bytes.size() < kPieceBytes / 2) return Append(std::string_view(bytes));
    m_size += bytes.size();
    m_pieces.push_back(std::move(bytes));
    bytes.clear();
}

void ByteQueue::Clear() {
    m_pieces.clear();
    m_frontTaken = 0;
    m_size = 0;
}

std::size_t ByteQueue::FindLineEnd(std::size_t from) const {
    std::size_t base = 0;   // index of the piece's first byte
    bool crBefore = false;  // the piece before ended in CR
    for (std::size_t i = 0; i < m_pieces.size(); ++i) {
        const std::string_view piece = Piece(i);
        if (base + piece.size() > from) {
            if (crBefore && base > from && piece[0] == '\n') return base - 1;
            const std::size_t found = piece.find("\r\n", from > base ? from - base : 0);
            if (found != std::string_view::npos) return base + found;
        }
        crBefore = !piece.empty() && piece.back() == '\r';
        base += piece.size();
    }
    return std::string_view::npos;
}

std::u16string ByteQueue::Peek(std::size_t at, std::size_t count) const {
    std::u16string text;
    for (std::size_t i = 0; i < m_pieces.size() && count > 0; ++i) {
        const std::string_view piece = Piece(i);
        if (at >= piece.size()) {
            at -= piece.size();
            continue;
        }
        const std::string_view part = piece.substr(at, count);
        AppendFromAnsi(text, part);
        count -= part.size();
        at = 0;
    }
    return text;
}

template <class Use>
void ByteQueue::TakeFront(std::size_t count, bool release, Use use) {
    count = std::min(count, m_size);
    m_size -= count;
    while (count > 0) {
        const std::string_view piece = Piece(0);
        const std::size_t part = std::min(count, piece.size());
        use(piece.substr(0, part), part == piece.size());
        count -= part;
        if (part == piece.size()) {
            std::string& gone = m_pieces.front();
            if (release) ReleasePages(gone.data(), gone.capacity());
            m_pieces.pop_front();
            m_frontTaken = 0;
        } else {
            m_frontTaken += part;
        }
    }
}

std::u16string ByteQueue::Take(std::size_t count, std::size_t spare) {
    std::u16string text;
    text.reserve(std::min(count, m_size) + spare);
    TakeFront(count, count >= kReleasingTakeBytes,
              [&](std::string_view part, bool) { AppendFromAnsi(text, part); });
    return text;
}

void ByteQueue::MoveTo(ByteQueue& out, std::size_t count) {
    TakeFront(count, false, [&](std::string_view part, bool whole) {
        // A whole piece changes hands without a copy when it is the piece as stored.
        if (whole && m_frontTaken == 0 && part.size() > kPieceBytes / 2) {
            out.m_size += part.size();
            out.m_pieces.push_back(std::move(m_pieces.front()));
        } else {
            out.Append(part);
        }
    });
}

void ByteQueue::Drop(std::size_t count) {
    TakeFront(count, false, [](std::string_view, bool) {});
}

}  // namespace larkpost::detail
