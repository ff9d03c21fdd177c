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
void* systemAllocate(std::size_t size) noexcept { return std::malloc(size); }
void* systemReallocate(void* block, std::size_t size) noexcept { return std::realloc(block, size); }

void printSystemError(const char* text) noexcept {
    // Like perror, which is what the messages have always come with.
    std::fprintf(stderr, "%s: %s\n", text, std::strerror(errno));
}

}  // namespace

TokenAllocator& tokenAllocator() noexcept {
    static TokenAllocator allocator{systemAllocate, systemReallocate};
    return allocator;
}

TokenStream& TokenStream::operator=(TokenStream&& other) noexcept {
    if (this != &other) {
        release();
        bytes_ = std::exchange(other.bytes_, nullptr);
        size_ = std::exchange(other.size_, 0);
        length_ = std::exchange(other.length_, 0);
        textLength_ = std::exchange(other.textLength_, 0);
        maxDepth_ = std::exchange(other.maxDepth_, 0);
    }
    return *this;
}

void TokenStream::release() noexcept {
    if (!bytes_) return;
    // Walks by length rather than to the end record, so that a stream whose
    // building failed half-way gives back what it had taken.
    std::size_t offset = 0;
    while (offset < length_) {
        std::uint32_t code;
        std::memcpy(&code, bytes_ + offset, sizeof code);
        offset += sizeof code;
        if (code > static_cast<std::uint32_t>(WLToken::ColorPointer)) continue;
        if (offset + sizeof(void*) > length_) break;  // the code whose payload could not be written
        void* reference;
        std::memcpy(&reference, bytes_ + offset, sizeof reference);
        offset += sizeof reference;
        if (code == static_cast<std::uint32_t>(WLToken::Text)) delete static_cast<std::string*>(reference);
        if (code == static_cast<std::uint32_t>(WLToken::Color)) delete static_cast<ColorPtr*>(reference);
    }
    std::free(bytes_);
    bytes_ = nullptr;
}

bool TokenStream::append(TokenStream&& tail) noexcept {
    // The check counts the tail's end record although it replaces ours, and
    // grows by the tail's whole block: generous, never short.
    if (length_ + tail.length_ > size_) {
        void* grown = tokenAllocator().reallocate(bytes_, size_ + tail.size_);
        if (!grown) {
            std::fprintf(stderr, "realloc failure\n");
            tail.release();
            return false;
        }
        bytes_ = static_cast<std::uint8_t*>(grown);
        size_ += tail.size_;
    }
    std::memcpy(bytes_ + length_ - sizeof(std::uint32_t), tail.bytes_, tail.length_);
    length_ += tail.length_ - sizeof(std::uint32_t);
    textLength_ += tail.textLength_;
    // A sum, not a maximum: the rendering stack is then always deep enough
    // whatever the sequences' pops and pushes do to each other.
    maxDepth_ += tail.maxDepth_;
    // The references now belong to this stream; free only the tail's block.
    std::free(std::exchange(tail.bytes_, nullptr));
    return true;
}

TokenStreamBuilder::TokenStreamBuilder() noexcept {
    void* block = tokenAllocator().allocate(kTokenStreamGrowth);
    if (!block) {
        printSystemError("malloc failed when processing WL token string");
        return;
    }
    stream_.bytes_ = static_cast<std::uint8_t*>(block);
    stream_.size_ = kTokenStreamGrowth;
}

bool TokenStreamBuilder::reserve(std::size_t bytes) noexcept {
    if (!stream_.valid()) return false;
    if (stream_.size_ - stream_.length_ >= bytes) return true;
    void* grown = tokenAllocator().reallocate(stream_.bytes_, stream_.size_ + kTokenStreamGrowth);
    if (!grown) {
        printSystemError("realloc failed when processing WL token string");
        stream_.release();
        return false;
    }
    stream_.bytes_ = static_cast<std::uint8_t*>(grown);
    stream_.size_ += kTokenStreamGrowth;
    return true;
}

template <class T>
bool TokenStreamBuilder::write(const T& value) noexcept {
    if (!reserve(sizeof value)) return false;
    std::memcpy(stream_.bytes_ + stream_.length_, &value, sizeof value);
    stream_.length_ += sizeof value;
    return true;
}

bool TokenStreamBuilder::add(WLToken code) noexcept {
    if (!write(static_cast<std::uint32_t>(code))) return false;
    if (code == WLToken::Color || code == WLToken::ColorPointer || code == WLToken::Strikethrough) {
        stream_.maxDepth_ = std::max(stream_.maxDepth_, ++depth_);
    } else if (code == WLToken::Pop) {
        --depth_;
    }
    return true;
}

template <class T, class... Args>
bool TokenStreamBuilder::writeOwned(Args&&... args) noexcept {
    if (!reserve(sizeof(void*))) return false;
    T* owned = nullptr;
    try {
        owned = new T(std::forward<Args>(args)...);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    }
    if (!owned) {
        printSystemError("malloc failed when processing WL token string");
        stream_.release();
        return false;
    }
    return write(static_cast<void*>(owned));
}

bool TokenStreamBuilder::addText(std::string_view text) noexcept {
    // A copy per text token: C++ strings are values, so there is nothing
    // shared to retain.
    if (!writeOwned<std::string>(text)) return false;
    stream_.textLength_ += text.size();
    return true;
}

bool TokenStreamBuilder::addColor(const ColorPtr& color) noexcept { return writeOwned<ColorPtr>(color); }

bool TokenStreamBuilder::addColorPointer(const ColorPtr* variable) noexcept {
    return write(static_cast<const void*>(variable));
}

TokenStream TokenStreamBuilder::finish() noexcept { return std::move(stream_); }

AttributedString attributedStringFromTokens(const TokenStream& stream, std::size_t textLength, std::size_t maxDepth) {
    AttributedString result;
    result.reserve(textLength);
    TextAttributes current;
    std::vector<AttributedString::Attribute> keys;
    keys.reserve(maxDepth);
    forEachToken(stream.bytes(), [&](WLToken code, const void* reference) {
        switch (code) {
        case WLToken::Text: result.append(*static_cast<const std::string*>(reference), current); break;
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
    std::string result;
    result.reserve(textLength);
    forEachToken(stream.bytes(), [&](WLToken code, const void* reference) {
        if (code == WLToken::Text) result += *static_cast<const std::string*>(reference);
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
            if (colourKeysOnStack == 0) result += *static_cast<const std::string*>(reference);
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
