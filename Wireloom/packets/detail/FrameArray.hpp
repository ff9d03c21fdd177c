#pragma once
// FrameArray: a list a decoded layer keeps (a message's records), in the
// frame's block beside the layer when the layer lies there, on the heap
// otherwise. A frame's lists then cost no malloc and no free: the layer
// destroys the elements with itself, and the block's memory goes with the
// block. Elements never move while the layer lives, unless more are added
// than were reserved, when they all move to the heap.
//
//   array.reserve(arena, count);       // the block the holder lies in, or null
//   Record& record = array.emplace_back();
//   std::span<const Record> all = array.span();

#include <Wireloom/packets/detail/FrameArena.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace wireloom::detail {

template <class T>
class FrameArray {
public:
    FrameArray() noexcept = default;
    // A copy is the copy's own, on the heap.
    FrameArray(const FrameArray& other) : heap_(other.span().begin(), other.span().end()) { useHeap(); }
    FrameArray& operator=(const FrameArray& other) {
        if (this != &other) assign(std::vector<T>(other.span().begin(), other.span().end()));
        return *this;
    }
    ~FrameArray() { destroyInBlock(); }

    void assign(std::vector<T> elements) {
        destroyInBlock();
        heap_ = std::move(elements);
        useHeap();
    }
    // Room for `capacity` elements, in `arena` when it is given (the block
    // the holder lies in) and has room; only on an empty array.
    void reserve(FrameArena* arena, std::size_t capacity) {
        if (capacity == 0) return;
        if (arena)
            if (void* room = arena->allocateUnreferenced(capacity * sizeof(T), alignof(T))) {
                data_ = static_cast<T*>(room);
                capacity_ = capacity;
                inBlock_ = true;
                return;
            }
        heap_.reserve(capacity);
    }
    T& emplace_back() {
        if (inBlock_) {
            if (size_ < capacity_) return *::new (static_cast<void*>(data_ + size_++)) T();
            moveToHeap();
        }
        T& added = heap_.emplace_back();
        useHeap();
        return added;
    }

    std::span<const T> span() const noexcept { return {data_, size_}; }
    std::size_t size() const noexcept { return size_; }

private:
    void useHeap() noexcept {
        data_ = heap_.data();
        size_ = heap_.size();
        capacity_ = 0;
        inBlock_ = false;
    }
    void destroyInBlock() noexcept {
        if (inBlock_) std::destroy_n(data_, size_);
        data_ = nullptr;
        size_ = 0;
        inBlock_ = false;
    }
    void moveToHeap() {
        heap_.reserve(size_ * 2);
        for (std::size_t i = 0; i < size_; ++i) heap_.push_back(std::move(data_[i]));
        destroyInBlock();
        useHeap();
    }

    T* data_ = nullptr;
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
    bool inBlock_ = false;
    std::vector<T> heap_;
};

}  // namespace wireloom::detail
