// The decode chain as a whole: which layer follows which, the directed
// decoder, navigation and ownership.
#include "PacketTestSupport.hpp"

#include <gtest/gtest.h>

using namespace wireloom;
using namespace wireloom::testing;

namespace {

Bytes httpSegment() {
    TcpFields fields{.sourcePort = 49152, .destPort = 80, .seq = 1000, .ack = 2000, .flags = kTcpAck | kTcpPsh};
    fields.payload = bytesOf("GET / HTTP/1.1\r\n\r\n");
    return ethernet4(kProtoTCP, tcp(fields));
}

// A class two steps below PXPacket, which the directed decoder refuses.
class PXTestUDPSubclass : public PXUDPPacket {
public:
    static const PacketClass& staticClass() {
        static const PacketClass cls("PXTestUDPSubclass", &PXUDPPacket::staticClass(), &PXUDPPacket::packetFromData,
                                     nullptr);
        return cls;
    }
    const PacketClass& packetClass() const override { return staticClass(); }
};

}  // namespace

TEST(PacketChain, EachLayerLeadsOnlyWhereItsFieldsAllow) {
    const Bytes datagram = ipv4(kClient4, kServer4, kProtoUDP, udp(1000, 2000, bytesOf("hello")));
    const Bytes datagram6 = ipv6(ip6("::1"), ip6("::1"), kProtoUDP, udp(1000, 2000, bytesOf("hello")));
    const Bytes rtp = {0x80, 0x00, 0x00, 0x01, 0, 0, 0, 2, 0, 0, 0, 3, 0xaa, 0xbb};
    auto v6 = [](std::uint8_t next, const Bytes& payload, std::optional<std::uint16_t> length = {}) {
        return ethernet(kMacB, kMacA, kEtherTypeIPv6, ipv6(ip6("fe80::1"), ip6("2001:db8::5"), next, payload, length));
    };
    Bytes shortSegment = tcp({});
    shortSegment.resize(19);
    struct Case {
        const char* what;
        Bytes frame;
        const char* shape;
        int linkType = DLT_EN10MB;
    };
    const Case cases[] = {
        {"loopback", loopback(kLoopbackIPv4, datagram), "BSDLoopback IPv4 UDP", DLT_NULL},
        // Only family 30 means IPv6; other systems' numbers end the chain.
        {"family 30", loopback(30, datagram6), "BSDLoopback IPv6 UDP", DLT_NULL},
        {"family 24", loopback(24, datagram6), "BSDLoopback", DLT_NULL},
        {"family 28", loopback(28, datagram6), "BSDLoopback", DLT_NULL},
        {"family 10", loopback(10, datagram6), "BSDLoopback", DLT_NULL},
        // An unknown link type offers the frame to both link layers; Ethernet
        // needs 14 bytes, the loopback header only 4.
        {"unknown link type", Bytes(5, 0), "BSDLoopback", 228},
        {"unknown link type, 3 bytes", Bytes(3, 0), "", 228},
        {"13 bytes of Ethernet", Bytes(13, 0xff), ""},
        {"ARP", arpRequest(kMacA, kClient4, kServer4), "Ethernet"},
        {"802.1Q tag", ethernet(kMacB, kMacA, kEtherTypeVLAN, Bytes{0, 1, 0x08, 0x00}), "Ethernet"},
        {"ICMP", ethernet4(1, Bytes(8, 0)), "Ethernet IPv4"},
        {"IPv4 options", ethernet4(kProtoUDP, udp(1, 2, {}), {.options = Bytes(8, 1)}), "Ethernet IPv4 UDP"},
        {"IPv6 in IPv4", ethernet4(kProtoIPv6, ipv6(ip6("fe80::1"), ip6("::2"), kProtoUDP, udp(1, 2, bytesOf("in")))),
         "Ethernet IPv4 IPv6 UDP"},
        {"TCP of 19 bytes", ethernet4(kProtoTCP, shortSegment), "Ethernet IPv4"},
        {"ICMPv6", v6(kProtoICMPv6, Bytes(8, 0)), "Ethernet"},
        {"no next header, bytes after", v6(59, Bytes(4, 0)), "Ethernet"},
        // With nothing after the header, any next-header value is accepted.
        {"ICMPv6, nothing after", v6(kProtoICMPv6, {}), "Ethernet IPv6"},
        // A cut IPv6 datagram is refused outright (unlike IPv4).
        {"cut IPv6", v6(kProtoUDP, udp(1, 2, {}), 100), "Ethernet"},
        {"hop-by-hop, routing, TCP", v6(0, ipv6Extension(43, 0, 8, ipv6Extension(kProtoTCP, 0, 8, tcp({})))),
         "Ethernet IPv6 TCP"},
        {"authentication header cut", v6(51, Bytes{17, 0, 0, 0, 0, 0, 0, 0}), "Ethernet"},
        {"unknown type after hop-by-hop", v6(0, ipv6Extension(kProtoICMPv6, 0, 8, Bytes(8, 0))), "Ethernet"},
        {"walk past the captured bytes", v6(43, ipv6Extension(kProtoUDP, 255, 8, udp(1, 2, {}))), "Ethernet"},
        {"walk past the payload length", v6(0, ipv6Extension(kProtoUDP, 0, 8, udp(1, 2, {})), 4), "Ethernet"},
        // 5353-to-5353 is offered to multicast DNS only, which refuses these
        // bytes (they announce records that are not there), so it ends at UDP
        // as every other datagram does; RTP is never picked automatically.
        {"5353 to 5353", ethernet4(kProtoUDP, udp(5353, 5353, rtp)), "Ethernet IPv4 UDP"},
        {"5353 to 5354", ethernet4(kProtoUDP, udp(5353, 5354, rtp)), "Ethernet IPv4 UDP"},
        {"RTP-looking", ethernet4(kProtoUDP, udp(40000, 40002, rtp)), "Ethernet IPv4 UDP"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(shape(decode(c.frame, c.linkType)), c.shape);
    }
}

TEST(PacketChain, EthernetIPv4TCPFieldsDescriptionsAndNavigation) {
    const Bytes frame = httpSegment();
    PXPacketPtr packet = decode(frame);
    ASSERT_EQ(shape(packet), "Ethernet IPv4 TCP");
    auto text = [&](const PacketClass& cls) { return packet->packetWithProtocol(cls)->description(); };
    EXPECT_PRED2(startsWith, text(PXTCPPacket::staticClass()),
                 "(TCP) size 18 bytes, port 49152->80, seq 1000 bytes, ack 2000 bytes, ack:1, syn:0, fin: 0 - "
                 "<PXTCPPacket: 0x");
    EXPECT_PRED2(startsWith, text(PXIPv4Packet::staticClass()),
                 "(IPv4) size 38 bytes, addr 192.168.1.10 => 93.184.216.34 - <PXIPv4Packet: 0x");
    EXPECT_PRED2(startsWith, text(PXEthernetPacket::staticClass()),
                 "(Eth) MAC 02:00:5e:10:00:01 => 02:00:5e:10:00:02, proto 0x0800 - <PXEthernetPacket: 0x");
    EXPECT_PRED2(startsWith, packet->rootPacket()->description(), "<PXPacket: 0x");

    // Every layer answers the frame's values from the root.
    EXPECT_DOUBLE_EQ(packet->timestamp(), 1700000000.25);
    EXPECT_EQ(packet->lengthOnWire(), frame.size());
    EXPECT_TRUE(packet->rawData().isSameBuffer(packet->rootPacket()->rawData()));

    // Matches subclasses, from the layer outward only.
    EXPECT_EQ(packet->packetWithProtocol(PXPacket::staticClass()), packet);
    EXPECT_FALSE(packet->packetWithProtocol<PXIPv4Packet>()->packetWithProtocol(PXTCPPacket::staticClass()));
    EXPECT_FALSE(packet->packetWithProtocol(PXIPv6Packet::staticClass()));
    EXPECT_FALSE(packet->packetWithProtocol(PXTestUDPSubclass::staticClass()));

    // The names behind the reports' second "Payload Type" row.
    PXEthernetPacket arp, tagged;
    arp.setPayloadType(0x0806);
    tagged.setPayloadType(0x8100);
    EXPECT_EQ(arp.payloadTypeName(), "Address Resolution Protocol");
    EXPECT_EQ(tagged.payloadTypeName(), "Unknown");
    PXBSDLoopbackPacket linuxIPv6;
    linuxIPv6.setPayloadType(10);
    EXPECT_EQ(linuxIPv6.payloadTypeName(), "Unknown");
}

TEST(PacketChain, InnerLayersKeepOuterOnesAliveNotTheReverse) {
    std::weak_ptr<PXPacket> root, ethernetLayer;
    {
        PXPacketPtr packet = decode(httpSegment());
        root = packet->rootPacket();
        ethernetLayer = packet->packetWithProtocol<PXEthernetPacket>();
        EXPECT_FALSE(root.expired());
        EXPECT_EQ(ethernetLayer.lock()->encapsulatedPacket()->encapsulatedPacket(), packet);
    }
    EXPECT_TRUE(root.expired());
    EXPECT_TRUE(ethernetLayer.expired());

    // An outer layer held alone lets the inner ones go, whichever way it
    // was reached, and its bytes outlive the layer they came from.
    enum Way { kOutward, kFromRoot, kAsObject, kWeakAsObject };
    for (Way way : {kOutward, kFromRoot, kAsObject, kWeakAsObject}) {
        SCOPED_TRACE(way);
        PXPacketPtr packet = decode(httpSegment());
        const std::weak_ptr<PXPacket> tcpLayer = packet;
        // Generic code sees only an Object, reached through a raw reference.
        Object& ipObject = const_cast<PXIPv4Packet&>(*packet->layerWithProtocol<PXIPv4Packet>());
        PXPacketPtr ip;
        switch (way) {
        case kOutward: ip = packet->encapsulatingPacket(); break;
        case kFromRoot: ip = packet->rootPacket()->encapsulatedPacket()->encapsulatedPacket(); break;
        case kAsObject: ip = std::static_pointer_cast<PXPacket>(ipObject.shared_from_this()); break;
        case kWeakAsObject: ip = std::static_pointer_cast<PXPacket>(ipObject.weak_from_this().lock()); break;
        }
        ASSERT_EQ(ip.get(), &ipObject);
        const ByteBuffer payload = std::static_pointer_cast<PXTCPPacket>(packet)->payload();
        packet.reset();
        EXPECT_TRUE(tcpLayer.expired());
        EXPECT_FALSE(ip->encapsulatedPacket());
        EXPECT_EQ(ip->encapsulatingPacket()->encapsulatedPacket(), ip);
        ip.reset();
        EXPECT_EQ(payload.stringView(), "GET / HTTP/1.1\r\n\r\n");
    }
}

TEST(PacketChain, IPv4WithIHLZeroUnderProtocol4StopsAtTheDepthBound) {
    // IHL 0 consumes nothing, so the header decodes itself again and again.
    std::vector<std::string> names =
        layerNames(decode(ethernet4(kProtoIPv4, Bytes(20, 0), {.ihl = 0, .totalLength = 40})));
    ASSERT_EQ(names.size(), static_cast<std::size_t>(PXPacket::kMaxDecodeDepth));
    EXPECT_EQ(names.front(), "PXEthernetPacket");
    EXPECT_EQ(names.back(), "PXIPv4Packet");
}

TEST(DirectedDecoder, DecodesRTPOfVersion2WithAPayload) {
    Bytes rtpBytes = {0x82, 0x60, 0x12, 0x34, 0, 0, 0x10, 0, 0xde, 0xad, 0xbe, 0xef,  // CSRC count 2
                      1,    1,    1,    1,    2, 2, 2,    2, 'm',  'e',  'd',  'i',  'a'};
    Bytes frame = ethernet4(kProtoUDP, udp(5004, 5006, rtpBytes));
    ByteBuffer buffer = ByteBuffer::copy(frame);
    PXPacketPtr packet = PXPacket::packetWithRawData(buffer,
                                                     {&PXRTPPacket::staticClass(), &PXUDPPacket::staticClass(),
                                                      &PXIPv4Packet::staticClass(), &PXEthernetPacket::staticClass()},
                                                     12.5, 1000);
    auto rtp = std::dynamic_pointer_cast<PXRTPPacket>(packet);
    ASSERT_TRUE(rtp);
    EXPECT_EQ(rtp->payload()[0], 1);  // the CSRC list stays in front
    EXPECT_EQ(rtp->description(), "(RTP) size 13 bytes, seq 4660, timestamp 4096, identifier 0xdeadbeef");
    // The payload shares the UDP layer's bytes, which share the caller's buffer.
    EXPECT_EQ(rtp->payload().data(), rtp->packetWithProtocol<PXUDPPacket>()->payload().data() + 12);
    EXPECT_EQ(rtp->rootPacket()->rawData().data(), buffer.data());
    EXPECT_EQ(rtp->lengthOnWire(), 1000u);
    EXPECT_DOUBLE_EQ(rtp->timestamp(), 12.5);

    // Version 2 only, and never without payload.
    auto isRTP = [](Bytes rtpBytes) {
        return decodeAs(udp(1, 2, rtpBytes), {&PXRTPPacket::staticClass(), &PXUDPPacket::staticClass()})
            ->isKindOf(PXRTPPacket::staticClass());
    };
    for (std::uint8_t first : {0x80, 0xBF, 0x40, 0xC0}) {
        Bytes withPayload(13, 7);
        withPayload[0] = first;
        EXPECT_EQ(isRTP(withPayload), first == 0x80 || first == 0xBF) << int(first);
    }
    EXPECT_FALSE(isRTP(Bytes{0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

// Layers keep views of the bytes they were decoded from. Here those are the
// caller's, not the frame's block, so they go as soon as nothing holds them.
TEST(DirectedDecoder, PayloadsOutliveTheBytesTheRootLetsGo) {
    for (bool relink : {false, true}) {
        auto tcp = std::static_pointer_cast<PXTCPPacket>(decodeAs(
            httpSegment(),
            {&PXTCPPacket::staticClass(), &PXIPv4Packet::staticClass(), &PXEthernetPacket::staticClass()}, 1.0, 100));
        if (relink)
            tcp->setEncapsulatingPacket(std::make_shared<PXPacket>());  // the old chain goes
        else
            tcp->rootPacket()->setRawData(ByteBuffer::fromString("other bytes"));
        EXPECT_EQ(tcp->payload().stringView(), "GET / HTTP/1.1\r\n\r\n") << relink;
        EXPECT_EQ(ByteBuffer(tcp->payload()).stringView(), "GET / HTTP/1.1\r\n\r\n") << relink;
    }
}

TEST(DirectedDecoder, RefusesClassesNotDirectlyBelowPXPacket) {
    std::vector<std::string> logged;
    Log::setSink([&](Log::Level, const std::string& text) { logged.push_back(text); });
    PXPacketPtr packet = decodeAs(udp(1, 2, bytesOf("x")), {&PXTestUDPSubclass::staticClass()});
    Log::setSink(nullptr);
    EXPECT_FALSE(packet);
    EXPECT_EQ(logged, std::vector<std::string>{"Error: Class PXTestUDPSubclass is not a subclass of PXPacket"});

    // The first class failing leaves the root.
    PXPacketPtr root = decodeAs(Bytes(3, 0), {&PXUDPPacket::staticClass()});
    ASSERT_TRUE(root);
    EXPECT_FALSE(root->encapsulatingPacket());
}
