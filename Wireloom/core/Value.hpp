#pragma once
// Value: the one representation of a value in a notification's user info
// (and wherever the library passes loosely typed values). It holds nothing,
// a boolean, an integer, a double, a string, a byte buffer, an index set or
// a model object (packet, flow...):
//
//   UserInfo info{{"packet", packet}, {"reason", "Timeout"}};
//   auto tcp = info.at("packet").object<PXTCPPacket>();   // null if not one
//   const std::string* reason = info.at("reason").string();

#include <Wireloom/core/ByteBuffer.hpp>
#include <Wireloom/core/IndexSet.hpp>
#include <Wireloom/core/Object.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <variant>
#include <vector>

namespace wireloom {

class Value {
public:
    Value() noexcept = default;
    Value(bool v) : v_(v) {}
    template <class I>
    requires(std::is_integral_v<I> && !std::is_same_v<I, bool>) Value(I v) : v_(static_cast<std::int64_t>(v)) {}
    Value(double v) : v_(v) {}
    Value(std::string v) : v_(std::move(v)) {}
    Value(const char* v) : v_(std::string(v)) {}
    // A string that stays shared rather than copied: a flow posts its
    // endpoint's text with every chunk, and a copy would allocate each time
    // that text outgrows the string's inline room. string() answers it like
    // any other string; a null one is held as nothing.
    Value(std::shared_ptr<const std::string> v) {
        if (v) v_ = std::move(v);
    }
    Value(ByteBuffer v) : v_(std::move(v)) {}
    Value(IndexSet v) : v_(std::move(v)) {}
    template <class T>
    requires std::is_base_of_v<Object, T> Value(std::shared_ptr<T> v)
        : v_(std::static_pointer_cast<Object>(std::move(v))) {}

    bool isNull() const noexcept { return std::holds_alternative<std::monostate>(v_); }
    // How reports print the value: strings as they are, numbers in decimal,
    // booleans as 1 or 0, bytes as <hex in groups of four bytes>, index sets
    // as (0-3 5), objects by their description(), nothing as "(null)".
    std::string description() const;

    // Each accessor answers null (or nothing) when the value is of another kind.
    const bool* boolean() const noexcept { return std::get_if<bool>(&v_); }
    const std::int64_t* integer() const noexcept { return std::get_if<std::int64_t>(&v_); }
    const double* number() const noexcept { return std::get_if<double>(&v_); }
    const std::string* string() const noexcept {
        if (const auto* shared = std::get_if<SharedString>(&v_)) return shared->get();
        return std::get_if<std::string>(&v_);
    }
    const ByteBuffer* bytes() const noexcept { return std::get_if<ByteBuffer>(&v_); }
    const IndexSet* indexSet() const noexcept { return std::get_if<IndexSet>(&v_); }
    template <class T = Object>
    std::shared_ptr<T> object() const {
        auto p = std::get_if<ObjectPtr>(&v_);
        if (!p) return nullptr;
        if constexpr (std::is_same_v<T, Object>)
            return *p;
        else
            return std::dynamic_pointer_cast<T>(*p);
    }

    // As object(), without taking a reference: valid while this value holds
    // it. An object of exactly class T is told by its type alone, which costs
    // less than the walk through the hierarchy a dynamic_cast makes.
    template <class T = Object>
    T* borrowedObject() const noexcept {
        auto p = std::get_if<ObjectPtr>(&v_);
        if (!p || !*p) return nullptr;
        if constexpr (std::is_same_v<T, Object>)
            return p->get();
        else {
            // Named first: typeid of a call's result reads to clang as a side effect.
            const Object& object = **p;
            return typeid(object) == typeid(T) ? static_cast<T*>(p->get()) : dynamic_cast<T*>(p->get());
        }
    }

private:
    using SharedString = std::shared_ptr<const std::string>;
    std::variant<std::monostate, bool, std::int64_t, double, std::string, ByteBuffer, IndexSet, ObjectPtr, SharedString>
        v_;
};

// Named values, looked up by name and visited in name order like a sorted
// map. A notification's user info holds one or two, so that many live in
// the object itself, constructed in place: posting a packet or a stream
// chunk allocates nothing for it. More than that move together into one
// vector.
class UserInfo {
public:
    using key_type = std::string;
    using mapped_type = Value;
    using value_type = std::pair<std::string, Value>;
    using size_type = std::size_t;
    using iterator = value_type*;
    using const_iterator = const value_type*;

    UserInfo() noexcept {}
    // A repeated name keeps its first value, as a map's would.
    UserInfo(std::initializer_list<value_type> entries) {
        for (const value_type& entry : entries) emplace(entry.first, entry.second);
    }
    UserInfo(const UserInfo& other) { copyFrom(other); }
    UserInfo(UserInfo&& other) noexcept { take(other); }
    UserInfo& operator=(const UserInfo& other) {
        if (this != &other) {
            clear();
            copyFrom(other);
        }
        return *this;
    }
    UserInfo& operator=(UserInfo&& other) noexcept {
        if (this != &other) {
            clear();
            take(other);
        }
        return *this;
    }
    ~UserInfo() { clear(); }

    iterator begin() noexcept { return data(); }
    iterator end() noexcept { return data() + size(); }
    const_iterator begin() const noexcept { return data(); }
    const_iterator end() const noexcept { return data() + size(); }
    size_type size() const noexcept { return spilled_.empty() ? inlineSize_ : spilled_.size(); }
    bool empty() const noexcept { return size() == 0; }

    iterator find(std::string_view key) noexcept {
        for (iterator at = begin(), last = end(); at != last; ++at)
            if (at->first == key) return at;
        return end();
    }
    const_iterator find(std::string_view key) const noexcept { return const_cast<UserInfo*>(this)->find(key); }
    bool contains(std::string_view key) const noexcept { return find(key) != end(); }
    size_type count(std::string_view key) const noexcept { return contains(key) ? 1 : 0; }
    // Throws std::out_of_range for a name it does not hold.
    const Value& at(std::string_view key) const;
    Value& at(std::string_view key) { return const_cast<Value&>(std::as_const(*this).at(key)); }
    Value& operator[](std::string_view key) { return emplace(key, Value()).first->second; }

    // Leaves a name it already holds as it is.
    template <class V>
    std::pair<iterator, bool> emplace(std::string_view key, V&& value) {
        iterator at = begin();
        const iterator last = end();
        while (at != last && std::string_view(at->first) < key) ++at;
        if (at != last && at->first == key) return {at, false};
        // Names given in order, as posters give them, land at the end.
        if (at == last && spilled_.empty() && inlineSize_ < kInline) {
            new (at) value_type(std::piecewise_construct, std::forward_as_tuple(key),
                                std::forward_as_tuple(std::forward<V>(value)));
            ++inlineSize_;
            return {at, true};
        }
        return {insertAt(at, key, Value(std::forward<V>(value))), true};
    }
    std::pair<iterator, bool> insert(value_type entry) { return emplace(entry.first, std::move(entry.second)); }
    template <class V>
    std::pair<iterator, bool> insert_or_assign(std::string_view key, V&& value) {
        auto [at, added] = emplace(key, Value());
        at->second = Value(std::forward<V>(value));
        return {at, added};
    }
    size_type erase(std::string_view key);
    void clear() noexcept;

private:
    static constexpr size_type kInline = 2;

    value_type* inlineData() noexcept { return std::launder(reinterpret_cast<value_type*>(inline_)); }
    const value_type* inlineData() const noexcept { return std::launder(reinterpret_cast<const value_type*>(inline_)); }
    value_type* data() noexcept { return spilled_.empty() ? inlineData() : spilled_.data(); }
    const value_type* data() const noexcept { return spilled_.empty() ? inlineData() : spilled_.data(); }
    iterator insertAt(iterator at, std::string_view key, Value value);
    void copyFrom(const UserInfo& other);
    void take(UserInfo& other) noexcept;

    // While spilled_ is empty the entries are the first inlineSize_ slots of
    // inline_, the others raw; once it is not, they are all in it and
    // inlineSize_ is 0.
    alignas(value_type) unsigned char inline_[kInline * sizeof(value_type)];
    std::uint8_t inlineSize_ = 0;
    std::vector<value_type> spilled_;
};

}  // namespace wireloom
