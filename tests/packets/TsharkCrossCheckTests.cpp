// The decoders against tshark: captures written with the frame builders, and
// the bundled samples, are read by both, and every frame must give the same
// addresses, ports, sequence numbers and payloads. The same captures must
// also draw no warning from tshark, which checks the builders' checksums and
// TCP arithmetic.
#include "PacketTestSupport.hpp"
#include "support/Paths.hpp"
#include "support/TcpConversation.hpp"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

using namespace wireloom;
using namespace wireloom::testing;

namespace {

// What is compared, in tshark's field names and in tshark's order.
enum Field {
    number,
    ethSrc,
    ethDst,
    ipSrc,
    ipDst,
    ipv6Src,
    ipv6Dst,
    tcpSrcPort,
    tcpDstPort,
    tcpSeq,
    tcpAck,
    tcpLen,
    tcpPayload,
    udpSrcPort,
    udpDstPort,
    udpLength,
    udpPayload,
    fieldCount
};
constexpr std::array<const char*, fieldCount> kFieldNames{
    "frame.number", "eth.src",     "eth.dst",     "ip.src",      "ip.dst",      "ipv6.src",
    "ipv6.dst",     "tcp.srcport", "tcp.dstport", "tcp.seq_raw", "tcp.ack_raw", "tcp.len",
    "tcp.payload",  "udp.srcport", "udp.dstport", "udp.length",  "udp.payload"};
using Row = std::array<std::string, fieldCount>;

// tshark's output, one line a frame; stderr (its warning about running as
// root) is dropped.
std::vector<std::string> runTshark(const std::string& arguments) {
    std::vector<std::string> lines;
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(("tshark " + arguments + " 2>/dev/null").c_str(), "r"), pclose);
    if (!pipe) return lines;
    std::string line;
    for (int c; (c = std::fgetc(pipe.get())) != EOF;) {
        if (c != '\n') {
            line.push_back(static_cast<char>(c));
            continue;
        }
        lines.push_back(line);
        line.clear();
    }
    return lines;
}

// tshark writes IPv6 addresses in the standard text form; the library has
// its own, so tshark's are parsed back to bytes and written the library's way.
std::string inLibraryForm(const std::string& ipv6Text) {
    std::uint8_t address[16];
    if (ipv6Text.empty() || inet_pton(AF_INET6, ipv6Text.c_str(), address) != 1) return ipv6Text;
    return PXIPv6Packet::stringFromIPv6Address(address);
}

std::vector<Row> tsharkRows(const std::string& path) {
    std::string arguments = "-r '" + path + "' -T fields -E separator=/t";
    for (const char* name : kFieldNames) arguments += std::string(" -e ") + name;
    std::vector<Row> rows;
    for (const std::string& line : runTshark(arguments)) {
        Row row;
        std::size_t field = 0;
        for (char c : line) {
            if (c == '\t' && field + 1 < fieldCount)
                ++field;
            else
                row[field].push_back(c);
        }
        row[ipv6Src] = inLibraryForm(row[ipv6Src]);
        row[ipv6Dst] = inLibraryForm(row[ipv6Dst]);
        rows.push_back(row);
    }
    return rows;
}

Row libraryRow(const PXPacket& innermost, std::size_t frameNumber) {
    Row row;
    row[number] = std::to_string(frameNumber);
    if (auto ethernet = innermost.packetWithProtocol<PXEthernetPacket>()) {
        row[ethSrc] = ethernet->macSource();
        row[ethDst] = ethernet->macDest();
    }
    if (auto ip = innermost.packetWithProtocol<PXIPv4Packet>()) {
        row[ipSrc] = ip->sourceAddress();
        row[ipDst] = ip->destAddress();
    }
    if (auto ip = innermost.packetWithProtocol<PXIPv6Packet>()) {
        row[ipv6Src] = ip->sourceAddress();
        row[ipv6Dst] = ip->destAddress();
    }
    if (auto tcp = innermost.packetWithProtocol<PXTCPPacket>()) {
        row[tcpSrcPort] = std::to_string(tcp->sourcePort());
        row[tcpDstPort] = std::to_string(tcp->destPort());
        row[tcpSeq] = std::to_string(tcp->seqNumber());
        row[tcpAck] = std::to_string(tcp->ackNumber());
        row[tcpLen] = std::to_string(tcp->payloadSize());
        row[tcpPayload] = tcp->payload().hexEncodedString();
    }
    if (auto udp = innermost.packetWithProtocol<PXUDPPacket>()) {
        row[udpSrcPort] = std::to_string(udp->sourcePort());
        row[udpDstPort] = std::to_string(udp->destPort());
        row[udpLength] = std::to_string(udp->payloadSize() + 8);
        row[udpPayload] = udp->payload().hexEncodedString();
    }
    return row;
}

void expectDecodedAsTsharkDecodes(const std::string& path) {
    const std::vector<Row> expected = tsharkRows(path);
    std::string error;
    auto file = PXCaptureFile::open(path, &error);
    ASSERT_TRUE(file) << error;
    std::size_t frames = 0;
    while (PXPacketPtr packet = file->nextPacket(&error)) {
        ++frames;
        ASSERT_LE(frames, expected.size()) << path << ": tshark read fewer frames";
        const Row actual = libraryRow(*packet, frames);
        for (std::size_t field = 0; field < fieldCount; ++field)
            EXPECT_EQ(actual[field], expected[frames - 1][field])
                << path << " frame " << frames << ", " << kFieldNames[field];
    }
    EXPECT_TRUE(error.empty()) << error;
    EXPECT_EQ(frames, expected.size()) << path;
}

// Bad checksums, sequence numbers that skip or acknowledge unseen bytes,
// malformed messages: anything tshark rates a warning or worse.
void expectNoTsharkWarnings(const std::string& path) {
    const std::vector<std::string> flagged =
        runTshark("-r '" + path +
                  "' -o tcp.check_checksum:TRUE -o udp.check_checksum:TRUE -o ip.check_checksum:TRUE"
                  " -Y '_ws.expert.severity >= 0x600000' -T fields -e frame.number -e _ws.expert.message");
    for (const std::string& line : flagged) ADD_FAILURE() << path << " frame " << line;
}

Bytes pattern(std::size_t size, char first) {
    Bytes data(size);
    for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<std::uint8_t>(first + static_cast<char>(i % 26));
    return data;
}

// A connection that carries data both ways, one of them over several
// segments.
void converse(TcpConversation& conversation, std::vector<Frame>& frames, double& clock) {
    conversation.open(frames, clock);
    conversation.send(true, pattern(300, 'a'), frames, clock);
    conversation.send(false, pattern(5000, 'A'), frames, clock);
    conversation.close(frames, clock);
}

std::vector<Frame> ethernetMix() {
    std::vector<Frame> frames;
    double clock = 1767225600.0;
    // The client's sequence numbers wrap past 2^32 during the exchange.
    TcpConversation tcp4(1, {kMacA, "192.168.1.10", 49152}, {kMacB, "93.184.216.34", 80}, 0xffffff00u, 17);
    converse(tcp4, frames, clock);
    TcpConversation tcp6(1, {kMacA, "2001:db8::a00:1", 49153}, {kMacB, "fe80::1:0:0:20", 443}, 1, 0x80000000u);
    converse(tcp6, frames, clock);

    auto add = [&](Bytes bytes) { frames.push_back({clock += 0.001, std::move(bytes), 0}); };
    add(ethernet(kMacB, kMacA, kEtherTypeIPv4, ipv4(kClient4, kServer4, kProtoUDP, udp(53124, 9, pattern(29, 'a')))));
    add(ethernet(kMacB, kMacA, kEtherTypeIPv6,
                 ipv6(ip6("2001:db8::10"), ip6("2001:db8::53"), kProtoUDP, udp(40000, 7, pattern(64, 'a')))));
    IPv4Fields withOptions;
    withOptions.options = {0x94, 0x04, 0x00, 0x00};  // router alert
    add(ethernet(kMacB, kMacA, kEtherTypeIPv4,
                 ipv4(kClient4, kServer4, kProtoUDP, udp(123, 123, pattern(48, 'a')), withOptions)));
    // Short frames padded to Ethernet's minimum: the padding is not payload.
    Bytes ack =
        ethernet(kMacB, kMacA, kEtherTypeIPv4,
                 ipv4(kClient4, kServer4, kProtoTCP, tcp({.sourcePort = 1, .destPort = 2, .seq = 3, .ack = 4})));
    ack.resize(60, 0);
    add(ack);
    Bytes datagram = ethernet(kMacB, kMacA, kEtherTypeIPv4, ipv4(kClient4, kServer4, kProtoUDP, udp(7, 9, {1, 2})));
    datagram.resize(60, 0);
    add(datagram);
    // Hop-by-hop header, the UDP checksum computed as if it were not there
    // (the pseudo-header does not cover it).
    Bytes plain = ipv6(ip6("2001:db8::10"), ip6("2001:db8::1"), kProtoUDP, udp(50211, 9, pattern(17, 'a')));
    add(ethernet(kMacB, kMacA, kEtherTypeIPv6,
                 ipv6(ip6("2001:db8::10"), ip6("2001:db8::1"), 0,
                      ipv6Extension(kProtoUDP, 0, 8, Bytes(plain.begin() + 40, plain.end())))));
    add(arpRequest(kMacA, kClient4, kServer4));
    return frames;
}

std::vector<Frame> loopbackMix() {
    std::vector<Frame> frames;
    double clock = 1767225600.0;
    TcpConversation tcp4(0, {{}, "127.0.0.1", 52100}, {{}, "127.0.0.1", 8080}, 1000, 2000);
    converse(tcp4, frames, clock);
    TcpConversation tcp6(0, {{}, "::1", 52101}, {{}, "::1", 8080}, 3000, 4000);
    converse(tcp6, frames, clock);
    frames.push_back({clock + 0.001, loopback(kLoopbackIPv4, ipv4(ip4("127.0.0.1"), ip4("127.0.0.1"), kProtoUDP,
                                                                  udp(53110, 8125, pattern(20, 'a'))))});
    frames.push_back({clock + 0.002, loopback(kLoopbackIPv6, ipv6(ip6("::1"), ip6("::1"), kProtoUDP,
                                                                  udp(53111, 8125, pattern(20, 'a'))))});
    return frames;
}

class TsharkCrossCheck : public ::testing::Test {
protected:
    void SetUp() override {
        if (std::system("command -v tshark >/dev/null 2>&1") != 0)
            GTEST_SKIP() << "tshark is not on PATH: the decoders are not compared with it (apt-get install tshark)";
    }

    static std::string written(const std::string& name, int linkLayerType, const std::vector<Frame>& frames) {
        std::string path = ::testing::TempDir() + name;
        EXPECT_TRUE(writePcap(path, linkLayerType, frames)) << path;
        return path;
    }

    static std::vector<std::string> samples() {
        return {(sourceDir() / "samples/demo.pcap").string(), (sourceDir() / "samples/demo-loopback.pcap").string()};
    }
};

TEST_F(TsharkCrossCheck, BuiltEthernetFrames) {
    const std::string path = written("tshark-ethernet.pcap", DLT_EN10MB, ethernetMix());
    expectDecodedAsTsharkDecodes(path);
    expectNoTsharkWarnings(path);
}

TEST_F(TsharkCrossCheck, BuiltLoopbackFrames) {
    const std::string path = written("tshark-loopback.pcap", DLT_NULL, loopbackMix());
    expectDecodedAsTsharkDecodes(path);
    expectNoTsharkWarnings(path);
}

TEST_F(TsharkCrossCheck, BundledSamples) {
    for (const std::string& path : samples()) {
        expectDecodedAsTsharkDecodes(path);
        expectNoTsharkWarnings(path);
    }
}

}  // namespace
