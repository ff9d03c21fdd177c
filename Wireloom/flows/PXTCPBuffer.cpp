#include <Wireloom/flows/PXTCPBuffer.hpp>

#include <algorithm>
#include <bit>
#include <cstring>
#include <vector>

namespace wireloom {

namespace {

constexpr std::size_t kWordBits = 64;
// The ring grows fourfold from this size, up to kMaxWindow (both whole flag
// words): every growth copies the window and touches new pages, and a
// window filled a byte at a time pays for each step.
constexpr std::size_t kMinCapacity = 4096;
static_assert(kMinCapacity % kWordBits == 0 && PXTCPBuffer::kMaxWindow % kWordBits == 0);
// An emptied window gives back a ring larger than this, so a connection that
// once buffered megabytes does not hold them while idle.
constexpr std::size_t kKeptCapacity = 64 * 1024;

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

}  // namespace

void PXTCPBuffer::setFlagRange(std::size_t index, std::size_t count, bool received) noexcept {
    forEachPiece(index, count,
                 [&](std::size_t p, std::size_t, std::size_t n) { setBits(flags_.get(), p, n, received); });
}

void PXTCPBuffer::reserve(std::size_t length) {
    std::size_t capacity = std::max(length, std::min<std::size_t>(std::max(4 * capacity_, kMinCapacity), kMaxWindow));
    capacity = (capacity + kWordBits - 1) / kWordBits * kWordBits;
    auto data = std::make_unique_for_overwrite<std::uint8_t[]>(capacity);
    // Zeroed: flags past the window must read as holes.
    auto flags = std::make_unique<std::uint64_t[]>(capacity / kWordBits);
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

void PXTCPBuffer::renewSlab() {
    slab_ = std::make_shared_for_overwrite<std::uint8_t[]>(kSlabBytes);
    slabUsed_ = 0;
}

std::optional<ByteBuffer> PXTCPBuffer::deliverLong(const std::uint8_t* segment, std::size_t fromSegment,
                                                   std::size_t count) {
    ByteBuffer chunk = ByteBuffer::build(count, [&](std::uint8_t* to) {
        gatherFront(to, segment, fromSegment, count,
                    [](std::uint8_t* to, const std::uint8_t* from, std::size_t n) { std::memcpy(to, from, n); });
    });
    cutFront(count);
    return chunk;
}

void PXTCPBuffer::emptyWindow() noexcept {
    if (capacity_ > kKeptCapacity) {
        data_.reset();
        flags_.reset();
        capacity_ = 0;
    } else if (length_) {
        setFlags(0, length_, false);
    }
    length_ = 0;
    head_ = 0;
    slab_.reset();
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
