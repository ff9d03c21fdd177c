#include <Wireloom/flows/PXTCPBuffer.hpp>

#include <algorithm>
#include <cstring>
#include <vector>

namespace wireloom {

namespace {

// A window start above this lies within kMaxWindow of 2^32 (it is
// 2^32 - kMaxWindow - 1); a segment below kMaxWindow is then taken to have
// wrapped.
constexpr std::uint64_t kWrapWindowStart = 0xFF5FFFFF;
// Added to a wrapped sequence number, and taken off a window start that
// passes it. It is 2^32 - 1, not 2^32, so one position is lost at each wrap
// (a sender's byte at 4 after the wrap is taken as stale when the window has
// folded to 5); flows built on this buffer rely on that exact arithmetic, and
// the two uses must stay the same number.
constexpr std::uint64_t kFold = 0xFFFFFFFF;
// The ring grows by doubling from this size, up to kMaxWindow.
constexpr std::size_t kMinCapacity = 4096;
// An emptied window gives back a ring larger than this, so a connection that
// once buffered megabytes does not hold them while idle.
constexpr std::size_t kKeptCapacity = 64 * 1024;

}  // namespace

template <class Piece>
void PXTCPBuffer::forEachPiece(std::size_t index, std::size_t count, Piece piece) const {
    const std::size_t first = physical(index);
    const std::size_t run = std::min(count, capacity_ - first);
    if (run) piece(first, 0, run);
    if (count > run) piece(0, run, count - run);
}

void PXTCPBuffer::reserve(std::size_t length) {
    if (length <= capacity_) return;
    const std::size_t capacity =
        std::max(length, std::min<std::size_t>(std::max(2 * capacity_, kMinCapacity), kMaxWindow));
    auto storage = std::make_unique_for_overwrite<std::uint8_t[]>(2 * capacity);
    forEachPiece(0, length_, [&](std::size_t p, std::size_t o, std::size_t n) {
        std::memcpy(storage.get() + o, storage_.get() + p, n);
        std::memcpy(storage.get() + capacity + o, storage_.get() + capacity_ + p, n);
    });
    storage_ = std::move(storage);
    capacity_ = capacity;
    head_ = 0;
}

std::size_t PXTCPBuffer::contiguousFrom(std::size_t index) const noexcept {
    const std::uint8_t* flags = storage_.get() + capacity_;
    std::size_t p = physical(index);
    for (std::size_t at = index; at < length_; p = 0) {
        const std::size_t run = std::min(length_ - at, capacity_ - p);
        if (auto zero = static_cast<const std::uint8_t*>(std::memchr(flags + p, 0, run)))
            return at + (zero - (flags + p));
        at += run;
    }
    return length_;
}

ByteBuffer PXTCPBuffer::copyFront(std::size_t plane, std::size_t count) const {
    const std::uint8_t* ring = storage_.get() + plane;
    if (head_ + count <= capacity_) return ByteBuffer::copy(ring + head_, count);
    std::vector<std::uint8_t> bytes(count);
    forEachPiece(0, count, [&](std::size_t p, std::size_t o, std::size_t n) { std::memcpy(&bytes[o], ring + p, n); });
    return ByteBuffer(std::move(bytes));
}

std::optional<ByteBuffer> PXTCPBuffer::pushData(std::span<const std::uint8_t> data, std::uint32_t seq32,
                                                bool* missing) {
    if (missing) *missing = false;
    const std::uint64_t seq = seq32;
    // No SYN handling: whatever comes first anchors the stream.
    if (!seenData_) {
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
    const std::uint64_t from = std::max(start, windowStart_);
    const std::uint8_t* bytes = data.data() + (from - start);
    const std::size_t index = from - windowStart_;
    const std::size_t count = end - from;

    ByteBuffer chunk;
    if (index == 0 && length_ == 0) {
        // In order with nothing waiting: the segment is the delivery, and the
        // window is never touched.
        chunk = ByteBuffer::copy(bytes, count);
    } else {
        if (length_ < offset) {
            reserve(offset);
            if (index > length_) {
                // Only the flags: the bytes of a hole are never read before
                // data fills it.
                forEachPiece(length_, index - length_, [&](std::size_t p, std::size_t, std::size_t n) {
                    std::memset(storage_.get() + capacity_ + p, 0, n);
                });
            }
            length_ = offset;
        }
        forEachPiece(index, count, [&](std::size_t p, std::size_t o, std::size_t n) {
            std::memcpy(storage_.get() + p, bytes + o, n);
            std::memset(storage_.get() + capacity_ + p, 1, n);
        });
        // The front was a hole before this push (everything contiguous has
        // always been delivered), so only a segment placed at the front can
        // have closed it.
        if (index != 0) return std::nullopt;
        const std::size_t contiguous = contiguousFrom(count);
        chunk = copyFront(0, contiguous);
        head_ = physical(contiguous);
        length_ -= contiguous;
        if (length_ == 0) {
            head_ = 0;
            if (capacity_ > kKeptCapacity) {
                storage_.reset();
                capacity_ = 0;
            }
        }
    }
    windowStart_ += chunk.size();
    if (windowStart_ > kFold) windowStart_ -= kFold;
    return chunk;
}

ByteBuffer PXTCPBuffer::slidingWindow() const {
    std::vector<std::uint8_t> bytes(length_);
    forEachPiece(0, length_, [&](std::size_t p, std::size_t o, std::size_t n) {
        for (std::size_t i = 0; i < n; ++i)
            if (storage_[capacity_ + p + i]) bytes[o + i] = storage_[p + i];
    });
    return ByteBuffer(std::move(bytes));
}

ByteBuffer PXTCPBuffer::slidingWindowSetBytes() const { return copyFront(capacity_, length_); }

}  // namespace wireloom
