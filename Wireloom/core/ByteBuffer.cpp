#include <Wireloom/core/Assert.hpp>
#include <Wireloom/core/ByteBuffer.hpp>
#include <Wireloom/core/detail/BlockCache.hpp>

#include <cstring>

namespace wireloom {

namespace {
constexpr std::uint8_t kEmptyByte = 0;
}

ByteBuffer::ByteBuffer(std::vector<std::uint8_t>&& bytes) {
    if (bytes.empty()) return;
    auto owner = std::make_shared<std::vector<std::uint8_t>>(std::move(bytes));
    size_ = owner->size();
    storage_ = std::shared_ptr<const std::uint8_t>(owner, owner->data());
}

ByteBuffer ByteBuffer::allocate(std::size_t length, std::uint8_t** bytes) {
    // One allocation for the count and the bytes together, from the thread's
    // cache of blocks: a stream's chunks and a replay's frames are copied
    // and dropped by the hundred thousand, most of them larger than what
    // malloc keeps at hand.
    std::shared_ptr<std::uint8_t[]> block =
        std::allocate_shared_for_overwrite<std::uint8_t[]>(detail::CachedAllocator<std::uint8_t>(), length);
    *bytes = block.get();
    return ByteBuffer(std::shared_ptr<const std::uint8_t>(std::move(block), *bytes), length);
}

ByteBuffer ByteBuffer::copy(const void* bytes, std::size_t length) {
    return build(length, [&](std::uint8_t* to) { std::memcpy(to, bytes, length); });
}

const std::uint8_t* ByteBuffer::emptyBytes() noexcept { return &kEmptyByte; }

std::uint8_t ByteBuffer::operator[](std::size_t index) const noexcept {
    WL_ASSERT(index < size_, "ByteBuffer index out of range");
    return storage_.get()[index];
}

bool operator==(const ByteBuffer& a, const ByteBuffer& b) noexcept {
    return a.size_ == b.size_ && (a.size_ == 0 || std::memcmp(a.data(), b.data(), a.size_) == 0);
}

void MutableByteBuffer::append(const void* bytes, std::size_t length) {
    if (length == 0) return;
    auto p = static_cast<const std::uint8_t*>(bytes);
    bytes_.insert(bytes_.end(), p, p + length);
}

}  // namespace wireloom
