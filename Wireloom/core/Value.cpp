#include <Wireloom/core/Value.hpp>
#include <Wireloom/core/detail/Format.hpp>

#include <algorithm>
#include <memory>
#include <stdexcept>

namespace wireloom {

std::string Value::description() const {
    struct Describe {
        std::string operator()(std::monostate) const { return "(null)"; }
        std::string operator()(bool v) const { return v ? "1" : "0"; }
        std::string operator()(std::int64_t v) const { return std::to_string(v); }
        std::string operator()(double v) const { return detail::stringWithFormat("%.17g", v); }
        std::string operator()(const std::string& v) const { return v; }
        std::string operator()(const ByteBuffer& v) const {
            std::string hex = v.hexEncodedString();
            std::string text = "<";
            for (std::size_t i = 0; i < hex.size(); i += 8) {
                if (i) text.push_back(' ');
                text.append(hex, i, 8);
            }
            return text + ">";
        }
        std::string operator()(const IndexSet& v) const { return v.description(); }
        std::string operator()(const ObjectPtr& v) const { return v ? v->description() : "(null)"; }
        std::string operator()(const SharedString& v) const { return *v; }
    };
    return std::visit(Describe{}, v_);
}

const Value& UserInfo::at(std::string_view key) const {
    const_iterator found = find(key);
    if (found == end()) throw std::out_of_range("UserInfo has no value named " + std::string(key));
    return found->second;
}

UserInfo::iterator UserInfo::insertAt(iterator at, std::string_view key, Value value) {
    if (spilled_.empty() && inlineSize_ < kInline) {
        // Only a name sorting before one held comes here: shift it up.
        iterator last = end();
        new (last) value_type(std::move(last[-1]));
        std::move_backward(at, last - 1, last);
        *at = value_type(std::string(key), std::move(value));
        ++inlineSize_;
        return at;
    }
    const auto offset = at - begin();
    if (spilled_.empty()) {
        spilled_.reserve(2 * kInline);
        value_type* held = inlineData();
        for (std::size_t i = 0; i < inlineSize_; ++i) spilled_.push_back(std::move(held[i]));
        std::destroy(held, held + std::exchange(inlineSize_, 0));
    }
    return &*spilled_.emplace(spilled_.begin() + offset, std::string(key), std::move(value));
}

UserInfo::size_type UserInfo::erase(std::string_view key) {
    iterator found = find(key);
    if (found == end()) return 0;
    if (!spilled_.empty()) {
        spilled_.erase(spilled_.begin() + (found - begin()));
    } else {
        std::move(found + 1, end(), found);
        std::destroy_at(inlineData() + --inlineSize_);
    }
    return 1;
}

void UserInfo::clear() noexcept {
    std::destroy(inlineData(), inlineData() + std::exchange(inlineSize_, 0));
    spilled_.clear();
}

void UserInfo::copyFrom(const UserInfo& other) {
    if (!other.spilled_.empty()) {
        spilled_ = other.spilled_;
        return;
    }
    for (const value_type& entry : other) {
        new (inlineData() + inlineSize_) value_type(entry);
        ++inlineSize_;
    }
}

void UserInfo::take(UserInfo& other) noexcept {
    if (!other.spilled_.empty()) {
        spilled_ = std::move(other.spilled_);
        other.spilled_.clear();
        return;
    }
    for (value_type& entry : other) new (inlineData() + inlineSize_++) value_type(std::move(entry));
    other.clear();
}

}  // namespace wireloom
