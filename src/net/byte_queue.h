// ByteQueue: received text kept in the code page (one byte a character) until it is read. It is
// held in pieces, so that it grows without moving what it holds and gives its memory back piece
// by piece as it is taken: a long line costs one byte a character while it arrives, and its
// conversion to 16-bit text frees the bytes as it goes instead of holding both in full.
#ifndef LARKPOST_NET_BYTE_QUEUE_H
#define LARKPOST_NET_BYTE_QUEUE_H

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>

namespace larkpost::detail {

class ByteQueue {
public:
    std::size_t Size() const { return m_size; }
    bool Empty() const { return m_size == 0; }
    void Append(std::string_view bytes);
    // The same; a large piece is adopted without a copy (bytes is then left empty).
    void Append(std::string&& bytes);
    void Clear();
    // The index of the first CR LF that starts at or after from; npos when there is none.
    std::size_t FindLineEnd(std::size_t from) const;
    // count characters from the index at as text (fewer at the end); the queue keeps them.
    std::u16string Peek(std::size_t at, std::size_t count) const;
    // The first count characters as text, with room reserved for spare more; they leave the queue.
    std::u16string Take(std::size_t count, std::size_t spare = 0);
    // Moves the first count bytes to the end of out.
    void MoveTo(ByteQueue& out, std::size_t count);
    void Drop(std::size_t count);

private:
    std::string_view Piece(std::size_t index) const;
    // Removes up to count bytes from the front, each piece handed to use first; release: the
    // pages of each emptied piece go back to the system at once.
    template <class Use>
    void TakeFront(std::size_t count, bool release, Use use);

    std::deque<std::string> m_pieces;
    std::size_t m_frontTaken = 0;  // bytes of the first piece already gone
    std::size_t m_size = 0;
};

}  // namespace larkpost::detail

#endif
