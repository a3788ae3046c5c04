#include "jitreader/small_object_pool.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>

#include <sanitizer/asan_interface.h>

#include "jitreader/huge_pages.h"

namespace velmark_3_11 {
namespace {

constexpr std::size_t kHugePage = 2 * 1024 * 1024;
constexpr std::size_t kSlabSize = 64 * 1024;
constexpr unsigned int kSlabsPerPage = kHugePage / kSlabSize;
// The objects pooled hold pointers and integers at most: their sizes are multiples of 8.
constexpr std::size_t kGranule = 8;
constexpr std::size_t kClasses = SmallObjectPool::kLargest / kGranule + 1;

struct FreeSlot {
    FreeSlot* next;
};

struct HugePage;

/// The head of a slab, at its start; the slots follow. A slot's slab is found by rounding its
/// address down, so a slot costs nothing besides its bytes.
struct Slab {
    HugePage* page;
    Slab* previous; // in the list of its size's slabs with room
    Slab* next;
    FreeSlot* freeSlots;
    std::uint32_t fresh; // offset of the first slot never handed out
    std::uint32_t live;
    std::uint32_t slotSize;
    bool hasRoom;
};
constexpr std::size_t kFirstSlot = (sizeof(Slab) + kGranule - 1) / kGranule * kGranule;

/// A huge page cut into slabs; kept outside the page, so that all its slabs serve objects.
struct HugePage {
    char* base;
    std::uint32_t usedSlabs; // bit i: slab i in use
    HugePage* previous;      // in the list of pages with a free slab
    HugePage* next;
};

template <class Node>
void unlink(Node*& head, Node* node)
{
    (node->previous ? node->previous->next : head) = node->next;
    if (node->next)
        node->next->previous = node->previous;
    node->previous = node->next = nullptr;
}

template <class Node>
void pushFront(Node*& head, Node* node)
{
    node->previous = nullptr;
    node->next = head;
    if (head)
        head->previous = node;
    head = node;
}

/// Held for a few dozen instructions at a time: a mutex would cost two atomic operations where
/// this costs one, and the pool takes it for every object of a load.
class SpinLock {
public:
    void lock()
    {
        while (m_held.exchange(true, std::memory_order_acquire)) {
            while (m_held.load(std::memory_order_relaxed))
                std::this_thread::yield();
        }
    }
    void unlock() { m_held.store(false, std::memory_order_release); }

private:
    std::atomic<bool> m_held{false};
};

class Pool {
public:
    void* allocate(std::size_t size)
    {
        const std::size_t sizeClass = (size + kGranule - 1) / kGranule;
        std::lock_guard<SpinLock> lock(m_lock);
        Slab* slab = m_slabsWithRoom[sizeClass];
        if (!slab)
            slab = newSlab(sizeClass);
        void* slot;
        if (slab->freeSlots) {
            ASAN_UNPOISON_MEMORY_REGION(slab->freeSlots, sizeof(FreeSlot));
            slot = slab->freeSlots;
            slab->freeSlots = slab->freeSlots->next;
        } else {
            slot = reinterpret_cast<char*>(slab) + slab->fresh;
            slab->fresh += slab->slotSize;
        }
        ++slab->live;
        ++m_objects;
        if (!slab->freeSlots && slab->fresh + slab->slotSize > kSlabSize) {
            unlink(m_slabsWithRoom[sizeClass], slab);
            slab->hasRoom = false;
        }
        ASAN_UNPOISON_MEMORY_REGION(slot, size);
        return slot;
    }

    void deallocate(void* memory)
    {
        Slab* slab = reinterpret_cast<Slab*>(reinterpret_cast<std::uintptr_t>(memory) & ~(kSlabSize - 1));
        std::lock_guard<SpinLock> lock(m_lock);
        ASAN_POISON_MEMORY_REGION(memory, slab->slotSize);
        ASAN_UNPOISON_MEMORY_REGION(memory, sizeof(FreeSlot));
        auto* slot = static_cast<FreeSlot*>(memory);
        slot->next = slab->freeSlots;
        slab->freeSlots = slot;
        ASAN_POISON_MEMORY_REGION(memory, sizeof(FreeSlot));
        --m_objects;
        const std::size_t sizeClass = slab->slotSize / kGranule;
        if (--slab->live == 0) {
            if (slab->hasRoom)
                unlink(m_slabsWithRoom[sizeClass], slab);
            freeSlab(slab);
        } else if (!slab->hasRoom) {
            pushFront(m_slabsWithRoom[sizeClass], slab);
            slab->hasRoom = true;
        }
    }

    SmallObjectPool::Usage usage()
    {
        std::lock_guard<SpinLock> lock(m_lock);
        SmallObjectPool::Usage result;
        result.hugePages = m_hugePages;
        result.slabs = m_slabs;
        result.objects = m_objects;
        return result;
    }

private:
    Slab* newSlab(std::size_t sizeClass)
    {
        if (!m_pagesWithRoom) {
            void* memory = mapHugePages(kHugePage);
            if (!memory)
                throw std::bad_alloc();
            auto* page = new HugePage{static_cast<char*>(memory), 0, nullptr, nullptr};
            ASAN_POISON_MEMORY_REGION(memory, kHugePage);
            pushFront(m_pagesWithRoom, page);
            ++m_hugePages;
        }
        HugePage* page = m_pagesWithRoom;
        const unsigned int index = static_cast<unsigned int>(__builtin_ctz(~page->usedSlabs));
        page->usedSlabs |= 1u << index;
        if (page->usedSlabs == ~0u)
            unlink(m_pagesWithRoom, page);

        auto* slab = reinterpret_cast<Slab*>(page->base + index * kSlabSize);
        ASAN_UNPOISON_MEMORY_REGION(slab, sizeof(Slab));
        *slab = Slab{page, nullptr, nullptr, nullptr, kFirstSlot, 0, static_cast<std::uint32_t>(sizeClass * kGranule),
                     true};
        pushFront(m_slabsWithRoom[sizeClass], slab);
        ++m_slabs;
        return slab;
    }

    void freeSlab(Slab* slab)
    {
        HugePage* page = slab->page;
        const auto index = static_cast<unsigned int>((reinterpret_cast<char*>(slab) - page->base) / kSlabSize);
        ASAN_POISON_MEMORY_REGION(slab, kSlabSize);
        --m_slabs;
        if (page->usedSlabs == ~0u)
            pushFront(m_pagesWithRoom, page);
        page->usedSlabs &= ~(1u << index);
        // One empty page stays, so that a store made and dropped in a loop doesn't map and
        // unmap a page each time.
        if (page->usedSlabs != 0 || m_hugePages == 1)
            return;
        unlink(m_pagesWithRoom, page);
        unmapHugePages(page->base, kHugePage);
        delete page;
        --m_hugePages;
    }

    SpinLock m_lock;
    Slab* m_slabsWithRoom[kClasses] = {};
    HugePage* m_pagesWithRoom = nullptr;
    std::size_t m_hugePages = 0;
    std::size_t m_slabs = 0;
    std::size_t m_objects = 0;
};

static_assert(kSlabsPerPage == 32, "a page's slabs are the bits of a 32-bit word");
static_assert(kFirstSlot + SmallObjectPool::kLargest <= kSlabSize, "a slab holds at least one slot");

// Never destroyed: objects may go back to the pool during the exit of the process.
Pool& pool()
{
    static Pool* const instance = new Pool;
    return *instance;
}

} // namespace

void* SmallObjectPool::allocate(std::size_t size)
{
    if (size > kLargest)
        return ::operator new(size);
    return pool().allocate(size == 0 ? 1 : size);
}

void SmallObjectPool::deallocate(void* memory, std::size_t size) noexcept
{
    if (!memory)
        return;
    if (size > kLargest)
        ::operator delete(memory);
    else
        pool().deallocate(memory);
}

SmallObjectPool::Usage SmallObjectPool::usage()
{
    return pool().usage();
}

} // namespace velmark_3_11
