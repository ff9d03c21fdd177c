#pragma once
// ByteReader: the bounded cursor every decoder reads through. A read past the
// end yields zero and marks the reader failed (sticky), so a decoder can read
// a header's fields in order and check once:
//
//   detail::ByteReader r(bytes);
//   std::uint16_t port = r.readBE<std::uint16_t>();
//   r.skip(4);
//   if (!r) return nullptr;   // too short
//
// Fields come out with shifts, never by casting structs over the wire bytes.

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>

namespace wireloom::detail {

class ByteReader {
public:
    explicit ByteReader(std::span<const std::uint8_t> bytes) noexcept : data_(bytes.data()), size_(bytes.size()) {}
    ByteReader(const std::uint8_t* data, std::size_t size) noexcept : data_(data), size_(size) {}

    explicit operator bool() const noexcept { return ok_; }
    bool ok() const noexcept { return ok_; }
    std::size_t offset() const noexcept { return offset_; }
    std::size_t size() const noexcept { return size_; }
    // The first byte, for loops that walk the bytes themselves and seek after.
    const std::uint8_t* data() const noexcept { return data_; }
    std::size_t remaining() const noexcept { return size_ - offset_; }
    bool has(std::size_t n) const noexcept { return n <= remaining(); }

    // Big-endian unsigned integer at the cursor; advances past it.
    template <class T>
    T readBE() noexcept {
        T value = peekBEAt<T>(offset_);
        if (ok_) offset_ += sizeof(T);
        return value;
    }
    std::uint8_t readByte() noexcept { return readBE<std::uint8_t>(); }

    // Integer in the host's byte order (for headers written in host order).
    template <class T>
    T readHost() noexcept {
        static_assert(std::is_unsigned_v<T>);
        T value{};
        if (!has(sizeof(T))) return fail<T>();
        std::memcpy(&value, data_ + offset_, sizeof(T));
        offset_ += sizeof(T);
        return value;
    }

    // Big-endian integer at an absolute offset, without moving the cursor.
    template <class T>
    T peekBEAt(std::size_t at) noexcept {
        static_assert(std::is_unsigned_v<T>);
        if (at > size_ || sizeof(T) > size_ - at) return fail<T>();
        // One load and a byte swap: the bytes are copied, never cast in place.
        T value;
        std::memcpy(&value, data_ + at, sizeof value);
        return fromBigEndian(value);
    }

    // Pointer to n bytes at the cursor (advancing past them), or null.
    const std::uint8_t* readBytes(std::size_t n) noexcept {
        if (!has(n)) return fail<const std::uint8_t*>();
        const std::uint8_t* p = data_ + offset_;
        offset_ += n;
        return p;
    }
    // Copies n bytes into out; zero-fills and fails when they are not there.
    void readInto(void* out, std::size_t n) noexcept {
        if (const std::uint8_t* p = readBytes(n))
            std::memcpy(out, p, n);
        else
            std::memset(out, 0, n);
    }
    void skip(std::size_t n) noexcept {
        if (!has(n)) {
            fail<int>();
            return;
        }
        offset_ += n;
    }
    // Moves the cursor to an absolute offset within the bytes.
    void seek(std::size_t at) noexcept {
        if (at > size_) {
            fail<int>();
            return;
        }
        offset_ = at;
    }

private:
    template <class T>
    static T fromBigEndian(T value) noexcept {
        if constexpr (std::endian::native == std::endian::big || sizeof(T) == 1)
            return value;
        else if constexpr (sizeof(T) == 2)
            return static_cast<T>(__builtin_bswap16(value));
        else if constexpr (sizeof(T) == 4)
            return static_cast<T>(__builtin_bswap32(value));
        else
            return static_cast<T>(__builtin_bswap64(value));
    }

    template <class T>
    T fail() noexcept {
        ok_ = false;
        return T{};
    }

    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t offset_ = 0;
    bool ok_ = true;
};

}  // namespace wireloom::detail
