// The assertion macro, the log's test sink, and the user-info value type.
#include <Wireloom/core/Assert.hpp>
#include <Wireloom/core/Log.hpp>
#include <Wireloom/core/Value.hpp>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

using namespace wireloom;

namespace {
class Flow : public Object {};
class Capture : public Object {};
}  // namespace

TEST(AssertDeathTest, PrintsTheQuotedTextAndAborts) {
    EXPECT_DEATH(WL_ASSERT(1 + 1 == 3, "Arithmetic is broken"), "Arithmetic is broken");
    WL_ASSERT(true, "never printed");  // a holding invariant costs nothing visible
}

TEST(Log, SinkSeesEveryLevelFormatted) {
    std::vector<std::pair<Log::Level, std::string>> seen;
    Log::setSink([&](Log::Level level, const std::string& text) { seen.emplace_back(level, text); });
    Log::error("Error: %s %d", "code", 7);
    Log::debug("%s", std::string(600, 'x').c_str());  // longer than the stack buffer
    Log::setSink(nullptr);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0], std::make_pair(Log::Level::Error, std::string("Error: code 7")));
    EXPECT_EQ(seen[1].second.size(), 600u);
}

TEST(Value, HoldsEachKindAndAnswersNothingForOthers) {
    auto flow = std::make_shared<Flow>();
    UserInfo info{{"flow", flow}, {"reason", "Timeout"}, {"count", 3},     {"chunk", ByteBuffer::fromString("ab")},
                  {"done", true}, {"ratio", 0.5},        {"none", Value()}};
    EXPECT_EQ(info.at("flow").object<Flow>(), flow);
    EXPECT_FALSE(info.at("flow").object<Capture>());  // a different class is not a match
    EXPECT_EQ(info.at("flow").object(), flow);
    EXPECT_EQ(*info.at("reason").string(), "Timeout");
    EXPECT_FALSE(info.at("reason").integer());
    EXPECT_EQ(*info.at("count").integer(), 3);
    EXPECT_EQ(info.at("chunk").bytes()->stringView(), "ab");
    EXPECT_TRUE(*info.at("done").boolean());
    EXPECT_DOUBLE_EQ(*info.at("ratio").number(), 0.5);
    EXPECT_TRUE(info.at("none").isNull());
    EXPECT_FALSE(info.at("none").object());
}

TEST(Value, SharedStringIsReadInPlaceAndOutlivesItsOwner) {
    auto text = std::make_shared<const std::string>("192.168.100.200:65535");  // past the inline room
    UserInfo info;
    info.emplace("identifier", text);
    info.emplace("none", std::shared_ptr<const std::string>());
    UserInfo copy = info;
    EXPECT_EQ(copy.at("identifier").string(), text.get());
    EXPECT_EQ(copy.at("identifier").description(), "192.168.100.200:65535");
    EXPECT_FALSE(copy.at("identifier").bytes());
    EXPECT_TRUE(copy.at("none").isNull());
    text.reset();
    EXPECT_EQ(*info.at("identifier").string(), "192.168.100.200:65535");
}

TEST(UserInfo, BehavesAsASortedMapAcrossItsInlineRoom) {
    UserInfo info{{"b", 2}, {"a", 1}, {"b", 3}};  // the first "b" stays
    auto keys = [](const UserInfo& i) {
        std::string text;
        for (const auto& [key, value] : i) text += key + "=" + std::to_string(*value.integer()) + " ";
        return text;
    };
    EXPECT_EQ(keys(info), "a=1 b=2 ");
    EXPECT_FALSE(info.emplace("a", 9).second);
    info["d"] = 4;  // past the inline room
    info.emplace("c", 3);
    EXPECT_EQ(keys(info), "a=1 b=2 c=3 d=4 ");
    EXPECT_EQ(info.erase("b"), 1u);
    EXPECT_EQ(info.erase("b"), 0u);
    UserInfo copy = info;
    UserInfo moved = std::move(info);
    EXPECT_TRUE(info.empty());  // as a moved-from map is
    EXPECT_EQ(keys(copy), "a=1 c=3 d=4 ");
    EXPECT_EQ(keys(moved), keys(copy));
    EXPECT_THROW(moved.at("b"), std::out_of_range);

    UserInfo small{{"z", 26}};
    small.emplace("y", 25);  // before the one held, within the inline room
    UserInfo taken;
    taken = std::move(small);
    EXPECT_EQ(keys(taken), "y=25 z=26 ");
    EXPECT_EQ(taken.find("x"), taken.end());
}

TEST(Object, GenericDescriptionNamesTheClassAndAddress) {
    Flow flow;
    char expected[64];
    std::snprintf(expected, sizeof expected, "<Flow: %p>", static_cast<void*>(&flow));
    EXPECT_EQ(flow.description(), expected);
    EXPECT_EQ(flow.className(), "Flow");
}
