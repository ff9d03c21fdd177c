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

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
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
    // A window start above this lies within kMaxWindow of 2^32 (it is
    // 2^32 - kMaxWindow - 1); a segment below kMaxWindow is then taken to
    // have wrapped.
    static constexpr std::uint64_t kWrapWindowStart = 0xFF5FFFFF;
    // Added to a wrapped sequence number, and taken off a window start that
    // passes it. It is 2^32 - 1, not 2^32, so one position is lost at each
    // wrap (a sender's byte at 4 after the wrap is taken as stale when the
    // window has folded to 5); flows built on this buffer rely on that exact
    // arithmetic, and the two uses must stay the same number.
    static constexpr std::uint64_t kFold = 0xFFFFFFFF;
    // Runs delivered from the window up to this size are copied into a
    // shared slab rather than a block each: filling holes one byte at a time
    // would otherwise spend most of its time in malloc and free.
    static constexpr std::size_t kSlabRun = 256;
    static constexpr std::size_t kSlabBytes = 16 * 1024;

    // Ring position of the window's index `index`.
    std::size_t physical(std::size_t index) const noexcept {
        std::size_t p = head_ + index;
        return p >= capacity_ ? p - capacity_ : p;
    }
    // Calls piece(ringPosition, offsetInRange, length) for the one or two
    // contiguous stretches of ring that hold window indices [index, index+count).
    template <class Piece>
    void forEachPiece(std::size_t index, std::size_t count, Piece piece) const {
        const std::size_t first = physical(index);
        const std::size_t run = count < capacity_ - first ? count : capacity_ - first;
        if (run) piece(first, 0, run);
        if (count > run) piece(0, run, count - run);
    }
    // A memcpy call costs more than the byte itself when segments are a
    // byte long, as in a stream filled one byte at a time.
    static void copyRun(std::uint8_t* to, const std::uint8_t* from, std::size_t n) noexcept {
        if (n == 1)
            *to = *from;
        else
            std::memcpy(to, from, n);
    }
    // Grows the ring to hold at least `length` bytes.
    void reserve(std::size_t length);
    // Inline when the positions share one flag word, as they do when a
    // stream is filled a byte at a time.
    void setFlags(std::size_t index, std::size_t count, bool received) noexcept {
        const std::size_t p = physical(index), bit = p % 64;
        if (bit + count > 64) return setFlagRange(index, count, received);
        const std::uint64_t mask = (count == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << count) - 1) << bit;
        std::uint64_t& word = flags_[p / 64];
        word = received ? word | mask : word & ~mask;
    }
    void setFlagRange(std::size_t index, std::size_t count, bool received) noexcept;
    // The flags of window indices [index, index + 64), bit i for index + i;
    // bits past the window's end are clear.
    std::uint64_t flagWord(std::size_t index) const noexcept {
        const std::size_t p = physical(index);
        const std::size_t word = p / 64, shift = p % 64;
        if (shift == 0) return flags_[word];
        // The ring is whole words, so the bits after its last word are its first.
        const std::size_t next = word + 1 == capacity_ / 64 ? 0 : word + 1;
        return flags_[word] >> shift | flags_[next] << (64 - shift);
    }
    // Calls visit(index, received) for every position of the window.
    template <class Visit>
    void forEachFlag(Visit visit) const;
    // The first hole at or after `index`, or the window's length.
    std::size_t contiguousFrom(std::size_t index) const noexcept;
    // Writes the first `count` bytes of the window to `to` with
    // copy(to, from, length), the first `fromSegment` of them from `segment`
    // rather than the ring.
    template <class Copy>
    void gatherFront(std::uint8_t* to, const std::uint8_t* segment, std::size_t fromSegment, std::size_t count,
                     Copy copy) const {
        copy(to, segment, fromSegment);
        if (count > fromSegment)
            forEachPiece(fromSegment, count - fromSegment, [&](std::size_t p, std::size_t o, std::size_t n) {
                copy(to + fromSegment + o, &data_[p], n);
            });
    }
    // Hand out the first `count` bytes (the first `fromSegment` of them from
    // the segment that closed the front hole) and cut them from the window:
    // a short run is copied into the slab it shares, a long one into a
    // buffer of its own.
    std::optional<ByteBuffer> deliverShort(const std::uint8_t* segment, std::size_t fromSegment, std::size_t count);
    std::optional<ByteBuffer> deliverLong(const std::uint8_t* segment, std::size_t fromSegment, std::size_t count);
    void renewSlab();
    void cutFront(std::size_t count) noexcept {
        // The delivered positions leave the window with their flags clear,
        // which is what lets a new hole go without clearing.
        if (count < length_) {
            setFlags(0, count, false);
            head_ = physical(count);
            length_ -= count;
        } else {
            emptyWindow();
        }
        advanceWindowStart(count);
    }
    void emptyWindow() noexcept;
    void advanceWindowStart(std::size_t count) noexcept {
        windowStart_ += count;
        if (windowStart_ > kFold) windowStart_ -= kFold;
    }

    std::uint64_t windowStart_ = 0;
    bool seenData_ = false;
    // The window lives in a ring of capacity_ bytes (a multiple of 64)
    // starting at head_, so delivering from the front moves nothing. Bit p of
    // flags_ is set when data_[p] holds received data, and clear everywhere
    // outside the window; the flags are words so that a scan or a fill covers
    // 64 positions a step, and a full window costs 10 MiB of data and
    // 1.25 MiB of flags.
    std::unique_ptr<std::uint8_t[]> data_;
    std::unique_ptr<std::uint64_t[]> flags_;
    std::size_t capacity_ = 0;
    std::size_t head_ = 0;
    std::size_t length_ = 0;
    // Dropped whenever the window empties, so an idle connection holds none.
    std::shared_ptr<std::uint8_t[]> slab_;
    std::size_t slabUsed_ = 0;
};

// A stream filled a few bytes at a time pushes once per byte or two, so the
// push and the short delivery are inline: the caller's loop pays no call,
// no saved registers and no copy of the returned buffer for them. What is
// rare (growing the ring, long runs, a new slab, an emptied window) stays
// out of line.

inline std::optional<ByteBuffer> PXTCPBuffer::pushData(std::span<const std::uint8_t> data, std::uint32_t seq32,
                                                       bool* missing) {
    if (missing) *missing = false;
    const std::uint64_t seq = seq32;
    // No SYN handling: whatever comes first anchors the stream.
    if (!seenData_) [[unlikely]] {
        seenData_ = true;
        windowStart_ = seq;
    }
    const bool wrapped = seq < kMaxWindow && windowStart_ > kWrapWindowStart;
    // Stale: old data, and also a segment that starts before the window but
    // reaches past it, whose new tail goes with it.
    if (seq < windowStart_ && !wrapped) return std::nullopt;
    const std::uint64_t start = wrapped ? seq + kFold : seq;
    const std::uint64_t end = start + data.size();
    // Only an empty segment gets here; kept as a guard all the same.
    if (end <= windowStart_) return std::nullopt;
    const std::uint64_t offset = end - windowStart_;
    if (offset > kMaxWindow) {
        if (missing) *missing = true;
        return std::nullopt;
    }

    // Past the stale test a segment never starts before the window; the
    // clamp only keeps placement inside it should that test ever change.
    const std::uint64_t from = start > windowStart_ ? start : windowStart_;
    const std::uint8_t* bytes = data.data() + (from - start);
    const std::size_t index = from - windowStart_;
    const std::size_t count = end - from;

    if (index == 0) {
        // In order with nothing waiting: the segment is the delivery, and
        // the window is never touched.
        if (length_ == 0) {
            advanceWindowStart(count);
            return ByteBuffer::copy(bytes, count);
        }
        // The segment closes the hole at the front (everything contiguous
        // has always been delivered), so its own bytes go out straight from
        // it, followed by whatever it joined up with; they never visit the
        // ring.
        std::size_t run = count;
        if (count < length_) {
            // The next flag word nearly always settles where the run ends.
            const std::uint64_t holes = ~flagWord(count);
            run = holes ? count + static_cast<std::size_t>(std::countr_zero(holes)) : contiguousFrom(count + 64);
            if (run > length_) run = length_;
        }
        return run <= kSlabRun ? deliverShort(bytes, count, run) : deliverLong(bytes, count, run);
    }
    if (length_ < offset) {
        if (offset > capacity_) reserve(offset);
        // Flags past the window are always clear, so a hole needs nothing.
        length_ = offset;
    }
    forEachPiece(index, count, [&](std::size_t p, std::size_t o, std::size_t n) { copyRun(&data_[p], bytes + o, n); });
    setFlags(index, count, true);
    return std::nullopt;
}

inline std::optional<ByteBuffer> PXTCPBuffer::deliverShort(const std::uint8_t* segment, std::size_t fromSegment,
                                                           std::size_t count) {
    if (!slab_ || slabUsed_ + count > kSlabBytes) [[unlikely]]
        renewSlab();
    std::uint8_t* to = slab_.get() + slabUsed_;
    gatherFront(to, segment, fromSegment, count, copyRun);
    slabUsed_ += count;
    // Each run owns a share of the slab, whose later bytes are written only
    // after it, never those of a run already handed out. Taken before the
    // cut, which drops the slab when the window empties.
    ByteBuffer chunk = ByteBuffer::withSharedStorage(std::shared_ptr<const std::uint8_t>(slab_, to), count);
    cutFront(count);
    return chunk;
}

}  // namespace wireloom
