// Field-level behaviour of the network and transport decoders, including
// the deliberate quirks that flow keys and reports rely on.
#include "PacketTestSupport.hpp"

#include <gtest/gtest.h>

using namespace wireloom;
using namespace wireloom::testing;

namespace {

const IPv6Address kLinkLocal = ip6("fe80::1");
const IPv6Address kDocumentation = ip6("2001:db8::5");

Bytes tcpSegment(const Bytes& payload = bytesOf("abc")) {
    return tcp(
        {.sourcePort = 443, .destPort = 50000, .seq = 7, .ack = 9, .flags = kTcpSyn | kTcpFin, .payload = payload});
}

Bytes v6Frame(std::uint8_t nextHeader, const Bytes& payload, std::optional<std::uint16_t> payloadLength = {}) {
    return ethernet(kMacB, kMacA, kEtherTypeIPv6, ipv6(kLinkLocal, kDocumentation, nextHeader, payload, payloadLength));
}

}  // namespace

TEST(IPv4, CutDatagramKeepsHeaderAndDecodesTransportWithoutPayload) {
    Bytes frame = ethernet(kMacB, kMacA, kEtherTypeIPv4,
                           ipv4(kClient4, kServer4, kProtoTCP, tcpSegment(Bytes(66, 'x')), {.totalLength = 1500}));
    ASSERT_EQ(frame.size(), 14u + 20 + 20 + 66);
    PXPacketPtr packet = decode(frame);
    auto ip = packet->packetWithProtocol<PXIPv4Packet>();
    EXPECT_EQ(ip->payloadSize(), 0u);
    EXPECT_EQ(ip->headerSize(), 20u);
    auto segment = std::dynamic_pointer_cast<PXTCPPacket>(packet);
    ASSERT_TRUE(segment);
    EXPECT_EQ(segment->sourcePort(), 443);
    EXPECT_EQ(segment->seqNumber(), 7u);
    EXPECT_TRUE(segment->synFlag() && segment->finFlag() && !segment->ackFlag());
    EXPECT_EQ(segment->payloadSize(), 0u);
    EXPECT_TRUE(segment->payload().empty());
}

TEST(IPv4, OptionsAndShortTotalLength) {
    // Options are skipped; total length shorter than the header leaves both sizes 0.
    Bytes withOptions = ipv4(kClient4, kServer4, kProtoUDP, udp(1, 2, {}), {.options = Bytes(8, 1)});
    PXPacketPtr packet = decode(loopback(kLoopbackIPv4, withOptions), DLT_NULL);
    auto ip = packet->packetWithProtocol<PXIPv4Packet>();
    EXPECT_EQ(ip->headerSize(), 28u);
    EXPECT_EQ(ip->payloadSize(), 8u);
    EXPECT_EQ(layerNames(packet).back(), "PXUDPPacket");

    Bytes lying = ipv4(kClient4, kServer4, kProtoUDP, udp(1, 2, {}), {.totalLength = 12});
    ip = decode(loopback(kLoopbackIPv4, lying), DLT_NULL)->packetWithProtocol<PXIPv4Packet>();
    EXPECT_EQ(ip->payloadSize(), 0u);
    EXPECT_EQ(ip->headerSize(), 0u);
}

TEST(IPv4, ProtocolsWithoutDecoderEndTheChain) {
    Bytes icmp = ethernet(kMacB, kMacA, kEtherTypeIPv4, ipv4(kClient4, kServer4, 1, Bytes(8, 0)));
    EXPECT_EQ(layerNames(decode(icmp)).back(), "PXIPv4Packet");
    // IPv6 in IPv4 continues into the inner header.
    Bytes tunnel = ethernet(
        kMacB, kMacA, kEtherTypeIPv4,
        ipv4(kClient4, kServer4, kProtoIPv6, ipv6(kLinkLocal, kDocumentation, kProtoUDP, udp(1, 2, bytesOf("in")))));
    EXPECT_EQ(layerNames(decode(tunnel)),
              (std::vector<std::string>{"PXEthernetPacket", "PXIPv4Packet", "PXIPv6Packet", "PXUDPPacket"}));
}

TEST(IPv6, AddressTextFollowsTheLibraryRule) {
    auto text = [](std::string_view address) { return PXIPv6Packet::stringFromIPv6Address(ip6(address).data()); };
    EXPECT_EQ(text("::1"), ":1");
    EXPECT_EQ(text("fe80::1"), "fe80::1");
    EXPECT_EQ(text("2001:db8::"), "201:db8:");
    EXPECT_EQ(text("::"), "");
    EXPECT_EQ(text("1:0:0:2:0:0:0:3"), "1::2::3");  // every zero run compressed
    EXPECT_EQ(text("ff02::fb"), "ff2::fb");
    EXPECT_EQ(text("fe80::a00:27ff:fe4e:66a1"), "fe80::a0:27ff:fe4e:66a1");
    // The longest text fills the whole room.
    EXPECT_EQ(text("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"), "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
    EXPECT_EQ(text("1:203:a0b:1010:fff:f0f:1:f"), "1:23:ab:1010:fff:ff:1:f");
}

TEST(IPv6, DecodesTransportAndSizes) {
    PXPacketPtr packet = decode(v6Frame(kProtoTCP, tcpSegment()));
    auto ip = packet->packetWithProtocol<PXIPv6Packet>();
    EXPECT_EQ(ip->protocol(), kProtoTCP);
    EXPECT_EQ(ip->payloadSize(), 23u);
    EXPECT_EQ(ip->sourceAddress(), "fe80::1");
    EXPECT_EQ(ip->destAddress(), "201:db8::5");
    EXPECT_EQ(
        ip->description().rfind("(IPv6) size 23 bytes, addr fe80::1 => 201:db8::5, proto 0x06 - <PXIPv6Packet: 0x", 0),
        0u);
    EXPECT_EQ(std::static_pointer_cast<PXTCPPacket>(packet)->payload().stringView(), "abc");
}

TEST(IPv6, RejectedDatagramsHaveNoIPv6Layer) {
    EXPECT_EQ(layerNames(decode(v6Frame(kProtoICMPv6, Bytes(8, 0)))).back(), "PXEthernetPacket");
    EXPECT_EQ(layerNames(decode(v6Frame(59, Bytes(4, 0)))).back(), "PXEthernetPacket");
    // A cut IPv6 datagram is refused outright (unlike IPv4).
    EXPECT_EQ(layerNames(decode(v6Frame(kProtoUDP, udp(1, 2, {}), 100))).back(), "PXEthernetPacket");
    // With nothing after the header, any next-header value is accepted.
    auto bare = decode(v6Frame(kProtoICMPv6, {}))->packetWithProtocol<PXIPv6Packet>();
    ASSERT_TRUE(bare);
    EXPECT_EQ(bare->protocol(), kProtoICMPv6);
    EXPECT_EQ(bare->payloadSize(), 0u);
}

TEST(IPv6, ExtensionHeaderWalk) {
    Bytes segment = udp(5000, 6000, bytesOf("payload"));
    // Hop-by-hop with length byte 0 walks 8 bytes: exactly right.
    PXPacketPtr packet = decode(v6Frame(0, ipv6Extension(kProtoUDP, 0, 8, segment)));
    auto datagram = std::dynamic_pointer_cast<PXUDPPacket>(packet);
    ASSERT_TRUE(datagram);
    EXPECT_EQ(datagram->sourcePort(), 5000);
    EXPECT_EQ(datagram->destPort(), 6000);
    // The ports share a word: setting one keeps the other.
    datagram->setSourcePort(5353);
    datagram->setDestPort(53);
    EXPECT_EQ(datagram->sourcePort(), 5353);
    EXPECT_EQ(datagram->destPort(), 53);
    EXPECT_EQ(packet->packetWithProtocol<PXIPv6Packet>()->payloadSize(), segment.size());

    // With length byte 1 the header is 16 bytes but the walk advances 9, and
    // the UDP layer is read from 7 bytes before its real start.
    Bytes sixteen = ipv6Extension(kProtoUDP, 1, 16, segment);
    packet = decode(v6Frame(0, sixteen));
    auto ip = packet->packetWithProtocol<PXIPv6Packet>();
    ASSERT_TRUE(ip);
    EXPECT_EQ(ip->payloadSize(), sixteen.size() - 9);
    datagram = std::dynamic_pointer_cast<PXUDPPacket>(packet);
    ASSERT_TRUE(datagram);
    EXPECT_EQ(datagram->sourcePort(), sixteen[9] << 8 | sixteen[10]);

    // Destination options (60) behave like hop-by-hop; routing (43) advances
    // (length + 1) * 8; fragment (44) always 8; authentication (51) (length + 2) * 4.
    struct Case {
        std::uint8_t type, lengthByte;
        std::size_t size;
    };
    for (Case c : {Case{60, 0, 8}, Case{43, 1, 16}, Case{44, 9, 8}, Case{51, 1, 12}}) {
        packet = decode(v6Frame(c.type, ipv6Extension(kProtoUDP, c.lengthByte, c.size, segment)));
        datagram = std::dynamic_pointer_cast<PXUDPPacket>(packet);
        ASSERT_TRUE(datagram) << int(c.type);
        EXPECT_EQ(datagram->payload().stringView(), "payload") << int(c.type);
    }
    // Chained: hop-by-hop, then routing, then TCP.
    packet = decode(v6Frame(0, ipv6Extension(43, 0, 8, ipv6Extension(kProtoTCP, 0, 8, tcpSegment()))));
    EXPECT_EQ(layerNames(packet).back(), "PXTCPPacket");

    // An extension that does not fit, or an unknown type with bytes after it.
    EXPECT_EQ(layerNames(decode(v6Frame(51, Bytes{17, 0, 0, 0, 0, 0, 0, 0}))).back(), "PXEthernetPacket");
    EXPECT_EQ(layerNames(decode(v6Frame(0, ipv6Extension(kProtoICMPv6, 0, 8, Bytes(8, 0))))).back(),
              "PXEthernetPacket");
    // A walk that ends past the datagram's payload length is refused.
    EXPECT_EQ(layerNames(decode(v6Frame(43, ipv6Extension(kProtoUDP, 255, 8, segment)))).back(), "PXEthernetPacket");
}

TEST(UDP, PayloadFollowsTheLengthField) {
    auto decodeUDP = [](const Bytes& segment, std::size_t padding = 0) {
        Bytes frame = ethernet(kMacB, kMacA, kEtherTypeIPv4, ipv4(kClient4, kServer4, kProtoUDP, segment));
        frame.resize(frame.size() + padding, 0);
        return std::dynamic_pointer_cast<PXUDPPacket>(decode(frame));
    };
    auto padded = decodeUDP(udp(53, 40000, bytesOf("ab")), 16);
    ASSERT_TRUE(padded);
    EXPECT_EQ(padded->payload().stringView(), "ab");  // Ethernet padding excluded
    EXPECT_EQ(padded->description(), "(UDP) size 2 bytes, ports 53=>40000");

    EXPECT_EQ(decodeUDP(udp(1, 2, bytesOf("abcd"), 4))->payloadSize(), 0u);    // length below the header
    EXPECT_EQ(decodeUDP(udp(1, 2, bytesOf("abcd"), 200))->payloadSize(), 0u);  // longer than captured
    EXPECT_TRUE(decodeUDP(udp(1, 2, bytesOf("abcd"), 200))->payload().empty());
}

TEST(TCP, HeaderLengthAndPayloadBounds) {
    auto segmentIn = [](const Bytes& segment) {
        return std::dynamic_pointer_cast<PXTCPPacket>(
            decode(ethernet(kMacB, kMacA, kEtherTypeIPv4, ipv4(kClient4, kServer4, kProtoTCP, segment))));
    };
    auto empty = segmentIn(tcpSegment({}));
    ASSERT_TRUE(empty);
    EXPECT_EQ(empty->payloadSize(), 0u);
    EXPECT_TRUE(empty->payload().empty());

    auto withOptions =
        segmentIn(tcp({.sourcePort = 1, .destPort = 2, .payload = bytesOf("data"), .options = Bytes(12, 1)}));
    EXPECT_EQ(withOptions->payload().stringView(), "data");

    // A data offset larger than the IP payload leaves no payload; one below 5
    // is not rejected.
    EXPECT_EQ(
        segmentIn(tcp({.sourcePort = 1, .destPort = 2, .payload = bytesOf("data"), .dataOffset = 15}))->payloadSize(),
        0u);
    EXPECT_EQ(
        segmentIn(tcp({.sourcePort = 1, .destPort = 2, .payload = bytesOf("data"), .dataOffset = 2}))->payloadSize(),
        16u);
    // Fewer than 20 bytes: no TCP layer.
    Bytes shortSegment = tcpSegment({});
    shortSegment.resize(19);
    EXPECT_EQ(
        layerNames(decode(ethernet(kMacB, kMacA, kEtherTypeIPv4, ipv4(kClient4, kServer4, kProtoTCP, shortSegment))))
            .back(),
        "PXIPv4Packet");
}
