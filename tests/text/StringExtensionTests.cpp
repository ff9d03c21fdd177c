// Service-name split, durations, elapsed time, byte sizes, UUIDs and digests.
#include <Wireloom/text/String+PXRV.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <regex>

using namespace wireloom;

TEST(ServiceNameSplit, TakesTheHalvesAskedForAndChecksOnlyThose) {
    std::string mac = "untouched", device;
    EXPECT_TRUE(PXRVSplitRelayonServiceName("0011223344AA@Living Room", &mac, &device));
    EXPECT_EQ(mac, "0011223344aa");
    EXPECT_EQ(device, "Living Room");
    EXPECT_TRUE(PXRVSplitRelayonServiceName("x-0011223344aa-y@a@b", &mac, &device));  // unanchored, first "@"
    EXPECT_EQ(mac, "x-0011223344aa-y");
    EXPECT_EQ(device, "a@b");

    EXPECT_FALSE(PXRVSplitRelayonServiceName("@x", &mac, nullptr));  // empty MAC
    EXPECT_EQ(relayonServiceNameDeviceName("@x"), "x");
    EXPECT_EQ(relayonServiceNameMACAddress("0011223344aa@"), "0011223344aa");
    EXPECT_FALSE(relayonServiceNameDeviceName("0011223344aa@"));
    EXPECT_FALSE(relayonServiceNameMACAddress("0011223344a@x"));       // eleven digits
    EXPECT_FALSE(relayonServiceNameMACAddress("00112233-44aabb@x"));   // not consecutive
    EXPECT_FALSE(relayonServiceNameDeviceName("0011223344aa"));        // no "@"
    EXPECT_FALSE(PXRVSplitRelayonServiceName("@", nullptr, nullptr));  // too short
    EXPECT_TRUE(PXRVSplitRelayonServiceName("a@", nullptr, nullptr));
}

TEST(Duration, BoundariesOfEveryPart) {
    struct Case {
        double seconds;
        bool milliseconds, microseconds;
        const char* expected;
    };
    const Case cases[] = {
        // Larger units only when strictly exceeded.
        {60, false, false, "60s"},
        {61, false, false, "1m 1s"},
        {3600, false, false, "60m"},
        {86400, false, false, "24h"},
        {86400 + 3600 + 61, false, false, "1d 1h 1m 1s"},
        {2 * 86400 + 0.5, false, false, "2d"},  // no "0s" after a larger part
        // Seconds and below: truncated, and only what the flags ask for.
        {0, false, false, "0s"},
        {59.9, false, false, "59s"},
        {0.5, false, false, "0s"},
        {0.5, true, false, "500ms"},
        {1.001, true, false, "1s 1ms"},  // not 1.000999…
        {1.0015, true, true, "1s 1ms 500us"},
        {0.0015, false, true, "1500us"},
        {0.0000005, true, true, "0s"},
        {-3, false, false, "0s"},
        {std::nan(""), true, true, "0s"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(stringWithDuration(c.seconds, c.milliseconds, c.microseconds), c.expected) << c.seconds;
    EXPECT_EQ(stringWithDuration(1.5), "1s");
}

TEST(ElapsedTime, HoursMinutesAndRoundedSeconds) {
    EXPECT_EQ(stringWithElapsedTime(3725), "01:02:05");
    EXPECT_EQ(stringWithElapsedTime(0), "00:00:00");
    EXPECT_EQ(stringWithElapsedTime(59.6), "00:00:60");
    EXPECT_EQ(stringWithElapsedTime(100 * 3600), "100:00:00");
}

TEST(HumanReadableBytesSize, EveryThreshold) {
    const std::pair<std::uint64_t, const char*> cases[] = {
        {0, "0b"},          {1023, "1023b"},          {1024, "1.0KB"},       {1048575, "1024.0KB"},
        {1048576, "1.0MB"}, {1073741823, "1024.0MB"}, {1073741824, "1.0GB"}, {UINT64_MAX, "17179869184.0GB"},
    };
    for (auto [bytes, expected] : cases) EXPECT_EQ(stringWithHumanReadableBytesSize(bytes), expected);
}

TEST(UUIDAndDigest, StandardForms) {
    std::string uuid = stringWithUUID();
    EXPECT_TRUE(
        std::regex_match(uuid, std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")));
    EXPECT_NE(uuid, stringWithUUID());
    EXPECT_EQ(sha256HexDigest("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}
