#pragma once
// PXTCPBuffer: one direction of one TCP connection put back in order.
// Segments are pushed in capture order with their 32-bit sequence numbers;
// each push answers the bytes that have just become contiguous with what was
// delivered before, as one new buffer of their own. Older bytes are ignored
// and repeated ones overwrite themselves; the buffer knows nothing of SYN,
// FIN or acknowledgements.
//
//   PXTCPBuffer stream;
//   bool missing = false;
//   if (auto chunk = stream.pushData(tcp->payload().span(), tcp->seqNumber(), &missing))
//       deliver(*chunk);
//   else if (missing)
//       fail("bytes lost");
//
// The first segment pushed anchors the stream. Bytes wait in a window of at
// most kMaxWindow bytes past the first undelivered one; a segment reaching
// beyond it sets the missing flag and changes nothing, which is how a hole
// that will never fill (a lost segment) comes to light.
//
// A short run filled from the window (up to 256 bytes) shares a 16 KiB block
// with the runs delivered around it; keeping one keeps that block.

#include <Wireloom/core/ByteBuffer.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

namespace wireloom {

class PXTCPBuffer {
public:
    static constexpr std::uint64_t kMaxWindow = 10'485'760;  // 10 MiB

    PXTCPBuffer() noexcept = default;
    PXTCPBuffer(PXTCPBuffer&&) noexcept = default;
    PXTCPBuffer& operator=(PXTCPBuffer&&) noexcept = default;
    ~PXTCPBuffer() = default;

    // The bytes made deliverable by this segment, or nothing. *missing (when
    // given) is cleared, and set only when the segment ends beyond the window.
    std::optional<ByteBuffer> pushData(std::span<const std::uint8_t> data, std::uint32_t seq, bool* missing);

    // Stream position of the first byte not yet delivered.
    std::uint64_t windowStart() const noexcept { return windowStart_; }
    // Whether anything was ever pushed.
    bool seenData() const noexcept { return seenData_; }
    // Bytes held from windowStart() on, holes included.
    std::size_t windowLength() const noexcept { return length_; }
    // Copies of the window, for inspection (each costs a pass over it): the
    // bytes (zero in the holes), and one byte per position, 1 where data
    // arrived and 0 in a hole.
    ByteBuffer slidingWindow() const;
    ByteBuffer slidingWindowSetBytes() const;

private:
    // Ring position of the window's index `index`.
    std::size_t physical(std::size_t index) const noexcept {
        std::size_t p = head_ + index;
        return p >= capacity_ ? p - capacity_ : p;
    }
    // Calls piece(ringPosition, offsetInRange, length) for the one or two
    // contiguous stretches of ring that hold window indices [index, index+count).
    template <class Piece>
    void forEachPiece(std::size_t index, std::size_t count, Piece piece) const;
    // Grows the ring to hold at least `length` bytes.
    void reserve(std::size_t length);
    // Inline for a single position, which a stream filled a byte at a time
    // sets twice a push.
    void setFlags(std::size_t index, std::size_t count, bool received) noexcept {
        if (count != 1) return setFlagRange(index, count, received);
        const std::size_t p = physical(index);
        const std::uint64_t bit = std::uint64_t{1} << (p % 64);
        std::uint64_t& word = flags_[p / 64];
        word = received ? word | bit : word & ~bit;
    }
    void setFlagRange(std::size_t index, std::size_t count, bool received) noexcept;
    // The flags of window indices [index, index + 64), bit i for index + i;
    // bits past the window's end mean nothing.
    std::uint64_t flagWord(std::size_t index) const noexcept;
    // Calls visit(index, received) for every position of the window.
    template <class Visit>
    void forEachFlag(Visit visit) const;
    // The first hole at or after `index`, or the window's length.
    std::size_t contiguousFrom(std::size_t index) const noexcept;
    // The first `count` window bytes, as a new buffer.
    ByteBuffer copyFront(std::size_t count) const;
    // Hands out the first `count` bytes and cuts them from the window; short
    // runs are copied into the slab they share.
    std::optional<ByteBuffer> deliverFront(std::size_t count);
    void advanceWindowStart(std::size_t count) noexcept;

    std::uint64_t windowStart_ = 0;
    bool seenData_ = false;
    // The window lives in a ring of capacity_ bytes (a multiple of 64)
    // starting at head_, so delivering from the front moves nothing. Bit p of
    // flags_ is set when data_[p] holds received data; the flags are words so
    // that a scan or a fill covers 64 positions a step, and a full window
    // costs 10 MiB of data and 1.25 MiB of flags.
    std::unique_ptr<std::uint8_t[]> data_;
    std::unique_ptr<std::uint64_t[]> flags_;
    std::size_t capacity_ = 0;
    std::size_t head_ = 0;
    std::size_t length_ = 0;
    // Dropped whenever the window empties, so an idle connection holds none.
    std::shared_ptr<std::uint8_t[]> slab_;
    std::size_t slabUsed_ = 0;
};

}  // namespace wireloom
