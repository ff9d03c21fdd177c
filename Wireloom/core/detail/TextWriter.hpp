#pragma once
// Appends text and numbers to a string as printf's %s, %u, %0Nx and %p would
// write them, without parsing a format each time: descriptions and one-line
// summaries are written once per frame.
//
//   TextWriter(out) << "(UDP) size " << Decimal{size} << " bytes, proto 0x" << Hex{protocol, 2};

#include <Wireloom/core/detail/NumberText.hpp>

#include <cstdint>
#include <string>
#include <string_view>

namespace wireloom::detail {

struct Decimal {
    std::uint64_t value;
};
// Lower-case, at least `digits` of them, no prefix.
struct Hex {
    std::uint64_t value;
    int digits = 1;
};
// As %p: "0x" and the address in hex, or "(nil)".
struct Pointer {
    const void* value;
};

class TextWriter {
public:
    explicit TextWriter(std::string& out) noexcept : out_(out) {}

    TextWriter& operator<<(std::string_view text) {
        out_.append(text);
        return *this;
    }
    TextWriter& operator<<(char c) {
        out_.push_back(c);
        return *this;
    }
    TextWriter& operator<<(Decimal number) {
        char text[kNumberTextCapacity];
        return *this << decimalText(text, number.value);
    }
    TextWriter& operator<<(Hex number) {
        char text[kNumberTextCapacity];
        return *this << hexText(text, number.value, number.digits).substr(2);  // without the "0x"
    }
    TextWriter& operator<<(Pointer pointer) {
        if (!pointer.value) return *this << "(nil)";
        char text[kNumberTextCapacity];
        return *this << hexText(text, reinterpret_cast<std::uintptr_t>(pointer.value), 1);
    }

private:
    std::string& out_;
};

}  // namespace wireloom::detail
