#pragma once
// Where the tests find the source tree (samples, expected outputs, fuzz
// inputs) and the build tree (the wireloom command), fixed at build time,
// and a file's whole content.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace wireloom::testing {

inline std::filesystem::path sourceDir() { return WIRELOOM_SOURCE_DIR; }
inline std::filesystem::path binaryDir() { return WIRELOOM_BINARY_DIR; }

// "" when the file cannot be read.
inline std::string slurp(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace wireloom::testing
