#pragma once
// The flat token stream behind WLAttributedString: one heap block of records,
// each a 4-byte code in host order followed, for text, colour and colour
// pointer, by an unaligned 8-byte reference. Text and colour references are
// owned by the stream (released when it is freed); a colour pointer is the
// address of a colour variable, read when rendering and never owned.

#include <Wireloom/text/AttributedString.hpp>
#include <Wireloom/text/Color.hpp>
#include <Wireloom/text/WLToken.hpp>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace wireloom {

namespace detail {

static_assert(sizeof(void*) == 8, "token records hold 8-byte references");

// The stream's allocator; tests swap in failing functions to reach the
// allocation-failure paths.
struct TokenAllocator {
    void* (*allocate)(std::size_t size) noexcept;
    void* (*reallocate)(void* block, std::size_t size) noexcept;
};
TokenAllocator& tokenAllocator() noexcept;

inline constexpr std::size_t kTokenStreamGrowth = 64;

// A built stream with what building it learned. Owns the block and, through
// it, the references.
class TokenStream {
public:
    TokenStream() noexcept = default;
    TokenStream(TokenStream&& other) noexcept { *this = std::move(other); }
    TokenStream& operator=(TokenStream&& other) noexcept;
    ~TokenStream() { release(); }

    const std::uint8_t* bytes() const noexcept { return bytes_; }
    std::size_t size() const noexcept { return size_; }
    std::size_t length() const noexcept { return length_; }
    std::size_t textLength() const noexcept { return textLength_; }
    std::size_t maxDepth() const noexcept { return maxDepth_; }
    bool valid() const noexcept { return bytes_ != nullptr; }

    // Moves `tail`'s records (and their references) over this stream's end
    // record. False, after printing "realloc failure", if the block cannot grow;
    // `tail` is then freed with its references.
    bool append(TokenStream&& tail) noexcept;

private:
    friend class TokenStreamBuilder;
    void release() noexcept;

    std::uint8_t* bytes_ = nullptr;
    std::size_t size_ = 0;
    std::size_t length_ = 0;
    std::size_t textLength_ = 0;
    std::size_t maxDepth_ = 0;
};

// Builds a stream record by record. Once a step fails the builder stays failed
// and finish() yields an invalid stream; the records written so far are freed.
class TokenStreamBuilder {
public:
    TokenStreamBuilder() noexcept;
    bool add(WLToken code) noexcept;
    bool addText(std::string_view text) noexcept;
    bool addColor(const ColorPtr& color) noexcept;
    bool addColorPointer(const ColorPtr* variable) noexcept;
    TokenStream finish() noexcept;

private:
    bool reserve(std::size_t bytes) noexcept;
    template <class T>
    bool write(const T& value) noexcept;
    template <class T, class... Args>
    bool writeOwned(Args&&... args) noexcept;

    TokenStream stream_;
    std::size_t depth_ = 0;
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

AttributedString attributedStringFromTokens(const TokenStream& stream, std::size_t textLength, std::size_t maxDepth);
std::string stringFromTokens(const TokenStream& stream, std::size_t textLength);
std::string stringFromTokensExcludingColorizedText(const TokenStream& stream, std::size_t maxDepth);

}  // namespace detail
}  // namespace wireloom
