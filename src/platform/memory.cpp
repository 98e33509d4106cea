#include "platform/memory.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

namespace larkpost::detail {

void AdviseHugePages(const void* data, std::size_t bytes) noexcept {
#ifdef MADV_HUGEPAGE
    constexpr std::uintptr_t kHugePage = std::uintptr_t{2} << 20;
    if (data == nullptr || bytes < kHugePage) return;
    // Only the whole huge pages inside the range: from the first boundary to the last one.
    char* const begin = static_cast<char*>(const_cast<void*>(data));
    char* const end = begin + bytes;
    const std::uintptr_t headOffset = reinterpret_cast<std::uintptr_t>(begin) & (kHugePage - 1);
    char* const first = begin + (headOffset == 0 ? 0 : kHugePage - headOffset);
    char* const last = end - (reinterpret_cast<std::uintptr_t>(end) & (kHugePage - 1));
    if (last > first) ::madvise(first, static_cast<std::size_t>(last - first), MADV_HUGEPAGE);
#else
    (void)data;
    (void)bytes;
#endif
}

void ReleasePages(void* data, std::size_t bytes) noexcept {
    const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
    if (data == nullptr) return;
    // Only the whole pages inside the range: the allocator's own words around it stay.
    char* const begin = static_cast<char*>(data);
    char* const end = begin + bytes;
    const std::uintptr_t headOffset = reinterpret_cast<std::uintptr_t>(begin) & (page - 1);
    char* const first = begin + (headOffset == 0 ? 0 : page - headOffset);
    char* const last = end - (reinterpret_cast<std::uintptr_t>(end) & (page - 1));
    if (last > first) ::madvise(first, static_cast<std::size_t>(last - first), MADV_DONTNEED);
}

}  // namespace larkpost::detail
