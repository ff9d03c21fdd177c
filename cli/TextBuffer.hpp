#pragma once
// The command's output text, gathered in one growing block that is written
// out in large pieces. Writers that know an upper bound of what they add
// write into it in place (reserve, then commit), so the hex dumps that make
// up most of a tree are not copied on their way out.

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string_view>

namespace wireloom::cli {

class TextBuffer {
public:
    // Room for `bytes` more; the returned place is where they go.
    char* reserve(std::size_t bytes);
    // The bytes up to `end` (within what reserve() gave) are in.
    void commit(char* end) noexcept { size_ = static_cast<std::size_t>(end - data_.get()); }

    void append(std::string_view text);
    void append(char c) { *reserve(1) = c, ++size_; }

    std::string_view view() const noexcept { return {data_.get(), size_}; }
    std::size_t size() const noexcept { return size_; }
    void clear() noexcept { size_ = 0; }
    // Writes everything to `out` and starts again; false if the write failed.
    bool flush(std::FILE* out);

private:
    std::unique_ptr<char[]> data_;
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
};

}  // namespace wireloom::cli
