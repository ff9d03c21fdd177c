#include <Wireloom/flows/PXTCPBuffer.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <string>
#include <vector>

using namespace wireloom;

namespace {

using Bytes = std::vector<std::uint8_t>;

struct Segment {
    std::size_t offset, length;
};

Bytes range(std::size_t length, std::uint8_t first = 0) {
    Bytes bytes(length);
    std::iota(bytes.begin(), bytes.end(), first);
    return bytes;
}

}  // namespace

// A stream cut into segments, with copies and overlapping spans added, sent
// in a random order behind its first segment (which anchors the stream).
TEST(PXTCPBufferProperty, ReassemblesAnyOrderByteForByteAndKeepsTheWindowConsistent) {
    const unsigned seed = 20260611;
    std::mt19937 random(seed);
    for (int round = 0; round < 150; ++round) {
        SCOPED_TRACE("seed " + std::to_string(seed) + ", round " + std::to_string(round));
        const std::size_t length = 1 + random() % (round % 10 == 0 ? 200'000 : 20'000);
        Bytes stream(length);
        for (auto& byte : stream) byte = static_cast<std::uint8_t>(random());
        std::vector<Segment> segments;
        for (std::size_t at = 0; at < length;) {
            std::size_t size = std::min<std::size_t>(length - at, 1 + random() % 3000);
            segments.push_back({at, size});
            at += size;
        }
        for (std::size_t extra = random() % (segments.size() + 1); extra > 0; --extra) {
            std::size_t a = random() % length, b = random() % length;
            segments.push_back(random() % 2 ? segments[random() % segments.size()]
                                            : Segment{std::min(a, b), std::max(a, b) - std::min(a, b) + 1});
        }
        std::shuffle(segments.begin() + 1, segments.end(), random);
        const std::uint32_t isn = random() % (0xFFFFFFFFu - 10'000'000u);

        PXTCPBuffer buffer;
        Bytes received(length), delivered;
        std::size_t furthest = 0;
        auto push = [&](Segment s) {
            bool missing = true;
            auto chunk = buffer.pushData({stream.data() + s.offset, s.length}, isn + s.offset, &missing);
            ASSERT_FALSE(missing);
            // A segment that starts before the window is stale as a whole,
            // new tail and all.
            if (s.offset >= delivered.size()) {
                std::fill_n(received.begin() + s.offset, s.length, 1);
                furthest = std::max(furthest, s.offset + s.length);
            }
            if (chunk) {
                ASSERT_FALSE(chunk->empty());
                delivered.insert(delivered.end(), chunk->begin(), chunk->end());
            }
            ASSERT_TRUE(std::equal(delivered.begin(), delivered.end(), stream.begin()));
            ASSERT_EQ(buffer.windowStart(), isn + delivered.size());
            // The window: every byte from the first undelivered one to the
            // furthest received, flagged where received, zero in the holes.
            Bytes flags(received.begin() + delivered.size(), received.begin() + std::max(furthest, delivered.size()));
            Bytes data(flags.size());
            for (std::size_t i = 0; i < flags.size(); ++i) data[i] = flags[i] ? stream[delivered.size() + i] : 0;
            // Everything contiguous has gone out, and nothing more.
            ASSERT_EQ(delivered.size(),
                      static_cast<std::size_t>(std::find(received.begin(), received.end(), 0) - received.begin()));
            ASSERT_TRUE(std::ranges::equal(buffer.slidingWindowSetBytes().span(), flags));
            ASSERT_TRUE(std::ranges::equal(buffer.slidingWindow().span(), data));
        };
        for (const Segment& s : segments) ASSERT_NO_FATAL_FAILURE(push(s));
        // Whatever came before, a retransmission from the window start moves
        // the stream on.
        while (delivered.size() < length) {
            const std::size_t before = delivered.size();
            ASSERT_NO_FATAL_FAILURE(push({before, std::min<std::size_t>(length - before, 1448)}));
            ASSERT_GT(delivered.size(), before);
        }
    }
}

// Holes at every other byte, filled from the front while new bytes keep
// arriving ahead: the window slides round its storage with holes throughout,
// and each delivered pair is kept while later ones are made.
TEST(PXTCPBuffer, EveryOtherByteFilledFromTheFrontWhileTheWindowSlides) {
    const Bytes stream = range(100'000, 1);
    PXTCPBuffer buffer;
    std::vector<ByteBuffer> chunks;
    auto push = [&](std::size_t at) {
        if (auto chunk = buffer.pushData({&stream[at], 1}, static_cast<std::uint32_t>(at), nullptr))
            chunks.push_back(*chunk);
    };
    for (std::size_t i = 0; i < stream.size() / 2; ++i) {
        push(2 * i);
        if (i >= 3000) push(2 * (i - 3000) + 1);
    }
    for (std::size_t i = stream.size() / 2 - 3000; i < stream.size() / 2; ++i) push(2 * i + 1);
    Bytes delivered;
    for (const ByteBuffer& chunk : chunks) delivered.insert(delivered.end(), chunk.begin(), chunk.end());
    EXPECT_EQ(delivered, stream);
}

TEST(PXTCPBuffer, WindowEndsExactlyTenMebibytesPastItsStart) {
    PXTCPBuffer buffer;
    bool missing = false;
    buffer.pushData(range(1), 0, &missing);
    const Bytes bulk(PXTCPBuffer::kMaxWindow - 1, 7);
    EXPECT_EQ(buffer.pushData(bulk, 2, &missing), std::nullopt);
    EXPECT_FALSE(missing);
    EXPECT_EQ(buffer.pushData(range(1), 1 + PXTCPBuffer::kMaxWindow, &missing), std::nullopt);
    EXPECT_TRUE(missing);
    EXPECT_EQ(buffer.windowLength(), PXTCPBuffer::kMaxWindow);
    EXPECT_EQ(buffer.pushData(range(1), 1, &missing).value_or(ByteBuffer()).size(), PXTCPBuffer::kMaxWindow);
    EXPECT_FALSE(missing);
}

TEST(PXTCPBuffer, WrapFoldsTheWindowStartOnePositionShortOfTwoToThe32) {
    PXTCPBuffer buffer;
    bool missing = false;
    EXPECT_EQ(buffer.pushData(range(10), 4'294'967'290u, &missing), ByteBuffer::copy(range(10)));
    EXPECT_EQ(buffer.windowStart(), 5u);
    EXPECT_EQ(buffer.pushData(range(3), 4, &missing), std::nullopt);  // what a modulo-2^32 sender sends
    EXPECT_EQ(buffer.pushData(range(3), 5, &missing), ByteBuffer::copy(range(3)));

    // Near the top, a low sequence number is placed 4,294,967,295 higher.
    PXTCPBuffer high;
    high.pushData(range(1), 0xFFFFFEFF, &missing);
    EXPECT_EQ(high.pushData(range(2, 0x10), 0x10, &missing), std::nullopt);
    EXPECT_EQ(high.windowLength(), 0x111u);
    EXPECT_EQ(high.pushData(range(0x10F), 0xFFFFFF00, &missing).value_or(ByteBuffer()).size(), 0x111u);
    EXPECT_EQ(high.windowStart(), 0x12u);
    EXPECT_FALSE(missing);
}
