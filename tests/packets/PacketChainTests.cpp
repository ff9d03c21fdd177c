// The decode chain as a whole: which layer follows which, the directed
// decoder, navigation and ownership.
#include "PacketTestSupport.hpp"

#include <gtest/gtest.h>

using namespace wireloom;
using namespace wireloom::testing;

namespace {

Bytes httpSegment() {
    return ethernet(kMacB, kMacA, kEtherTypeIPv4,
                    ipv4(kClient4, kServer4, kProtoTCP,
                         tcp({.sourcePort = 49152,
                              .destPort = 80,
                              .seq = 1000,
                              .ack = 2000,
                              .flags = kTcpAck | kTcpPsh,
                              .payload = bytesOf("GET / HTTP/1.1\r\n\r\n")})));
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

TEST(PacketChain, EthernetIPv4TCPDecodesEveryLayerAndField) {
    PXPacketPtr packet = decode(httpSegment());
    ASSERT_EQ(layerNames(packet), (std::vector<std::string>{"PXEthernetPacket", "PXIPv4Packet", "PXTCPPacket"}));

    auto tcp = packet->packetWithProtocol<PXTCPPacket>();
    EXPECT_EQ(tcp->sourcePort(), 49152);
    EXPECT_EQ(tcp->destPort(), 80);
    EXPECT_EQ(tcp->seqNumber(), 1000u);
    EXPECT_EQ(tcp->ackNumber(), 2000u);
    EXPECT_TRUE(tcp->ackFlag());
    EXPECT_FALSE(tcp->synFlag());
    EXPECT_FALSE(tcp->finFlag());
    EXPECT_EQ(tcp->payloadSize(), 18u);
    EXPECT_EQ(tcp->payload().stringView(), "GET / HTTP/1.1\r\n\r\n");

    auto ip = packet->packetWithProtocol<PXIPv4Packet>();
    EXPECT_EQ(ip->sourceAddress(), "192.168.1.10");
    EXPECT_EQ(ip->destAddress(), "93.184.216.34");
    EXPECT_EQ(ip->headerSize(), 20u);
    EXPECT_EQ(ip->payloadSize(), 38u);
    EXPECT_EQ(ip->protocol(), kProtoTCP);

    auto eth = packet->packetWithProtocol<PXEthernetPacket>();
    EXPECT_EQ(eth->macSource(), "02:00:5e:10:00:01");
    EXPECT_EQ(eth->macDest(), "02:00:5e:10:00:02");
    EXPECT_EQ(eth->payloadType(), 0x0800);
    EXPECT_EQ(eth->payloadTypeName(), "Internet Protocol version 4");

    // Every layer answers the frame's values from the root.
    EXPECT_DOUBLE_EQ(tcp->timestamp(), 1700000000.25);
    EXPECT_EQ(tcp->lengthOnWire(), httpSegment().size());
    EXPECT_TRUE(tcp->rawData().isSameBuffer(packet->rootPacket()->rawData()));
    EXPECT_EQ(packet->linkLayerType(), DLT_EN10MB);
}

TEST(PacketChain, DescriptionsKeepTheirFormats) {
    PXPacketPtr packet = decode(httpSegment());
    auto text = [&](const PacketClass& cls) { return packet->packetWithProtocol(cls)->description(); };
    EXPECT_EQ(text(PXTCPPacket::staticClass())
                  .rfind("(TCP) size 18 bytes, port 49152->80, seq 1000 bytes, "
                         "ack 2000 bytes, ack:1, syn:0, fin: 0 - <PXTCPPacket: 0x",
                         0),
              0u);
    EXPECT_EQ(text(PXIPv4Packet::staticClass())
                  .rfind("(IPv4) size 38 bytes, addr 192.168.1.10 => 93.184.216.34 - "
                         "<PXIPv4Packet: 0x",
                         0),
              0u);
    EXPECT_EQ(text(PXEthernetPacket::staticClass())
                  .rfind("(Eth) MAC 02:00:5e:10:00:01 => 02:00:5e:10:00:02, proto 0x0800 - <PXEthernetPacket: 0x", 0),
              0u);
    EXPECT_EQ(packet->rootPacket()->description().rfind("<PXPacket: 0x", 0), 0u);
    EXPECT_EQ(packet->rootPacket()->name(), "Generic Packet");
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
        ASSERT_EQ(ip.get(), &ipObject) << way;
        const ByteBuffer payload = std::static_pointer_cast<PXTCPPacket>(packet)->payload();
        packet.reset();
        EXPECT_TRUE(tcpLayer.expired()) << way;
        EXPECT_FALSE(ip->encapsulatedPacket()) << way;
        EXPECT_EQ(ip->encapsulatingPacket()->encapsulatedPacket(), ip) << way;
        ip.reset();
        EXPECT_EQ(payload.stringView(), "GET / HTTP/1.1\r\n\r\n");
    }
}

TEST(PacketChain, LinkTypeChoosesTheFirstLayer) {
    Bytes ipPacket = ipv4(kClient4, kServer4, kProtoUDP, udp(1000, 2000, bytesOf("hello")));
    EXPECT_EQ(layerNames(decode(loopback(kLoopbackIPv4, ipPacket), DLT_NULL)),
              (std::vector<std::string>{"PXBSDLoopbackPacket", "PXIPv4Packet", "PXUDPPacket"}));
    EXPECT_EQ(decode(loopback(kLoopbackIPv4, ipPacket), DLT_NULL)->linkLayerType(), DLT_NULL);

    // Only family 30 means IPv6; other systems' numbers end the chain.
    for (std::uint32_t family : {24u, 28u, 10u}) {
        PXPacketPtr packet = decode(loopback(family, ipPacket), DLT_NULL);
        ASSERT_EQ(layerNames(packet), std::vector<std::string>{"PXBSDLoopbackPacket"});
        EXPECT_EQ(std::static_pointer_cast<PXBSDLoopbackPacket>(packet)->payloadTypeName(), "Unknown");
    }

    // An unknown link type offers the frame to both link layers; Ethernet
    // needs 14 bytes, the loopback header only 4.
    EXPECT_EQ(layerNames(decode(Bytes(5, 0), 228)), std::vector<std::string>{"PXBSDLoopbackPacket"});
    PXPacketPtr nothing = decode(Bytes(3, 0), 228);
    EXPECT_EQ(nothing->linkLayerType(), -1);
    EXPECT_EQ(nothing, nothing->rootPacket());
}

TEST(PacketChain, NonIPEtherTypesEndAtEthernet) {
    PXPacketPtr arp = decode(arpRequest(kMacA, kClient4, kServer4));
    ASSERT_EQ(layerNames(arp), std::vector<std::string>{"PXEthernetPacket"});
    EXPECT_EQ(std::static_pointer_cast<PXEthernetPacket>(arp)->payloadTypeName(), "Address Resolution Protocol");

    Bytes tagged = ethernet(kMacB, kMacA, kEtherTypeVLAN, Bytes{0, 1, 0x08, 0x00});
    PXPacketPtr vlan = decode(tagged);
    ASSERT_EQ(layerNames(vlan), std::vector<std::string>{"PXEthernetPacket"});
    EXPECT_EQ(std::static_pointer_cast<PXEthernetPacket>(vlan)->payloadTypeName(), "Unknown");

    EXPECT_TRUE(layerNames(decode(Bytes(13, 0xff))).empty());
}

TEST(PacketChain, IPv4WithIHLZeroUnderProtocol4StopsAtTheDepthBound) {
    // IHL 0 consumes nothing, so the header decodes itself again and again.
    Bytes frame = ethernet(kMacB, kMacA, kEtherTypeIPv4,
                           ipv4(kClient4, kServer4, kProtoIPv4, Bytes(20, 0), {.ihl = 0, .totalLength = 40}));
    PXPacketPtr packet = decode(frame);
    std::vector<std::string> names = layerNames(packet);
    ASSERT_EQ(names.size(), static_cast<std::size_t>(PXPacket::kMaxDecodeDepth));
    EXPECT_EQ(names.front(), "PXEthernetPacket");
    EXPECT_EQ(names.back(), "PXIPv4Packet");
}

TEST(PacketChain, UDPLeadsNowhereButMulticastDNS) {
    // 5353-to-5353 is offered to multicast DNS only, which refuses these
    // bytes (they announce records that are not there), so it ends at UDP as
    // every other datagram does; RTP is never picked automatically.
    Bytes rtp = {0x80, 0x00, 0x00, 0x01, 0, 0, 0, 2, 0, 0, 0, 3, 0xaa, 0xbb};
    for (auto [source, dest] : {std::pair{5353, 5353}, {5353, 5354}, {40000, 40002}}) {
        Bytes frame = ethernet(kMacB, kMacA, kEtherTypeIPv4,
                               ipv4(kClient4, kServer4, kProtoUDP,
                                    udp(static_cast<std::uint16_t>(source), static_cast<std::uint16_t>(dest), rtp)));
        EXPECT_EQ(layerNames(decode(frame)).back(), "PXUDPPacket") << source << "->" << dest;
    }
}

TEST(DirectedDecoder, DecodesRTPFromTheListedClasses) {
    Bytes rtpBytes = {0x82, 0x60, 0x12, 0x34, 0, 0, 0x10, 0, 0xde, 0xad, 0xbe, 0xef,  // CSRC count 2
                      1,    1,    1,    1,    2, 2, 2,    2, 'm',  'e',  'd',  'i',  'a'};
    Bytes frame =
        ethernet(kMacB, kMacA, kEtherTypeIPv4, ipv4(kClient4, kServer4, kProtoUDP, udp(5004, 5006, rtpBytes)));
    ByteBuffer buffer = ByteBuffer::copy(frame.data(), frame.size());
    PXPacketPtr packet = PXPacket::packetWithRawData(buffer,
                                                     {&PXRTPPacket::staticClass(), &PXUDPPacket::staticClass(),
                                                      &PXIPv4Packet::staticClass(), &PXEthernetPacket::staticClass()},
                                                     12.5, 1000);
    auto rtp = std::dynamic_pointer_cast<PXRTPPacket>(packet);
    ASSERT_TRUE(rtp);
    EXPECT_EQ(rtp->sequenceNumber(), 0x1234);
    EXPECT_EQ(rtp->rtpTimestamp(), 0x1000u);
    EXPECT_EQ(rtp->ssrcIdentifier(), 0xdeadbeefu);
    EXPECT_EQ(rtp->payload().size(), 13u);  // CSRC list stays in front
    EXPECT_EQ(rtp->payload()[0], 1);
    EXPECT_EQ(rtp->description(), "(RTP) size 13 bytes, seq 4660, timestamp 4096, identifier 0xdeadbeef");
    // The payload shares the UDP layer's bytes, which share the caller's buffer.
    auto udpLayer = rtp->packetWithProtocol<PXUDPPacket>();
    EXPECT_EQ(rtp->payload().data(), udpLayer->payload().data() + 12);
    EXPECT_EQ(rtp->rootPacket()->rawData().data(), buffer.data());
    EXPECT_EQ(rtp->lengthOnWire(), 1000u);
    EXPECT_DOUBLE_EQ(rtp->timestamp(), 12.5);
}

// Layers keep views of the bytes they were decoded from. Here those are the
// caller's, not the frame's block, so they go as soon as nothing holds them.
TEST(DirectedDecoder, PayloadsOutliveTheBytesTheRootLetsGo) {
    const Bytes frame = httpSegment();
    const std::vector<const PacketClass*> classes = {&PXTCPPacket::staticClass(), &PXIPv4Packet::staticClass(),
                                                     &PXEthernetPacket::staticClass()};
    for (bool relink : {false, true}) {
        PXPacketPtr packet =
            PXPacket::packetWithRawData(ByteBuffer::copy(frame.data(), frame.size()), classes, 1.0, 100);
        auto tcp = std::static_pointer_cast<PXTCPPacket>(packet);
        if (relink) {
            tcp->setEncapsulatingPacket(std::make_shared<PXPacket>());  // the old chain goes
        } else {
            tcp->rootPacket()->setRawData(ByteBuffer::fromString("other bytes"));
        }
        EXPECT_EQ(tcp->payload().stringView(), "GET / HTTP/1.1\r\n\r\n") << relink;
        EXPECT_EQ(ByteBuffer(tcp->payload()).stringView(), "GET / HTTP/1.1\r\n\r\n") << relink;
    }
}

TEST(DirectedDecoder, RTPVersionAndLengthChecks) {
    auto decodeRTP = [](Bytes rtpBytes) {
        Bytes frame = udp(1, 2, rtpBytes);
        return PXPacket::packetWithRawData(ByteBuffer::copy(frame.data(), frame.size()),
                                           {&PXRTPPacket::staticClass(), &PXUDPPacket::staticClass()}, 0, 0);
    };
    Bytes header(12, 0);
    for (std::uint8_t first : {0x80, 0xBF, 0x40, 0xC0}) {
        Bytes withPayload = header;
        withPayload[0] = first;
        withPayload.push_back(7);
        bool accepted = decodeRTP(withPayload)->isKindOf(PXRTPPacket::staticClass());
        EXPECT_EQ(accepted, first == 0x80 || first == 0xBF) << int(first);
    }
    header[0] = 0x80;
    EXPECT_FALSE(decodeRTP(header)->isKindOf(PXRTPPacket::staticClass()));  // no payload: refused
}

TEST(DirectedDecoder, RefusesClassesNotDirectlyBelowPXPacket) {
    std::vector<std::string> logged;
    Log::setSink([&](Log::Level, const std::string& text) { logged.push_back(text); });
    Bytes frame = udp(1, 2, bytesOf("x"));
    PXPacketPtr packet = PXPacket::packetWithRawData(ByteBuffer::copy(frame.data(), frame.size()),
                                                     {&PXTestUDPSubclass::staticClass()}, 0, 0);
    Log::setSink(nullptr);
    EXPECT_FALSE(packet);
    EXPECT_EQ(logged, std::vector<std::string>{"Error: Class PXTestUDPSubclass is not a subclass of PXPacket"});

    // The first class failing leaves the root.
    PXPacketPtr root =
        PXPacket::packetWithRawData(ByteBuffer::copy(frame.data(), 3), {&PXUDPPacket::staticClass()}, 0, 0);
    ASSERT_TRUE(root);
    EXPECT_FALSE(root->encapsulatingPacket());
}

TEST(Navigation, PacketWithProtocolMatchesSubclassesOutward) {
    PXPacketPtr packet = decode(httpSegment());
    EXPECT_EQ(packet->packetWithProtocol(PXPacket::staticClass()), packet);  // every layer is a PXPacket
    auto ip = packet->packetWithProtocol<PXIPv4Packet>();
    EXPECT_FALSE(ip->packetWithProtocol(PXTCPPacket::staticClass()));  // never looks inward
    EXPECT_FALSE(packet->packetWithProtocol(PXIPv6Packet::staticClass()));
    EXPECT_FALSE(packet->packetWithProtocol(PXTestUDPSubclass::staticClass()));
}
