#pragma once
// AttributedString: UTF-8 text with attribute runs (foreground colour,
// strikethrough, underline). It is what styled text renders to and what the
// report shows, copies and exports, as plain text, terminal text or HTML:
//
//   AttributedString line("key: ", {Color::black()});
//   line.append("value", {Color::blue()});
//   line.addUnderline(5, 5);
//   std::puts(line.ansiText().c_str());
//
// Locations and lengths are byte offsets into string(); keeping them on
// character boundaries is the caller's business.

#include <Wireloom/text/Color.hpp>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace wireloom {

struct TextAttributes {
    ColorPtr foregroundColor;
    int strikethroughStyle = 0;
    bool underline = false;

    bool empty() const noexcept { return !foregroundColor && strikethroughStyle == 0 && !underline; }
    // Colours compare by identity: the standard black is not any other black.
    friend bool operator==(const TextAttributes&, const TextAttributes&) = default;
};

class AttributedString {
public:
    enum class Attribute { ForegroundColor, Strikethrough, Underline };

    struct Run {
        std::size_t location;
        std::size_t length;
        TextAttributes attributes;
        friend bool operator==(const Run&, const Run&) = default;
    };

    AttributedString() = default;
    explicit AttributedString(std::string text, TextAttributes attributes = {});

    const std::string& string() const noexcept { return text_; }
    std::size_t length() const noexcept { return text_.size(); }
    // Cover the whole string in order; adjacent runs never have equal attributes.
    const std::vector<Run>& runs() const noexcept { return runs_; }
    TextAttributes attributesAt(std::size_t index) const;

    void reserve(std::size_t bytes) { text_.reserve(bytes); }
    void append(std::string_view text, const TextAttributes& attributes = {});
    void append(const AttributedString& other);
    void deleteCharacters(std::size_t location, std::size_t length);
    // Replaces every attribute over the range.
    void setAttributes(std::size_t location, std::size_t length, const TextAttributes& attributes);
    // Set one attribute over the range, leaving the others as they are.
    void addForegroundColor(std::size_t location, std::size_t length, ColorPtr color);
    void addStrikethroughStyle(std::size_t location, std::size_t length, int style = 1);
    void addUnderline(std::size_t location, std::size_t length);
    void removeAttribute(Attribute attribute, std::size_t location, std::size_t length);

    std::string plainText() const { return text_; }
    // Terminal text: 24-bit SGR colour, 9 for strikethrough, 4 for underline,
    // and a reset after every styled run.
    std::string ansiText() const;
    // Escaped text, with a styled <span> around the runs that have attributes.
    std::string htmlText() const;

    friend bool operator==(const AttributedString&, const AttributedString&) = default;

private:
    // Splits runs so that one begins at `location` (if inside the string).
    void splitAt(std::size_t location);
    template <class Change>
    void changeAttributes(std::size_t location, std::size_t length, Change change);
    void mergeRuns();

    std::string text_;
    std::vector<Run> runs_;
};

}  // namespace wireloom
