// Each packet layer as a report entry, from real frames: titles, colours
// through the shared variables, and the rows in order.
#include "PacketTestSupport.hpp"

#include <Wireloom/text/WLColors.hpp>

#include <gtest/gtest.h>

using namespace wireloom;
using namespace wireloom::testing;

namespace {

std::vector<std::string> rows(const std::shared_ptr<PXReportAnalyzerEntry>& entry) {
    std::vector<std::string> titles;
    for (const auto& child : *entry->children()) titles.emplace_back(child->plainTitle());
    return titles;
}

PXPacketPtr tcpFrame(bool v6, const Bytes& payload) {
    Bytes segment =
        tcp({.sourcePort = 443, .destPort = 50000, .seq = 7, .ack = 9, .flags = kTcpAck | kTcpFin, .payload = payload});
    if (v6)
        return decode(
            ethernet(kMacB, kMacA, kEtherTypeIPv6, ipv6(ip6("fe80::1"), ip6("2001:db8::5"), kProtoTCP, segment)));
    return decode(ethernet(kMacB, kMacA, kEtherTypeIPv4, ipv4(kClient4, kServer4, kProtoTCP, segment)));
}

}  // namespace

TEST(PacketEntries, EveryLayerOfAnIPv4Segment) {
    PXPacketPtr packet = tcpFrame(false, bytesOf("hi"));
    auto tcpEntry = packet->reportAnalyzerEntry();
    EXPECT_EQ(tcpEntry->plainTitle(), "TCP 192.168.1.10:443 => 93.184.216.34:50000");
    EXPECT_EQ(tcpEntry->title()->stringWithoutColorizedText(), "TCP : => :");
    EXPECT_EQ(rows(tcpEntry), (std::vector<std::string>{"Source Port: 443", "Destination Port: 50000", "Seq: 7",
                                                        "Ack: 9", "Ack Flag: YES", "Syn Flag: NO", "Fin Flag: YES",
                                                        "Payload Size: 2", "Payload (2 bytes)"}));
    // The port is drawn in the source-port colour of the moment.
    auto rendered = tcpEntry->title()->attributedString();
    EXPECT_EQ(rendered->attributesAt(18).foregroundColor, *WLColors::sourcePortColorPointer());

    auto ip = packet->packetWithProtocol<PXIPv4Packet>()->reportAnalyzerEntry();
    EXPECT_EQ(ip->plainTitle(), "IPv4 192.168.1.10 => 93.184.216.34");
    EXPECT_EQ(rows(ip), (std::vector<std::string>{"Payload Size: 22", "Header Size: 20", "Source: 192.168.1.10",
                                                  "Destination: 93.184.216.34"}));

    auto eth = packet->packetWithProtocol<PXEthernetPacket>()->reportAnalyzerEntry();
    EXPECT_EQ(eth->plainTitle(), "Ethernet 02:00:5e:10:00:01 => 02:00:5e:10:00:02");
    EXPECT_EQ(rows(eth),
              (std::vector<std::string>{"Source: 02:00:5e:10:00:01", "Destination: 02:00:5e:10:00:02",
                                        "Payload Type: 0x0800", "Payload Type: Internet Protocol version 4"}));

    auto root = packet->rootPacket()->reportAnalyzerEntry();
    EXPECT_EQ(root->plainTitle(), "Raw Capture");
    EXPECT_EQ(rows(root), (std::vector<std::string>{"Timestamp: 1700000000.250000", "Captured Data (56 bytes)",
                                                    "Length on Wire: 56"}));
}

TEST(PacketEntries, IPv6SegmentWithoutPayload) {
    auto entry = tcpFrame(true, {})->reportAnalyzerEntry();
    EXPECT_EQ(entry->plainTitle(), "TCP fe80::1:443 => 201:db8::5:50000");
    std::vector<std::string> titles = rows(entry);
    ASSERT_EQ(titles.size(), 9u);
    EXPECT_EQ(titles[7], "Payload Size: 0");
    EXPECT_EQ(titles[8], "Payload (0 bytes)");
    EXPECT_EQ(entry->children()->back()->numChildren(), 0u);
}

TEST(PacketEntries, LoopbackUDPAndRTPWithoutItsIPLayer) {
    PXPacketPtr datagram =
        decode(loopback(kLoopbackIPv4, ipv4(kClient4, kServer4, kProtoUDP, udp(53, 1053, bytesOf("q")))), DLT_NULL);
    auto loop = datagram->packetWithProtocol<PXBSDLoopbackPacket>()->reportAnalyzerEntry();
    EXPECT_EQ(loop->plainTitle(), "Loopback ");
    EXPECT_EQ(rows(loop),
              (std::vector<std::string>{"Payload Type: 0x0002", "Payload Type: Internet Protocol version 4"}));
    auto udpEntry = datagram->reportAnalyzerEntry();
    EXPECT_EQ(udpEntry->plainTitle(), "UDP 192.168.1.10:53 => 93.184.216.34:1053");
    EXPECT_EQ(rows(udpEntry).back(), "Payload (1 byte)");

    Bytes rtpFrame = udp(5004, 5006, Bytes{0x80, 0, 0, 7, 0, 0, 0, 9, 0, 0, 1, 0, 'x'});
    PXPacketPtr rtp = PXPacket::packetWithRawData(ByteBuffer::copy(rtpFrame.data(), rtpFrame.size()),
                                                  {&PXRTPPacket::staticClass(), &PXUDPPacket::staticClass()}, 0, 0);
    auto rtpEntry = rtp->reportAnalyzerEntry();
    EXPECT_EQ(rtpEntry->plainTitle(), "RTP");
    EXPECT_EQ(rows(rtpEntry),
              (std::vector<std::string>{"Sequence: 7", "Timestamp: 9", "Sync Source ID: 256", "Payload (1 byte)"}));
}
