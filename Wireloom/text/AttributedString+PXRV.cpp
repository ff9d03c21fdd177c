#include <Wireloom/core/detail/Format.hpp>
#include <Wireloom/text/AttributedString+PXRV.hpp>

#include <cstdarg>
#include <cstdio>
#include <unordered_map>

namespace wireloom {

namespace {

constexpr std::string_view kEscapedSegmentMarker = "escaped_segment";
constexpr std::string_view kAddNullMarker = "add_null";
constexpr std::string_view kNullText = "(null)";

// What a tag does: an opening tag sets `key` to `value`, a closing tag
// (`removes`) takes `key` away.
struct TagAction {
    AttributedString::Attribute key;
    ColorPtr value;
    bool removes;
};

const std::unordered_map<std::string_view, TagAction>& tagActions() {
    using enum AttributedString::Attribute;
    static const std::unordered_map<std::string_view, TagAction> actions = [] {
        std::unordered_map<std::string_view, TagAction> table;
        auto colorTag = [&](std::string_view opening, std::string_view closing, ColorPtr color) {
            table.emplace(opening, TagAction{ForegroundColor, std::move(color), false});
            table.emplace(closing, TagAction{ForegroundColor, nullptr, true});
        };
        colorTag("<red>", "</red>", Color::red());
        colorTag("<green>", "</green>", Color::calibratedGreen());
        colorTag("<blue>", "</blue>", Color::blue());
        colorTag("<yellow>", "</yellow>", Color::deviceRGB(0.5, 0.5, 0.0));
        colorTag("<orange>", "</orange>", Color::orange());
        colorTag("<gray>", "</gray>", Color::gray());
        table.emplace("<under>", TagAction{Underline, nullptr, false});
        table.emplace("</under>", TagAction{Underline, nullptr, true});
        table.emplace("<strike>", TagAction{Strikethrough, nullptr, false});
        table.emplace("</strike>", TagAction{Strikethrough, nullptr, true});
        return table;
    }();
    return actions;
}

void apply(const TagAction& action, TextAttributes& attributes) {
    switch (action.key) {
    case AttributedString::Attribute::ForegroundColor: attributes.foregroundColor = action.value; break;
    case AttributedString::Attribute::Strikethrough: attributes.strikethroughStyle = action.removes ? 0 : 1; break;
    case AttributedString::Attribute::Underline: attributes.underline = !action.removes; break;
    }
}

// Appends format text in which tags are read, updating the attributes in
// effect as the tags go by.
void appendTagged(AttributedString& target, std::string_view text, TextAttributes& attributes) {
    std::size_t start = 0, position = 0;
    while ((position = text.find('<', position)) != std::string_view::npos) {
        const std::size_t close = text.find('>', position);
        if (close == std::string_view::npos) break;
        const auto action = tagActions().find(text.substr(position, close + 1 - position));
        if (action == tagActions().end()) {
            ++position;  // a "<" of text; the next "<" may still open a tag
            continue;
        }
        target.append(text.substr(start, position - start), attributes);
        apply(action->second, attributes);
        start = position = close + 1;
    }
    target.append(text.substr(start), attributes);
}

}  // namespace

void appendFormat(AttributedString& target, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    target.append(detail::vstringWithFormat(format, arguments));
    va_end(arguments);
}

void appendColor(AttributedString& target, ColorPtr color, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    TextAttributes attributes;
    attributes.foregroundColor = std::move(color);
    target.append(detail::vstringWithFormat(format, arguments), attributes);
    va_end(arguments);
}

EscapedFormat escapeStringFromFormat(std::string_view format, std::span<const FormatArgument> arguments) {
    EscapedFormat escaped;
    escaped.text.reserve(format.size());
    unsigned number = 0;
    for (std::size_t i = 0; i < format.size(); ++i) {
        const char next = i + 1 < format.size() ? format[i + 1] : '\0';
        if (format[i] != '%' || (next != '@' && next != '%')) {
            escaped.text.push_back(format[i]);
            continue;
        }
        ++i;
        if (next == '%') {
            escaped.text.push_back('%');
            continue;
        }
        const FormatArgument argument = number < arguments.size() ? arguments[number] : std::nullopt;
        EscapedFormat::Segment segment{argument ? kEscapedSegmentMarker : kAddNullMarker, number, escaped.text.size(),
                                       0, 0};
        escaped.text += "$$$" + std::to_string(number) + "$";
        segment.textLocation = escaped.text.size();
        escaped.text += argument ? *argument : kNullText;
        segment.length = escaped.text.size() - segment.location;
        escaped.segments.push_back(segment);
        ++number;
    }
    return escaped;
}

void detail::formattedStringWithFormat(AttributedString& target, std::string_view format,
                                       std::span<const FormatArgument> arguments) {
    const EscapedFormat escaped = escapeStringFromFormat(format, arguments);
    const std::string_view text = escaped.text;
    TextAttributes attributes;
    std::size_t position = 0;
    for (const EscapedFormat::Segment& segment : escaped.segments) {
        appendTagged(target, text.substr(position, segment.location - position), attributes);
        // Restoring a segment drops its "$$$<number>$" and keeps the text as it is.
        const std::size_t end = segment.location + segment.length;
        target.append(text.substr(segment.textLocation, end - segment.textLocation), attributes);
        position = end;
    }
    appendTagged(target, text.substr(position), attributes);
}

std::string stringByStrippingColorizedText(const AttributedString& text) {
    // Keeping the runs that stay is the same as deleting the others from a
    // copy and shifting the later ranges back.
    std::string stripped;
    for (const AttributedString::Run& run : text.runs()) {
        const ColorPtr& color = run.attributes.foregroundColor;
        if (!color || color == Color::black()) stripped.append(text.string(), run.location, run.length);
    }
    return stripped;
}

}  // namespace wireloom
