#include <Wireloom/core/detail/Format.hpp>

#include <cstdarg>
#include <cstdio>

namespace wireloom::detail {

std::string vstringWithFormat(const char* format, va_list args) {
    // Most texts fit the stack buffer: one formatting pass, no heap growth.
    char stackBuffer[256];
    va_list copy;
    va_copy(copy, args);
    const int needed = std::vsnprintf(stackBuffer, sizeof stackBuffer, format, copy);
    va_end(copy);
    if (needed < 0) return {};
    if (static_cast<std::size_t>(needed) < sizeof stackBuffer)
        return std::string(stackBuffer, static_cast<std::size_t>(needed));
    std::string text(static_cast<std::size_t>(needed), '\0');
    va_copy(copy, args);
    std::vsnprintf(text.data(), text.size() + 1, format, copy);
    va_end(copy);
    return text;
}

std::string stringWithFormat(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = vstringWithFormat(format, args);
    va_end(args);
    return text;
}

}  // namespace wireloom::detail
