#pragma once
// FrameArena: one heap block per decoded frame, holding the captured bytes
// and every layer object of the chain (with their reference-count blocks).
// Decoding a frame then costs one malloc and one free instead of one per
// layer, which is most of what a frame costs.
//
// The block lives as long as anything allocated in it: each allocation holds
// one reference, released when its shared_ptr control block goes away (weak
// references included); what is allocated unreferenced is kept alive by
// something else in the block (see LayerChain). The builder holds a large
// bias while it decodes, so counting the allocations made during the decode
// is plain arithmetic; the bias is settled once at the end.

#include <ext/atomicity.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <span>

namespace wireloom::detail {

class FrameArena {
public:
    // Room for the layers of an ordinary frame; longer chains fall back to
    // the heap for what does not fit.
    static constexpr std::size_t kLayerBytes = 1024;

    static FrameArena* create(std::size_t frameBytes);
    FrameArena(const FrameArena&) = delete;
    FrameArena& operator=(const FrameArena&) = delete;

    std::uint8_t* frameData() noexcept { return reinterpret_cast<std::uint8_t*>(this + 1); }

    // Memory from the arena, or null when it is full or sealed.
    void* allocate(std::size_t bytes, std::size_t alignment) noexcept {
        void* p = allocateUnreferenced(bytes, alignment);
        if (p) ++pendingReferences_;
        return p;
    }
    // Memory that no allocator will give back, for what is reached only
    // through something else the block holds: text decoded from the captured
    // bytes, or objects that an object there destroys with itself (a
    // message's records and resources). It takes no reference of its own.
    // Every allocation is rounded up to kGrain bytes, so that the next one
    // starts aligned for any ordinary object without arithmetic.
    void* allocateUnreferenced(std::size_t bytes, std::size_t alignment = 1) noexcept {
        std::size_t start = next_;
        if (alignment > kGrain) [[unlikely]] {
            start = (start + alignment - 1) & ~(alignment - 1);
            if (start > end_) return nullptr;
        }
        const std::size_t rounded = (bytes + kGrain - 1) & ~(kGrain - 1);
        if (rounded > end_ - start || rounded < bytes) return nullptr;
        next_ = start + rounded;
        return reinterpret_cast<std::uint8_t*>(this) + start;
    }
    // What allocateUnreferenced would hand out next, to write in before asking.
    std::span<std::uint8_t> unallocated() noexcept {
        return {reinterpret_cast<std::uint8_t*>(this) + next_, end_ - next_};
    }
    bool owns(const void* p) const noexcept {
        auto address = reinterpret_cast<std::uintptr_t>(p);
        auto base = reinterpret_cast<std::uintptr_t>(this);
        return address >= base && address < base + end_;
    }
    // Another holder of the block, after the decode.
    void retain() noexcept { __gnu_cxx::__atomic_add_dispatch(&references_, 1); }
    void release() noexcept {
        // The same dispatch shared_ptr uses for its counts: a plain decrement
        // while the process has a single thread, an atomic one otherwise.
        if (__gnu_cxx::__exchange_and_add_dispatch(&references_, -1) == 1) destroy();
    }
    // Ends the decode: no more allocations; the builder's bias is replaced by
    // the count of allocations made.
    void seal() noexcept;

private:
    static constexpr std::size_t kGrain = 8;
    static constexpr _Atomic_word kBuilderBias = 1 << 30;
    FrameArena(std::size_t frameEnd, std::size_t end, bool cacheable) noexcept
        : next_((frameEnd + kGrain - 1) & ~(kGrain - 1)), end_(end), cacheable_(cacheable) {}
    void destroy() noexcept;

    _Atomic_word references_ = kBuilderBias;
    _Atomic_word pendingReferences_ = 0;
    std::size_t next_;
    std::size_t end_;
    bool cacheable_;
};

// The allocator handed to allocate_shared while a frame is decoded.
template <class T>
class FrameArenaAllocator {
public:
    using value_type = T;
    explicit FrameArenaAllocator(FrameArena* arena) noexcept : arena_(arena) {}
    template <class U>
    FrameArenaAllocator(const FrameArenaAllocator<U>& other) noexcept : arena_(other.arena()) {}

    T* allocate(std::size_t n) {
        if (void* p = arena_->allocate(n * sizeof(T), alignof(T))) return static_cast<T*>(p);
        return static_cast<T*>(::operator new(n * sizeof(T)));
    }
    void deallocate(T* p, std::size_t) noexcept {
        if (arena_->owns(p))
            arena_->release();
        else
            ::operator delete(p);  // unsized: clang does not enable sized deallocation by default
    }
    FrameArena* arena() const noexcept { return arena_; }
    friend bool operator==(const FrameArenaAllocator& a, const FrameArenaAllocator& b) noexcept {
        return a.arena_ == b.arena_;
    }

private:
    FrameArena* arena_;
};

// The arena of the frame this thread is decoding, if any.
inline thread_local FrameArena* tCurrentFrameArena = nullptr;

// Makes an arena the current one for a decode, and seals it afterwards.
class FrameArenaScope {
public:
    explicit FrameArenaScope(FrameArena* arena) noexcept : arena_(arena), previous_(tCurrentFrameArena) {
        tCurrentFrameArena = arena;
    }
    ~FrameArenaScope() {
        tCurrentFrameArena = previous_;
        arena_->seal();
    }
    FrameArenaScope(const FrameArenaScope&) = delete;
    FrameArenaScope& operator=(const FrameArenaScope&) = delete;

private:
    FrameArena* arena_;
    FrameArena* previous_;
};

}  // namespace wireloom::detail
