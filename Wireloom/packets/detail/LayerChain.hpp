#pragma once
// LayerChain: how the layers of one decoded frame are owned together.
//
// Each layer keeps its outer layer alive and only watches its inner one, so
// the one reference that counts for a frame nobody takes apart is the one on
// its innermost layer. The decode chain therefore gives a frame's layers a
// single reference count, the innermost layer's, and drops them together
// when it goes. Only when someone takes a share of an outer layer (or links
// layers by hand) does the chain give every layer its own count, as if it
// had been built that way, so that holding an outer layer alone lets the
// inner ones go. Which of the two a chain is in never changes back.
//
// The chain lives in the frame's block, which outlives every layer in it.

#include <Wireloom/packets/detail/FrameArena.hpp>

#include <atomic>
#include <cstddef>
#include <new>

namespace wireloom {
class PXPacket;
}

namespace wireloom::detail {

struct LayerChain {
    enum Ownership : int { kWhole, kSeparating, kPerLayer };

    explicit LayerChain(FrameArena* block) noexcept : arena(block) {}

    bool whole() const noexcept { return ownership.load(std::memory_order_acquire) == kWhole; }
    // Room for a layer. While the chain is owned as one, its layers hold no
    // reference to the block each: the innermost layer's count holds it for
    // them all. A layer that does not fit goes to the heap.
    void* storageFor(std::size_t bytes, std::size_t alignment) {
        if (void* p = arena->allocateUnreferenced(bytes, alignment)) return p;
        return ::operator new(bytes);
    }

    FrameArena* arena;
    PXPacket* innermost = nullptr;
    // The layer the running decoder made and has not been linked yet: freed
    // by the chain if the decoder gives up after making it.
    PXPacket* unlinked = nullptr;
    std::atomic<int> ownership{kWhole};
};

// The chain being decoded on this thread, while its layers are still owned
// as one; built-in decoders make their layers in it.
inline thread_local LayerChain* tCurrentLayerChain = nullptr;

}  // namespace wireloom::detail
