#pragma once
// WLToken: the codes of a styled-text token sequence, and the tokens callers
// write. Each token is a constant of its own type, so that a sequence handed
// to WLAttributedString can be checked while compiling:
//
//   WLAttributedString::stringWithFormat(WLTokenText, "key: ", WLTokenColor, Color::red(),
//                                        WLTokenText, message, WLTokenPop, WLTokenEnd);
//
// WLTokenText takes a string (std::string, std::string_view, const char*, or
// absent: nullptr, std::nullopt, an empty optional), WLTokenColor a ColorPtr,
// WLTokenColorPointer the address of a colour variable; the others nothing.

#include <cstdint>

namespace wireloom {

// The numbers are the stream's record codes.
enum class WLToken : std::uint32_t { Text = 0, Color = 1, ColorPointer = 2, Strikethrough = 3, Pop = 4, End = 5 };

template <WLToken Code>
struct WLTokenTag {
    static constexpr WLToken code = Code;
    constexpr operator WLToken() const noexcept { return Code; }
    constexpr explicit operator std::uint32_t() const noexcept { return static_cast<std::uint32_t>(Code); }
};

inline constexpr WLTokenTag<WLToken::Text> WLTokenText{};
inline constexpr WLTokenTag<WLToken::Color> WLTokenColor{};
inline constexpr WLTokenTag<WLToken::ColorPointer> WLTokenColorPointer{};
inline constexpr WLTokenTag<WLToken::Strikethrough> WLTokenStrikethrough{};
inline constexpr WLTokenTag<WLToken::Pop> WLTokenPop{};
inline constexpr WLTokenTag<WLToken::End> WLTokenEnd{};

}  // namespace wireloom
