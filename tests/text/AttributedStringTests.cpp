// Attributed strings: run bookkeeping, the renderers, and the standard colours.
// The widened green (0.699999988 x 255 = 178.4999) rounds to 178, not 179.
#include <Wireloom/text/AttributedString.hpp>

#include <gtest/gtest.h>

using namespace wireloom;

TEST(Color, StandardColoursAreSingletonsAndGreenIsWidenedFromFloat) {
    EXPECT_EQ(Color::black().get(), Color::black().get());
    EXPECT_NE(Color::black().get(), Color::calibratedRGB(0, 0, 0).get());
    EXPECT_EQ(Color::calibratedGreen()->greenComponent(), 0.699999988079071);
    EXPECT_EQ(Color::calibratedGreen()->space(), Color::Space::CalibratedRGB);
    EXPECT_EQ(Color::deviceRGB(0.5, 0.5, 0)->rgb8(), (std::array<int, 3>{128, 128, 0}));
}

TEST(AttributedString, RunsStayMergedAndCoverTheText) {
    AttributedString s("abc", {Color::red()});
    s.append("def", {Color::red()});
    s.append("", {Color::blue()});
    s.append("gh");
    ASSERT_EQ(s.runs().size(), 2u);
    EXPECT_EQ(s.runs()[0], (AttributedString::Run{0, 6, {Color::red()}}));

    s.addUnderline(4, 4);  // splits the red run, joins the plain one
    s.removeAttribute(AttributedString::Attribute::ForegroundColor, 0, 2);
    ASSERT_EQ(s.runs().size(), 4u);
    EXPECT_TRUE(s.attributesAt(1).empty());
    EXPECT_EQ(s.attributesAt(4), (TextAttributes{Color::red(), 0, true}));
    EXPECT_EQ(s.runs()[3], (AttributedString::Run{6, 2, {nullptr, 0, true}}));

    s.deleteCharacters(1, 6);  // leaves the plain "a" and the underlined "h"
    EXPECT_EQ(s.string(), "ah");
    EXPECT_EQ(s.runs(), (std::vector<AttributedString::Run>{{0, 1, {}}, {1, 1, {nullptr, 0, true}}}));

    s.setAttributes(0, 2, {});
    EXPECT_EQ(s, AttributedString("ah"));
}

TEST(AttributedString, RendersAnsiAndEscapedHtml) {
    AttributedString s("a<b", {Color::red()});
    s.append(" & ");
    s.append("\"x'", {Color::calibratedGreen(), 1, true});
    EXPECT_EQ(s.plainText(), "a<b & \"x'");
    EXPECT_EQ(s.ansiText(), "\x1b[38;2;255;0;0ma<b\x1b[0m & \x1b[38;2;0;178;0;9;4m\"x'\x1b[0m");
    // The standard black stays the terminal's default colour (dark terminals);
    // a black made separately is still drawn.
    AttributedString keys("key", {Color::black()});
    keys.append("!", {Color::calibratedRGB(0, 0, 0)});
    EXPECT_EQ(keys.ansiText(), "key\x1b[38;2;0;0;0m!\x1b[0m");
    EXPECT_EQ(s.htmlText(),
              "<span style=\"color:#ff0000\">a&lt;b</span> &amp; "
              "<span style=\"color:#00b200;text-decoration:line-through underline\">&quot;x&#39;</span>");
}
