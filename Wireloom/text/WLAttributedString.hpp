#pragma once
// WLAttributedString: the styled text of every report label and value, kept
// as one compact token stream and rendered only when shown. The plain text
// and the rendering are cached:
//
//   auto text = WLAttributedString::stringWithFormat(WLTokenText, "Port ", WLTokenColorPointer,
//                                                    WLColors::sourcePortColorPointer(), WLTokenText,
//                                                    "443", WLTokenPop, WLTokenEnd);
//   text->string();            // "Port 443"
//   text->attributedString();  // "443" in the current source-port colour
//
// A colour pointer is read at rendering, so a changed colour scheme shows
// after clearCache() without rebuilding the text. Displaying code keeps
// cacheRevision() in step with the scheme's revision for that purpose.
//
// Objects are shared and meant to be read on one thread (the main one):
// the caches are filled lazily without locking.

#include <Wireloom/core/Object.hpp>
#include <Wireloom/core/detail/BlockCache.hpp>
#include <Wireloom/text/AttributedString.hpp>
#include <Wireloom/text/Color.hpp>
#include <Wireloom/text/WLToken.hpp>
#include <Wireloom/text/detail/TokenStream.hpp>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

namespace wireloom {

namespace detail {

template <class T>
inline constexpr bool isTextArgument =
    std::is_convertible_v<const T&, std::string_view> || std::is_same_v<T, std::nullptr_t> ||
    std::is_same_v<T, std::nullopt_t> || std::is_same_v<T, std::optional<std::string>> ||
    std::is_same_v<T, std::optional<std::string_view>>;
template <class T>
inline constexpr bool isColorArgument = std::is_convertible_v<const T&, ColorPtr> && !std::is_same_v<T, std::nullptr_t>;
template <class T>
inline constexpr bool isColorPointerArgument = std::is_same_v<T, const ColorPtr*> || std::is_same_v<T, ColorPtr*>;

// True for codes with their payloads, in order, ending with one WLTokenEnd.
template <class... Args>
struct IsTokenSequence : std::false_type {};
template <>
struct IsTokenSequence<WLTokenTag<WLToken::End>> : std::true_type {};
template <class P, class... Rest>
struct IsTokenSequence<WLTokenTag<WLToken::Text>, P, Rest...>
    : std::bool_constant<isTextArgument<P> && IsTokenSequence<Rest...>::value> {};
template <class P, class... Rest>
struct IsTokenSequence<WLTokenTag<WLToken::Color>, P, Rest...>
    : std::bool_constant<isColorArgument<P> && IsTokenSequence<Rest...>::value> {};
template <class P, class... Rest>
struct IsTokenSequence<WLTokenTag<WLToken::ColorPointer>, P, Rest...>
    : std::bool_constant<isColorPointerArgument<P> && IsTokenSequence<Rest...>::value> {};
template <class... Rest>
struct IsTokenSequence<WLTokenTag<WLToken::Strikethrough>, Rest...> : IsTokenSequence<Rest...> {};
template <class... Rest>
struct IsTokenSequence<WLTokenTag<WLToken::Pop>, Rest...> : IsTokenSequence<Rest...> {};

// The text a text argument stands for; absent text is empty.
template <class T>
std::string_view textArgument(const T& argument) noexcept {
    if constexpr (std::is_same_v<T, std::nullptr_t> || std::is_same_v<T, std::nullopt_t>) {
        return {};
    } else if constexpr (std::is_same_v<T, std::optional<std::string>> ||
                         std::is_same_v<T, std::optional<std::string_view>>) {
        return argument ? std::string_view(*argument) : std::string_view();
    } else if constexpr (std::is_convertible_v<const T&, const char*>) {
        const char* text = argument;
        return text ? std::string_view(text) : std::string_view();
    } else {
        return std::string_view(argument);
    }
}

// One argument of a checked sequence; its type says what it is.
template <class T>
void planTokenArgument(TokenPlan& plan, const T& argument) noexcept {
    if constexpr (std::is_convertible_v<const T&, WLToken>) {
        plan.recordBytes += kTokenCodeSize;
    } else {
        plan.recordBytes += sizeof(void*);
        if constexpr (isColorPointerArgument<T>) {
        } else if constexpr (isColorArgument<T>) {
            ++plan.colors;
        } else {
            ++plan.texts;
            plan.textBytes += textArgument(argument).size();
        }
    }
}

template <class T>
void writeTokenArgument(TokenWriter& writer, const T& argument) noexcept {
    if constexpr (std::is_convertible_v<const T&, WLToken>) {
        writer.code(argument);
    } else if constexpr (isColorPointerArgument<T>) {
        writer.colorPointer(argument);
    } else if constexpr (isColorArgument<T>) {
        writer.color(argument);
    } else {
        writer.text(textArgument(argument));
    }
}

template <class... Args>
TokenPlan planTokenSequence(const Args&... args) noexcept {
    static_assert(IsTokenSequence<Args...>::value,
                  "a token sequence is codes with their payloads (WLTokenText a string, WLTokenColor a ColorPtr, "
                  "WLTokenColorPointer a const ColorPtr*), ending with WLTokenEnd");
    TokenPlan plan;
    (planTokenArgument(plan, args), ...);
    return plan;
}

template <class... Args>
TokenStream processTokenSequence(const Args&... args) noexcept {
    return TokenStream::build(planTokenSequence(args...),
                              [&](TokenWriter& writer) { (writeTokenArgument(writer, args), ...); });
}

// Hands allocate_shared one block for the object and `extra` bytes after it,
// and says where those begin.
template <class T>
struct TrailingBytesAllocator {
    using value_type = T;
    std::size_t extra;
    std::uint8_t** trailing;

    TrailingBytesAllocator(std::size_t extraBytes, std::uint8_t** trailingBytes) noexcept
        : extra(extraBytes), trailing(trailingBytes) {}
    template <class U>
    TrailingBytesAllocator(const TrailingBytesAllocator<U>& other) noexcept
        : extra(other.extra), trailing(other.trailing) {}

    static std::size_t headSize(std::size_t n) noexcept { return (n * sizeof(T) + 15) / 16 * 16; }
    T* allocate(std::size_t n) {
        auto* block = static_cast<std::uint8_t*>(tokenAllocator().allocate(headSize(n) + extra));
        if (!block) throw std::bad_alloc();
        *trailing = block + headSize(n);
        return reinterpret_cast<T*>(block);
    }
    void deallocate(T* block, std::size_t n) noexcept { cachedFree(block, headSize(n) + extra); }
    template <class U>
    bool operator==(const TrailingBytesAllocator<U>& other) const noexcept {
        return extra == other.extra && trailing == other.trailing;
    }
};

}  // namespace detail

class WLAttributedString final : public Object {
public:
    // A new styled string, or null (after a message on stderr) if its stream
    // could not be allocated.
    template <class... Args>
    static std::shared_ptr<WLAttributedString> stringWithFormat(const Args&... args) {
        // The object, its records and what they refer to, in one allocation.
        const detail::TokenPlan plan = detail::planTokenSequence(args...);
        std::uint8_t* memory = nullptr;
        std::shared_ptr<WLAttributedString> string;
        try {
            string = std::allocate_shared<WLAttributedString>(
                detail::TrailingBytesAllocator<WLAttributedString>(plan.bytes(), &memory), Key{});
        } catch (const std::bad_alloc&) {
            errno = ENOMEM;
            detail::printTokenError("malloc failed when processing WL token string");
            return nullptr;
        }
        string->stream_ = detail::TokenStream::build(
            memory, plan, [&](detail::TokenWriter& writer) { (detail::writeTokenArgument(writer, args), ...); });
        return string;
    }

    // Renders a sequence straight away, for text that is shown once; empty if
    // the stream could not be allocated.
    template <class... Args>
    static AttributedString attributedStringWithFormat(const Args&... args) {
        detail::TokenStream stream = detail::processTokenSequence(args...);
        if (!stream.valid()) return {};
        return detail::attributedStringFromTokens(stream, stream.textLength(), stream.maxDepth());
    }

    // Appends a further sequence. Drops the rendering; on an allocation
    // failure nothing else changes.
    template <class... Args>
    void appendFormat(const Args&... args) {
        clearCache();
        detail::TokenStream tail = detail::processTokenSequence(args...);
        if (tail.valid()) stream_.append(std::move(tail));
    }

    const std::uint8_t* tokenStream() const noexcept { return stream_.bytes(); }
    std::uint64_t tokenStreamSize() const noexcept { return stream_.size(); }
    std::uint64_t tokenStreamLength() const noexcept { return stream_.length(); }
    std::uint64_t stringLength() const noexcept { return stream_.textLength(); }
    std::uint64_t maxTokenSize() const noexcept { return stream_.maxDepth(); }

    std::shared_ptr<const AttributedString> cachedAttributedString() const noexcept { return cachedAttributedString_; }
    std::optional<std::string_view> plainString() const noexcept {
        return plainCached_ ? std::optional<std::string_view>(plainView_) : std::nullopt;
    }
    // The colour-scheme revision the rendering was made for; only displaying
    // code sets and compares it.
    std::uint32_t cacheRevision() const noexcept { return cacheRevision_; }
    void setCacheRevision(std::uint32_t revision) noexcept { cacheRevision_ = revision; }

    std::shared_ptr<const AttributedString> attributedString() const;
    // The text as it was when first asked for: appendFormat() does not change
    // it (deliberately; the cache is never dropped). Valid while the object is.
    std::string_view string() const;
    std::string description() const override { return std::string(string()); }
    // The text outside every colour; struck-out text stays. Not cached.
    std::string stringWithoutColorizedText() const;
    // Drops the rendering only.
    void clearCache() noexcept { cachedAttributedString_.reset(); }

    WLAttributedString(const WLAttributedString&) = delete;
    WLAttributedString& operator=(const WLAttributedString&) = delete;

    // Only stringWithFormat makes these (allocate_shared needs the constructor).
    class Key {
        friend class WLAttributedString;
        Key() = default;
    };
    explicit WLAttributedString(Key) noexcept {}

private:
    detail::TokenStream stream_;
    mutable std::shared_ptr<const AttributedString> cachedAttributedString_;
    // The plain-text cache: a view of the stream's own text while that is in
    // one run, else of plainStorage_.
    mutable std::string_view plainView_;
    mutable std::string plainStorage_;
    mutable bool plainCached_ = false;
    std::uint32_t cacheRevision_ = 0;
};

}  // namespace wireloom
