#pragma once
// TcpConversation: one TCP connection between two endpoints, written out as
// the frames a capture on the client's host would hold. It keeps both sides'
// sequence numbers, IPv4 identification counters and TCP timestamps, so
// tshark follows the stream without complaint:
//
//   TcpConversation c(1, {kMacA, "192.168.1.10", 51514}, {kMacB, "203.0.113.80", 80}, 1000, 5000);
//   c.open(frames, clock);
//   c.send(true, request, frames, clock);
//   clock += 0.002;  // the server thinks
//   c.send(false, response, frames, clock);
//   c.close(frames, clock);
//
// Every frame advances the clock, in whole microseconds: by the time the
// bytes take on the wire within a burst, by a round trip where the server
// answers the client, and by a few microseconds where the client answers.
// Nothing is random; the same calls give the same bytes.

#include "support/FrameBuilder.hpp"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace wireloom::testing {

struct TcpEndpoint {
    Mac mac;              // the gateway's for a server off the link; unused on loopback
    std::string address;  // IPv4 or IPv6 text; both endpoints of one family
    std::uint16_t port;
};

class TcpConversation {
public:
    // linkLayerType 1 (Ethernet) or 0 (BSD loopback). The sequence numbers
    // are the initial ones, which the SYNs carry. Throws invalid_argument on
    // a bad address, or one of the other family than the client's.
    TcpConversation(int linkLayerType, TcpEndpoint client, TcpEndpoint server, std::uint32_t clientSeq,
                    std::uint32_t serverSeq);

    // SYN, SYN-ACK, ACK.
    void open(std::vector<Frame>& out, double& clock);
    // data in segments of at most mss bytes, PSH on the last; the peer ACKs
    // every second segment and the last one. Nothing for empty data.
    void send(bool fromClient, const Bytes& data, std::vector<Frame>& out, double& clock, std::size_t mss = 1448);
    // The client's FIN, the server's FIN acknowledging it, the client's ACK.
    void close(std::vector<Frame>& out, double& clock);

private:
    struct Side {
        TcpEndpoint endpoint;
        IPv4Address v4{};
        IPv6Address v6{};
        std::uint32_t seq = 0;
        std::uint16_t identification = 0;
        std::uint8_t ttl = 64;
        std::uint32_t timestampBase = 0;
        std::uint32_t lastTimestampSeen = 0;  // echoed in TSecr
    };

    // burst: right behind the sender's previous frame; reply: an answer to
    // the peer's last frame, a round trip later when the server answers.
    enum class Timing { burst, reply };

    void emit(bool fromClient, std::uint8_t flags, const Bytes& payload, Timing timing, std::vector<Frame>& out,
              double& clock);
    Bytes frameBytes(Side& from, const Side& to, const Bytes& segment);
    void advance(bool fromClient, Timing timing, std::size_t frameSize, double& clock) const;

    int linkLayerType_;
    bool ipv6_ = false;
    Side client_;
    Side server_;
    double startClock_ = -1;
};

}  // namespace wireloom::testing
