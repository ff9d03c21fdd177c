#include "support/TcpConversation.hpp"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <utility>

namespace wireloom::testing {

namespace {

constexpr int kLinkEthernet = 1;
// Both sides scale their window by 2^7, as Linux does by default, so the
// 502 in every segment after the handshake means 64256 bytes.
constexpr std::uint8_t kWindowScale = 7;
constexpr std::uint16_t kScaledWindow = 502;

// Linux's SYN options in Linux's order: MSS, SACK permitted, timestamps,
// window scale.
Bytes synOptions(std::uint16_t mss, std::uint32_t tsval, std::uint32_t tsecr) {
    Bytes o{2, 4};
    appendBE(o, mss, 2);
    o.insert(o.end(), {4, 2, 8, 10});
    appendBE(o, tsval, 4);
    appendBE(o, tsecr, 4);
    o.insert(o.end(), {1, 3, 3, kWindowScale});
    return o;
}

// What every later segment carries: two NOPs and the timestamps, which is
// why a full segment holds 1448 bytes rather than 1460.
Bytes timestampOptions(std::uint32_t tsval, std::uint32_t tsecr) {
    Bytes o{1, 1, 8, 10};
    appendBE(o, tsval, 4);
    appendBE(o, tsecr, 4);
    return o;
}

}  // namespace

TcpConversation::TcpConversation(int linkLayerType, TcpEndpoint client, TcpEndpoint server, std::uint32_t clientSeq,
                                 std::uint32_t serverSeq)
    : linkLayerType_(linkLayerType), ipv6_(client.address.find(':') != std::string::npos) {
    auto setUp = [this](Side& side, TcpEndpoint endpoint, std::uint32_t isn, std::uint8_t ttl) {
        if (ipv6_)
            side.v6 = ip6(endpoint.address);
        else
            side.v4 = ip4(endpoint.address);
        side.endpoint = std::move(endpoint);
        side.seq = isn;
        // Derived from the ISN so that two conversations of one capture do
        // not share identification or timestamp values.
        side.identification = static_cast<std::uint16_t>(isn ^ (isn >> 16));
        side.timestampBase = isn * 2654435761u;
        side.ttl = ttl;
    };
    setUp(client_, std::move(client), clientSeq, 64);
    // The capture is taken on the client's host: a server across the
    // Internet is some hops away, one on loopback is not.
    setUp(server_, std::move(server), serverSeq, linkLayerType == kLinkEthernet ? 52 : 64);
}

void TcpConversation::open(std::vector<Frame>& out, double& clock) {
    startClock_ = clock;
    emit(true, kTcpSyn, {}, Timing::burst, out, clock);
    emit(false, kTcpSyn | kTcpAck, {}, Timing::reply, out, clock);
    emit(true, kTcpAck, {}, Timing::reply, out, clock);
}

void TcpConversation::send(bool fromClient, const Bytes& data, std::vector<Frame>& out, double& clock,
                           std::size_t mss) {
    if (mss == 0) throw std::invalid_argument("TcpConversation: mss must not be 0");
    std::size_t segments = 0;
    for (std::size_t at = 0; at < data.size(); at += mss) {
        const std::size_t length = std::min(mss, data.size() - at);
        const bool last = at + length == data.size();
        Bytes payload(data.begin() + static_cast<std::ptrdiff_t>(at),
                      data.begin() + static_cast<std::ptrdiff_t>(at + length));
        emit(fromClient, last ? kTcpPsh | kTcpAck : kTcpAck, payload, Timing::burst, out, clock);
        // Delayed ACKs: one for every two full segments, and one for the end.
        if (++segments % 2 == 0 || last) emit(!fromClient, kTcpAck, {}, Timing::reply, out, clock);
    }
}

void TcpConversation::close(std::vector<Frame>& out, double& clock) {
    emit(true, kTcpFin | kTcpAck, {}, Timing::burst, out, clock);
    emit(false, kTcpFin | kTcpAck, {}, Timing::reply, out, clock);
    emit(true, kTcpAck, {}, Timing::reply, out, clock);
}

void TcpConversation::emit(bool fromClient, std::uint8_t flags, const Bytes& payload, Timing timing,
                           std::vector<Frame>& out, double& clock) {
    if (startClock_ < 0) startClock_ = clock;
    Side& from = fromClient ? client_ : server_;
    Side& to = fromClient ? server_ : client_;
    const bool syn = flags & kTcpSyn;
    const bool ethernet = linkLayerType_ == kLinkEthernet;
    const std::size_t frameSize = (ethernet ? 14 : 4) + (ipv6_ ? 40 : 20) + (syn ? 40 : 32) + payload.size();
    advance(fromClient, timing, frameSize, clock);

    const auto milliseconds = static_cast<std::uint32_t>(std::llround((clock - startClock_) * 1000.0));
    const std::uint32_t tsval = from.timestampBase + milliseconds;
    // The MSS a side announces follows from the interface's MTU: 1500 on
    // Ethernet, 16384 on the BSD loopback interface.
    const std::uint16_t mtu = ethernet ? 1500 : 16384;
    const auto mss = static_cast<std::uint16_t>(mtu - (ipv6_ ? 40 : 20) - 20);

    TcpFields fields;
    fields.sourcePort = from.endpoint.port;
    fields.destPort = to.endpoint.port;
    fields.seq = from.seq;
    // The client's SYN acknowledges nothing; every later segment
    // acknowledges all the peer has sent.
    fields.ack = flags & kTcpAck ? to.seq : 0;
    fields.flags = flags;
    fields.payload = payload;
    const std::uint32_t tsecr = from.lastTimestampSeen;
    fields.options = syn ? synOptions(mss, tsval, tsecr) : timestampOptions(tsval, tsecr);
    fields.window = syn ? (fromClient ? 64240 : 65160) : kScaledWindow;
    to.lastTimestampSeen = tsval;

    // SYN and FIN each take one sequence number, as a byte of data would.
    from.seq += static_cast<std::uint32_t>(payload.size()) + (syn ? 1 : 0) + (flags & kTcpFin ? 1 : 0);

    out.push_back(Frame{clock, frameBytes(from, to, tcp(fields)), 0});
}

Bytes TcpConversation::frameBytes(Side& from, const Side& to, const Bytes& segment) {
    Bytes packet;
    if (ipv6_) {
        packet = ipv6(from.v6, to.v6, kProtoTCP, segment, std::nullopt, from.ttl);
    } else {
        IPv4Fields fields;
        fields.ttl = from.ttl;
        fields.identification = from.identification++;
        packet = ipv4(from.v4, to.v4, kProtoTCP, segment, fields);
    }
    if (linkLayerType_ != kLinkEthernet) return loopback(ipv6_ ? kLoopbackIPv6 : kLoopbackIPv4, packet);
    return ethernet(to.endpoint.mac, from.endpoint.mac, ipv6_ ? kEtherTypeIPv6 : kEtherTypeIPv4, packet);
}

void TcpConversation::advance(bool fromClient, Timing timing, std::size_t frameSize, double& clock) const {
    const bool ethernet = linkLayerType_ == kLinkEthernet;
    double gap;
    if (timing == Timing::burst) {
        // Back to back: the frame's time on a gigabit wire (with preamble and
        // inter-frame gap), or a copy on loopback.
        gap = ethernet ? static_cast<double>(frameSize + 20) * 8e-9 : 2e-6;
    } else if (fromClient) {
        gap = ethernet ? 20e-6 : 8e-6;  // the client's own stack answering
    } else {
        gap = ethernet ? 0.012 : 50e-6;  // a round trip to the server
    }
    // Whole microseconds, as the pcap records hold them, and never the same
    // instant twice.
    const double next = std::round((clock + gap) * 1e6) / 1e6;
    clock = std::max(next, std::round(clock * 1e6) / 1e6 + 1e-6);
}

}  // namespace wireloom::testing
