#include <Wireloom/text/AttributedString.hpp>

#include <Wireloom/core/Assert.hpp>

#include <algorithm>
#include <cstdio>

namespace wireloom {

AttributedString::AttributedString(std::string text, TextAttributes attributes) : text_(std::move(text)) {
    if (!text_.empty()) runs_.push_back({0, text_.size(), std::move(attributes)});
}

TextAttributes AttributedString::attributesAt(std::size_t index) const {
    WL_ASSERT(index < text_.size(), "Attributed string index out of range");
    auto run =
        std::upper_bound(runs_.begin(), runs_.end(), index, [](std::size_t i, const Run& r) { return i < r.location; });
    return std::prev(run)->attributes;
}

void AttributedString::append(std::string_view text, const TextAttributes& attributes) {
    if (text.empty()) return;
    if (!runs_.empty() && runs_.back().attributes == attributes) {
        runs_.back().length += text.size();
    } else {
        runs_.push_back({text_.size(), text.size(), attributes});
    }
    text_.append(text);
}

void AttributedString::append(const AttributedString& other) {
    for (const Run& run : other.runs_)
        append(std::string_view(other.text_).substr(run.location, run.length), run.attributes);
}

void AttributedString::splitAt(std::size_t location) {
    auto run = std::find_if(runs_.begin(), runs_.end(),
                            [&](const Run& r) { return r.location < location && location < r.location + r.length; });
    if (run == runs_.end()) return;
    Run tail{location, run->location + run->length - location, run->attributes};
    run->length = location - run->location;
    runs_.insert(std::next(run), std::move(tail));
}

void AttributedString::mergeRuns() {
    std::vector<Run> merged;
    merged.reserve(runs_.size());
    for (Run& run : runs_) {
        if (run.length == 0) continue;
        if (!merged.empty() && merged.back().attributes == run.attributes) {
            merged.back().length += run.length;
        } else {
            merged.push_back(std::move(run));
        }
    }
    runs_ = std::move(merged);
}

template <class Change>
void AttributedString::changeAttributes(std::size_t location, std::size_t length, Change change) {
    WL_ASSERT(location <= text_.size() && length <= text_.size() - location, "Attributed string range out of bounds");
    if (length == 0) return;
    splitAt(location);
    splitAt(location + length);
    for (Run& run : runs_) {
        if (run.location >= location && run.location < location + length) change(run.attributes);
    }
    mergeRuns();
}

void AttributedString::deleteCharacters(std::size_t location, std::size_t length) {
    WL_ASSERT(location <= text_.size() && length <= text_.size() - location, "Attributed string range out of bounds");
    if (length == 0) return;
    splitAt(location);
    splitAt(location + length);
    std::erase_if(runs_, [&](const Run& r) { return r.location >= location && r.location < location + length; });
    for (Run& run : runs_) {
        if (run.location > location) run.location -= length;
    }
    text_.erase(location, length);
    mergeRuns();
}

void AttributedString::setAttributes(std::size_t location, std::size_t length, const TextAttributes& attributes) {
    changeAttributes(location, length, [&](TextAttributes& a) { a = attributes; });
}

void AttributedString::addForegroundColor(std::size_t location, std::size_t length, ColorPtr color) {
    changeAttributes(location, length, [&](TextAttributes& a) { a.foregroundColor = color; });
}

void AttributedString::addStrikethroughStyle(std::size_t location, std::size_t length, int style) {
    changeAttributes(location, length, [&](TextAttributes& a) { a.strikethroughStyle = style; });
}

void AttributedString::addUnderline(std::size_t location, std::size_t length) {
    changeAttributes(location, length, [](TextAttributes& a) { a.underline = true; });
}

void AttributedString::removeAttribute(Attribute attribute, std::size_t location, std::size_t length) {
    changeAttributes(location, length, [&](TextAttributes& a) {
        switch (attribute) {
        case Attribute::ForegroundColor: a.foregroundColor.reset(); break;
        case Attribute::Strikethrough: a.strikethroughStyle = 0; break;
        case Attribute::Underline: a.underline = false; break;
        }
    });
}

std::string AttributedString::ansiText() const {
    std::string out;
    out.reserve(text_.size());
    for (const Run& run : runs_) {
        const TextAttributes& a = run.attributes;
        std::string codes;
        // The standard black is the text colour of a light page; a terminal
        // may well be dark, so black text is left in the terminal's own
        // default colour rather than made invisible.
        if (a.foregroundColor && a.foregroundColor != Color::black()) {
            auto [r, g, b] = a.foregroundColor->rgb8();
            codes += "38;2;" + std::to_string(r) + ';' + std::to_string(g) + ';' + std::to_string(b);
        }
        if (a.strikethroughStyle != 0) codes += codes.empty() ? "9" : ";9";
        if (a.underline) codes += codes.empty() ? "4" : ";4";
        if (!codes.empty()) out += "\x1b[" + codes + 'm';
        out.append(text_, run.location, run.length);
        if (!codes.empty()) out += "\x1b[0m";
    }
    return out;
}

std::string AttributedString::htmlText() const {
    std::string out;
    out.reserve(text_.size());
    for (const Run& run : runs_) {
        const TextAttributes& a = run.attributes;
        std::string style;
        if (a.foregroundColor) {
            auto [r, g, b] = a.foregroundColor->rgb8();
            char hex[8];
            std::snprintf(hex, sizeof hex, "#%02x%02x%02x", r, g, b);
            style = std::string("color:") + hex;
        }
        if (a.strikethroughStyle != 0 || a.underline) {
            if (!style.empty()) style += ';';
            style += "text-decoration:";
            if (a.strikethroughStyle != 0) style += "line-through";
            if (a.strikethroughStyle != 0 && a.underline) style += ' ';
            if (a.underline) style += "underline";
        }
        if (!style.empty()) out += "<span style=\"" + style + "\">";
        for (char c : std::string_view(text_).substr(run.location, run.length)) {
            switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += "&quot;"; break;
            case '\'': out += "&#39;"; break;
            default: out += c;
            }
        }
        if (!style.empty()) out += "</span>";
    }
    return out;
}

}  // namespace wireloom
