#include "jitreader/huge_pages.h"

#include <cstdint>

#include <sys/mman.h>

namespace velmark_3_11 {
namespace {

constexpr std::size_t kHugePage = 2 * 1024 * 1024;

std::size_t roundedUp(std::size_t size) { return (size + kHugePage - 1) & ~(kHugePage - 1); }

} // namespace

void* mapHugePages(std::size_t size)
{
    if (size == 0 || size > roundedUp(size))
        return nullptr;
    const std::size_t length = roundedUp(size);
    // Mapped with room to align the start to a huge page; the ends are given back.
    void* mapped = ::mmap(nullptr, length + kHugePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED)
        return nullptr;
    const auto start = reinterpret_cast<std::uintptr_t>(mapped);
    const std::uintptr_t aligned = (start + kHugePage - 1) & ~(kHugePage - 1);
    if (aligned != start)
        ::munmap(mapped, aligned - start);
    if (aligned + length != start + length + kHugePage)
        ::munmap(reinterpret_cast<void*>(aligned + length), start + kHugePage - aligned);
    ::madvise(reinterpret_cast<void*>(aligned), length, MADV_HUGEPAGE);
    return reinterpret_cast<void*>(aligned);
}

void unmapHugePages(void* memory, std::size_t size)
{
    if (memory != nullptr)
        ::munmap(memory, roundedUp(size));
}

} // namespace velmark_3_11
