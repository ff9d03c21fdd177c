#include <Wireloom/text/WLAttributedString.hpp>

namespace wireloom {

std::shared_ptr<const AttributedString> WLAttributedString::attributedString() const {
    if (!cachedAttributedString_) {
        cachedAttributedString_ = std::make_shared<const AttributedString>(
            detail::attributedStringFromTokens(stream_, stream_.textLength(), stream_.maxDepth()));
    }
    return cachedAttributedString_;
}

std::string_view WLAttributedString::string() const {
    if (!plainCached_) {
        if (const char* text = stream_.contiguousText()) {
            plainView_ = std::string_view(text, stream_.textLength());
        } else {
            plainStorage_ = detail::stringFromTokens(stream_, stream_.textLength());
            plainView_ = plainStorage_;
        }
        plainCached_ = true;
    }
    return plainView_;
}

std::string WLAttributedString::stringWithoutColorizedText() const {
    return detail::stringFromTokensExcludingColorizedText(stream_, stream_.maxDepth());
}

}  // namespace wireloom
