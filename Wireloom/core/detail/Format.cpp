#include <Wireloom/core/detail/Format.hpp>

#include <cstdarg>
#include <cstdio>

namespace wireloom::detail {

std::string stringWithFormat(const char* format, ...) {
    char stackBuffer[256];
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    int needed = std::vsnprintf(stackBuffer, sizeof stackBuffer, format, copy);
    va_end(copy);
    std::string text;
    if (needed >= 0 && static_cast<std::size_t>(needed) < sizeof stackBuffer) {
        text.assign(stackBuffer, static_cast<std::size_t>(needed));
    } else if (needed >= 0) {
        text.resize(static_cast<std::size_t>(needed));
        std::vsnprintf(text.data(), text.size() + 1, format, args);
    }
    va_end(args);
    return text;
}

}  // namespace wireloom::detail
