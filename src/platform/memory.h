// Hints to the kernel about large buffers.
#ifndef LARKPOST_PLATFORM_MEMORY_H
#define LARKPOST_PLATFORM_MEMORY_H

#include <cstddef>

namespace larkpost::detail {

// Asks for transparent huge pages on the 2 MiB-aligned interior of a large buffer that has not
// been written yet. First writes to fresh memory cost one page fault per 4 KiB otherwise, which
// on some machines outweighs the work done on a multi-megabyte message. Small buffers, and
// systems that refuse, are left alone.
void AdviseHugePages(const void* data, std::size_t bytes) noexcept;

// Gives the whole pages inside a buffer whose contents are no longer needed back to the system
// at once (they read as zeros if touched again). The allocator keeps freed blocks of moderate
// size on its heap, still resident: a large text taken apart piece by piece, and converted as it
// goes, would otherwise hold its old and new forms in full at the end.
void ReleasePages(void* data, std::size_t bytes) noexcept;

}  // namespace larkpost::detail

#endif
