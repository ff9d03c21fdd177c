#pragma once
// Numbers written into a caller's buffer exactly as printf writes them with
// %u / %llu, 0x%0Nx and %f, without printf's cost: report rows and addresses
// are formatted by the hundred thousand.

#include <charconv>
#include <cstdint>
#include <string>
#include <string_view>

namespace wireloom::detail {

// Room for any 64-bit number in decimal or with "0x" in hex, and for %f of
// doubles up to 1e40 (larger ones are written into `overflow`).
inline constexpr std::size_t kNumberTextCapacity = 48;

inline std::string_view decimalText(char (&buffer)[kNumberTextCapacity], std::uint64_t value) noexcept {
    const auto result = std::to_chars(buffer, buffer + kNumberTextCapacity, value);
    return {buffer, static_cast<std::size_t>(result.ptr - buffer)};
}

// "0x", then at least `minDigits` lower-case hex digits.
inline std::string_view hexText(char (&buffer)[kNumberTextCapacity], std::uint64_t value, int minDigits) noexcept {
    char digits[16];
    const auto result = std::to_chars(digits, digits + sizeof digits, value, 16);
    const auto count = static_cast<std::size_t>(result.ptr - digits);
    std::size_t length = 0;
    buffer[length++] = '0';
    buffer[length++] = 'x';
    for (std::size_t pad = count; pad < static_cast<std::size_t>(minDigits); ++pad) buffer[length++] = '0';
    for (std::size_t i = 0; i < count; ++i) buffer[length++] = digits[i];
    return {buffer, length};
}

// %f: six decimals, "inf", "-nan" and all as printf spells them.
std::string_view fixedText(char (&buffer)[kNumberTextCapacity], double value, std::string& overflow);

}  // namespace wireloom::detail
