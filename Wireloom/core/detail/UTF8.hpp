#pragma once
// UTF-8 checks shared by the decoders that turn wire bytes into text (HTTP
// start lines, DNS labels, TXT values): strict, so overlong forms, surrogates
// and code points past U+10FFFF are refused as the platform's decoder would.

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace wireloom::detail {

// The length of the valid UTF-8 sequence at `p` (at most `n` bytes, n > 0)
// and its code point, or 0 when the bytes there are not one.
std::size_t decodeUTF8(const std::uint8_t* p, std::size_t n, char32_t* codePoint) noexcept;

// Whether the bytes are UTF-8, and, when asked, how many UTF-16 units their
// text has (the platform's string length).
bool validUTF8Counting(const std::uint8_t* p, std::size_t n, std::size_t* utf16Units) noexcept;
inline bool validUTF8(const std::uint8_t* p, std::size_t n, std::size_t* utf16Units = nullptr) noexcept {
    // Names and keys are nearly always ASCII, and short: a plain scan answers
    // them without the decoder.
    if (!utf16Units) {
        std::size_t i = 0;
        for (std::uint64_t word; i + 8 <= n; i += 8) {
            std::memcpy(&word, p + i, 8);
            if (word & 0x8080808080808080u) break;
        }
        while (i < n && p[i] < 0x80) ++i;
        if (i == n) return true;
    }
    return validUTF8Counting(p, n, utf16Units);
}

}  // namespace wireloom::detail
