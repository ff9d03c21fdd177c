// Field-level behaviour of each layer's decoder, including the deliberate
// quirks that flow keys and reports rely on, and each layer as a report entry.
#include "PacketTestSupport.hpp"

#include <Wireloom/text/WLColors.hpp>

#include <gtest/gtest.h>

using namespace wireloom;
using namespace wireloom::testing;

namespace {

using Rows = std::vector<std::string>;

Rows rows(const std::shared_ptr<PXReportAnalyzerEntry>& entry) {
    Rows titles;
    for (const auto& child : *entry->children()) titles.emplace_back(child->plainTitle());
    return titles;
}

Bytes tcpSegment(const Bytes& payload = bytesOf("abc"), std::uint8_t flags = kTcpSyn | kTcpFin) {
    return tcp({.sourcePort = 443, .destPort = 50000, .seq = 7, .ack = 9, .flags = flags, .payload = payload});
}

Bytes v6Frame(std::uint8_t nextHeader, const Bytes& payload) {
    return ethernet(kMacB, kMacA, kEtherTypeIPv6, ipv6(ip6("fe80::1"), ip6("2001:db8::5"), nextHeader, payload));
}

}  // namespace

TEST(IPv4, HeaderAndPayloadSizes) {
    auto sizes = [](const PXPacketPtr& packet) {
        auto ip = packet->packetWithProtocol<PXIPv4Packet>();
        return std::pair(ip->headerSize(), ip->payloadSize());
    };
    // A datagram cut by the snap length keeps its header, and its transport
    // layer is still decoded, without payload.
    PXPacketPtr cut = decode(ethernet4(kProtoTCP, tcpSegment(Bytes(66, 'x')), {.totalLength = 1500}));
    EXPECT_EQ(sizes(cut), std::pair(20u, 0u));
    ASSERT_TRUE(cut->isKindOf(PXTCPPacket::staticClass()));
    EXPECT_PRED2(startsWith, cut->description(),
                 "(TCP) size 0 bytes, port 443->50000, seq 7 bytes, ack 9 bytes, ack:0, syn:1, fin: 1 - ");
    EXPECT_TRUE(std::static_pointer_cast<PXTCPPacket>(cut)->payload().empty());

    EXPECT_EQ(sizes(decode(ethernet4(kProtoUDP, udp(1, 2, {}), {.options = Bytes(8, 1)}))), std::pair(28u, 8u));
    // A total length shorter than the header leaves both sizes 0.
    EXPECT_EQ(sizes(decode(ethernet4(kProtoUDP, udp(1, 2, {}), {.totalLength = 12}))), std::pair(0u, 0u));
}

TEST(IPv6, AddressTextFollowsTheLibraryRule) {
    // Every zero run is compressed, and the longest text fills the whole room.
    const std::pair<const char*, const char*> cases[] = {
        {"::1", ":1"},
        {"2001:db8::", "201:db8:"},
        {"::", ""},
        {"1:0:0:2:0:0:0:3", "1::2::3"},
        {"ff02::fb", "ff2::fb"},
        {"fe80::a00:27ff:fe4e:66a1", "fe80::a0:27ff:fe4e:66a1"},
        {"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
        {"1:203:a0b:1010:fff:f0f:1:f", "1:23:ab:1010:fff:ff:1:f"}};
    for (auto [address, text] : cases) EXPECT_EQ(PXIPv6Packet::stringFromIPv6Address(ip6(address).data()), text);
}

TEST(IPv6, DecodesTransportAndWalksExtensionHeaders) {
    PXPacketPtr packet = decode(v6Frame(kProtoTCP, tcpSegment()));
    EXPECT_PRED2(startsWith, packet->packetWithProtocol<PXIPv6Packet>()->description(),
                 "(IPv6) size 23 bytes, addr fe80::1 => 201:db8::5, proto 0x06 - <PXIPv6Packet: 0x");
    EXPECT_EQ(std::static_pointer_cast<PXTCPPacket>(packet)->payload().stringView(), "abc");

    Bytes segment = udp(5000, 6000, bytesOf("payload"));
    // Hop-by-hop with length byte 0 walks 8 bytes: exactly right.
    packet = decode(v6Frame(0, ipv6Extension(kProtoUDP, 0, 8, segment)));
    auto datagram = std::dynamic_pointer_cast<PXUDPPacket>(packet);
    ASSERT_TRUE(datagram);
    EXPECT_EQ(datagram->sourcePort(), 5000);
    EXPECT_EQ(datagram->destPort(), 6000);
    EXPECT_EQ(packet->packetWithProtocol<PXIPv6Packet>()->payloadSize(), segment.size());
    // The ports share a word: setting one keeps the other.
    datagram->setSourcePort(5353);
    EXPECT_EQ(datagram->destPort(), 6000);
    datagram->setDestPort(53);
    EXPECT_EQ(datagram->sourcePort(), 5353);

    // With length byte 1 the header is 16 bytes but the walk advances 9, and
    // the UDP layer is read from 7 bytes before its real start.
    Bytes sixteen = ipv6Extension(kProtoUDP, 1, 16, segment);
    packet = decode(v6Frame(0, sixteen));
    EXPECT_EQ(packet->packetWithProtocol<PXIPv6Packet>()->payloadSize(), sixteen.size() - 9);
    datagram = std::dynamic_pointer_cast<PXUDPPacket>(packet);
    ASSERT_TRUE(datagram);
    EXPECT_EQ(datagram->sourcePort(), sixteen[9] << 8 | sixteen[10]);

    // Destination options (60) behave like hop-by-hop; routing (43) advances
    // (length + 1) * 8; fragment (44) always 8; authentication (51) (length + 2) * 4.
    for (auto [type, lengthByte, size] :
         {std::array<std::uint8_t, 3>{60, 0, 8}, {43, 1, 16}, {44, 9, 8}, {51, 1, 12}}) {
        datagram = std::dynamic_pointer_cast<PXUDPPacket>(
            decode(v6Frame(type, ipv6Extension(kProtoUDP, lengthByte, size, segment))));
        ASSERT_TRUE(datagram) << int(type);
        EXPECT_EQ(datagram->payload().stringView(), "payload") << int(type);
    }
}

TEST(UDP, PayloadFollowsTheLengthField) {
    auto decodeUDP = [](const Bytes& segment, std::size_t padding = 0) {
        Bytes frame = ethernet4(kProtoUDP, segment);
        frame.resize(frame.size() + padding, 0);
        return std::dynamic_pointer_cast<PXUDPPacket>(decode(frame));
    };
    auto padded = decodeUDP(udp(53, 40000, bytesOf("ab")), 16);
    ASSERT_TRUE(padded);
    EXPECT_EQ(padded->payload().stringView(), "ab");  // Ethernet padding excluded
    EXPECT_EQ(padded->description(), "(UDP) size 2 bytes, ports 53=>40000");

    EXPECT_EQ(decodeUDP(udp(1, 2, bytesOf("abcd"), 4))->payloadSize(), 0u);  // length below the header
    auto tooLong = decodeUDP(udp(1, 2, bytesOf("abcd"), 200));               // longer than captured
    EXPECT_EQ(tooLong->payloadSize(), 0u);
    EXPECT_TRUE(tooLong->payload().empty());
}

TEST(TCP, HeaderLengthAndPayloadBounds) {
    auto payloadOf = [](const TcpFields& fields) {
        auto segment = std::dynamic_pointer_cast<PXTCPPacket>(decode(ethernet4(kProtoTCP, tcp(fields))));
        return segment ? std::string(segment->payload().stringView()) : "no TCP layer";
    };
    EXPECT_EQ(payloadOf({.sourcePort = 1}), "");
    EXPECT_EQ(payloadOf({.payload = bytesOf("data"), .options = Bytes(12, 1)}), "data");
    // A data offset larger than the IP payload leaves no payload; one below 5
    // is not rejected.
    EXPECT_EQ(payloadOf({.payload = bytesOf("data"), .dataOffset = 15}), "");
    EXPECT_EQ(payloadOf({.payload = bytesOf("data"), .dataOffset = 2}).size(), 16u);
}

TEST(PacketEntries, EveryLayerOfAnIPv4Segment) {
    PXPacketPtr packet = decode(ethernet4(kProtoTCP, tcpSegment(bytesOf("hi"), kTcpAck | kTcpFin)));
    auto tcpEntry = packet->reportAnalyzerEntry();
    EXPECT_EQ(tcpEntry->plainTitle(), "TCP 192.168.1.10:443 => 93.184.216.34:50000");
    EXPECT_EQ(tcpEntry->title()->stringWithoutColorizedText(), "TCP : => :");
    EXPECT_EQ(rows(tcpEntry), (Rows{"Source Port: 443", "Destination Port: 50000", "Seq: 7", "Ack: 9", "Ack Flag: YES",
                                    "Syn Flag: NO", "Fin Flag: YES", "Payload Size: 2", "Payload (2 bytes)"}));
    // The port is drawn in the source-port colour of the moment.
    EXPECT_EQ(tcpEntry->title()->attributedString()->attributesAt(18).foregroundColor,
              *WLColors::sourcePortColorPointer());

    auto ip = packet->packetWithProtocol<PXIPv4Packet>()->reportAnalyzerEntry();
    EXPECT_EQ(ip->plainTitle(), "IPv4 192.168.1.10 => 93.184.216.34");
    EXPECT_EQ(rows(ip),
              (Rows{"Payload Size: 22", "Header Size: 20", "Source: 192.168.1.10", "Destination: 93.184.216.34"}));

    auto eth = packet->packetWithProtocol<PXEthernetPacket>()->reportAnalyzerEntry();
    EXPECT_EQ(eth->plainTitle(), "Ethernet 02:00:5e:10:00:01 => 02:00:5e:10:00:02");
    EXPECT_EQ(rows(eth), (Rows{"Source: 02:00:5e:10:00:01", "Destination: 02:00:5e:10:00:02", "Payload Type: 0x0800",
                               "Payload Type: Internet Protocol version 4"}));

    auto root = packet->rootPacket()->reportAnalyzerEntry();
    EXPECT_EQ(root->plainTitle(), "Raw Capture");
    EXPECT_EQ(rows(root), (Rows{"Timestamp: 1700000000.250000", "Captured Data (56 bytes)", "Length on Wire: 56"}));
}

TEST(PacketEntries, IPv6LoopbackUDPAndRTPWithoutItsIPLayer) {
    auto v6 = decode(v6Frame(kProtoTCP, tcpSegment({})))->reportAnalyzerEntry();
    EXPECT_EQ(v6->plainTitle(), "TCP fe80::1:443 => 201:db8::5:50000");
    EXPECT_EQ(rows(v6).back(), "Payload (0 bytes)");
    EXPECT_EQ(v6->children()->back()->numChildren(), 0u);

    PXPacketPtr datagram =
        decode(loopback(kLoopbackIPv4, ipv4(kClient4, kServer4, kProtoUDP, udp(53, 1053, bytesOf("q")))), DLT_NULL);
    auto loop = datagram->packetWithProtocol<PXBSDLoopbackPacket>()->reportAnalyzerEntry();
    EXPECT_EQ(loop->plainTitle(), "Loopback ");
    EXPECT_EQ(rows(loop), (Rows{"Payload Type: 0x0002", "Payload Type: Internet Protocol version 4"}));
    auto udpEntry = datagram->reportAnalyzerEntry();
    EXPECT_EQ(udpEntry->plainTitle(), "UDP 192.168.1.10:53 => 93.184.216.34:1053");
    EXPECT_EQ(rows(udpEntry).back(), "Payload (1 byte)");

    auto rtp = decodeAs(udp(5004, 5006, Bytes{0x80, 0, 0, 7, 0, 0, 0, 9, 0, 0, 1, 0, 'x'}),
                        {&PXRTPPacket::staticClass(), &PXUDPPacket::staticClass()})
                   ->reportAnalyzerEntry();
    EXPECT_EQ(rtp->plainTitle(), "RTP");
    EXPECT_EQ(rows(rtp), (Rows{"Sequence: 7", "Timestamp: 9", "Sync Source ID: 256", "Payload (1 byte)"}));
}
