#include "support/FrameBuilder.hpp"

#include <Wireloom/packets/PXPacket.hpp>

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace wireloom::testing {

namespace {

void putBE16(Bytes& b, std::size_t at, std::uint16_t v) {
    b[at] = static_cast<std::uint8_t>(v >> 8);
    b[at + 1] = static_cast<std::uint8_t>(v);
}

void append(Bytes& b, const std::uint8_t* p, std::size_t n) { b.insert(b.end(), p, p + n); }
void append(Bytes& b, const Bytes& more) { b.insert(b.end(), more.begin(), more.end()); }

std::uint32_t sum16(const std::uint8_t* p, std::size_t n, std::uint32_t sum = 0) {
    for (std::size_t i = 0; i + 1 < n; i += 2) sum += static_cast<std::uint32_t>(p[i] << 8 | p[i + 1]);
    if (n & 1) sum += static_cast<std::uint32_t>(p[n - 1] << 8);
    return sum;
}

std::uint16_t fold(std::uint32_t sum) {
    while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<std::uint16_t>(~sum);
}

// Appends a TCP or UDP segment, its checksum filled in where the field is
// still zero, given the sum of the IP pseudo-header's addresses.
void appendSegment(Bytes& b, std::uint8_t protocol, std::uint32_t addressSum, const Bytes& segment) {
    const std::size_t start = b.size();
    append(b, segment);
    const std::size_t field = protocol == kProtoTCP ? 16 : protocol == kProtoUDP ? 6 : 0;
    if (!field || segment.size() < field + 2 || segment[field] || segment[field + 1]) return;
    std::uint32_t sum = addressSum + protocol + static_cast<std::uint32_t>(segment.size());
    std::uint16_t checksum = fold(sum16(segment.data(), segment.size(), sum));
    if (protocol == kProtoUDP && checksum == 0) checksum = 0xffff;
    putBE16(b, start + field, checksum);
}

template <class Address>
Address address(int family, std::string_view text) {
    Address a{};
    if (inet_pton(family, std::string(text).c_str(), a.data()) != 1)
        throw std::invalid_argument("bad address " + std::string(text));
    return a;
}

}  // namespace

Mac mac(std::string_view text) {
    Mac m{};
    unsigned v[6];
    std::string s(text);
    if (std::sscanf(s.c_str(), "%x:%x:%x:%x:%x:%x", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5]) != 6)
        throw std::invalid_argument("bad MAC " + s);
    for (int i = 0; i < 6; ++i) m[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(v[i]);
    return m;
}

IPv4Address ip4(std::string_view text) { return address<IPv4Address>(AF_INET, text); }
IPv6Address ip6(std::string_view text) { return address<IPv6Address>(AF_INET6, text); }

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

void appendBE(Bytes& b, std::uint64_t value, int bytes) {
    for (int shift = (bytes - 1) * 8; shift >= 0; shift -= 8) b.push_back(static_cast<std::uint8_t>(value >> shift));
}

Bytes tcp(const TcpFields& f) {
    Bytes options = f.options;
    while (options.size() % 4) options.push_back(0);
    Bytes b;
    appendBE(b, f.sourcePort, 2);
    appendBE(b, f.destPort, 2);
    appendBE(b, f.seq, 4);
    appendBE(b, f.ack, 4);
    const std::uint8_t words = f.dataOffset.value_or(static_cast<std::uint8_t>(5 + options.size() / 4));
    b.push_back(static_cast<std::uint8_t>(words << 4));
    b.push_back(f.flags);
    appendBE(b, f.window, 2);
    appendBE(b, 0, 2);  // checksum, filled by the IP layer
    appendBE(b, 0, 2);  // urgent pointer
    append(b, options);
    append(b, f.payload);
    return b;
}

Bytes udp(std::uint16_t sourcePort, std::uint16_t destPort, const Bytes& payload,
          std::optional<std::uint16_t> lengthField) {
    Bytes b;
    appendBE(b, sourcePort, 2);
    appendBE(b, destPort, 2);
    appendBE(b, lengthField.value_or(static_cast<std::uint16_t>(8 + payload.size())), 2);
    appendBE(b, 0, 2);
    append(b, payload);
    return b;
}

Bytes ipv4(IPv4Address source, IPv4Address dest, std::uint8_t protocol, const Bytes& payload, const IPv4Fields& f) {
    Bytes options = f.options;
    while (options.size() % 4) options.push_back(0);
    const std::size_t headerLength = 20 + options.size();
    Bytes b;
    b.push_back(static_cast<std::uint8_t>(0x40 | (f.ihl.value_or(static_cast<std::uint8_t>(headerLength / 4)) & 0x0f)));
    b.push_back(0);
    appendBE(b, f.totalLength.value_or(static_cast<std::uint16_t>(headerLength + payload.size())), 2);
    appendBE(b, f.identification, 2);
    appendBE(b, 0x4000, 2);  // don't fragment
    b.push_back(f.ttl);
    b.push_back(protocol);
    appendBE(b, 0, 2);
    append(b, source.data(), 4);
    append(b, dest.data(), 4);
    append(b, options);
    putBE16(b, 10, fold(sum16(b.data(), headerLength)));
    appendSegment(b, protocol, sum16(source.data(), 4) + sum16(dest.data(), 4), payload);
    return b;
}

Bytes ipv6(const IPv6Address& source, const IPv6Address& dest, std::uint8_t nextHeader, const Bytes& payload,
           std::optional<std::uint16_t> payloadLength, std::uint8_t hopLimit) {
    Bytes b;
    appendBE(b, 0x60000000, 4);
    appendBE(b, payloadLength.value_or(static_cast<std::uint16_t>(payload.size())), 2);
    b.push_back(nextHeader);
    b.push_back(hopLimit);
    append(b, source.data(), 16);
    append(b, dest.data(), 16);
    appendSegment(b, nextHeader, sum16(source.data(), 16) + sum16(dest.data(), 16), payload);
    return b;
}

Bytes ipv6Extension(std::uint8_t nextHeader, std::uint8_t lengthByte, std::size_t totalSize, const Bytes& payload) {
    Bytes b(totalSize < 2 ? 2 : totalSize, 0);
    b[0] = nextHeader;
    b[1] = lengthByte;
    // A PadN option keeps real decoders happy with the padding.
    if (b.size() >= 4) {
        b[2] = 1;
        b[3] = static_cast<std::uint8_t>(b.size() - 4);
    }
    append(b, payload);
    return b;
}

Bytes ethernet(const Mac& dest, const Mac& source, std::uint16_t etherType, const Bytes& payload) {
    Bytes b;
    append(b, dest.data(), 6);
    append(b, source.data(), 6);
    appendBE(b, etherType, 2);
    append(b, payload);
    return b;
}

Bytes loopback(std::uint32_t family, const Bytes& payload) {
    Bytes b(4);
    std::memcpy(b.data(), &family, 4);
    append(b, payload);
    return b;
}

Bytes arpRequest(const Mac& sender, IPv4Address senderAddress, IPv4Address targetAddress) {
    Bytes arp;
    appendBE(arp, 1, 2);       // Ethernet
    appendBE(arp, 0x0800, 2);  // IPv4
    arp.push_back(6);
    arp.push_back(4);
    appendBE(arp, 1, 2);  // request
    append(arp, sender.data(), 6);
    append(arp, senderAddress.data(), 4);
    arp.insert(arp.end(), 6, 0);
    append(arp, targetAddress.data(), 4);
    arp.insert(arp.end(), 18, 0);  // padding to the Ethernet minimum
    static constexpr Mac broadcast{0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    return ethernet(broadcast, sender, kEtherTypeARP, arp);
}

bool writePcap(const std::string& path, int linkLayerType, const std::vector<Frame>& frames) {
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) return false;
    ByteBuffer header = PXPacket::pcapHeaderForLinkLayerType(linkLayerType);
    bool ok = std::fwrite(header.data(), 1, header.size(), file) == header.size();
    for (const Frame& frame : frames) {
        PXPacket root;
        root.setTimestamp(frame.timestamp);
        root.setRawData(ByteBuffer::copy(frame.bytes.data(), frame.bytes.size()));
        root.setLengthOnWire(frame.lengthOnWire ? frame.lengthOnWire : static_cast<std::uint32_t>(frame.bytes.size()));
        ByteBuffer entry = root.pcapFileEntry();
        ok = ok && std::fwrite(entry.data(), 1, entry.size(), file) == entry.size();
    }
    return std::fclose(file) == 0 && ok;
}

}  // namespace wireloom::testing
