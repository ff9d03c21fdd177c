// The tag language, its escaped arguments, the printf appends and stripping
// coloured text.
#include <Wireloom/text/AttributedString+PXRV.hpp>

#include <gtest/gtest.h>

using namespace wireloom;

namespace {

AttributedString formatted(std::string_view format, const auto&... arguments) {
    AttributedString text;
    formattedStringWithFormat(text, format, arguments...);
    return text;
}

TextAttributes colour(ColorPtr color) { return {std::move(color)}; }

}  // namespace

TEST(TagLanguage, EachTagSetsItsAttribute) {
    AttributedString text = formatted(
        "<red>r</red><green>g</green><blue>b</blue><yellow>y</yellow><orange>o</orange><gray>e</gray>"
        "<under>u</under><strike>s</strike>");
    EXPECT_EQ(text.string(), "rgbyoeus");
    EXPECT_EQ(text.attributesAt(0), colour(Color::red()));
    EXPECT_EQ(text.attributesAt(1), colour(Color::calibratedGreen()));
    EXPECT_EQ(text.attributesAt(2), colour(Color::blue()));
    const ColorPtr& yellow = text.attributesAt(3).foregroundColor;
    EXPECT_EQ(yellow->space(), Color::Space::DeviceRGB);
    EXPECT_EQ(yellow->redComponent(), 0.5);
    EXPECT_EQ(text.attributesAt(4), colour(Color::orange()));
    EXPECT_EQ(text.attributesAt(5), colour(Color::gray()));
    EXPECT_EQ(text.attributesAt(6), (TextAttributes{nullptr, 0, true}));
    EXPECT_EQ(text.attributesAt(7), (TextAttributes{nullptr, 1, false}));
}

TEST(TagLanguage, ClosingTagsRemoveByAttributeNotByStack) {
    AttributedString text = formatted("<red>a<under>b</red>c</under>d<red>e<blue>f</blue>g</red><gray>h");
    EXPECT_EQ(text.string(), "abcdefgh");
    EXPECT_EQ(text.attributesAt(1), (TextAttributes{Color::red(), 0, true}));
    EXPECT_EQ(text.attributesAt(2), (TextAttributes{nullptr, 0, true}));
    EXPECT_TRUE(text.attributesAt(3).empty());
    EXPECT_EQ(text.attributesAt(5), colour(Color::blue()));
    EXPECT_TRUE(text.attributesAt(6).empty());  // </blue> ended the red as well
    EXPECT_EQ(text.attributesAt(7), colour(Color::gray()));

    formattedStringWithFormat(text, "i");  // an open tag ends with its format
    EXPECT_TRUE(text.attributesAt(8).empty());
}

TEST(TagLanguage, UnknownTagsAndStrayBracketsAreText) {
    AttributedString text = formatted("a < b <bold>c</bold> <Red>d <re<red>e</red> f>");
    EXPECT_EQ(text.string(), "a < b <bold>c</bold> <Red>d <ree f>");
    EXPECT_EQ(text.runs().size(), 3u);
    EXPECT_EQ(text.attributesAt(31), colour(Color::red()));
}

TEST(TagLanguage, ArgumentsAreNeverReadAsTags) {
    AttributedString text = formatted("<red>%@</red> %@ %@|100%% %d", "<blue>x</blue>$$$1$", std::nullopt);
    EXPECT_EQ(text.string(), "<blue>x</blue>$$$1$ (null) (null)|100% %d");  // the third "%@" has no argument
    EXPECT_EQ(text.runs().front(), (AttributedString::Run{0, 19, colour(Color::red())}));
    EXPECT_EQ(text.runs().size(), 2u);

    std::optional<std::string> absent, present = "<gray>";
    EXPECT_EQ(formatted("%@%@", absent, present).string(), "(null)<gray>");

    const FormatArgument arguments[] = {"<b>", std::nullopt};
    EscapedFormat escaped = escapeStringFromFormat("x%@y%@", arguments);
    EXPECT_EQ(escaped.text, "x$$$0$<b>y$$$1$(null)");
    ASSERT_EQ(escaped.segments.size(), 2u);
    EXPECT_EQ(escaped.segments[0].marker, "escaped_segment");
    EXPECT_EQ(escaped.segments[1].marker, "add_null");
    EXPECT_EQ(escaped.segments[1].number, 1u);
    EXPECT_EQ(escaped.text.substr(escaped.segments[1].location, escaped.segments[1].length), "$$$1$(null)");
}

TEST(PrintfAppends, PlainAndColoured) {
    AttributedString text;
    appendFormat(text, "%d<red>", 7);
    appendColor(text, Color::blue(), "%s", "x");
    EXPECT_EQ(text.string(), "7<red>x");
    EXPECT_EQ(text.runs(), (std::vector<AttributedString::Run>{{0, 6, {}}, {6, 1, colour(Color::blue())}}));
}

TEST(StrippingColorizedText, KeepsUncolouredAndTheStandardBlackOnly) {
    AttributedString text("key:", colour(Color::black()));
    text.append(" v1", colour(Color::calibratedRGB(0, 0, 0)));  // black, but not the standard object
    text.append(" plain", {nullptr, 1, true});
    text.append(" v2", colour(Color::red()));
    text.append(" end");
    EXPECT_EQ(stringByStrippingColorizedText(text), "key: plain end");
    EXPECT_EQ(stringByStrippingColorizedText(AttributedString()), "");
}
