#pragma once
// The capture the flow and HTTP benchmarks share: web-like TCP conversations
// interleaved with each other, with some data segments swapped with a
// neighbour and some sent again later, a few of those overlapping the next
// segment. What the conversations carry is the caller's choice: random
// bytes of web-like sizes, or HTTP requests and responses.
//
//   HttpContent content;  // a WebContent of the caller's
//   WebCapture capture = WebTrafficGenerator(20240611, content).generate(200 * 1000000);
//   writePcap(file.path, DLT_EN10MB, capture.frames);

#include "TrafficMix.hpp"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace wireloom::bench {

// Clients use ports from here up, servers well-known ones below: how the
// passes tell the client's direction from the server's.
inline constexpr std::uint16_t kFirstClientPort = 49152;
inline constexpr std::size_t kConcurrentConversations = 16;

struct WebCapture {
    std::vector<Frame> frames;
    std::uint64_t frameBytes = 0;
    std::uint64_t sent[2] = {};  // stream bytes from clients, from servers
    std::uint64_t conversations = 0, dataSegments = 0, swapped = 0, repeated = 0, overlapping = 0;

    // The pcap file the frames make: global header, then a record header per frame.
    std::uint64_t fileSize() const { return 24 + 16 * frames.size() + frameBytes; }
};

// What a conversation carries: each of its exchanges is a request and the
// response to it.
class WebContent {
public:
    virtual ~WebContent() = default;
    virtual std::uint16_t serverPort(Random& random) = 0;
    virtual void exchange(Random& random, PayloadPool& pool, testing::Bytes* request, testing::Bytes* response) = 0;
};

// Random bytes: requests of 200 to 900 bytes, responses of 1 kB to 2 MB
// (log-uniform); seven servers in ten on port 443, the others on 80.
class RandomContent : public WebContent {
public:
    std::uint16_t serverPort(Random& random) override { return random.chance(0.7) ? 443 : 80; }
    void exchange(Random& random, PayloadPool& pool, testing::Bytes* request, testing::Bytes* response) override {
        *request = pool.take(random.between(200, 900));
        *response = pool.take(random.logBetween(1000, 2'000'000));
    }
};

class WebTrafficGenerator {
public:
    WebTrafficGenerator(std::uint64_t seed, WebContent& content);
    // With RandomContent.
    explicit WebTrafficGenerator(std::uint64_t seed);
    // Conversations until their frames reach the budget; the same frames
    // for the same seed and content, on every machine.
    WebCapture generate(std::uint64_t byteBudget);

private:
    std::vector<Frame> conversation(WebCapture& capture);
    void disorder(std::vector<Frame>& frames, WebCapture& capture);

    Random random_;
    PayloadPool pool_;
    WebContent& content_;
};

}  // namespace wireloom::bench
