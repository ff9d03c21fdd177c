#include "TextBuffer.hpp"

#include <algorithm>
#include <cstring>

namespace wireloom::cli {

char* TextBuffer::reserve(std::size_t bytes) {
    if (capacity_ - size_ < bytes) {
        // Not zero-filled: everything up to size_ is copied, the rest is written before it is read.
        const std::size_t capacity = std::max({capacity_ * 2, size_ + bytes, std::size_t{64 * 1024}});
        std::unique_ptr<char[]> grown(new char[capacity]);
        if (size_) std::memcpy(grown.get(), data_.get(), size_);
        data_ = std::move(grown);
        capacity_ = capacity;
    }
    return data_.get() + size_;
}

void TextBuffer::append(std::string_view text) {
    char* place = reserve(text.size());
    if (!text.empty()) std::memcpy(place, text.data(), text.size());
    size_ += text.size();
}

bool TextBuffer::flush(std::FILE* out) {
    if (size_ == 0) return true;  // nothing yet, maybe not even a block
    const bool written = std::fwrite(data_.get(), 1, size_, out) == size_;
    size_ = 0;
    return written;
}

}  // namespace wireloom::cli
