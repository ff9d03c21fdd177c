#include <Wireloom/text/WLAttributedString.hpp>

namespace wireloom {

std::shared_ptr<const AttributedString> WLAttributedString::attributedString() const {
    if (!cachedAttributedString_) {
        cachedAttributedString_ = std::make_shared<const AttributedString>(
            detail::attributedStringFromTokens(stream_, stream_.textLength(), stream_.maxDepth()));
    }
    return cachedAttributedString_;
}

const std::string& WLAttributedString::string() const {
    if (!plainString_) plainString_ = detail::stringFromTokens(stream_, stream_.textLength());
    return *plainString_;
}

std::string WLAttributedString::stringWithoutColorizedText() const {
    return detail::stringFromTokensExcludingColorizedText(stream_, stream_.maxDepth());
}

}  // namespace wireloom
