#pragma once
// printf-style formatting into a std::string, for the many fixed-format
// descriptions and labels of the library.

#include <string>

namespace wireloom::detail {

std::string stringWithFormat(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace wireloom::detail
