#pragma once
// Text the command-line tests read back: files the command or its peers
// wrote, and their lines and fields.
#include "support/Paths.hpp"

#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace wireloom::testing {

inline constexpr auto npos = std::string::npos;

inline std::filesystem::path wireloomCommand() { return binaryDir() / "cli" / "wireloom"; }

// The parts between separators (none in an empty text); a separator at the
// end starts an empty last part only when kept.
inline std::vector<std::string> split(const std::string& text, char separator = '\n', bool keepLastEmpty = false) {
    std::vector<std::string> parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, separator);) parts.push_back(part);
    if (keepLastEmpty && !text.empty() && text.back() == separator) parts.emplace_back();
    return parts;
}

// Object addresses differ from run to run; everything else must not.
inline std::string withoutAddresses(const std::string& text) {
    static const std::regex address(": 0x[0-9a-f]+>");
    return std::regex_replace(text, address, ": 0x?>");
}

}  // namespace wireloom::testing
