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

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <variant>

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
    const std::string* string() const noexcept { return std::get_if<std::string>(&v_); }
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

private:
    std::variant<std::monostate, bool, std::int64_t, double, std::string, ByteBuffer, IndexSet, ObjectPtr> v_;
};

using UserInfo = std::map<std::string, Value, std::less<>>;

}  // namespace wireloom
