#include "platform/memory.h"

#include <sys/mman.h>

#include <cstdint>

namespace larkpost::detail {

void AdviseHugePages(const void* data, std::size_t bytes) noexcept {
#ifdef MADV_HUGEPAGE
    constexpr std::uintptr_t kHugePage = std::uintptr_t{2} << 20;
    if (data == nullptr || bytes < kHugePage) return;
    const auto start = reinterpret_cast<std::uintptr_t>(data);
    const std::uintptr_t first = (start + kHugePage - 1) & ~(kHugePage - 1);
    const std::uintptr_t last = (start + bytes) & ~(kHugePage - 1);
    if (last > first) ::madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
#else
    (void)data;
    (void)bytes;
#endif
}

}  // namespace larkpost::detail
