#pragma once
// Where the tests find the source tree (samples, expected outputs, fuzz
// inputs) and the build tree (the wireloom command), fixed at build time.
#include <filesystem>

namespace wireloom::testing {

inline std::filesystem::path sourceDir() { return WIRELOOM_SOURCE_DIR; }
inline std::filesystem::path binaryDir() { return WIRELOOM_BINARY_DIR; }

}  // namespace wireloom::testing
