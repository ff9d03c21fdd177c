#pragma once
// The flat token stream behind WLAttributedString: a block of records, each a
// 4-byte code in host order followed, for text, colour and colour pointer, by
// an unaligned 8-byte reference. A colour pointer is the address of a colour
// variable, read when rendering and never owned.
//
// What text and colour records refer to lives in a pool beside the records:
// a TextRecord (pointer and length) per text with the characters after them,
// and a ColorPtr holder per colour. A sequence's sizes are all known before
// it is written, so records and pool take one allocation, and the pool of a
// WLAttributedString shares even that with the object itself. Retaining a
// text or a colour therefore never allocates.

#include <Wireloom/text/AttributedString.hpp>
#include <Wireloom/text/Color.hpp>
#include <Wireloom/text/WLToken.hpp>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>

namespace wireloom {

namespace detail {

static_assert(sizeof(void*) == 8, "token records hold 8-byte references");

// The allocator of strings, blocks and pools, malloc-compatible (they may be
// given back with free); tests swap in failing functions to reach the
// failure paths.
struct TokenAllocator {
    void* (*allocate)(std::size_t size) noexcept;
    void* (*reallocate)(void* block, std::size_t size) noexcept;
};
TokenAllocator& tokenAllocator() noexcept;

// Prints `text` with the system's error text, as perror does.
void printTokenError(const char* text) noexcept;

inline constexpr std::size_t kTokenStreamGrowth = 64;
inline constexpr std::size_t kTokenCodeSize = sizeof(std::uint32_t);
inline constexpr std::size_t kTokenRecordSize = kTokenCodeSize + sizeof(void*);

// What a text record refers to.
struct TextRecord {
    const char* data;
    std::size_t size;
};

// The sizes of one sequence, added up before anything is written.
struct TokenPlan {
    std::size_t recordBytes = 0;  // the end record included
    std::size_t texts = 0;
    std::size_t colors = 0;
    std::size_t textBytes = 0;

    // The block a stream grown 64 bytes at a time would have reached.
    std::size_t blockSize() const noexcept {
        return (recordBytes + kTokenStreamGrowth - 1) / kTokenStreamGrowth * kTokenStreamGrowth;
    }
    std::size_t poolBytes() const noexcept {
        return colors * sizeof(ColorPtr) + texts * sizeof(TextRecord) + textBytes;
    }
    std::size_t bytes() const noexcept { return blockSize() + poolBytes(); }
};

// Writes a planned sequence into memory of plan.bytes(), 16-byte aligned.
class TokenWriter {
public:
    TokenWriter(std::uint8_t* memory, const TokenPlan& plan) noexcept
        : records_(memory),
          colors_(reinterpret_cast<ColorPtr*>(memory + plan.blockSize())),
          texts_(reinterpret_cast<TextRecord*>(colors_ + plan.colors)),
          chars_(reinterpret_cast<char*>(texts_ + plan.texts)),
          firstChar_(chars_) {}

    void code(WLToken code) noexcept {
        writeRaw(static_cast<std::uint32_t>(code));
        if (code == WLToken::Color || code == WLToken::ColorPointer || code == WLToken::Strikethrough) {
            if (++depth_ > maxDepth_) maxDepth_ = depth_;
        } else if (code == WLToken::Pop) {
            --depth_;
        }
    }
    void text(std::string_view text) noexcept {
        if (!text.empty()) std::memcpy(chars_, text.data(), text.size());
        *texts_ = {chars_, text.size()};
        writeRaw(static_cast<const void*>(texts_++));
        chars_ += text.size();
    }
    void color(const ColorPtr& color) noexcept {
        ::new (static_cast<void*>(colors_)) ColorPtr(color);
        writeRaw(static_cast<const void*>(colors_++));
        ++colorTokens_;
    }
    void colorPointer(const ColorPtr* variable) noexcept { writeRaw(static_cast<const void*>(variable)); }

    std::size_t length() const noexcept { return length_; }
    std::size_t maxDepth() const noexcept { return maxDepth_; }
    std::size_t colorTokens() const noexcept { return colorTokens_; }
    std::size_t textLength() const noexcept { return static_cast<std::size_t>(chars_ - firstChar_); }
    const char* firstChar() const noexcept { return firstChar_; }

private:
    template <class T>
    void writeRaw(const T& value) noexcept {
        std::memcpy(records_ + length_, &value, sizeof value);
        length_ += sizeof value;
    }

    std::uint8_t* records_;
    ColorPtr* colors_;
    TextRecord* texts_;
    char* chars_;
    const char* firstChar_;
    std::size_t length_ = 0, depth_ = 0, maxDepth_ = 0, colorTokens_ = 0;
};

// A built stream with what building it learned. Owns the colours it holds and
// the heap memory it was given or grew into; memory it was built in (inside
// a WLAttributedString) belongs to whoever provided it.
class TokenStream {
public:
    TokenStream() noexcept = default;
    TokenStream(TokenStream&& other) noexcept { *this = std::move(other); }
    TokenStream& operator=(TokenStream&& other) noexcept;
    ~TokenStream() { release(); }

    // Writes a planned sequence into `memory` (plan.bytes(), 16-byte aligned,
    // kept alive by the caller) with `write(TokenWriter&)`.
    template <class Write>
    static TokenStream build(std::uint8_t* memory, const TokenPlan& plan, Write write) noexcept {
        TokenWriter writer(memory, plan);
        write(writer);
        TokenStream stream;
        stream.bytes_ = memory;
        stream.size_ = plan.blockSize();
        stream.length_ = writer.length();
        stream.textLength_ = writer.textLength();
        stream.maxDepth_ = writer.maxDepth();
        stream.colorTokens_ = writer.colorTokens();
        stream.contiguousText_ = writer.firstChar();
        return stream;
    }

    // The same in memory of its own: invalid, after printing "malloc failed
    // when processing WL token string", if that cannot be allocated.
    template <class Write>
    static TokenStream build(const TokenPlan& plan, Write write) noexcept {
        auto* pool = static_cast<std::uint8_t*>(tokenAllocator().allocate(kPoolLinkSize + plan.bytes()));
        if (!pool) {
            printTokenError("malloc failed when processing WL token string");
            return {};
        }
        *reinterpret_cast<void**>(pool) = nullptr;
        TokenStream stream = build(pool + kPoolLinkSize, plan, write);
        stream.pools_ = pool;
        return stream;
    }

    const std::uint8_t* bytes() const noexcept { return bytes_; }
    std::size_t size() const noexcept { return size_; }
    std::size_t length() const noexcept { return length_; }
    std::size_t textLength() const noexcept { return textLength_; }
    std::size_t maxDepth() const noexcept { return maxDepth_; }
    bool valid() const noexcept { return bytes_ != nullptr; }
    // All the text in one run, while no append has split it; null otherwise.
    const char* contiguousText() const noexcept { return contiguousText_; }

    // Moves `tail`'s records (and what they hold) over this stream's end
    // record. False, after printing "realloc failure", if the block cannot
    // grow; `tail` is then freed with its references.
    bool append(TokenStream&& tail) noexcept;

private:
    void release() noexcept;

    std::uint8_t* bytes_ = nullptr;
    std::size_t size_ = 0;
    std::size_t length_ = 0;
    std::size_t textLength_ = 0;
    std::size_t maxDepth_ = 0;
    std::size_t colorTokens_ = 0;
    const char* contiguousText_ = nullptr;
    bool ownsBlock_ = false;  // the records moved to a block of their own
    // Heap pools this stream frees, each starting with the link to the next:
    // the memory it was built in, and the tails appended to it.
    static constexpr std::size_t kPoolLinkSize = 16;
    void* pools_ = nullptr;
};

// Calls visit(code, reference) for every record up to and including the end.
template <class Visit>
void forEachToken(const std::uint8_t* bytes, Visit visit) {
    for (;;) {
        std::uint32_t code;
        std::memcpy(&code, bytes, sizeof code);
        bytes += sizeof code;
        const void* reference = nullptr;
        if (code <= static_cast<std::uint32_t>(WLToken::ColorPointer)) {
            std::memcpy(&reference, bytes, sizeof reference);
            bytes += sizeof reference;
        }
        visit(static_cast<WLToken>(code), reference);
        if (code == static_cast<std::uint32_t>(WLToken::End)) return;
    }
}

inline std::string_view textOfRecord(const void* reference) noexcept {
    const auto* text = static_cast<const TextRecord*>(reference);
    return {text->data, text->size};
}

AttributedString attributedStringFromTokens(const TokenStream& stream, std::size_t textLength, std::size_t maxDepth);
std::string stringFromTokens(const TokenStream& stream, std::size_t textLength);
std::string stringFromTokensExcludingColorizedText(const TokenStream& stream, std::size_t maxDepth);

}  // namespace detail
}  // namespace wireloom
