#include <Wireloom/flows/PXTCPBuffer.hpp>

#include <algorithm>
#include <bit>
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
constexpr std::size_t kWordBits = 64;
// The ring grows fourfold from this size, up to kMaxWindow (both whole flag
// words): every growth copies the window and touches new pages, and a
// window filled a byte at a time pays for each step.
constexpr std::size_t kMinCapacity = 4096;
static_assert(kMinCapacity % kWordBits == 0 && PXTCPBuffer::kMaxWindow % kWordBits == 0);
// An emptied window gives back a ring larger than this, so a connection that
// once buffered megabytes does not hold them while idle.
constexpr std::size_t kKeptCapacity = 64 * 1024;
// Runs delivered from the window up to this size are copied into a shared
// slab rather than a block each: filling holes one byte at a time would
// otherwise spend most of its time in malloc and free.
constexpr std::size_t kSlabRun = 256;
constexpr std::size_t kSlabBytes = 16 * 1024;

// A memcpy call costs more than the byte itself when segments are a byte
// long, as in a stream filled one byte at a time.
void copyRun(std::uint8_t* to, const std::uint8_t* from, std::size_t n) {
    if (n == 1)
        *to = *from;
    else
        std::memcpy(to, from, n);
}

// Sets or clears bits [from, from + n) of a stretch of words.
void setBits(std::uint64_t* words, std::size_t from, std::size_t n, bool on) {
    auto apply = [on](std::uint64_t& word, std::uint64_t mask) { word = on ? word | mask : word & ~mask; };
    std::size_t word = from / kWordBits;
    const std::size_t bit = from % kWordBits;
    if (bit + n <= kWordBits) {
        if (n) apply(words[word], (n == kWordBits ? ~0ull : (1ull << n) - 1) << bit);
        return;
    }
    if (bit) {
        apply(words[word++], ~0ull << bit);
        n -= kWordBits - bit;
    }
    std::fill_n(words + word, n / kWordBits, on ? ~0ull : 0ull);
    word += n / kWordBits;
    if (n % kWordBits) apply(words[word], (1ull << (n % kWordBits)) - 1);
}

// Builds the buffer a function returns directly inside an optional: emplace
// constructs from the conversion's result without the move out of a
// temporary, which cost a store-forwarding stall per delivery.
template <class Make>
struct InPlace {
    Make make;
    operator ByteBuffer() const { return make(); }
};
template <class Make>
InPlace(Make) -> InPlace<Make>;

}  // namespace

template <class Piece>
void PXTCPBuffer::forEachPiece(std::size_t index, std::size_t count, Piece piece) const {
    const std::size_t first = physical(index);
    const std::size_t run = std::min(count, capacity_ - first);
    if (run) piece(first, 0, run);
    if (count > run) piece(0, run, count - run);
}

std::uint64_t PXTCPBuffer::flagWord(std::size_t index) const noexcept {
    const std::size_t p = physical(index);
    const std::size_t word = p / kWordBits, shift = p % kWordBits;
    if (shift == 0) return flags_[word];
    // The ring is whole words, so the bits after its last word are its first.
    const std::size_t next = word + 1 == capacity_ / kWordBits ? 0 : word + 1;
    return flags_[word] >> shift | flags_[next] << (kWordBits - shift);
}

void PXTCPBuffer::setFlagRange(std::size_t index, std::size_t count, bool received) noexcept {
    forEachPiece(index, count,
                 [&](std::size_t p, std::size_t, std::size_t n) { setBits(flags_.get(), p, n, received); });
}

void PXTCPBuffer::reserve(std::size_t length) {
    std::size_t capacity = std::max(length, std::min<std::size_t>(std::max(4 * capacity_, kMinCapacity), kMaxWindow));
    capacity = (capacity + kWordBits - 1) / kWordBits * kWordBits;
    auto data = std::make_unique_for_overwrite<std::uint8_t[]>(capacity);
    auto flags = std::make_unique_for_overwrite<std::uint64_t[]>(capacity / kWordBits);
    forEachPiece(0, length_, [&](std::size_t p, std::size_t o, std::size_t n) { std::memcpy(&data[o], &data_[p], n); });
    for (std::size_t i = 0; i < length_; i += kWordBits) flags[i / kWordBits] = flagWord(i);
    data_ = std::move(data);
    flags_ = std::move(flags);
    capacity_ = capacity;
    head_ = 0;
}

std::size_t PXTCPBuffer::contiguousFrom(std::size_t index) const noexcept {
    for (; index < length_; index += kWordBits)
        if (const std::uint64_t holes = ~flagWord(index))
            return std::min(length_, index + static_cast<std::size_t>(std::countr_zero(holes)));
    return length_;
}

ByteBuffer PXTCPBuffer::copyFront(std::size_t count) const {
    if (head_ + count <= capacity_) return ByteBuffer::copy(&data_[head_], count);
    std::vector<std::uint8_t> bytes(count);
    forEachPiece(0, count, [&](std::size_t p, std::size_t o, std::size_t n) { std::memcpy(&bytes[o], &data_[p], n); });
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

    if (index == 0 && length_ == 0) {
        // In order with nothing waiting: the segment is the delivery, and the
        // window is never touched.
        advanceWindowStart(count);
        return ByteBuffer::copy(bytes, count);
    }
    if (length_ < offset) {
        if (offset > capacity_) reserve(offset);
        // The bytes of a hole are never read before data fills it; only its
        // flags need clearing.
        if (index > length_) setFlags(length_, index - length_, false);
        length_ = offset;
    }
    forEachPiece(index, count, [&](std::size_t p, std::size_t o, std::size_t n) { copyRun(&data_[p], bytes + o, n); });
    setFlags(index, count, true);
    // The front was a hole before this push (everything contiguous has always
    // been delivered), so only a segment placed at the front can have closed
    // it.
    if (index != 0) return std::nullopt;
    return deliverFront(contiguousFrom(count));
}

std::optional<ByteBuffer> PXTCPBuffer::deliverFront(std::size_t count) {
    std::optional<ByteBuffer> chunk;
    if (count <= kSlabRun) {
        if (!slab_ || slabUsed_ + count > kSlabBytes) {
            slab_ = std::make_shared_for_overwrite<std::uint8_t[]>(kSlabBytes);
            slabUsed_ = 0;
        }
        std::uint8_t* to = slab_.get() + slabUsed_;
        forEachPiece(0, count, [&](std::size_t p, std::size_t o, std::size_t n) { copyRun(to + o, &data_[p], n); });
        slabUsed_ += count;
        // Each run owns a share of the slab, whose later bytes are written
        // only after it, never those of a run already handed out.
        chunk.emplace(InPlace{
            [&] { return ByteBuffer::withSharedStorage(std::shared_ptr<const std::uint8_t>(slab_, to), count); }});
    } else {
        chunk.emplace(copyFront(count));
    }
    head_ = physical(count);
    length_ -= count;
    if (length_ == 0) {
        head_ = 0;
        slab_.reset();
        if (capacity_ > kKeptCapacity) {
            data_.reset();
            flags_.reset();
            capacity_ = 0;
        }
    }
    advanceWindowStart(count);
    return chunk;
}

void PXTCPBuffer::advanceWindowStart(std::size_t count) noexcept {
    windowStart_ += count;
    if (windowStart_ > kFold) windowStart_ -= kFold;
}

template <class Visit>
void PXTCPBuffer::forEachFlag(Visit visit) const {
    for (std::size_t i = 0; i < length_; i += kWordBits) {
        const std::uint64_t word = flagWord(i);
        for (std::size_t j = 0; j < std::min(kWordBits, length_ - i); ++j) visit(i + j, (word >> j & 1) != 0);
    }
}

ByteBuffer PXTCPBuffer::slidingWindow() const {
    std::vector<std::uint8_t> bytes(length_);
    forEachPiece(0, length_,
                 [&](std::size_t p, std::size_t o, std::size_t n) { std::memcpy(&bytes[o], &data_[p], n); });
    // The ring under a hole holds whatever it held before.
    forEachFlag([&](std::size_t i, bool received) {
        if (!received) bytes[i] = 0;
    });
    return ByteBuffer(std::move(bytes));
}

ByteBuffer PXTCPBuffer::slidingWindowSetBytes() const {
    std::vector<std::uint8_t> bytes(length_);
    forEachFlag([&](std::size_t i, bool received) { bytes[i] = received; });
    return ByteBuffer(std::move(bytes));
}

}  // namespace wireloom
