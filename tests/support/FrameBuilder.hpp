#pragma once
// Builds frames byte by byte for tests, the sample generator and the
// benchmarks. Each function wraps a payload in one header; wrapping a TCP or
// UDP segment in an IP header also fills in the transport checksum, so the
// frames are what a real stack would send:
//
//   using namespace wireloom::testing;
//   Bytes frame = ethernet(kMacB, kMacA, kEtherTypeIPv4,
//       ipv4(ip4("10.0.0.1"), ip4("10.0.0.2"), kProtoTCP,
//            tcp({.sourcePort = 49152, .destPort = 80, .seq = 1, .flags = kTcpSyn})));
//
// Every field a test may want to break (IHL, total length, data offset, UDP
// length) can be overridden.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace wireloom::testing {

using Bytes = std::vector<std::uint8_t>;
using Mac = std::array<std::uint8_t, 6>;
using IPv4Address = std::array<std::uint8_t, 4>;
using IPv6Address = std::array<std::uint8_t, 16>;

inline constexpr std::uint16_t kEtherTypeIPv4 = 0x0800;
inline constexpr std::uint16_t kEtherTypeARP = 0x0806;
inline constexpr std::uint16_t kEtherTypeIPv6 = 0x86DD;
inline constexpr std::uint16_t kEtherTypeVLAN = 0x8100;
inline constexpr std::uint32_t kLoopbackIPv4 = 2;
inline constexpr std::uint32_t kLoopbackIPv6 = 30;
inline constexpr std::uint8_t kProtoIPv4 = 4;
inline constexpr std::uint8_t kProtoTCP = 6;
inline constexpr std::uint8_t kProtoUDP = 17;
inline constexpr std::uint8_t kProtoIPv6 = 41;
inline constexpr std::uint8_t kProtoICMPv6 = 58;
inline constexpr std::uint8_t kTcpFin = 0x01;
inline constexpr std::uint8_t kTcpSyn = 0x02;
inline constexpr std::uint8_t kTcpPsh = 0x08;
inline constexpr std::uint8_t kTcpAck = 0x10;

inline constexpr Mac kMacA{0x02, 0x00, 0x5e, 0x10, 0x00, 0x01};
inline constexpr Mac kMacB{0x02, 0x00, 0x5e, 0x10, 0x00, 0x02};

Mac mac(std::string_view text);          // "02:00:5e:10:00:01"
IPv4Address ip4(std::string_view text);  // "10.0.0.1"
IPv6Address ip6(std::string_view text);  // "fe80::1"
Bytes bytesOf(std::string_view text);
// Appends the low `bytes` bytes of value, most significant first.
void appendBE(Bytes& b, std::uint64_t value, int bytes);

struct TcpFields {
    std::uint16_t sourcePort = 0;
    std::uint16_t destPort = 0;
    std::uint32_t seq = 0;
    std::uint32_t ack = 0;
    std::uint8_t flags = kTcpAck;
    Bytes payload;
    Bytes options;                           // padded to whole words
    std::optional<std::uint8_t> dataOffset;  // in words; default from options
    std::uint16_t window = 65535;
};
Bytes tcp(const TcpFields& fields);

// lengthField overrides the UDP length (header included).
Bytes udp(std::uint16_t sourcePort, std::uint16_t destPort, const Bytes& payload,
          std::optional<std::uint16_t> lengthField = std::nullopt);

struct IPv4Fields {
    std::optional<std::uint8_t> ihl;           // in words; default from options
    std::optional<std::uint16_t> totalLength;  // default: header + payload
    std::uint8_t ttl = 64;
    std::uint16_t identification = 0;
    Bytes options;
};
Bytes ipv4(IPv4Address source, IPv4Address dest, std::uint8_t protocol, const Bytes& payload,
           const IPv4Fields& fields = {});

// payloadLength overrides the header's payload length field.
Bytes ipv6(const IPv6Address& source, const IPv6Address& dest, std::uint8_t nextHeader, const Bytes& payload,
           std::optional<std::uint16_t> payloadLength = std::nullopt, std::uint8_t hopLimit = 64);
// An extension header of totalSize bytes: next header, length byte, zeros.
Bytes ipv6Extension(std::uint8_t nextHeader, std::uint8_t lengthByte, std::size_t totalSize, const Bytes& payload);

Bytes ethernet(const Mac& dest, const Mac& source, std::uint16_t etherType, const Bytes& payload);
// The family in the host's byte order, as libpcap writes DLT_NULL headers.
Bytes loopback(std::uint32_t family, const Bytes& payload);
Bytes arpRequest(const Mac& sender, IPv4Address senderAddress, IPv4Address targetAddress);

// One frame of a capture file.
struct Frame {
    double timestamp = 0;
    Bytes bytes;
    std::uint32_t lengthOnWire = 0;  // 0: the captured length
};
// Writes a classic pcap file with the library's own header and records.
bool writePcap(const std::string& path, int linkLayerType, const std::vector<Frame>& frames);

}  // namespace wireloom::testing
