#pragma once
// printf-style formatting into a std::string, for the many fixed-format
// descriptions and labels of the library.

#include <cstdarg>
#include <string>

namespace wireloom::detail {

std::string stringWithFormat(const char* format, ...) __attribute__((format(printf, 1, 2)));
// The same for callers that already hold their arguments; args is not used up.
std::string vstringWithFormat(const char* format, va_list args) __attribute__((format(printf, 1, 0)));

}  // namespace wireloom::detail
