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

}  // namespace larkpost::detail

#endif
