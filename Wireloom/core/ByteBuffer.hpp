#pragma once
// ByteBuffer: the library's immutable byte buffer. Copies share one block of
// bytes, and a sub-range shares its parent's block too, so a decoded layer can
// hand out its payload without copying the frame again:
//
//   ByteBuffer frame = ByteBuffer::copy(bytes, length);   // one copy
//   ByteBuffer payload = frame.subrange(54, frame.size() - 54); // no copy
//
// The member functions in the second group are the PXRV utilities that the
// whole library shares (digests, base64, hex, printable text).

#include <Wireloom/core/Assert.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace wireloom {

class ByteBuffer {
public:
    ByteBuffer() noexcept = default;
    // Takes over the bytes of a vector without copying them.
    explicit ByteBuffer(std::vector<std::uint8_t>&& bytes);
    ByteBuffer(const ByteBuffer& other) noexcept { assignFrom(other); }
    ByteBuffer(ByteBuffer&& other) noexcept { moveFrom(std::move(other)); }
    ByteBuffer& operator=(const ByteBuffer& other) noexcept {
        if (this != &other) assignFrom(other);
        return *this;
    }
    ByteBuffer& operator=(ByteBuffer&& other) noexcept {
        if (this != &other) moveFrom(std::move(other));
        return *this;
    }
    ~ByteBuffer() = default;

    static ByteBuffer copy(const void* bytes, std::size_t length);
    static ByteBuffer copy(std::span<const std::uint8_t> bytes) { return copy(bytes.data(), bytes.size()); }
    static ByteBuffer fromString(std::string_view text) { return copy(text.data(), text.size()); }
    // A new buffer of `length` bytes written once by fill(std::uint8_t*)
    // before anyone else can see them: a copy gathered from several places
    // without a staging buffer.
    template <class Fill>
    static ByteBuffer build(std::size_t length, Fill fill) {
        if (length == 0) return {};
        std::uint8_t* bytes = nullptr;
        ByteBuffer buffer = allocate(length, &bytes);
        fill(bytes);
        return buffer;
    }
    // Wraps bytes whose lifetime a shared owner already manages (an aliasing
    // shared_ptr pointing at the first byte).
    static ByteBuffer withSharedStorage(std::shared_ptr<const std::uint8_t> storage, std::size_t length) noexcept {
        return length ? ByteBuffer(std::move(storage), length) : ByteBuffer();
    }

    // Never null, even when empty, so it can be handed to memcpy and friends.
    const std::uint8_t* data() const noexcept { return size_ ? storage_.get() : emptyBytes(); }
    std::size_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }
    std::span<const std::uint8_t> span() const noexcept { return {data(), size_}; }
    std::string_view stringView() const noexcept { return {reinterpret_cast<const char*>(data()), size_}; }
    const std::uint8_t* begin() const noexcept { return data(); }
    const std::uint8_t* end() const noexcept { return data() + size_; }
    std::uint8_t operator[](std::size_t index) const noexcept;

    // The bytes [offset, offset + length) sharing this buffer's storage.
    // Asking for bytes outside the buffer is a programming error.
    // Inline: a decoder keeping its part of a frame takes one per layer.
    ByteBuffer subrange(std::size_t offset, std::size_t length) const {
        checkRange(offset, length);
        if (length == 0) return {};
        return ByteBuffer(std::shared_ptr<const std::uint8_t>(ownerStorage(), storage_.get() + offset), length);
    }
    ByteBuffer subrange(std::size_t offset) const { return subrange(offset, size_ - offset); }

    // A view of [offset, offset + length) that takes no share of the storage,
    // for hot loops that hand out many short-lived views (the decode chain
    // gives one to every layer). The view must not outlive this buffer; any
    // copy, move or sub-range of it owns its bytes like an ordinary buffer.
    ByteBuffer borrowedView(std::size_t offset, std::size_t length) const {
        checkRange(offset, length);
        if (length == 0) return {};
        // An aliasing pointer with no owner: copying it touches no reference
        // count. Returned as a prvalue, so it reaches the caller still borrowed.
        return ByteBuffer(std::shared_ptr<const std::uint8_t>(std::shared_ptr<const void>(), storage_.get() + offset),
                          length, lender_ ? lender_ : this);
    }

    // Makes this buffer a borrowed view of source's [offset, offset + length),
    // built in place: a borrowed view assigned would own its bytes. For an
    // object that keeps a view of bytes that something else keeps alive for
    // at least as long.
    void borrow(const ByteBuffer& source, std::size_t offset, std::size_t length) noexcept {
        source.checkRange(offset, length);
        if (length == 0) {
            *this = ByteBuffer();
            return;
        }
        storage_ = std::shared_ptr<const std::uint8_t>(std::shared_ptr<const void>(), source.storage_.get() + offset);
        size_ = length;
        lender_ = source.lender_ ? source.lender_ : &source;
    }
    // A borrowed view becomes an ordinary buffer with its own share of the
    // storage; any other buffer is left as it is.
    void stopBorrowing() noexcept {
        if (lender_) assignFrom(*this);
    }

    // True when both share storage and range (not merely equal bytes).
    bool isSameBuffer(const ByteBuffer& other) const noexcept {
        return storage_.get() == other.storage_.get() && size_ == other.size_;
    }
    friend bool operator==(const ByteBuffer& a, const ByteBuffer& b) noexcept;

    // --- PXRV byte-buffer utilities ---------------------------------------

    // Standard base64 with padding and no line breaks; nothing when the
    // encoder fails.
    std::optional<std::string> base64EncodedString() const;
    std::string sha256HexDigest() const;   // 64 lower-case hex digits
    std::string md5HexDigest() const;      // 32 lower-case hex digits
    std::string hexEncodedString() const;  // "%02x" per byte, no separators
    // Keeps bytes 32 to 126 only; line breaks and tabs are dropped as well.
    std::string bestEffortASCIIStringDiscardingInvalidBytes() const;
    // Parses lower-case hex digits, skipping every other character (upper-case
    // A-F included); a last unpaired nibble becomes its byte's high half.
    static ByteBuffer dataWithHexString(std::string_view text);

private:
    // Out of line, so that the compiler does not take its one byte for the
    // bounds of every buffer's data.
    static const std::uint8_t* emptyBytes() noexcept;
    // Uninitialised storage for build(), and where to write it.
    static ByteBuffer allocate(std::size_t length, std::uint8_t** bytes);
    ByteBuffer(std::shared_ptr<const std::uint8_t> storage, std::size_t size,
               const ByteBuffer* lender = nullptr) noexcept
        : storage_(std::move(storage)), size_(size), lender_(lender) {}
    void checkRange(std::size_t offset, std::size_t length) const noexcept {
        WL_ASSERT(offset <= size_ && length <= size_ - offset, "ByteBuffer subrange out of range");
    }
    // The pointer that owns the block: a borrowed view's lender is never
    // borrowed itself (see borrowedView and borrow), so one step reaches it.
    const std::shared_ptr<const std::uint8_t>& ownerStorage() const noexcept {
        return lender_ ? lender_->storage_ : storage_;
    }
    // The storage of this range that owns its share of the block.
    std::shared_ptr<const std::uint8_t> owningStorage() const noexcept {
        return std::shared_ptr<const std::uint8_t>(ownerStorage(), storage_.get());
    }
    void assignFrom(const ByteBuffer& other) noexcept {
        storage_ = other.owningStorage();
        size_ = other.size_;
        lender_ = nullptr;
    }
    void moveFrom(ByteBuffer&& other) noexcept {
        if (other.lender_) return assignFrom(other);
        storage_ = std::move(other.storage_);
        size_ = other.size_;
        lender_ = nullptr;
        other.size_ = 0;
    }

    // Points at the first byte of this range; shares ownership of the block,
    // except in a borrowed view, where it owns nothing and lender_ is the
    // buffer that does.
    std::shared_ptr<const std::uint8_t> storage_;
    std::size_t size_ = 0;
    const ByteBuffer* lender_ = nullptr;
};

// A growable buffer for code that assembles bytes (streams, file writers).
class MutableByteBuffer {
public:
    MutableByteBuffer() = default;
    explicit MutableByteBuffer(std::size_t reserve) { bytes_.reserve(reserve); }

    void append(const void* bytes, std::size_t length);
    void append(const ByteBuffer& buffer) { append(buffer.data(), buffer.size()); }
    void append(std::string_view text) { append(text.data(), text.size()); }
    void appendByte(std::uint8_t byte) { bytes_.push_back(byte); }
    void resize(std::size_t length) { bytes_.resize(length); }
    void clear() noexcept { bytes_.clear(); }
    void reserve(std::size_t length) { bytes_.reserve(length); }

    std::uint8_t* data() noexcept { return bytes_.data(); }
    const std::uint8_t* data() const noexcept { return bytes_.data(); }
    std::size_t size() const noexcept { return bytes_.size(); }
    bool empty() const noexcept { return bytes_.empty(); }

    // An immutable copy of the current contents.
    ByteBuffer copy() const { return ByteBuffer::copy(bytes_.data(), bytes_.size()); }
    // Hands the contents over without copying and leaves this buffer empty.
    ByteBuffer take() { return ByteBuffer(std::move(bytes_)); }

private:
    std::vector<std::uint8_t> bytes_;
};

}  // namespace wireloom
