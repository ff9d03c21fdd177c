#pragma once
// The PXRV operations on AttributedString: printf-style appends, a small tag
// language for styled text, and the plain text without its coloured parts.
//
//   AttributedString line;
//   formattedStringWithFormat(line, "<red>%@</red> is <under>%@</under>", name, std::nullopt);
//   // name in red, then " is ", then "(null)" underlined
//
// The tags, each with its closing form ("</red>" and so on):
//   <red> <blue> <orange> <gray>  the standard colours of Color
//   <green>                       Color::calibratedGreen() (0.0, 0.7, 0.0)
//   <yellow>                      device RGB 0.5, 0.5, 0.0: a dark yellow that
//                                 reads on a white background
//   <under> <strike>              underline; strikethrough (style 1)
//
// How the format is read:
// - "%@" takes the next argument, "%%" is a "%"; any other "%" is text.
//   An absent argument, or a "%@" beyond the last one, shows "(null)".
// - Arguments are never read as tags: "<red>" inside one stays text. They
//   take the attributes of the tags around their "%@".
// - Tags do not form a stack. An opening tag sets its attribute for the text
//   that follows, replacing the colour in effect; a closing tag removes its
//   attribute, whichever tag set it. So in "<red>a<blue>b</blue>c</red>" the
//   c has no colour, and "</gray>" ends a "<red>" as well.
// - Unknown tags and a lone "<" are text. Tags left open end with the
//   formatted text: nothing appended later inherits them.

#include <Wireloom/text/AttributedString.hpp>
#include <Wireloom/text/Color.hpp>

#include <array>
#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace wireloom {

// Appends printf-formatted text without attributes, or in one colour.
void appendFormat(AttributedString& target, const char* format, ...) __attribute__((format(printf, 2, 3)));
void appendColor(AttributedString& target, ColorPtr color, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// One argument of the tag language: some text, or none, shown as "(null)".
using FormatArgument = std::optional<std::string_view>;

// A format with its arguments spliced in, each as "$$$<number>$<text>", and
// where each of those pieces lies, so that no tag is looked for inside them.
struct EscapedFormat {
    struct Segment {
        std::string_view marker;   // "escaped_segment", or "add_null" for an absent argument
        unsigned number;           // running, from 0
        std::size_t location;      // of the "$$$" in text
        std::size_t length;        // of the "$$$<number>$" and the text
        std::size_t textLocation;  // of the argument's text (or "(null)")
    };
    std::string text;
    std::vector<Segment> segments;
};
EscapedFormat escapeStringFromFormat(std::string_view format, std::span<const FormatArgument> arguments);

namespace detail {
inline FormatArgument formatArgument(std::string_view text) { return text; }
inline FormatArgument formatArgument(const char* text) { return text ? FormatArgument(text) : std::nullopt; }
inline FormatArgument formatArgument(std::nullopt_t) { return std::nullopt; }
template <class Text>
FormatArgument formatArgument(const std::optional<Text>& text) {
    return text ? formatArgument(*text) : std::nullopt;
}
void formattedStringWithFormat(AttributedString& target, std::string_view format,
                               std::span<const FormatArgument> arguments);
}  // namespace detail

// Appends the format, styled by its tags, to target. Arguments are strings,
// string views, C strings, std::nullopt or optionals of these.
template <class... Arguments>
void formattedStringWithFormat(AttributedString& target, std::string_view format, const Arguments&... arguments) {
    const std::array<FormatArgument, sizeof...(Arguments)> list{detail::formatArgument(arguments)...};
    detail::formattedStringWithFormat(target, format, list);
}

// The plain text without the coloured runs. Runs in the very Color::black()
// object are kept, deliberately: black is the key colour, and a key is not
// decoration. Any other black object is a colour like the rest.
std::string stringByStrippingColorizedText(const AttributedString& text);

}  // namespace wireloom
