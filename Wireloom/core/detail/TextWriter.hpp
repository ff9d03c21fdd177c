#pragma once
// Appends text and numbers to a string as printf's %s, %u, %0Nx and %p would
// write them, without parsing a format each time: descriptions and one-line
// summaries are written once per frame.
//
//   TextWriter(out) << "(UDP) size " << Decimal{size} << " bytes, proto 0x" << Hex{protocol, 2};

#include <charconv>
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
        char digits[20];
        const char* end = std::to_chars(digits, digits + sizeof digits, number.value).ptr;
        out_.append(digits, static_cast<std::size_t>(end - digits));
        return *this;
    }
    TextWriter& operator<<(Hex number) {
        char digits[16];
        const auto count =
            static_cast<int>(std::to_chars(digits, digits + sizeof digits, number.value, 16).ptr - digits);
        if (count < number.digits) out_.append(static_cast<std::size_t>(number.digits - count), '0');
        out_.append(digits, static_cast<std::size_t>(count));
        return *this;
    }
    TextWriter& operator<<(Pointer pointer) {
        if (!pointer.value) return *this << "(nil)";
        return *this << "0x" << Hex{reinterpret_cast<std::uintptr_t>(pointer.value)};
    }

private:
    std::string& out_;
};

}  // namespace wireloom::detail
