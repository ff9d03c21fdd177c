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

#include "TrafficMix.hpp"

#include <Wireloom/capture/PXCaptureFile.hpp>
#include <Wireloom/capture/PXNetworkCapture.hpp>
#include <Wireloom/packets/PXPacket.hpp>
#include <Wireloom/packets/PXTCPPacket.hpp>
#include <Wireloom/packets/PXUDPPacket.hpp>

#include <pcap/pcap.h>
#include <tins/tins.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace wireloom;
using namespace wireloom::bench;

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

// What any decoder that keeps its own copy of the frame pays at least. It asks
// for the frame's cache lines before copying them, as Wireloom does: a plain
// memcpy of a frame from memory takes half as long again.
std::uint64_t copyFrame(const Record& record) {
    for (std::uint32_t at = 0; at < record.header.caplen; at += 64) __builtin_prefetch(record.data + at);
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

// The same file through a capture without a device, nobody observing: what
// `wireloom read` costs beyond decoding, bar the printing.
std::uint64_t replayWithWireloom(const std::string& path) {
    std::string error;
    auto file = PXCaptureFile::open(path, &error);
    if (!file) return 0;
    std::uint64_t frames = 0;
    PXNetworkCapture::captureWithNullDevice()->replayCaptureFile(
        *file, &error, [&](std::uint64_t records, std::uint64_t) { frames = records; });
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

// --- Checks that the passes decoded what was generated ------------------

// Frames whose chain ends in TCP and in UDP, and the allocations per frame,
// by innermost layer.
bool checkWireloom(const LoadedCapture& capture, const Traffic& traffic) {
    struct Tally {
        std::uint64_t frames = 0, allocations = 0;
    };
    Tally tcp, udp, other, all;
    for (const Record& record : capture.records) {
        const std::uint64_t before = allocationCount();
        PXPacketPtr innermost = PXPacket::packetWithHeader(record.header, record.data, DLT_EN10MB);
        const bool isTcp = innermost->isKindOf(PXTCPPacket::staticClass());
        const bool isUdp = innermost->isKindOf(PXUDPPacket::staticClass());
        innermost.reset();
        const std::uint64_t allocations = allocationCount() - before;
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
    const std::uint64_t before = allocationCount();
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
                static_cast<double>(allocationCount() - before) / static_cast<double>(capture.records.size()));
    if (tcp == traffic.tcpFrames && udp == traffic.udpFrames) return true;
    std::fprintf(stderr, "libtins parsed %llu TCP and %llu UDP frames\n", static_cast<unsigned long long>(tcp),
                 static_cast<unsigned long long>(udp));
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    CommonOptions options{200};
    bool threaded = false;
    for (int i = 1; i < argc; i += 2) {
        const std::string option = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (value && options.parse(option, value)) continue;
        if (value && option == "--threaded") {
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
    Traffic traffic = generateTraffic(20240611, options.megabytes * 1000000);
    if (!writePcap(file.path, DLT_EN10MB, traffic.frames)) {
        std::fprintf(stderr, "cannot write %s\n", file.path.c_str());
        return 1;
    }
    const std::uint64_t fileSize = captureFileSize(traffic);
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
        {"wireloom-replay",
         "null-device capture replaying the file",
         [&] { return replayWithWireloom(file.path); },
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
    if (!keepOnly(passes, options.only)) return 2;

    // The order rotates each repetition, so no pass always runs first or
    // right after the same neighbour.
    for (int rep = 0; rep < options.repetitions; ++rep) {
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

    std::printf("\nmedians of %d runs; CPU time of the thread, wall time in the runs' list\n", options.repetitions);
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
                        {"libpcap", "wireloom-file"},
                        {"wireloom-file", "wireloom-replay"}}) {
        if (medianOf(a, true) > 0 && medianOf(b, true) > 0)
            std::printf("%-30s %5.2f (%.2f)\n", (std::string(a) + " / " + b).c_str(),
                        medianOf(a, true) / medianOf(b, true), medianOf(a, false) / medianOf(b, false));
    }
    return wireloomRight && libtinsRight ? 0 : 1;
}
