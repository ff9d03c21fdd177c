// Whole captures. The bundled samples are what the generator writes today,
// and every frame of them, cut short at any length, still decodes into the
// layers that fit. Those samples, and a capture written with the frame
// builders, are read by tshark too: every frame must give the same addresses,
// ports, sequence numbers and payloads, and draw no warning from tshark,
// which checks the builders' checksums and TCP arithmetic.
#include "PacketTestSupport.hpp"
#include "support/Paths.hpp"
#include "support/TcpConversation.hpp"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <numeric>

using namespace wireloom;
using namespace wireloom::testing;

namespace {

constexpr std::pair<const char*, int> kSamples[] = {{"demo.pcap", DLT_EN10MB}, {"demo-loopback.pcap", DLT_NULL}};

std::string samplePath(const char* name) { return (sourceDir() / "samples" / name).string(); }

TEST(Samples, CommittedFilesAreWhatTheGeneratorWrites) {
    const std::string generator = (binaryDir() / "tools/wireloom-make-samples").string();
    if (!std::ifstream(generator)) GTEST_SKIP() << "the sample generator is not built";
    const std::string fresh = ::testing::TempDir() + "fresh-samples";
    ASSERT_EQ(std::system(("mkdir -p '" + fresh + "' && '" + generator + "' '" + fresh + "' >/dev/null").c_str()), 0);
    for (auto [name, linkType] : kSamples)
        EXPECT_TRUE(slurp(samplePath(name)) == slurp(fresh + "/" + name))
            << name << " is stale: cmake --build <build> --target samples, then commit it";
}

TEST(Samples, EveryCutOfEveryFrameDecodesToAPrefixOfTheWholeFrame) {
    for (auto [name, linkType] : kSamples) {
        std::string error;
        auto file = PXCaptureFile::open(samplePath(name), &error);
        ASSERT_TRUE(file) << error;
        EXPECT_EQ(file->linkLayerType(), linkType) << name;

        const pcap_pkthdr* header = nullptr;
        const std::uint8_t* data = nullptr;
        for (int frame = 1; file->nextRecord(&header, &data, &error); ++frame) {
            const std::vector<std::string> whole = layerNames(PXPacket::packetWithHeader(*header, data, linkType));
            std::size_t previousDepth = 0;
            for (std::uint32_t length = 0; length <= header->caplen; ++length) {
                // A buffer of exactly the cut length, so that the sanitizers
                // see any read past it.
                auto cut = std::make_unique<std::uint8_t[]>(length);
                std::copy(data, data + length, cut.get());
                pcap_pkthdr cutHeader = *header;
                cutHeader.caplen = length;
                const std::vector<std::string> names =
                    layerNames(PXPacket::packetWithHeader(cutHeader, cut.get(), linkType));
                ASSERT_LE(names.size(), whole.size()) << name << " frame " << frame << " cut at " << length;
                EXPECT_TRUE(std::equal(names.begin(), names.end(), whole.begin()))
                    << name << " frame " << frame << " cut at " << length;
                // More bytes never decode fewer layers.
                EXPECT_GE(names.size(), previousDepth) << name << " frame " << frame << " cut at " << length;
                previousDepth = names.size();
            }
            EXPECT_EQ(previousDepth, whole.size());
        }
        EXPECT_TRUE(error.empty()) << error;
    }
}

// What is compared, in tshark's field names and order.
constexpr const char* kFields[] = {"frame.number", "eth.src",    "eth.dst",     "ip.src",      "ip.dst",
                                   "ipv6.src",     "ipv6.dst",   "tcp.srcport", "tcp.dstport", "tcp.seq_raw",
                                   "tcp.ack_raw",  "tcp.len",    "tcp.payload", "udp.srcport", "udp.dstport",
                                   "udp.length",   "udp.payload"};

// tshark's output, one line a frame; stderr (its warning about running as
// root) is dropped.
std::vector<std::string> runTshark(const std::string& path, const std::string& arguments) {
    std::vector<std::string> lines;
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(
        popen(("tshark -r '" + path + "' " + arguments + " 2>/dev/null").c_str(), "r"), pclose);
    char* line = nullptr;
    std::size_t capacity = 0;
    for (ssize_t length; pipe && (length = getline(&line, &capacity, pipe.get())) > 0;)
        lines.emplace_back(line, static_cast<std::size_t>(length) - (line[length - 1] == '\n'));
    std::free(line);
    return lines;
}

// The same line from the library's layers. IPv6 addresses are written from
// their bytes in the standard form tshark uses, not the library's own.
std::string libraryLine(const PXPacket& innermost, std::size_t frameNumber) {
    const auto* eth = innermost.layerWithProtocol<PXEthernetPacket>();
    const auto* v4 = innermost.layerWithProtocol<PXIPv4Packet>();
    const auto* v6 = innermost.layerWithProtocol<PXIPv6Packet>();
    const auto* tcp = innermost.layerWithProtocol<PXTCPPacket>();
    const auto* udp = innermost.layerWithProtocol<PXUDPPacket>();
    auto v6Text = [](const std::uint8_t* address) {
        char text[INET6_ADDRSTRLEN];
        return std::string(inet_ntop(AF_INET6, address, text, sizeof text));
    };
    std::string line = std::to_string(frameNumber);
    using Fields = std::vector<std::string>;
    auto add = [&](const Fields& fields) {
        for (const std::string& field : fields) line += '\t' + field;
    };
    using std::to_string;
    add(eth ? Fields{eth->macSource(), eth->macDest()} : Fields(2));
    add(v4 ? Fields{v4->sourceAddress(), v4->destAddress()} : Fields(2));
    add(v6 ? Fields{v6Text(v6->sourceAddressBytes()), v6Text(v6->destAddressBytes())} : Fields(2));
    add(tcp ? Fields{to_string(tcp->sourcePort()), to_string(tcp->destPort()), to_string(tcp->seqNumber()),
                     to_string(tcp->ackNumber()), to_string(tcp->payloadSize()), tcp->payload().hexEncodedString()}
            : Fields(6));
    add(udp ? Fields{to_string(udp->sourcePort()), to_string(udp->destPort()), to_string(udp->payloadSize() + 8),
                     udp->payload().hexEncodedString()}
            : Fields(4));
    return line;
}

void expectDecodedAsTsharkDecodes(const std::string& path) {
    std::string arguments = "-T fields -E separator=/t";
    for (const char* name : kFields) arguments += std::string(" -e ") + name;
    const std::vector<std::string> expected = runTshark(path, arguments);
    std::string error;
    auto file = PXCaptureFile::open(path, &error);
    ASSERT_TRUE(file) << error;
    std::size_t frames = 0;
    while (PXPacketPtr packet = file->nextPacket(&error)) {
        ASSERT_LT(frames, expected.size()) << "tshark read fewer frames";
        EXPECT_EQ(libraryLine(*packet, frames + 1), expected[frames]);
        ++frames;
    }
    EXPECT_TRUE(error.empty()) << error;
    EXPECT_EQ(frames, expected.size());

    // Bad checksums, sequence numbers that skip or acknowledge unseen bytes,
    // malformed messages: anything tshark rates a warning or worse.
    for (const std::string& line :
         runTshark(path,
                   "-o tcp.check_checksum:TRUE -o udp.check_checksum:TRUE -o ip.check_checksum:TRUE"
                   " -Y '_ws.expert.severity >= 0x600000' -T fields -e frame.number -e _ws.expert.message"))
        ADD_FAILURE() << "frame " << line;
}

Bytes pattern(std::size_t size) {
    Bytes data(size);
    std::iota(data.begin(), data.end(), 'a');
    return data;
}

// What the bundled samples lack: sequence numbers that wrap past 2^32, IPv4
// options, padding, plain IPv6 UDP.
std::vector<Frame> builtFrames() {
    std::vector<Frame> frames;
    double clock = 1767225600.0;
    TcpConversation conversation(1, {kMacA, "192.168.1.10", 49152}, {kMacB, "93.184.216.34", 80}, 0xffffff00u, 17);
    conversation.open(frames, clock);
    conversation.send(true, pattern(300), frames, clock);
    conversation.send(false, pattern(5000), frames, clock);  // several segments
    conversation.close(frames, clock);

    auto add = [&](Bytes bytes) { frames.push_back({clock += 0.001, std::move(bytes), 0}); };
    add(ethernet(kMacB, kMacA, kEtherTypeIPv6,
                 ipv6(ip6("2001:db8::10"), ip6("2001:db8::53"), kProtoUDP, udp(40000, 7, pattern(64)))));
    add(ethernet4(kProtoUDP, udp(123, 123, pattern(48)), {.options = {0x94, 0x04, 0x00, 0x00}}));  // router alert
    // Short frames padded to Ethernet's minimum: the padding is not payload.
    for (Bytes padded : {ethernet4(kProtoTCP, tcp({.sourcePort = 1, .destPort = 2, .seq = 3, .ack = 4})),
                         ethernet4(kProtoUDP, udp(7, 9, {1, 2}))}) {
        padded.resize(60, 0);
        add(padded);
    }
    return frames;
}

TEST(TsharkCrossCheck, BuiltFramesAndBundledSamples) {
    if (std::system("command -v tshark >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "tshark is not on PATH: the decoders are not compared with it (apt-get install tshark)";
    const std::string built = ::testing::TempDir() + "tshark-ethernet.pcap";
    ASSERT_TRUE(writePcap(built, DLT_EN10MB, builtFrames()));
    for (const std::string& path : {built, samplePath("demo.pcap"), samplePath("demo-loopback.pcap")}) {
        SCOPED_TRACE(path);
        expectDecodedAsTsharkDecodes(path);
    }
}

}  // namespace
