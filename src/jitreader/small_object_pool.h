// Memory for the store's small objects: methods, regions, map nodes. A store of a few hundred MB
// of code holds millions of them; from the heap each costs a header, and on 4 KB pages the first
// touches of their pages cost more time than everything else the load does. The pool carves
// them out of huge pages, in slabs of one size each, and gives a huge page back to the system
// once nothing lives in it.
#pragma once

#include <cstddef>
#include <limits>
#include <new>

namespace velmark_3_11 {

class SmallObjectPool {
public:
    /// Larger sizes go to the heap.
    static constexpr std::size_t kLargest = 512;

    /// Alignment of what allocate returns.
    static constexpr std::size_t kAlignment = 8;

    /// `size` bytes, kAlignment-aligned; throws std::bad_alloc when no memory is left. Safe for
    /// concurrent use, as is deallocate.
    static void* allocate(std::size_t size);
    /// Gives back what allocate(size) returned.
    static void deallocate(void* memory, std::size_t size) noexcept;

    struct Usage {
        std::size_t hugePages = 0; ///< mapped
        std::size_t slabs = 0;     ///< in use
        std::size_t objects = 0;   ///< live
    };
    /// What the pool holds now.
    static Usage usage();
};

// Under AddressSanitizer the store's objects come from the heap, so that its leak check and
// use-after-free quarantine see them; the pool itself is tested directly.
#if defined(__SANITIZE_ADDRESS__)
inline void* poolAllocate(std::size_t size) { return ::operator new(size); }
inline void poolDeallocate(void* memory, std::size_t) noexcept { ::operator delete(memory); }
#else
inline void* poolAllocate(std::size_t size) { return SmallObjectPool::allocate(size); }
inline void poolDeallocate(void* memory, std::size_t size) noexcept { SmallObjectPool::deallocate(memory, size); }
#endif

/// Class-scope operator new and delete that take the objects of class `Class` from the pool. The
/// size delete receives is that of the object's own class, as the destructors are virtual.
#define JITREADER_POOLED_OBJECT(Class)                                                                                 \
    static void* operator new(std::size_t size)                                                                        \
    {                                                                                                                  \
        static_assert(alignof(Class) <= ::velmark_3_11::SmallObjectPool::kAlignment, "the pool aligns less");          \
        return ::velmark_3_11::poolAllocate(size);                                                                     \
    }                                                                                                                  \
    static void operator delete(void* memory, std::size_t size) noexcept                                               \
    {                                                                                                                  \
        ::velmark_3_11::poolDeallocate(memory, size);                                                                  \
    }

/// A standard allocator over the pool, for the nodes of the store's maps and shared objects.
template <class T>
class PoolAllocator {
public:
    typedef T value_type;

    PoolAllocator() noexcept = default;
    template <class U>
    PoolAllocator(const PoolAllocator<U>&) noexcept
    {
    }

    T* allocate(std::size_t count)
    {
        static_assert(alignof(T) <= SmallObjectPool::kAlignment, "the pool aligns less");
        if (count > std::numeric_limits<std::size_t>::max() / sizeof(T))
            throw std::bad_array_new_length();
        return static_cast<T*>(poolAllocate(count * sizeof(T)));
    }
    void deallocate(T* memory, std::size_t count) noexcept { poolDeallocate(memory, count * sizeof(T)); }

    template <class U>
    bool operator==(const PoolAllocator<U>&) const noexcept
    {
        return true;
    }
    template <class U>
    bool operator!=(const PoolAllocator<U>&) const noexcept
    {
        return false;
    }
};

} // namespace velmark_3_11
