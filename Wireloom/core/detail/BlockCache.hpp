#pragma once
// Small heap blocks kept per thread for reuse. Report entries and styled
// strings are made and dropped by the hundred thousand, a few dozen per
// frame, and so are copies of frame-sized byte buffers (a stream's chunks);
// malloc's own per-thread cache keeps only a handful of blocks of a size,
// none above 1 KiB, and past that every free and malloc takes its slow path.
//
// Blocks are ordinary malloc blocks (of the size rounded up to a multiple
// of 64 bytes), so any of them may also be given to free(), and a block
// that did not come from here may be given to cachedFree().

#include <cstddef>
#include <new>

namespace wireloom::detail {

// Null when memory is exhausted.
void* cachedAllocate(std::size_t size) noexcept;
// `size` is what the block was asked for with.
void cachedFree(void* block, std::size_t size) noexcept;

// For allocate_shared and containers.
template <class T>
struct CachedAllocator {
    using value_type = T;
    CachedAllocator() noexcept = default;
    template <class U>
    CachedAllocator(const CachedAllocator<U>&) noexcept {}
    T* allocate(std::size_t n) {
        void* block = cachedAllocate(n * sizeof(T));
        if (!block) throw std::bad_alloc();
        return static_cast<T*>(block);
    }
    void deallocate(T* block, std::size_t n) noexcept { cachedFree(block, n * sizeof(T)); }
    template <class U>
    bool operator==(const CachedAllocator<U>&) const noexcept {
        return true;
    }
};

}  // namespace wireloom::detail
