#include <Wireloom/core/detail/UTF8.hpp>

namespace wireloom::detail {

std::size_t decodeUTF8(const std::uint8_t* p, std::size_t n, char32_t* codePoint) noexcept {
    const std::uint8_t lead = p[0];
    if (lead < 0x80) {
        *codePoint = lead;
        return 1;
    }
    std::size_t length;
    char32_t value, minimum;
    if ((lead & 0xE0) == 0xC0) {
        length = 2, value = lead & 0x1F, minimum = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3, value = lead & 0x0F, minimum = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4, value = lead & 0x07, minimum = 0x10000;
    } else {
        return 0;
    }
    if (length > n) return 0;
    for (std::size_t i = 1; i < length; ++i) {
        if ((p[i] & 0xC0) != 0x80) return 0;
        value = (value << 6) | (p[i] & 0x3F);
    }
    if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return 0;
    *codePoint = value;
    return length;
}

bool validUTF8Counting(const std::uint8_t* p, std::size_t n, std::size_t* utf16Units) noexcept {
    std::size_t units = 0;
    for (std::size_t i = 0; i < n;) {
        if (p[i] < 0x80) {
            ++i, ++units;
            continue;
        }
        char32_t codePoint;
        const std::size_t length = decodeUTF8(p + i, n - i, &codePoint);
        if (length == 0) return false;
        i += length;
        units += codePoint >= 0x10000 ? 2 : 1;
    }
    if (utf16Units) *utf16Units = units;
    return true;
}

}  // namespace wireloom::detail
