#include <Wireloom/core/detail/Format.hpp>
#include <Wireloom/core/detail/NumberText.hpp>

#include <system_error>

namespace wireloom::detail {

std::string_view fixedText(char (&buffer)[kNumberTextCapacity], double value, std::string& overflow) {
    const auto result = std::to_chars(buffer, buffer + kNumberTextCapacity, value, std::chars_format::fixed, 6);
    if (result.ec == std::errc()) return {buffer, static_cast<std::size_t>(result.ptr - buffer)};
    overflow = stringWithFormat("%f", value);
    return overflow;
}

}  // namespace wireloom::detail
