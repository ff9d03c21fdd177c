// How fast Wireloom turns captured frames into layer chains, measured beside
// libtins parsing the same frames and a bare libpcap walk over the same file,
// all in one process run so the machine's mood is shared. The capture is
// generated (seeded, so every run sees the same bytes), written once to a
// temporary pcap file and loaded into memory; see BENCHMARKS.md.
//
//   decode_benchmark [--megabytes 200] [--repetitions 5] [--only NAME] [--threaded 1]
//
// --only runs one pass (libpcap, copy, libtins, wireloom, wireloom-file,
// libtins-warm, wireloom-warm), for profiling a small capture under callgrind
// or perf. --threaded starts (and joins) a
// thread first: from then on the C library reports the process as
// multi-threaded and every shared_ptr count becomes a locked instruction, as
// in an application whose run loop has threads.

#include "support/FrameBuilder.hpp"
#include "support/TcpConversation.hpp"

#include <Wireloom/capture/PXCaptureFile.hpp>
#include <Wireloom/packets/PXPacket.hpp>
#include <Wireloom/packets/PXTCPPacket.hpp>
#include <Wireloom/packets/PXUDPPacket.hpp>

#include <pcap/pcap.h>
#include <tins/tins.h>

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <new>
#include <random>
#include <span>
#include <string>
#include <thread>
#include <vector>

#ifndef WIRELOOM_BENCH_BUILD
#define WIRELOOM_BENCH_BUILD "unknown"
#endif

// Every operator new of the process, libtins' included, comes through here so
// that a pass can count its allocations per frame. A plain increment is noise
// beside malloc; only the main thread ever allocates.
namespace {
std::uint64_t gAllocations = 0;
}

void* operator new(std::size_t size) {
    ++gAllocations;
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

namespace {

using namespace wireloom;
using namespace wireloom::testing;

// --- The traffic mix ------------------------------------------------------

// std::uniform_int_distribution differs between standard libraries; reducing
// the engine's output by hand keeps the capture identical everywhere.
class Random {
public:
    explicit Random(std::uint64_t seed) : engine_(seed) {}
    std::uint64_t next() { return engine_(); }
    std::uint32_t between(std::uint32_t low, std::uint32_t high) {
        return low + static_cast<std::uint32_t>(engine_() % (std::uint64_t{high} - low + 1));
    }
    // Sizes of web objects spread over orders of magnitude.
    std::uint32_t logBetween(std::uint32_t low, std::uint32_t high) {
        double unit = static_cast<double>(engine_() >> 11) / 9007199254740992.0;
        return static_cast<std::uint32_t>(low * std::pow(static_cast<double>(high) / low, unit));
    }
    bool chance(double p) { return static_cast<double>(engine_() >> 11) / 9007199254740992.0 < p; }

private:
    std::mt19937_64 engine_;
};

// Kinds of traffic and their share of the frames. Whole TCP conversations
// come in bursts of frames, so the next one is always of the kind that lags
// furthest behind its share.
enum Kind { kTcp4, kTcp6, kDns4, kUdp4, kUdp6, kKindCount };
constexpr std::array<double, kKindCount> kShare = {0.76, 0.08, 0.08, 0.04, 0.04};
constexpr std::array<const char*, kKindCount> kKindName = {"IPv4 TCP", "IPv6 TCP", "IPv4 DNS", "IPv4 UDP other",
                                                           "IPv6 UDP"};

struct Traffic {
    std::vector<Frame> frames;
    std::array<std::uint64_t, kKindCount> framesOfKind{};
    std::uint64_t tcpFrames = 0;
    std::uint64_t udpFrames = 0;
    std::uint64_t bytes = 0;
};

class TrafficGenerator {
public:
    explicit TrafficGenerator(std::uint64_t seed) : random_(seed), pool_(1 << 19) {
        for (auto& byte : pool_) byte = static_cast<std::uint8_t>(random_.next());
    }

    Traffic generate(std::uint64_t byteBudget) {
        Traffic traffic;
        while (traffic.bytes < byteBudget) {
            Kind kind = laggingKind(traffic);
            std::size_t first = traffic.frames.size();
            switch (kind) {
            case kTcp4: conversation(false, traffic.frames); break;
            case kTcp6: conversation(true, traffic.frames); break;
            case kDns4: dnsExchange(false, traffic.frames); break;
            case kUdp4: otherDatagram(false, traffic.frames); break;
            case kUdp6:
                if (random_.chance(0.5))
                    dnsExchange(true, traffic.frames);
                else
                    otherDatagram(true, traffic.frames);
                break;
            default: break;
            }
            const std::uint64_t added = traffic.frames.size() - first;
            traffic.framesOfKind[kind] += added;
            (kind == kTcp4 || kind == kTcp6 ? traffic.tcpFrames : traffic.udpFrames) += added;
            for (std::size_t i = first; i < traffic.frames.size(); ++i) traffic.bytes += traffic.frames[i].bytes.size();
        }
        return traffic;
    }

private:
    Kind laggingKind(const Traffic& traffic) const {
        const double total = static_cast<double>(traffic.frames.size()) + 1;
        int lagging = 0;
        double worst = -1e300;
        for (int k = 0; k < kKindCount; ++k) {
            double lag = kShare[k] * total - static_cast<double>(traffic.framesOfKind[k]);
            if (lag > worst) {
                worst = lag;
                lagging = k;
            }
        }
        return static_cast<Kind>(lagging);
    }

    Bytes payload(std::size_t size) {
        std::size_t offset = random_.between(0, static_cast<std::uint32_t>(pool_.size() - size));
        return Bytes(pool_.begin() + static_cast<std::ptrdiff_t>(offset),
                     pool_.begin() + static_cast<std::ptrdiff_t>(offset + size));
    }

    Mac hostMac() {
        Mac m = kMacA;
        m[4] = static_cast<std::uint8_t>(random_.next());
        m[5] = static_cast<std::uint8_t>(random_.next());
        return m;
    }
    // Clients on a private network, servers in the documentation ranges.
    std::string clientAddress(bool v6) {
        char text[64];
        if (v6)
            std::snprintf(text, sizeof text, "fd00:10::%x", random_.between(2, 0xfffe));
        else
            std::snprintf(text, sizeof text, "10.1.%u.%u", random_.between(0, 255), random_.between(1, 254));
        return text;
    }
    std::string serverAddress(bool v6) {
        char text[64];
        if (v6)
            std::snprintf(text, sizeof text, "2001:db8:%x::%x", random_.between(1, 0xff), random_.between(1, 0xff));
        else
            std::snprintf(text, sizeof text, "198.51.100.%u", random_.between(1, 254));
        return text;
    }
    std::uint16_t ephemeralPort() { return static_cast<std::uint16_t>(random_.between(49152, 65535)); }

    // A web-like conversation: a few requests of a few hundred bytes, each
    // answered by an object of a few hundred bytes to a few hundred kilobytes.
    void conversation(bool v6, std::vector<Frame>& out) {
        static constexpr std::array<std::uint16_t, 5> kPorts = {443, 443, 80, 8080, 993};
        TcpEndpoint client{hostMac(), clientAddress(v6), ephemeralPort()};
        TcpEndpoint server{kMacB, serverAddress(v6), kPorts[random_.between(0, kPorts.size() - 1)]};
        TcpConversation tcp(DLT_EN10MB, client, server, static_cast<std::uint32_t>(random_.next()),
                            static_cast<std::uint32_t>(random_.next()));
        tcp.open(out, clock_);
        for (std::uint32_t n = random_.between(1, 6); n > 0; --n) {
            tcp.send(true, payload(random_.between(120, 900)), out, clock_);
            tcp.send(false, payload(random_.logBetween(200, 300000)), out, clock_);
        }
        tcp.close(out, clock_);
    }

    Bytes dnsMessage(std::uint16_t id, bool response) {
        Bytes m = {static_cast<std::uint8_t>(id >> 8),
                   static_cast<std::uint8_t>(id),
                   static_cast<std::uint8_t>(response ? 0x81 : 0x01),
                   static_cast<std::uint8_t>(response ? 0x80 : 0x00),
                   0,
                   1,
                   0,
                   0,
                   0,
                   0,
                   0,
                   0};
        for (std::uint32_t labels = random_.between(2, 4); labels > 0; --labels) {
            std::uint32_t length = random_.between(3, 12);
            m.push_back(static_cast<std::uint8_t>(length));
            for (std::uint32_t i = 0; i < length; ++i)
                m.push_back(static_cast<std::uint8_t>('a' + random_.between(0, 25)));
        }
        m.insert(m.end(), {0, 0, 1, 0, 1});  // root, type A, class IN
        if (!response) return m;
        const std::uint32_t answers = random_.between(1, 8);
        m[7] = static_cast<std::uint8_t>(answers);
        for (std::uint32_t i = 0; i < answers; ++i) {
            m.insert(m.end(), {0xc0, 0x0c, 0, 1, 0, 1, 0, 0, 0x0e, 0x10, 0, 4});
            for (int b = 0; b < 4; ++b) m.push_back(static_cast<std::uint8_t>(random_.next()));
        }
        return m;
    }

    Frame datagram(bool v6, const Mac& from, const Mac& to, const std::string& source, const std::string& dest,
                   std::uint16_t sourcePort, std::uint16_t destPort, const Bytes& data) {
        clock_ += 0.0001 * random_.between(1, 50);
        Bytes segment = udp(sourcePort, destPort, data);
        Bytes ip =
            v6 ? ipv6(ip6(source), ip6(dest), kProtoUDP, segment) : ipv4(ip4(source), ip4(dest), kProtoUDP, segment);
        return Frame{clock_, ethernet(to, from, v6 ? kEtherTypeIPv6 : kEtherTypeIPv4, ip), 0};
    }

    void dnsExchange(bool v6, std::vector<Frame>& out) {
        const Mac client = hostMac();
        const std::string clientIp = clientAddress(v6);
        const std::string resolver = v6 ? "2001:db8::53" : "198.51.100.53";
        const std::uint16_t port = ephemeralPort();
        const auto id = static_cast<std::uint16_t>(random_.next());
        out.push_back(datagram(v6, client, kMacB, clientIp, resolver, port, 53, dnsMessage(id, false)));
        out.push_back(datagram(v6, kMacB, client, resolver, clientIp, 53, port, dnsMessage(id, true)));
    }

    // QUIC-sized datagrams, NTP and syslog lines: the UDP that is not DNS.
    void otherDatagram(bool v6, std::vector<Frame>& out) {
        const Mac client = hostMac();
        const std::string clientIp = clientAddress(v6);
        const std::string server = serverAddress(v6);
        switch (random_.between(0, 2)) {
        case 0:
            for (std::uint32_t n = random_.between(1, 4); n > 0; --n)
                out.push_back(
                    datagram(v6, kMacB, client, server, clientIp, 443, 50000, payload(random_.between(1150, 1350))));
            break;
        case 1: out.push_back(datagram(v6, client, kMacB, clientIp, server, 123, 123, payload(48))); break;
        default:
            out.push_back(
                datagram(v6, client, kMacB, clientIp, server, ephemeralPort(), 514, payload(random_.between(60, 400))));
        }
    }

    Random random_;
    Bytes pool_;
    double clock_ = 1700000000.0;
};

// --- The capture ----------------------------------------------------------

// Removed at exit, and on Ctrl-C, so a stopped run leaves no 200 MB behind.
char gTemporaryPath[256] = "";

void removeTemporaryFile(int signal) {
    if (gTemporaryPath[0]) unlink(gTemporaryPath);
    _exit(128 + signal);
}

struct TemporaryCapture {
    std::string path;
    TemporaryCapture() {
        const char* dir = std::getenv("TMPDIR");
        std::snprintf(gTemporaryPath, sizeof gTemporaryPath, "%s/wireloom-decode-XXXXXX.pcap",
                      dir && *dir ? dir : "/tmp");
        int fd = mkstemps(gTemporaryPath, 5);
        if (fd < 0) {
            std::perror("mkstemps");
            std::exit(1);
        }
        close(fd);
        path = gTemporaryPath;
        std::signal(SIGINT, removeTemporaryFile);
        std::signal(SIGTERM, removeTemporaryFile);
    }
    ~TemporaryCapture() {
        unlink(path.c_str());
        gTemporaryPath[0] = 0;
    }
};

struct Record {
    pcap_pkthdr header;
    const std::uint8_t* data;
};

// The file's records copied into one block, as a capture already in memory.
struct LoadedCapture {
    std::vector<std::uint8_t> bytes;
    std::vector<Record> records;
};

LoadedCapture load(const std::string& path, std::uint64_t fileSize) {
    LoadedCapture capture;
    capture.bytes.reserve(fileSize);  // no reallocation: the records point into it
    char error[PCAP_ERRBUF_SIZE];
    pcap_t* handle = pcap_open_offline(path.c_str(), error);
    if (!handle) {
        std::fprintf(stderr, "%s\n", error);
        return capture;
    }
    pcap_pkthdr* header;
    const u_char* data;
    while (pcap_next_ex(handle, &header, &data) == 1) {
        capture.records.push_back({*header, capture.bytes.data() + capture.bytes.size()});
        capture.bytes.insert(capture.bytes.end(), data, data + header->caplen);
    }
    pcap_close(handle);
    return capture;
}

// --- The passes -------------------------------------------------------------

// Every pass folds something it read into this, so no loop is dead code.
volatile std::uint64_t gSink = 0;

std::uint64_t walkWithLibpcap(const std::string& path) {
    char error[PCAP_ERRBUF_SIZE];
    pcap_t* handle = pcap_open_offline(path.c_str(), error);
    if (!handle) return 0;
    pcap_pkthdr* header;
    const u_char* data;
    std::uint64_t frames = 0, sink = 0;
    while (pcap_next_ex(handle, &header, &data) == 1) {
        sink += data[header->caplen / 2];
        ++frames;
    }
    pcap_close(handle);
    gSink = gSink + sink;
    return frames;
}

// The frames an in-memory pass walks: the whole capture once (cold: each
// frame comes from memory, as from a capture buffer far larger than the
// caches) or its first megabyte over and over (warm: as frames the kernel has
// just written into a ring that fits the caches).
struct Workload {
    std::span<const Record> records;
    std::size_t rounds = 1;
    std::uint64_t frames() const { return records.size() * rounds; }
};

template <class Visit>
std::uint64_t forEachFrame(const Workload& workload, Visit visit) {
    std::uint64_t sink = 0;
    for (std::size_t round = 0; round < workload.rounds; ++round)
        for (const Record& record : workload.records) sink += visit(record);
    gSink = gSink + sink;
    return workload.frames();
}

// What any decoder that keeps its own copy of the frame pays at least.
std::uint64_t copyFrame(const Record& record) {
    std::unique_ptr<std::uint8_t[]> copy(new std::uint8_t[record.header.caplen]);
    std::memcpy(copy.get(), record.data, record.header.caplen);
    return copy[record.header.caplen / 2];
}

// The innermost PDU's size; RawPDU for every frame that carries a payload.
std::uint64_t parseWithLibtins(const Record& record) {
    try {
        Tins::EthernetII frame(record.data, record.header.caplen);
        const Tins::PDU* inner = &frame;
        while (inner->inner_pdu()) inner = inner->inner_pdu();
        return inner->size();
    } catch (const Tins::exception_base&) {
        return 0;
    }
}

std::uint64_t decodeWithWireloom(const Record& record) {
    PXPacketPtr innermost = PXPacket::packetWithHeader(record.header, record.data, DLT_EN10MB);
    return innermost->layerPayloadSize().value_or(1);
}

std::uint64_t readFileWithWireloom(const std::string& path) {
    std::string error;
    auto file = PXCaptureFile::open(path, &error);
    if (!file) return 0;
    std::uint64_t frames = 0, sink = 0;
    while (PXPacketPtr innermost = file->nextPacket(&error)) {
        sink += innermost->layerPayloadSize().value_or(1);
        ++frames;
    }
    gSink = gSink + sink;
    return frames;
}

struct Pass {
    const char* name;
    const char* what;
    std::function<std::uint64_t()> run;
    std::uint64_t frames;
    // Frames per second by the wall clock and by the thread's CPU clock; the
    // second leaves out the time other processes held the core.
    std::vector<double> wall;
    std::vector<double> cpu;
};

double threadSeconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

double median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const std::size_t mid = values.size() / 2;
    return values.size() % 2 ? values[mid] : (values[mid - 1] + values[mid]) / 2;
}

// --- Checks that the passes decoded what was generated ------------------

// Frames whose chain ends in TCP and in UDP, and the allocations per frame,
// by innermost layer.
bool checkWireloom(const LoadedCapture& capture, const Traffic& traffic) {
    struct Tally {
        std::uint64_t frames = 0, allocations = 0;
    };
    Tally tcp, udp, other, all;
    for (const Record& record : capture.records) {
        const std::uint64_t before = gAllocations;
        PXPacketPtr innermost = PXPacket::packetWithHeader(record.header, record.data, DLT_EN10MB);
        const bool isTcp = innermost->isKindOf(PXTCPPacket::staticClass());
        const bool isUdp = innermost->isKindOf(PXUDPPacket::staticClass());
        innermost.reset();
        const std::uint64_t allocations = gAllocations - before;
        Tally& tally = isTcp ? tcp : isUdp ? udp : other;
        for (Tally* t : {&tally, &all}) {
            ++t->frames;
            t->allocations += allocations;
        }
    }
    auto perFrame = [](const Tally& t) { return t.frames ? static_cast<double>(t.allocations) / t.frames : 0.0; };
    std::printf("Wireloom allocations per frame: %.2f (TCP frames %.2f, UDP frames %.2f)\n", perFrame(all),
                perFrame(tcp), perFrame(udp));
    if (tcp.frames == traffic.tcpFrames && udp.frames == traffic.udpFrames && other.frames == 0) return true;
    std::fprintf(stderr, "Wireloom decoded %llu TCP, %llu UDP, %llu other frames; generated %llu TCP, %llu UDP\n",
                 static_cast<unsigned long long>(tcp.frames), static_cast<unsigned long long>(udp.frames),
                 static_cast<unsigned long long>(other.frames), static_cast<unsigned long long>(traffic.tcpFrames),
                 static_cast<unsigned long long>(traffic.udpFrames));
    return false;
}

bool checkLibtins(const LoadedCapture& capture, const Traffic& traffic) {
    std::uint64_t tcp = 0, udp = 0;
    const std::uint64_t before = gAllocations;
    for (const Record& record : capture.records) {
        try {
            Tins::EthernetII frame(record.data, record.header.caplen);
            if (frame.find_pdu<Tins::TCP>())
                ++tcp;
            else if (frame.find_pdu<Tins::UDP>())
                ++udp;
        } catch (const Tins::exception_base&) {
        }
    }
    std::printf("libtins allocations per frame: %.2f\n",
                static_cast<double>(gAllocations - before) / static_cast<double>(capture.records.size()));
    if (tcp == traffic.tcpFrames && udp == traffic.udpFrames) return true;
    std::fprintf(stderr, "libtins parsed %llu TCP and %llu UDP frames\n", static_cast<unsigned long long>(tcp),
                 static_cast<unsigned long long>(udp));
    return false;
}

std::string cpuModel() {
    std::ifstream cpuinfo("/proc/cpuinfo");
    for (std::string line; std::getline(cpuinfo, line);)
        if (line.rfind("model name", 0) == 0) return line.substr(line.find(':') + 2);
    return "unknown";
}

}  // namespace

int main(int argc, char** argv) {
    std::uint64_t megabytes = 200;
    int repetitions = 5;
    std::string only;
    bool threaded = false;
    for (int i = 1; i < argc; i += 2) {
        const std::string option = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (value && option == "--megabytes") {
            megabytes = std::max<std::uint64_t>(1, std::strtoull(value, nullptr, 10));
        } else if (value && option == "--repetitions") {
            repetitions = std::max(1, std::atoi(value));
        } else if (value && option == "--only") {
            only = value;
        } else if (value && option == "--threaded") {
            threaded = std::atoi(value) != 0;
        } else {
            std::fprintf(stderr, "usage: %s [--megabytes N] [--repetitions N] [--only NAME] [--threaded 1]\n", argv[0]);
            return 2;
        }
    }

    if (threaded) std::thread([] {}).join();
    std::printf("Machine: %ld cores, %s\nBuild: %s\nProcess: %s\n", sysconf(_SC_NPROCESSORS_ONLN), cpuModel().c_str(),
                WIRELOOM_BENCH_BUILD, threaded ? "multi-threaded" : "single-threaded");

    TemporaryCapture file;
    Traffic traffic = TrafficGenerator(20240611).generate(megabytes * 1000000);
    if (!writePcap(file.path, DLT_EN10MB, traffic.frames)) {
        std::fprintf(stderr, "cannot write %s\n", file.path.c_str());
        return 1;
    }
    const std::uint64_t fileSize = 24 + 16 * traffic.frames.size() + traffic.bytes;
    const std::size_t frameCount = traffic.frames.size();
    traffic.frames = {};
    std::printf("Capture: %zu frames, %.1f MB of frames (%.1f MB file), mean frame %.0f bytes\n", frameCount,
                static_cast<double>(traffic.bytes) / 1e6, static_cast<double>(fileSize) / 1e6,
                static_cast<double>(traffic.bytes) / static_cast<double>(frameCount));
    for (int k = 0; k < kKindCount; ++k)
        std::printf("  %-15s %5.1f%% of frames\n", kKindName[k],
                    100.0 * static_cast<double>(traffic.framesOfKind[k]) / static_cast<double>(frameCount));

    const LoadedCapture capture = load(file.path, fileSize);
    if (capture.records.size() != frameCount) {
        std::fprintf(stderr, "loaded %zu of %zu frames\n", capture.records.size(), frameCount);
        return 1;
    }
    // Also the warm-up: the registry, the page cache and libtins' tables.
    const bool wireloomRight = checkWireloom(capture, traffic);
    const bool libtinsRight = checkLibtins(capture, traffic);

    const Workload cold{capture.records, 1};
    std::size_t warmCount = 0;
    for (std::uint64_t bytes = 0; warmCount < capture.records.size() && bytes < 1000000; ++warmCount)
        bytes += capture.records[warmCount].header.caplen;
    const Workload warm{std::span(capture.records).first(warmCount), frameCount / warmCount};
    std::printf("Warm passes: the first %zu frames, %zu times\n", warmCount, warm.rounds);
    std::vector<Pass> passes = {
        {"libpcap", "pcap_next_ex over the file", [&] { return walkWithLibpcap(file.path); }, frameCount, {}, {}},
        {"copy",
         "new + memcpy + delete of each frame",
         [&] { return forEachFrame(cold, copyFrame); },
         frameCount,
         {},
         {}},
        {"libtins",
         "EthernetII over the frames",
         [&] { return forEachFrame(cold, parseWithLibtins); },
         frameCount,
         {},
         {}},
        {"wireloom",
         "packetWithHeader over the frames",
         [&] { return forEachFrame(cold, decodeWithWireloom); },
         frameCount,
         {},
         {}},
        {"wireloom-file",
         "PXCaptureFile::nextPacket over the file",
         [&] { return readFileWithWireloom(file.path); },
         frameCount,
         {},
         {}},
        {"libtins-warm",
         "EthernetII over the first MB, repeated",
         [&] { return forEachFrame(warm, parseWithLibtins); },
         warm.frames(),
         {},
         {}},
        {"wireloom-warm",
         "packetWithHeader over the first MB, repeated",
         [&] { return forEachFrame(warm, decodeWithWireloom); },
         warm.frames(),
         {},
         {}},
    };
    if (!only.empty()) {
        std::erase_if(passes, [&](const Pass& pass) { return only != pass.name; });
        if (passes.empty()) {
            std::fprintf(stderr, "no pass named %s\n", only.c_str());
            return 2;
        }
    }

    // The order rotates each repetition, so no pass always runs first or
    // right after the same neighbour.
    for (int rep = 0; rep < repetitions; ++rep) {
        for (std::size_t i = 0; i < passes.size(); ++i) {
            Pass& pass = passes[(i + static_cast<std::size_t>(rep)) % passes.size()];
            const auto start = std::chrono::steady_clock::now();
            const double cpuStart = threadSeconds();
            const std::uint64_t frames = pass.run();
            const double cpuElapsed = threadSeconds() - cpuStart;
            const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
            if (frames != pass.frames) {
                std::fprintf(stderr, "%s handled %llu of %llu frames\n", pass.name,
                             static_cast<unsigned long long>(frames), static_cast<unsigned long long>(pass.frames));
                return 1;
            }
            pass.wall.push_back(static_cast<double>(frames) / elapsed.count());
            pass.cpu.push_back(static_cast<double>(frames) / cpuElapsed);
        }
    }

    std::printf("\nmedians of %d runs; CPU time of the thread, wall time in the runs' list\n", repetitions);
    std::printf("%-14s %-44s %9s %9s   %s\n", "pass", "what", "Mframe/s", "ns/frame", "runs, CPU/wall Mframe/s");
    for (const Pass& pass : passes) {
        std::printf("%-14s %-44s %9.3f %9.0f  ", pass.name, pass.what, median(pass.cpu) / 1e6, 1e9 / median(pass.cpu));
        for (std::size_t i = 0; i < pass.cpu.size(); ++i)
            std::printf(" %.2f/%.2f", pass.cpu[i] / 1e6, pass.wall[i] / 1e6);
        std::printf("\n");
    }
    auto medianOf = [&](const char* name, bool cpu) {
        for (const Pass& pass : passes)
            if (name == std::string(pass.name)) return median(cpu ? pass.cpu : pass.wall);
        return 0.0;
    };
    if (passes.size() > 1) std::printf("\nratios of the medians: CPU time (wall time)\n");
    for (auto [a, b] : {std::pair{"wireloom", "libtins"},
                        {"wireloom-warm", "libtins-warm"},
                        {"libpcap", "wireloom"},
                        {"libpcap", "wireloom-file"}}) {
        if (medianOf(a, true) > 0 && medianOf(b, true) > 0)
            std::printf("%-30s %5.2f (%.2f)\n", (std::string(a) + " / " + b).c_str(),
                        medianOf(a, true) / medianOf(b, true), medianOf(a, false) / medianOf(b, false));
    }
    return wireloomRight && libtinsRight ? 0 : 1;
}
