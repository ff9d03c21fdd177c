#include <Wireloom/packets/detail/FrameArena.hpp>

#include <cstdlib>

namespace wireloom::detail {

namespace {

// Blocks of one common size are kept for reuse by the thread that frees them:
// a frame block is too large for the allocator's own per-thread cache, and
// taking it from the general heap cost more than decoding the frame.
constexpr std::size_t kCachedBlockSize = 4096;
constexpr int kCachedBlocks = 16;

struct BlockCache {
    void* blocks[kCachedBlocks];
    int count = 0;
    ~BlockCache() {
        while (count) std::free(blocks[--count]);
    }
};

thread_local BlockCache tBlockCache;

}  // namespace

FrameArena* FrameArena::create(std::size_t frameBytes) {
    constexpr std::size_t align = alignof(std::max_align_t);
    const std::size_t frameEnd = sizeof(FrameArena) + frameBytes;
    const std::size_t layersStart = (frameEnd + align - 1) & ~(align - 1);
    std::size_t end = layersStart + kLayerBytes;
    void* block;
    if (end <= kCachedBlockSize) {
        end = kCachedBlockSize;  // the whole block serves the layers
        BlockCache& cache = tBlockCache;
        block = cache.count ? cache.blocks[--cache.count] : std::malloc(kCachedBlockSize);
    } else {
        block = std::malloc(end);
    }
    if (!block) throw std::bad_alloc();
    return new (block) FrameArena(frameEnd, end, end == kCachedBlockSize);
}

void FrameArena::seal() noexcept {
    const _Atomic_word settle = kBuilderBias - pendingReferences_;
    end_ = next_;  // nothing more comes from here
    if (__gnu_cxx::__exchange_and_add_dispatch(&references_, -settle) == settle) destroy();
}

void FrameArena::destroy() noexcept {
    const bool cacheable = cacheable_;
    this->~FrameArena();
    BlockCache& cache = tBlockCache;
    if (cacheable && cache.count < kCachedBlocks)
        cache.blocks[cache.count++] = this;
    else
        std::free(this);
}

}  // namespace wireloom::detail
