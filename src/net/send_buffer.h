// SendBuffer: a stream's unsent text, in the code page it goes out in. Text the host sends is
// converted into the buffer's own bytes; a built message text is taken as views of it, kept
// alive by its holder, so that however large it is, it is never copied on its way out.
#ifndef LARKPOST_NET_SEND_BUFFER_H
#define LARKPOST_NET_SEND_BUFFER_H

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/socket_control.h"

namespace larkpost::detail {

class SendBuffer {
public:
    void Append(std::u16string_view text);
    void AppendBytes(std::string_view bytes);
    // bytes stay alive and unchanged while holder is kept.
    void AppendShared(std::string_view bytes, std::shared_ptr<const void> holder);
    bool Empty() const { return m_size == 0; }
    std::size_t Size() const { return m_size; }
    // The text in order, valid until the next change.
    const std::vector<SendSlice>& Slices() const;
    // Empties the buffer; a large own buffer is freed rather than kept.
    void Clear();

private:
    // A run of the own bytes (no holder: offsets into m_own, which may move as it grows) or a
    // view of a held text.
    struct Piece {
        std::shared_ptr<const void> holder;
        std::string_view shared;
        std::size_t ownStart = 0;
        std::size_t ownLength = 0;
    };
    // The last piece when it is a run of own bytes that new own bytes can extend.
    Piece& OwnTail();

    std::string m_own;
    std::vector<Piece> m_pieces;
    mutable std::vector<SendSlice> m_slices;
    std::size_t m_size = 0;
};

}  // namespace larkpost::detail

#endif
