#pragma once
// DNSText: a piece of text a decoded DNS message hands out (a name, an
// address), or its absence when the bytes could not be read.
//
// The decoder leaves the text in the frame's block, beside the captured
// bytes, when the object holding it lies in that block too: the holder keeps
// the block alive, so the text needs no reference count and no copy. Any
// copy of such a text owns its bytes, so a record copied out of its message
// outlives it safely; a move keeps the text where it is, and happens only
// inside its holder (a vector of records growing). Text set by hand, or
// decoded outside a frame's block, has a block of its own that copies share.
//
//   if (std::optional<std::string_view> name = record.recordName()) use(*name);

#include <Wireloom/core/ByteBuffer.hpp>
#include <Wireloom/packets/detail/FrameArena.hpp>
#include <Wireloom/protocols/DNSNameReader.hpp>

#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>

namespace wireloom {

class DNSText {
public:
    DNSText() noexcept = default;
    explicit DNSText(std::string_view text) : present_(true) { own(text); }
    explicit DNSText(std::optional<std::string_view> text) {
        if (text) *this = DNSText(*text);
    }
    DNSText(const DNSText& other) : present_(other.present_) {
        if (other.isBorrowed())
            own(other.view());
        else
            owned_ = other.owned_, data_ = other.data_, size_ = other.size_;
    }
    DNSText(DNSText&& other) noexcept
        : owned_(std::move(other.owned_)), data_(other.data_), size_(other.size_), present_(other.present_) {
        other.data_ = "", other.size_ = 0, other.present_ = false;
    }
    DNSText& operator=(const DNSText& other) {
        if (this != &other) *this = DNSText(other);
        return *this;
    }
    DNSText& operator=(DNSText&& other) noexcept {
        if (this != &other) {
            owned_ = std::move(other.owned_);
            data_ = other.data_, size_ = other.size_, present_ = other.present_;
            other.data_ = "", other.size_ = 0, other.present_ = false;
        }
        return *this;
    }
    ~DNSText() = default;

    // The same as the constructor, out of line for the decoder's rare case.
    [[gnu::noinline]] static DNSText owning(std::string_view text) { return DNSText(text); }
    // Text the decoder placed in the frame's block, where its holder lies.
    static DNSText borrowedFromFrame(std::string_view text) noexcept {
        DNSText kept;
        kept.present_ = true;
        kept.data_ = text.data();
        kept.size_ = static_cast<std::uint32_t>(text.size());
        return kept;
    }

    // The same in place, for the decoder filling in an object it has just
    // made: no text to move and none left behind to destroy.
    void borrowFromFrame(std::string_view text) noexcept {
        if (!owned_.empty()) owned_ = {};
        present_ = true;
        data_ = text.data();
        size_ = static_cast<std::uint32_t>(text.size());
    }

    bool present() const noexcept { return present_; }
    // "" when absent.
    std::string_view view() const noexcept { return {data_, size_}; }
    std::optional<std::string_view> optional() const noexcept {
        return present_ ? std::optional<std::string_view>(view()) : std::nullopt;
    }

private:
    bool isBorrowed() const noexcept { return size_ != 0 && owned_.empty(); }
    void own(std::string_view text) {
        owned_ = ByteBuffer::fromString(text);
        data_ = owned_.stringView().data();
        size_ = static_cast<std::uint32_t>(text.size());
    }

    ByteBuffer owned_;
    const char* data_ = "";
    std::uint32_t size_ = 0;
    bool present_ = false;
};

namespace detail {

// These run for every name decoded, so they are inline.

inline FrameArena* arenaHolding(const void* holder) noexcept {
    FrameArena* arena = tCurrentFrameArena;
    return arena && arena->owns(holder) ? arena : nullptr;
}

// Where `text` is kept in the block, when there is one and it has room.
inline std::optional<std::string_view> keepInFrame(FrameArena* arena, std::string_view text) noexcept {
    if (!arena || text.empty()) return std::nullopt;
    void* kept = arena->allocateUnreferenced(text.size());
    if (!kept) return std::nullopt;
    if (kept != text.data()) std::memcpy(kept, text.data(), text.size());
    return std::string_view(static_cast<const char*>(kept), text.size());
}

// The name at the cursor of `message`, read straight into the frame's block
// (`arena`, the block of the object decoded with it: see arenaHolding), into
// `name`, which holds nothing yet; with no arena it gets a block of its own.
// Left absent when it cannot be read. The cursor and count move as for
// readDomainNameText. The cache, one per message decoded, holds only text
// kept in the frame's block, which a holder there can share as it is.
inline void readDecodedName(DNSText& name, FrameArena* arena, std::span<const std::uint8_t> message, ByteReader& cursor,
                            std::uint32_t& consumed, DNSNameCache* cache = nullptr) {
    if (!arena) cache = nullptr;
    std::span<char> room;
    if (arena) {
        const std::span<std::uint8_t> free = arena->unallocated();
        room = {reinterpret_cast<char*>(free.data()), free.size()};
    }
    DNSNameText text(room);
    if (!readDomainNameText(message.data(), message.size(), cursor, consumed, text, cache)) return;
    if (text.shared()) return name.borrowFromFrame(text.view());
    const std::optional<std::string_view> kept = keepInFrame(arena, text.view());
    if (!kept) {
        name = DNSText::owning(text.view());
        return;
    }
    if (cache) cache->keep(*kept);
    name.borrowFromFrame(*kept);
}

}  // namespace detail

}  // namespace wireloom
