// Styled text: the token stream's layout and growth, the caches, rendering
// and the colour scheme the streams point into.
#include <Wireloom/text/WLAttributedString.hpp>
#include <Wireloom/text/WLColors.hpp>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

using namespace wireloom;

namespace {
constexpr std::size_t kCode = 4, kRecord = 12;

// Lets the stream's first `succeeding` allocations through and fails the rest.
class FailingAllocation {
public:
    explicit FailingAllocation(int succeeding) : saved_(detail::tokenAllocator()) {
        left_ = succeeding;
        detail::tokenAllocator() = {
            [](std::size_t size) noexcept { return left_-- > 0 ? std::malloc(size) : fail(); },
            [](void* block, std::size_t size) noexcept { return left_-- > 0 ? std::realloc(block, size) : fail(); }};
    }
    ~FailingAllocation() { detail::tokenAllocator() = saved_; }

private:
    static void* fail() noexcept {
        errno = ENOMEM;
        return nullptr;
    }
    static inline int left_ = 0;
    detail::TokenAllocator saved_;
};
}  // namespace

TEST(TokenStream, LayoutAndGrowthByExactly64Bytes) {
    auto empty = WLAttributedString::stringWithFormat(WLTokenEnd);
    EXPECT_EQ(empty->tokenStreamLength(), kCode);
    EXPECT_EQ(empty->tokenStreamSize(), 64u);
    EXPECT_EQ(empty->stringLength(), 0u);
    EXPECT_EQ(empty->string(), "");
    EXPECT_EQ(empty->attributedString()->length(), 0u);

    // Five text records (60 bytes) leave 4 free: the end record just fits.
    auto five = WLAttributedString::stringWithFormat(WLTokenText, "a", WLTokenText, "b", WLTokenText, "c", WLTokenText,
                                                     "d", WLTokenText, "e", WLTokenEnd);
    EXPECT_EQ(five->tokenStreamLength(), 5 * kRecord + kCode);
    EXPECT_EQ(five->tokenStreamSize(), 64u);
    // A sixth text's code fits, its reference does not: one step of 64.
    auto six = WLAttributedString::stringWithFormat(WLTokenText, "a", WLTokenText, "b", WLTokenText, "c", WLTokenText,
                                                    "d", WLTokenText, "e", WLTokenText, "f", WLTokenEnd);
    EXPECT_EQ(six->tokenStreamLength(), 6 * kRecord + kCode);
    EXPECT_EQ(six->tokenStreamSize(), 128u);

    std::uint32_t code;
    const ColorPtr* pointer;
    ColorPtr variable;
    auto mixed = WLAttributedString::stringWithFormat(WLTokenStrikethrough, WLTokenColorPointer, &variable, WLTokenPop,
                                                      WLTokenEnd);
    std::memcpy(&code, mixed->tokenStream() + kCode, sizeof code);  // unaligned, right after the 4-byte code
    std::memcpy(&pointer, mixed->tokenStream() + 2 * kCode, sizeof pointer);
    EXPECT_EQ(code, 2u);
    EXPECT_EQ(pointer, &variable);
    EXPECT_EQ(mixed->tokenStreamLength(), kCode + kRecord + kCode + kCode);
}

TEST(TokenStream, AbsentTextIsEmptyAndDepthsSumOnAppend) {
    std::optional<std::string> none;
    const char* null = nullptr;
    auto s = WLAttributedString::stringWithFormat(WLTokenText, nullptr, WLTokenText, std::nullopt, WLTokenText, none,
                                                  WLTokenText, null, WLTokenText, std::string("x"), WLTokenEnd);
    EXPECT_EQ(s->string(), "x");
    EXPECT_EQ(s->stringLength(), 1u);

    const ColorPtr& r = Color::red();
    auto nested = WLAttributedString::stringWithFormat(WLTokenColor, r, WLTokenColor, r, WLTokenColor, r, WLTokenColor,
                                                       r, WLTokenColor, r, WLTokenPop, WLTokenPop, WLTokenPop,
                                                       WLTokenPop, WLTokenPop, WLTokenEnd);
    EXPECT_EQ(nested->maxTokenSize(), 5u);
    nested->appendFormat(WLTokenStrikethrough, WLTokenColor, r, WLTokenPop, WLTokenPop, WLTokenEnd);
    EXPECT_EQ(nested->maxTokenSize(), 7u);
    EXPECT_EQ(nested->tokenStreamLength(), 5 * kRecord + 5 * kCode + kCode + kRecord + 2 * kCode + kCode);
}

TEST(WLAttributedString, PlainCacheSurvivesAppendButRenderingDoesNot) {
    auto s = WLAttributedString::stringWithFormat(WLTokenText, "one", WLTokenEnd);
    auto firstRendering = s->attributedString();
    EXPECT_EQ(s->description(), "one");
    s->appendFormat(WLTokenText, " two", WLTokenEnd);
    EXPECT_EQ(s->string(), "one");  // deliberately stale
    EXPECT_EQ(s->attributedString()->string(), "one two");
    EXPECT_NE(s->attributedString(), firstRendering);
    EXPECT_EQ(s->stringLength(), 7u);

    // Asked only after appends that move the records out of the object's
    // own block: the text of every part, in order.
    auto later = WLAttributedString::stringWithFormat(WLTokenText, "a", WLTokenColor, Color::red(), WLTokenEnd);
    for (const char* part : {"b", "c", "d", "e", "f"}) later->appendFormat(WLTokenText, part, WLTokenPop, WLTokenEnd);
    EXPECT_EQ(later->tokenStreamSize(), 128u);
    EXPECT_EQ(later->string(), "abcdef");
    EXPECT_EQ(later->stringWithoutColorizedText(), "acdef");
}

TEST(WLAttributedString, PopRemovesRatherThanRestoresAndColourlessTextSkipsColours) {
    auto s = WLAttributedString::stringWithFormat(WLTokenColor, Color::red(), WLTokenColor, Color::blue(), WLTokenText,
                                                  "x", WLTokenPop, WLTokenText, "y", WLTokenEnd);
    AttributedString expected("x", {Color::blue()});
    expected.append("y");
    EXPECT_EQ(*s->attributedString(), expected);

    auto example =
        WLAttributedString::stringWithFormat(WLTokenText, "a", WLTokenColor, Color::red(), WLTokenText, "b", WLTokenPop,
                                             WLTokenStrikethrough, WLTokenText, "c", WLTokenPop, WLTokenEnd);
    EXPECT_EQ(example->stringWithoutColorizedText(), "ac");
    EXPECT_EQ(example->attributedString()->ansiText(), "a\x1b[38;2;255;0;0mb\x1b[0m\x1b[9mc\x1b[0m");
    EXPECT_EQ(
        WLAttributedString::attributedStringWithFormat(WLTokenStrikethrough, WLTokenText, "<s>", WLTokenPop, WLTokenEnd)
            .htmlText(),
        "<span style=\"text-decoration:line-through\">&lt;s&gt;</span>");
}

TEST(WLAttributedString, ColourPointerIsReadAtRenderingAndColoursAreReleased) {
    ColorPtr variable = Color::red();
    ColorPtr own = Color::deviceRGB(0.1, 0.2, 0.3);
    {
        auto s = WLAttributedString::stringWithFormat(WLTokenColorPointer, &variable, WLTokenText, "p", WLTokenPop,
                                                      WLTokenColor, own, WLTokenEnd);
        EXPECT_EQ(own.use_count(), 2);
        EXPECT_EQ(s->attributedString()->attributesAt(0).foregroundColor, Color::red());
        variable = Color::blue();
        EXPECT_EQ(s->attributedString()->attributesAt(0).foregroundColor, Color::red());
        s->clearCache();
        EXPECT_EQ(s->attributedString()->attributesAt(0).foregroundColor, Color::blue());
    }
    EXPECT_EQ(own.use_count(), 1);
}

TEST(WLAttributedString, AllocationFailuresPrintAndChangeNothing) {
    ColorPtr own = Color::deviceRGB(0.1, 0.2, 0.3);
    testing::internal::CaptureStderr();
    {
        FailingAllocation noMalloc(0);
        EXPECT_EQ(WLAttributedString::stringWithFormat(WLTokenEnd), nullptr);
    }
    std::shared_ptr<WLAttributedString> s;
    {
        // The block, the object and what the records refer to are one
        // allocation: a long sequence fails or succeeds as a whole.
        FailingAllocation noMalloc(0);
        EXPECT_EQ(
            WLAttributedString::stringWithFormat(WLTokenColor, own, WLTokenColor, own, WLTokenColor, own, WLTokenColor,
                                                 own, WLTokenColor, own, WLTokenColor, own, WLTokenEnd),
            nullptr);
        EXPECT_EQ(own.use_count(), 1);
    }
    s = WLAttributedString::stringWithFormat(WLTokenText, "kept", WLTokenEnd);
    {
        FailingAllocation noGrowth(1);  // the tail's block, exactly full
        s->appendFormat(WLTokenColor, own, WLTokenText, std::string(1, 'x'), WLTokenText, "y", WLTokenText, "z",
                        WLTokenText, "w", WLTokenEnd);
    }
    const std::string printed = testing::internal::GetCapturedStderr();
    EXPECT_NE(printed.find("malloc failed when processing WL token string: "), std::string::npos);
    EXPECT_NE(printed.find("realloc failure\n"), std::string::npos);
    EXPECT_EQ(own.use_count(), 1);
    EXPECT_EQ(s->attributedString()->string(), "kept");
    EXPECT_EQ(s->tokenStreamLength(), kRecord + kCode);
}

TEST(WLColors, DefaultsAndRevision) {
    EXPECT_EQ(*WLColors::sourceAddressColorPointer(), Color::blue());
    EXPECT_EQ(*WLColors::destPortColorPointer(), Color::calibratedGreen());
    EXPECT_EQ(*WLColors::nullValueColorPointer(), Color::gray());
    EXPECT_EQ(*WLColors::keyColorPointer(), Color::black());

    auto port = WLAttributedString::stringWithFormat(WLTokenColorPointer, WLColors::sourcePortColorPointer(),
                                                     WLTokenText, "443", WLTokenPop, WLTokenEnd);
    const std::uint32_t before = WLColors::colorCacheRevision();
    WLColors::setSourcePortColor(Color::orange());
    EXPECT_EQ(WLColors::colorCacheRevision(), before + 1);
    EXPECT_EQ(port->attributedString()->attributesAt(0).foregroundColor, Color::orange());
    WLColors::setSourcePortColor(Color::calibratedGreen());
}

// Ill-typed sequences do not compile; these are the checks behind that.
using Text = WLTokenTag<WLToken::Text>;
using End = WLTokenTag<WLToken::End>;
static_assert(detail::IsTokenSequence<Text, const char*, WLTokenTag<WLToken::Pop>, End>::value);
static_assert(!detail::IsTokenSequence<Text, ColorPtr, End>::value);
static_assert(!detail::IsTokenSequence<WLTokenTag<WLToken::Color>, const char*, End>::value);
static_assert(!detail::IsTokenSequence<WLTokenTag<WLToken::ColorPointer>, ColorPtr, End>::value);
static_assert(!detail::IsTokenSequence<Text, std::string>::value);       // no end
static_assert(!detail::IsTokenSequence<End, Text, std::string>::value);  // something after the end
