#include "WebTraffic.hpp"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <utility>

namespace wireloom::bench {

using namespace wireloom::testing;

namespace {

std::uint16_t be16(const Bytes& b, std::size_t at) { return static_cast<std::uint16_t>(b[at] << 8 | b[at + 1]); }
std::uint32_t be32(const Bytes& b, std::size_t at) { return std::uint32_t{be16(b, at)} << 16 | be16(b, at + 2); }

// Where a generated frame's TCP header and payload are (Ethernet, IPv4 or
// IPv6 without extensions, TCP).
struct Segment {
    std::size_t tcp = 0, payload = 0, length = 0;
    std::uint32_t seq = 0;
    bool fromClient = false;
    bool fin = false;
};

Segment segmentOf(const Bytes& frame) {
    Segment s;
    const bool v6 = be16(frame, 12) == kEtherTypeIPv6;
    s.tcp = 14 + (v6 ? 40 : (frame[14] & 15) * 4);
    s.payload = s.tcp + (frame[s.tcp + 12] >> 4) * 4;
    s.length = frame.size() - s.payload;
    s.seq = be32(frame, s.tcp + 4);
    s.fromClient = be16(frame, s.tcp) >= kFirstClientPort;
    s.fin = frame[s.tcp + 13] & kTcpFin;
    return s;
}

// The frame again with another sequence number and payload: a sender's
// retransmission, headers and options as before.
Bytes resent(const Bytes& frame, const Segment& s, std::uint32_t seq, Bytes payload) {
    const bool v6 = be16(frame, 12) == kEtherTypeIPv6;
    TcpFields fields;
    fields.sourcePort = be16(frame, s.tcp);
    fields.destPort = be16(frame, s.tcp + 2);
    fields.seq = seq;
    fields.ack = be32(frame, s.tcp + 8);
    fields.flags = frame[s.tcp + 13];
    fields.window = be16(frame, s.tcp + 14);
    fields.options.assign(frame.begin() + static_cast<std::ptrdiff_t>(s.tcp + 20),
                          frame.begin() + static_cast<std::ptrdiff_t>(s.payload));
    fields.payload = std::move(payload);
    const Bytes segment = tcp(fields);
    Bytes packet;
    if (v6) {
        IPv6Address source, dest;
        std::copy_n(frame.begin() + 22, 16, source.begin());
        std::copy_n(frame.begin() + 38, 16, dest.begin());
        packet = ipv6(source, dest, kProtoTCP, segment, std::nullopt, frame[21]);
    } else {
        IPv4Address source, dest;
        std::copy_n(frame.begin() + 26, 4, source.begin());
        std::copy_n(frame.begin() + 30, 4, dest.begin());
        packet = ipv4(source, dest, kProtoTCP, segment, {.ttl = frame[22], .identification = be16(frame, 18)});
    }
    Mac to, from;
    std::copy_n(frame.begin(), 6, to.begin());
    std::copy_n(frame.begin() + 6, 6, from.begin());
    return ethernet(to, from, be16(frame, 12), packet);
}

// It keeps no state: one serves every generator.
RandomContent gRandomContent;

}  // namespace

WebTrafficGenerator::WebTrafficGenerator(std::uint64_t seed, WebContent& content)
    : random_(seed), pool_(random_, 4 << 20), content_(content) {}

WebTrafficGenerator::WebTrafficGenerator(std::uint64_t seed) : WebTrafficGenerator(seed, gRandomContent) {}

// Conversations are written out whole, then interleaved: each step takes
// the next few frames of one of the open ones, chosen at random.
WebCapture WebTrafficGenerator::generate(std::uint64_t byteBudget) {
    WebCapture capture;
    struct Open {
        std::vector<Frame> frames;
        std::size_t next = 0;
    };
    std::vector<Open> open;
    std::uint64_t queued = 0, microseconds = 0;
    for (;;) {
        while (open.size() < kConcurrentConversations && queued < byteBudget) {
            open.push_back({conversation(capture), 0});
            for (const Frame& frame : open.back().frames) queued += frame.bytes.size();
        }
        if (open.empty()) break;
        const std::size_t pick = random_.between(0, static_cast<std::uint32_t>(open.size() - 1));
        Open& conversation = open[pick];
        for (std::uint32_t n = random_.between(1, 6); n > 0 && conversation.next < conversation.frames.size(); --n) {
            Frame& frame = conversation.frames[conversation.next++];
            // A gigabit wire's time for the frame, in whole microseconds.
            microseconds += std::max<std::uint64_t>(1, (frame.bytes.size() + 20) * 8 / 1000);
            frame.timestamp = 1700000000.0 + static_cast<double>(microseconds) / 1e6;
            capture.frameBytes += frame.bytes.size();
            capture.frames.push_back(std::move(frame));
        }
        if (conversation.next == conversation.frames.size())
            open.erase(open.begin() + static_cast<std::ptrdiff_t>(pick));
    }
    return capture;
}

// A client on a private network making one to five exchanges with a server
// in a documentation range; one in ten over IPv6.
std::vector<Frame> WebTrafficGenerator::conversation(WebCapture& capture) {
    const bool v6 = random_.chance(0.1);
    char client[64], server[64];
    if (v6) {
        std::snprintf(client, sizeof client, "fd00:20::%x", random_.between(2, 0xfffe));
        std::snprintf(server, sizeof server, "2001:db8:80::%x", random_.between(1, 0xff));
    } else {
        std::snprintf(client, sizeof client, "10.2.%u.%u", random_.between(0, 255), random_.between(1, 254));
        std::snprintf(server, sizeof server, "198.51.100.%u", random_.between(1, 254));
    }
    Mac clientMac = kMacA;
    clientMac[5] = static_cast<std::uint8_t>(random_.next());
    // Consecutive client ports: no two open conversations share a 4-tuple.
    const auto port = static_cast<std::uint16_t>(kFirstClientPort + capture.conversations++ % 16384);
    TcpConversation tcp(DLT_EN10MB, {clientMac, client, port}, {kMacB, server, content_.serverPort(random_)},
                        static_cast<std::uint32_t>(random_.next()), static_cast<std::uint32_t>(random_.next()));
    std::vector<Frame> frames;
    double clock = 0;  // the frames are timed when they are interleaved
    tcp.open(frames, clock);
    for (std::uint32_t n = random_.between(1, 5); n > 0; --n) {
        Bytes request, response;
        content_.exchange(random_, pool_, &request, &response);
        capture.sent[0] += request.size();
        capture.sent[1] += response.size();
        tcp.send(true, request, frames, clock);
        tcp.send(false, response, frames, clock);
    }
    tcp.close(frames, clock);
    disorder(frames, capture);
    return frames;
}

// Swaps about 3 % of the data segments with the same sender's next one,
// and sends about 1 % again 2 to 30 frames later, half of those shifted
// by half a segment so that they overlap the next one. Never the first
// segment of a direction (both reassemblers start their stream there,
// one from the SYN, the other from the first data), and never after a
// FIN, where both have ended that direction.
void WebTrafficGenerator::disorder(std::vector<Frame>& frames, WebCapture& capture) {
    std::vector<Segment> segments;
    for (const Frame& frame : frames) segments.push_back(segmentOf(frame.bytes));
    const auto fin = static_cast<std::size_t>(
        std::find_if(segments.begin(), segments.end(), [](const Segment& s) { return s.fin; }) - segments.begin());
    // The same sender's next data segment within `reach` frames of i.
    auto nextData = [&](std::size_t i, std::size_t reach) -> std::size_t {
        for (std::size_t j = i + 1; j < std::min(fin, i + 1 + reach); ++j)
            if (segments[j].length && segments[j].fromClient == segments[i].fromClient) return j;
        return 0;
    };
    bool seen[2] = {};
    std::vector<bool> moved(frames.size());
    for (std::size_t i = 0; i < fin; ++i) {
        if (!segments[i].length) continue;
        ++capture.dataSegments;
        bool& first = seen[segments[i].fromClient ? 0 : 1];
        if (!std::exchange(first, true) || moved[i] || !random_.chance(0.03)) continue;
        if (const std::size_t j = nextData(i, 3)) {
            std::swap(frames[i], frames[j]);
            std::swap(segments[i], segments[j]);
            moved[i] = moved[j] = true;
            ++capture.swapped;
        }
    }
    std::vector<std::pair<std::size_t, Frame>> again;  // sent after the frame at .first
    for (std::size_t i = 0; i < fin; ++i) {
        const Segment& s = segments[i];
        if (!s.length || !random_.chance(0.01)) continue;
        std::size_t after = i;
        Frame copy = frames[i];
        const bool overlap = random_.chance(0.5);
        if (overlap) {
            // Half of this segment and half of the next, in one.
            std::size_t j = 0;
            for (std::size_t k = 0; k < fin; ++k)
                if (segments[k].length && segments[k].fromClient == s.fromClient && segments[k].seq == s.seq + s.length)
                    j = k;
            if (!j) continue;
            const Bytes& next = frames[j].bytes;
            Bytes bytes(frames[i].bytes.begin() + static_cast<std::ptrdiff_t>(s.payload + s.length / 2),
                        frames[i].bytes.end());
            bytes.insert(bytes.end(), next.begin() + static_cast<std::ptrdiff_t>(segments[j].payload),
                         next.begin() + static_cast<std::ptrdiff_t>(segments[j].payload + segments[j].length / 2));
            copy.bytes = resent(frames[i].bytes, s, s.seq + static_cast<std::uint32_t>(s.length / 2), bytes);
            after = std::max(i, j);
        }
        after += random_.between(2, 30);
        if (after >= fin) continue;
        again.emplace_back(after, std::move(copy));
        ++capture.repeated;
        capture.overlapping += overlap;
    }
    std::stable_sort(again.begin(), again.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<Frame> out;
    out.reserve(frames.size() + again.size());
    auto extra = again.begin();
    for (std::size_t i = 0; i < frames.size(); ++i) {
        out.push_back(std::move(frames[i]));
        for (; extra != again.end() && extra->first == i; ++extra) out.push_back(std::move(extra->second));
    }
    frames = std::move(out);
}

}  // namespace wireloom::bench
