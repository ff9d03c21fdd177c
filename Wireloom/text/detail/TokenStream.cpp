#include <Wireloom/core/detail/BlockCache.hpp>
#include <Wireloom/text/detail/TokenStream.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <utility>
#include <vector>

namespace wireloom::detail {

namespace {
void* systemAllocate(std::size_t size) noexcept { return cachedAllocate(size); }
void* systemReallocate(void* block, std::size_t size) noexcept { return std::realloc(block, size); }
}  // namespace

TokenAllocator& tokenAllocator() noexcept {
    static TokenAllocator allocator{systemAllocate, systemReallocate};
    return allocator;
}

void printTokenError(const char* text) noexcept { std::fprintf(stderr, "%s: %s\n", text, std::strerror(errno)); }

TokenStream& TokenStream::operator=(TokenStream&& other) noexcept {
    if (this != &other) {
        release();
        bytes_ = std::exchange(other.bytes_, nullptr);
        size_ = std::exchange(other.size_, 0);
        length_ = std::exchange(other.length_, 0);
        textLength_ = std::exchange(other.textLength_, 0);
        maxDepth_ = std::exchange(other.maxDepth_, 0);
        colorTokens_ = std::exchange(other.colorTokens_, 0);
        contiguousText_ = std::exchange(other.contiguousText_, nullptr);
        ownsBlock_ = std::exchange(other.ownsBlock_, false);
        pools_ = std::exchange(other.pools_, nullptr);
    }
    return *this;
}

void TokenStream::release() noexcept {
    if (colorTokens_ > 0) {
        forEachToken(bytes_, [](WLToken code, const void* reference) {
            if (code == WLToken::Color) std::destroy_at(static_cast<ColorPtr*>(const_cast<void*>(reference)));
        });
    }
    if (ownsBlock_) std::free(bytes_);
    for (void* pool = pools_; pool;) std::free(std::exchange(pool, *static_cast<void**>(pool)));
    bytes_ = nullptr;
    colorTokens_ = 0;
    ownsBlock_ = false;
    pools_ = nullptr;
}

bool TokenStream::append(TokenStream&& tail) noexcept {
    // The check counts the tail's end record although it replaces ours, and
    // grows by the tail's whole block: generous, never short.
    if (length_ + tail.length_ > size_) {
        void* grown = tokenAllocator().reallocate(ownsBlock_ ? bytes_ : nullptr, size_ + tail.size_);
        if (!grown) {
            std::fprintf(stderr, "realloc failure\n");
            tail.release();
            return false;
        }
        // A block inside its pool cannot be resized in place; it moves out.
        if (!ownsBlock_) std::memcpy(grown, bytes_, length_);
        bytes_ = static_cast<std::uint8_t*>(grown);
        ownsBlock_ = true;
        size_ += tail.size_;
    }
    std::memcpy(bytes_ + length_ - kTokenCodeSize, tail.bytes_, tail.length_);
    length_ += tail.length_ - kTokenCodeSize;
    if (tail.textLength_ > 0) contiguousText_ = nullptr;
    textLength_ += tail.textLength_;
    // A sum, not a maximum: the rendering stack is then always deep enough
    // whatever the sequences' pops and pushes do to each other.
    maxDepth_ += tail.maxDepth_;
    // What the tail's records refer to now belongs to this stream.
    colorTokens_ += std::exchange(tail.colorTokens_, 0);
    if (void* pools = std::exchange(tail.pools_, nullptr)) {
        void** last = static_cast<void**>(pools);
        while (*last) last = static_cast<void**>(*last);
        *last = pools_;
        pools_ = pools;
    }
    tail.release();
    return true;
}

AttributedString attributedStringFromTokens(const TokenStream& stream, std::size_t textLength, std::size_t maxDepth) {
    AttributedString result;
    result.reserve(textLength);
    TextAttributes current;
    std::vector<AttributedString::Attribute> keys;
    keys.reserve(maxDepth);
    forEachToken(stream.bytes(), [&](WLToken code, const void* reference) {
        switch (code) {
        case WLToken::Text: result.append(textOfRecord(reference), current); break;
        case WLToken::Color:  // both point at a ColorPtr: the stream's own or a colour variable
        case WLToken::ColorPointer:
            current.foregroundColor = reference ? *static_cast<const ColorPtr*>(reference) : nullptr;
            keys.push_back(AttributedString::Attribute::ForegroundColor);
            break;
        case WLToken::Strikethrough:
            current.strikethroughStyle = 1;
            keys.push_back(AttributedString::Attribute::Strikethrough);
            break;
        case WLToken::Pop:
            if (keys.empty()) break;
            // Removes the attribute outright; an outer colour is not restored.
            if (keys.back() == AttributedString::Attribute::ForegroundColor) current.foregroundColor.reset();
            if (keys.back() == AttributedString::Attribute::Strikethrough) current.strikethroughStyle = 0;
            keys.pop_back();
            break;
        case WLToken::End: break;
        }
    });
    return result;
}

std::string stringFromTokens(const TokenStream& stream, std::size_t textLength) {
    if (const char* text = stream.contiguousText()) return std::string(text, textLength);
    std::string result;
    result.reserve(textLength);
    forEachToken(stream.bytes(), [&](WLToken code, const void* reference) {
        if (code == WLToken::Text) result += textOfRecord(reference);
    });
    return result;
}

std::string stringFromTokensExcludingColorizedText(const TokenStream& stream, std::size_t maxDepth) {
    std::string result;
    std::vector<bool> colourKeys;  // the key stack, true for a foreground key
    colourKeys.reserve(maxDepth);
    std::size_t colourKeysOnStack = 0;
    forEachToken(stream.bytes(), [&](WLToken code, const void* reference) {
        switch (code) {
        case WLToken::Text:
            if (colourKeysOnStack == 0) result += textOfRecord(reference);
            break;
        case WLToken::Color:
        case WLToken::ColorPointer:
            colourKeys.push_back(true);
            ++colourKeysOnStack;
            break;
        case WLToken::Strikethrough: colourKeys.push_back(false); break;
        case WLToken::Pop:
            if (colourKeys.empty()) break;
            if (colourKeys.back()) --colourKeysOnStack;
            colourKeys.pop_back();
            break;
        case WLToken::End: break;
        }
    });
    return result;
}

}  // namespace wireloom::detail
