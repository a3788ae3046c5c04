// Memory on huge pages, for large arrays that are read at random: with 4 KB pages nearly every
// read of such an array also misses the TLB.
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace velmark_3_11 {

/// `size` bytes starting on a 2 MB boundary and advised to the kernel as huge pages; null when
/// the mapping fails. Untouched pages cost nothing. Given back with unmapHugePages(p, size).
void* mapHugePages(std::size_t size);
void unmapHugePages(void* memory, std::size_t size);

/// Half a huge page: a smaller block wouldn't fill the page that it takes.
constexpr std::size_t kHugePageWorthy = 1024 * 1024;

/// A fixed number of trivial elements, on huge pages when there are enough of them to fill
/// one, else (or when the mapping fails) on the heap, 64-byte aligned either way. Left
/// uninitialised: the owner writes every element.
template <class T>
class HugePageArray {
    static_assert(std::is_trivially_copyable<T>::value && std::is_trivially_destructible<T>::value,
                  "elements are neither constructed nor destroyed");

public:
    HugePageArray() = default;
    explicit HugePageArray(std::size_t count) : m_count(count)
    {
        const std::size_t bytes = count * sizeof(T);
        if (bytes >= kHugePageWorthy)
            m_data = static_cast<T*>(mapHugePages(bytes));
        if (m_data != nullptr) {
            m_mapped = bytes;
        } else if (count != 0) {
            m_data = static_cast<T*>(::operator new(bytes, std::align_val_t(64)));
        }
    }
    ~HugePageArray() { release(); }
    HugePageArray(const HugePageArray&) = delete;
    HugePageArray& operator=(const HugePageArray&) = delete;
    HugePageArray(HugePageArray&& other) noexcept { swap(other); }
    HugePageArray& operator=(HugePageArray&& other) noexcept
    {
        HugePageArray(std::move(other)).swap(*this);
        return *this;
    }

    std::size_t size() const { return m_count; }
    T* data() { return m_data; }
    const T* data() const { return m_data; }
    T& operator[](std::size_t i) { return m_data[i]; }
    const T& operator[](std::size_t i) const { return m_data[i]; }

private:
    void swap(HugePageArray& other) noexcept
    {
        std::swap(m_data, other.m_data);
        std::swap(m_count, other.m_count);
        std::swap(m_mapped, other.m_mapped);
    }
    void release()
    {
        if (m_mapped != 0)
            unmapHugePages(m_data, m_mapped);
        else if (m_data != nullptr)
            ::operator delete(m_data, std::align_val_t(64));
        m_data = nullptr;
    }

    T* m_data = nullptr;
    std::size_t m_count = 0;
    std::size_t m_mapped = 0; ///< bytes mapped; 0 when on the heap
};

/// An allocator for containers that grow large, such as a store's list of every method: blocks of
/// half a huge page or more are mapped on huge pages, where each fresh 4 KB page would cost a
/// fault of its own; smaller ones come from the heap.
template <class T>
struct HugePageAllocator {
    typedef T value_type;

    HugePageAllocator() = default;
    template <class U>
    HugePageAllocator(const HugePageAllocator<U>&) noexcept
    {
    }

    T* allocate(std::size_t count)
    {
        const std::size_t bytes = count * sizeof(T);
        if (bytes >= kHugePageWorthy) {
            if (void* mapped = mapHugePages(bytes))
                return static_cast<T*>(mapped);
            throw std::bad_alloc();
        }
        return static_cast<T*>(::operator new(bytes));
    }
    void deallocate(T* memory, std::size_t count) noexcept
    {
        const std::size_t bytes = count * sizeof(T);
        if (bytes >= kHugePageWorthy)
            unmapHugePages(memory, bytes);
        else
            ::operator delete(memory);
    }

    friend bool operator==(const HugePageAllocator&, const HugePageAllocator&) { return true; }
    friend bool operator!=(const HugePageAllocator&, const HugePageAllocator&) { return false; }
};

} // namespace velmark_3_11
