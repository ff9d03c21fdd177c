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
#include <Wireloom/text/AttributedString.hpp>
#include <Wireloom/text/Color.hpp>
#include <Wireloom/text/WLToken.hpp>
#include <Wireloom/text/detail/TokenStream.hpp>

#include <cstdint>
#include <memory>
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

// One argument of a checked sequence; its type says what it is.
template <class T>
bool addTokenArgument(TokenStreamBuilder& builder, const T& argument) noexcept {
    if constexpr (std::is_convertible_v<const T&, WLToken>) {
        return builder.add(argument);
    } else if constexpr (isColorPointerArgument<T>) {
        return builder.addColorPointer(argument);
    } else if constexpr (isColorArgument<T>) {
        return builder.addColor(argument);
    } else if constexpr (std::is_same_v<T, std::nullptr_t> || std::is_same_v<T, std::nullopt_t>) {
        return builder.addText({});
    } else if constexpr (std::is_same_v<T, std::optional<std::string>> ||
                         std::is_same_v<T, std::optional<std::string_view>>) {
        return builder.addText(argument ? std::string_view(*argument) : std::string_view());
    } else if constexpr (std::is_convertible_v<const T&, const char*>) {
        const char* text = argument;
        return builder.addText(text ? std::string_view(text) : std::string_view());
    } else {
        return builder.addText(std::string_view(argument));
    }
}

template <class... Args>
TokenStream processTokenSequence(const Args&... args) noexcept {
    static_assert(IsTokenSequence<Args...>::value,
                  "a token sequence is codes with their payloads (WLTokenText a string, WLTokenColor a ColorPtr, "
                  "WLTokenColorPointer a const ColorPtr*), ending with WLTokenEnd");
    TokenStreamBuilder builder;
    (addTokenArgument(builder, args) && ...);
    return builder.finish();
}

}  // namespace detail

class WLAttributedString final : public Object {
public:
    // A new styled string, or null (after a message on stderr) if its stream
    // could not be allocated.
    template <class... Args>
    static std::shared_ptr<WLAttributedString> stringWithFormat(const Args&... args) {
        detail::TokenStream stream = detail::processTokenSequence(args...);
        if (!stream.valid()) return nullptr;
        return std::shared_ptr<WLAttributedString>(new WLAttributedString(std::move(stream)));
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
    const std::optional<std::string>& plainString() const noexcept { return plainString_; }
    // The colour-scheme revision the rendering was made for; only displaying
    // code sets and compares it.
    std::uint32_t cacheRevision() const noexcept { return cacheRevision_; }
    void setCacheRevision(std::uint32_t revision) noexcept { cacheRevision_ = revision; }

    std::shared_ptr<const AttributedString> attributedString() const;
    // The text as it was when first asked for: appendFormat() does not change
    // it (deliberately; the cache is never dropped).
    const std::string& string() const;
    std::string description() const override { return string(); }
    // The text outside every colour; struck-out text stays. Not cached.
    std::string stringWithoutColorizedText() const;
    // Drops the rendering only.
    void clearCache() noexcept { cachedAttributedString_.reset(); }

    WLAttributedString(const WLAttributedString&) = delete;
    WLAttributedString& operator=(const WLAttributedString&) = delete;

private:
    explicit WLAttributedString(detail::TokenStream stream) noexcept : stream_(std::move(stream)) {}

    detail::TokenStream stream_;
    mutable std::shared_ptr<const AttributedString> cachedAttributedString_;
    mutable std::optional<std::string> plainString_;
    std::uint32_t cacheRevision_ = 0;
};

}  // namespace wireloom
