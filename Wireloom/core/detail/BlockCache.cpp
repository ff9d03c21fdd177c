#include <Wireloom/core/detail/BlockCache.hpp>

#include <malloc.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>

namespace wireloom::detail {

namespace {

constexpr std::size_t kGranule = 64;
constexpr std::size_t kClasses = 32;            // blocks of up to 2 KiB: a full-sized frame
constexpr std::uint8_t kDepth = 64;             // blocks kept per class and thread, at most
constexpr std::size_t kClassBytes = 64 * 1024;  // and at most so many bytes of them

// 64 blocks up to 1 KiB, fewer of the larger ones.
constexpr std::uint8_t depthOf(std::size_t c) noexcept {
    return static_cast<std::uint8_t>(std::min<std::size_t>(kDepth, kClassBytes / ((c + 1) * kGranule)));
}

// Trivially destructible, so it can be read at any point of a thread's
// exit; `closed` is set once the blocks have been given back.
struct Cache {
    void* blocks[kClasses][kDepth];
    std::uint8_t counts[kClasses];
    bool closed;
    bool closerArmed;
};
thread_local Cache tCache;

struct Closer {
    ~Closer() {
        for (std::size_t c = 0; c < kClasses; ++c)
            while (tCache.counts[c]) std::free(tCache.blocks[c][--tCache.counts[c]]);
        tCache.closed = true;
    }
};

void armCloser() {
    static thread_local Closer closer;
    (void)closer;
    tCache.closerArmed = true;
}

std::size_t classOf(std::size_t size) noexcept { return size == 0 ? 0 : (size - 1) / kGranule; }

}  // namespace

void* cachedAllocate(std::size_t size) noexcept {
    const std::size_t c = classOf(size);
    if (c >= kClasses) return std::malloc(size);
    if (tCache.counts[c]) return tCache.blocks[c][--tCache.counts[c]];
    return std::malloc((c + 1) * kGranule);
}

void cachedFree(void* block, std::size_t size) noexcept {
    if (!block) return;
    const std::size_t c = classOf(size);
    // A block is kept only if it can serve any request of its class.
    if (c >= kClasses || tCache.closed || tCache.counts[c] == depthOf(c) ||
        malloc_usable_size(block) < (c + 1) * kGranule) {
        std::free(block);
        return;
    }
    if (!tCache.closerArmed) armCloser();
    tCache.blocks[c][tCache.counts[c]++] = block;
}

}  // namespace wireloom::detail
