#include <Wireloom/core/Value.hpp>
#include <Wireloom/core/detail/Format.hpp>

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
    };
    return std::visit(Describe{}, v_);
}

}  // namespace wireloom
