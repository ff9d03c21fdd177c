// The fast number writers must agree with printf character for character.
#include <Wireloom/core/detail/NumberText.hpp>

#include <gtest/gtest.h>

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <limits>
#include <random>

using namespace wireloom::detail;

namespace {
std::string printed(const char* format, auto value) {
    char text[512];
    std::snprintf(text, sizeof text, format, value);
    return text;
}
}  // namespace

TEST(NumberText, AgreesWithPrintf) {
    std::mt19937_64 random(7);
    std::vector<std::uint64_t> integers = {0, 1, 9, 10, 255, 256, 65535, 0xffffffffu, UINT64_MAX};
    for (int i = 0; i < 2000; ++i) integers.push_back(random() >> (random() % 64));
    char buffer[kNumberTextCapacity];
    for (std::uint64_t v : integers) {
        const auto v32 = static_cast<std::uint32_t>(v);
        EXPECT_EQ(decimalText(buffer, v), printed("%" PRIu64, v));
        EXPECT_EQ(hexText(buffer, v, 1), printed("0x%" PRIx64, v));
        EXPECT_EQ(hexText(buffer, v32, 2), printed("0x%02x", v32));
        EXPECT_EQ(hexText(buffer, v32, 8), printed("0x%08x", v32));
    }

    std::vector<double> doubles = {0.0,
                                   -0.0,
                                   0.5e-6,
                                   1.5e-6,
                                   2.5e-6,
                                   0.1,
                                   1732000000.123456789,
                                   1e39,
                                   1e40,
                                   1e300,
                                   -1e300,
                                   std::numeric_limits<double>::max(),
                                   std::numeric_limits<double>::denorm_min(),
                                   INFINITY,
                                   -INFINITY,
                                   NAN,
                                   -NAN};
    for (int i = 0; i < 2000; ++i)
        doubles.push_back(std::ldexp(static_cast<double>(random() >> 11), (int)(random() % 200) - 100));
    for (double v : doubles) {
        std::string overflow;
        EXPECT_EQ(fixedText(buffer, v, overflow), printed("%f", v)) << v;
    }
}
