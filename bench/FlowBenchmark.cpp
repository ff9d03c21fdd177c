// How fast a capture file becomes reassembled TCP streams, and what the flows
// cost in memory. The capture is generated (seeded, so every run sees the same
// bytes): web-like conversations interleaved with each other, with some data
// segments swapped with a neighbour and some sent again later, a few of those
// overlapping the next segment. The passes:
//
//   wireloom  the file through PXCaptureFile, a capture without a device and
//             a PXTCPFlowTable, one observer counting the stream chunks
//   libtins   the file through Tins::FileSniffer and a StreamFollower whose
//             callbacks count the payload (libtins' own example does the same)
//   idle      100,000 flows opened by a SYN each and left open: the heap and
//             the resident memory they take, per flow
//
// Each pass runs in a process of its own (this program again, --run), so
// its peak resident memory is its own and not the generator's: VmHWM, read
// by the child. (ru_maxrss after fork and exec would not do: the kernel folds
// the parent's high-water mark into the child's at exec.) Times are the
// child's thread CPU time and wall time around the pass, medians of
// --repetitions runs in an order that rotates. Both reassemblers must count
// exactly the bytes the generator put in each direction. See BENCHMARKS.md.
//
//   flow_benchmark [--megabytes 200] [--repetitions 5] [--only NAME] [--idle-flows 100000]
//   flow_benchmark --write-capture FILE [--megabytes 200]
//   flow_benchmark --run PASS --file FILE [--idle-flows 100000]
//
// --write-capture writes the capture and exits; --run runs one pass once
// over it and prints the line of figures the parent reads: for profiling.

#include "WebTraffic.hpp"

#include <Wireloom/capture/PXCaptureFile.hpp>
#include <Wireloom/capture/PXNetworkCapture.hpp>
#include <Wireloom/flows/PXTCPFlow.hpp>
#include <Wireloom/flows/PXTCPFlowTable.hpp>

#include <malloc.h>
#include <tins/tcp_ip/stream_follower.h>
#include <tins/tins.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace wireloom;
using namespace wireloom::bench;
using namespace wireloom::testing;

// --- The passes, each in a child process ------------------------------------

struct Result {
    double cpu = 0, wall = 0;
    std::uint64_t bytes[2] = {};  // client to server, server to client
    long floorKiB = 0, peakKiB = 0;
    // The idle pass: flows opened, heap bytes and resident KiB they added.
    std::uint64_t flows = 0;
    long long heapBytes = 0;
    long rssKiB = 0;
};

// A line of /proc/self/status, in KiB.
long statusKiB(const char* field) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind(field, 0) == 0) return std::atol(line.c_str() + std::strlen(field));
    return 0;
}

long long heapInUse() {
    const struct mallinfo2 info = mallinfo2();
    return static_cast<long long>(info.uordblks + info.hblkhd);
}

template <class Run>
void timed(Result& result, Run run) {
    result.floorKiB = statusKiB("VmHWM:");
    const auto start = std::chrono::steady_clock::now();
    const double cpuStart = threadSeconds();
    run();
    result.cpu = threadSeconds() - cpuStart;
    result.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    result.peakKiB = statusKiB("VmHWM:");
}

bool isClient(std::uint16_t port) { return port >= kFirstClientPort; }

// How far the wireloom pipeline goes: the whole of it, or its first stages
// alone, to show where its time goes.
enum class Stage { replay, table, chunks };

Result followWithWireloom(const std::string& path, Stage stage) {
    Result result;
    timed(result, [&] {
        std::string error;
        auto file = PXCaptureFile::open(path, &error);
        if (!file) return;
        auto capture = PXNetworkCapture::captureWithNullDevice();
        auto table = stage == Stage::replay ? nullptr : PXTCPFlowTable::initWithCapture(capture);
        NotificationCenter& center = NotificationCenter::defaultCenter();
        if (stage == Stage::chunks) {
            center.addObserver(&result, kPXTCPFlowStreamChunkNotificationName, [&](const Notification& n) {
                const auto* flow = dynamic_cast<const PXTCPFlow*>(n.sender.get());
                const bool fromZero = *n.userInfo.at("identifier").string() == flow->endpoint0();
                const bool fromClient = isClient(fromZero ? flow->endpoint0Port() : flow->endpoint1Port());
                result.bytes[fromClient ? 0 : 1] += n.userInfo.at("chunk").bytes()->size();
            });
        }
        if (!capture->replayCaptureFile(*file, &error)) std::fprintf(stderr, "%s\n", error.c_str());
        if (table) table->invalidate();
        center.removeObserver(&result);
    });
    return result;
}

// With follow false, only the packets: what libtins spends before following.
Result followWithLibtins(const std::string& path, bool follow) {
    Result result;
    timed(result, [&] {
        Tins::TCPIP::StreamFollower follower;
        follower.new_stream_callback([&](Tins::TCPIP::Stream& stream) {
            // Each payload is emptied once its callback has run.
            stream.auto_cleanup_payloads(true);
            stream.client_data_callback([&](Tins::TCPIP::Stream& s) { result.bytes[0] += s.client_payload().size(); });
            stream.server_data_callback([&](Tins::TCPIP::Stream& s) { result.bytes[1] += s.server_payload().size(); });
        });
        Tins::FileSniffer sniffer(path);
        sniffer.sniff_loop([&](Tins::Packet& packet) {
            if (follow) follower.process_packet(packet);
            return true;
        });
    });
    return result;
}

// SYNs from distinct clients to one server, built before anything is
// measured and fed straight to the capture: the flows are all that grows.
Result openIdleFlows(std::uint64_t count) {
    Bytes frames;
    std::vector<std::size_t> ends;
    for (std::uint64_t i = 0; i < count; ++i) {
        const IPv4Address client{10, static_cast<std::uint8_t>(i >> 16), static_cast<std::uint8_t>(i >> 8),
                                 static_cast<std::uint8_t>(i)};
        const Bytes frame = ethernet(kMacB, kMacA, kEtherTypeIPv4,
                                     ipv4(client, ip4("198.51.100.80"), kProtoTCP,
                                          tcp({.sourcePort = static_cast<std::uint16_t>(kFirstClientPort + i % 16384),
                                               .destPort = 443,
                                               .seq = static_cast<std::uint32_t>(i * 7919),
                                               .flags = kTcpSyn})));
        frames.insert(frames.end(), frame.begin(), frame.end());
        ends.push_back(frames.size());
    }
    const ByteBuffer all = ByteBuffer::copy(frames.data(), frames.size());
    frames = {};
    auto capture = PXNetworkCapture::captureWithNullDevice();
    auto table = PXTCPFlowTable::initWithCapture(capture);
    Result result;
    const long long heapBefore = heapInUse();
    const long rssBefore = statusKiB("VmRSS:");
    timed(result, [&] {
        std::size_t begin = 0;
        for (const std::size_t end : ends) {
            capture->processRawPacketData(all.borrowedView(begin, end - begin), 1700000000.0);
            begin = end;
        }
    });
    result.flows = table->table().size();
    result.heapBytes = heapInUse() - heapBefore;
    result.rssKiB = statusKiB("VmRSS:") - rssBefore;
    table->invalidate();
    return result;
}

int runPass(const std::string& pass, const std::string& path, std::uint64_t idleFlows) {
    Result r;
    if (pass == "wireloom")
        r = followWithWireloom(path, Stage::chunks);
    else if (pass == "wireloom-replay")
        r = followWithWireloom(path, Stage::replay);
    else if (pass == "wireloom-table")
        r = followWithWireloom(path, Stage::table);
    else if (pass == "libtins")
        r = followWithLibtins(path, true);
    else if (pass == "libtins-sniff")
        r = followWithLibtins(path, false);
    else if (pass == "idle")
        r = openIdleFlows(idleFlows);
    else
        return 2;
    std::printf("%.9f %.9f %llu %llu %ld %ld %llu %lld %ld\n", r.cpu, r.wall,
                static_cast<unsigned long long>(r.bytes[0]), static_cast<unsigned long long>(r.bytes[1]), r.floorKiB,
                r.peakKiB, static_cast<unsigned long long>(r.flows), r.heapBytes, r.rssKiB);
    return 0;
}

// Runs this program again as `--run pass`, and reads back its result line.
bool spawnPass(const std::string& pass, const std::string& path, std::uint64_t idleFlows, Result* result) {
    ProcessRun run;
    if (!runProcess({"/proc/self/exe", "--run", pass, "--file", path, "--idle-flows", std::to_string(idleFlows)}, &run))
        return false;
    const std::string& line = run.output;
    unsigned long long client = 0, server = 0, flowCount = 0;
    Result& r = *result;
    if (std::sscanf(line.c_str(), "%lf %lf %llu %llu %ld %ld %llu %lld %ld", &r.cpu, &r.wall, &client, &server,
                    &r.floorKiB, &r.peakKiB, &flowCount, &r.heapBytes, &r.rssKiB) != 9)
        return false;
    r.bytes[0] = client;
    r.bytes[1] = server;
    r.flows = flowCount;
    return true;
}

struct Pass {
    const char* name;
    const char* what;
    enum Kind { reassembles, partial, idle } kind;
    std::vector<Result> runs;
};

template <class Field>
double medianOf(const Pass& pass, Field field) {
    std::vector<double> values;
    for (const Result& r : pass.runs) values.push_back(field(r));
    return median(values);
}

const char* verdict(bool met) { return met ? "met" : "MISSED"; }

}  // namespace

int main(int argc, char** argv) {
    CommonOptions options{200};
    std::string run, path, writeCapture;
    std::uint64_t idleFlows = 100000;
    for (int i = 1; i < argc; i += 2) {
        const std::string option = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (value && options.parse(option, value)) continue;
        if (value && option == "--run")
            run = value;
        else if (value && option == "--write-capture")
            writeCapture = value;
        else if (value && option == "--file")
            path = value;
        else if (value && option == "--idle-flows")
            idleFlows = std::max<std::uint64_t>(1, std::strtoull(value, nullptr, 10));
        else {
            std::fprintf(stderr,
                         "usage: %s [--megabytes N] [--repetitions N] [--only NAME] [--idle-flows N]\n"
                         "       %s --write-capture FILE [--megabytes N]\n"
                         "       %s --run PASS --file FILE [--idle-flows N]\n",
                         argv[0], argv[0], argv[0]);
            return 2;
        }
    }
    if (!run.empty()) return runPass(run, path, idleFlows);

    std::printf("Machine: %ld cores, %s\nBuild: %s\n", sysconf(_SC_NPROCESSORS_ONLN), cpuModel().c_str(),
                WIRELOOM_BENCH_BUILD);
    std::vector<Pass> passes = {
        {"wireloom", "file, null-device capture, TCP flow table, chunk observer", Pass::reassembles, {}},
        {"libtins", "FileSniffer and StreamFollower with data callbacks", Pass::reassembles, {}},
        {"wireloom-replay", "the file through the capture, no flow table", Pass::partial, {}},
        {"wireloom-table", "the same with the flow table, chunks unobserved", Pass::partial, {}},
        {"libtins-sniff", "FileSniffer over the file, no StreamFollower", Pass::partial, {}},
        {"idle", "SYNs opening flows that stay open", Pass::idle, {}},
    };
    if (!keepOnly(passes, options.only)) return 2;

    TemporaryCapture file;
    WebCapture capture = WebTrafficGenerator(20240611).generate(options.megabytes * 1000000);
    const std::string& written = writeCapture.empty() ? file.path : writeCapture;
    if (!writePcap(written, DLT_EN10MB, capture.frames)) {
        std::fprintf(stderr, "cannot write %s\n", written.c_str());
        return 1;
    }
    const double fileBytes = static_cast<double>(24 + 16 * capture.frames.size() + capture.frameBytes);
    const double streamBytes = static_cast<double>(capture.sent[0] + capture.sent[1]);
    std::printf("Capture: %zu frames, %.1f MB file, %llu conversations, %zu open at a time\n", capture.frames.size(),
                fileBytes / 1e6, static_cast<unsigned long long>(capture.conversations), kConcurrentConversations);
    std::printf("  stream bytes: %llu client to server, %llu server to client\n",
                static_cast<unsigned long long>(capture.sent[0]), static_cast<unsigned long long>(capture.sent[1]));
    std::printf("  of %llu data segments: %llu swapped with the next, %llu sent again (%llu overlapping the next)\n",
                static_cast<unsigned long long>(capture.dataSegments), static_cast<unsigned long long>(capture.swapped),
                static_cast<unsigned long long>(capture.repeated),
                static_cast<unsigned long long>(capture.overlapping));
    capture.frames = {};
    if (!writeCapture.empty()) return 0;

    bool agreed = true;
    for (int rep = 0; rep < options.repetitions; ++rep) {
        for (std::size_t i = 0; i < passes.size(); ++i) {
            Pass& pass = passes[(i + static_cast<std::size_t>(rep)) % passes.size()];
            Result result;
            if (!spawnPass(pass.name, file.path, idleFlows, &result)) {
                std::fprintf(stderr, "the %s pass failed\n", pass.name);
                return 1;
            }
            if (pass.kind == Pass::reassembles &&
                (result.bytes[0] != capture.sent[0] || result.bytes[1] != capture.sent[1])) {
                std::fprintf(
                    stderr, "*** %s reassembled %llu and %llu bytes; the capture holds %llu and %llu\n", pass.name,
                    static_cast<unsigned long long>(result.bytes[0]), static_cast<unsigned long long>(result.bytes[1]),
                    static_cast<unsigned long long>(capture.sent[0]), static_cast<unsigned long long>(capture.sent[1]));
                agreed = false;
            }
            if (pass.kind == Pass::idle && result.flows != idleFlows) {
                std::fprintf(stderr, "*** %llu of %llu idle flows opened\n",
                             static_cast<unsigned long long>(result.flows), static_cast<unsigned long long>(idleFlows));
                agreed = false;
            }
            pass.runs.push_back(result);
        }
    }

    std::printf("\nmedians of %d runs, each in a process of its own; CPU time of the thread (wall time)\n",
                options.repetitions);
    double wireloomRate = 0, libtinsRate = 0, wireloomWall = 0, libtinsWall = 0;
    for (const Pass& pass : passes) {
        const double cpu = medianOf(pass, [](const Result& r) { return r.cpu; });
        const double wall = medianOf(pass, [](const Result& r) { return r.wall; });
        const double peak = medianOf(pass, [](const Result& r) { return static_cast<double>(r.peakKiB); });
        const double floor = medianOf(pass, [](const Result& r) { return static_cast<double>(r.floorKiB); });
        std::printf("\n%s: %s\n", pass.name, pass.what);
        if (pass.kind == Pass::idle) {
            const double heap = medianOf(pass, [](const Result& r) { return static_cast<double>(r.heapBytes); });
            const double rss = medianOf(pass, [](const Result& r) { return static_cast<double>(r.rssKiB); });
            const double flows = static_cast<double>(idleFlows);
            std::printf("  %.0f flows opened in %.3f s (%.3f s wall): %.2f M SYNs/s\n", flows, cpu, wall,
                        flows / cpu / 1e6);
            std::printf("  heap in use: %.0f bytes per flow; resident: %.0f bytes per flow; peak %.1f MiB\n",
                        heap / flows, rss * 1024 / flows, peak / 1024);
            std::printf("  goal under 1024 bytes per idle flow (heap): %s\n", verdict(heap / flows < 1024));
            continue;
        }
        std::printf("  %.1f MB/s of file (%.1f wall); %.3f s CPU, %.3f s wall\n", fileBytes / cpu / 1e6,
                    fileBytes / wall / 1e6, cpu, wall);
        if (pass.kind == Pass::reassembles)
            std::printf("  %.1f MB/s of stream (%.1f wall)\n", streamBytes / cpu / 1e6, streamBytes / wall / 1e6);
        std::printf("  peak resident %.1f MiB (%.1f MiB before the pass)\n", peak / 1024, floor / 1024);
        std::printf("  runs, s CPU/wall:");
        for (const Result& r : pass.runs) std::printf(" %.3f/%.3f", r.cpu, r.wall);
        std::printf("\n");
        if (pass.name == std::string("wireloom")) {
            wireloomRate = fileBytes / cpu;
            wireloomWall = fileBytes / wall;
            std::printf("  goal peak resident under 64 MiB: %s\n", verdict(peak < 64 * 1024));
        } else if (pass.name == std::string("libtins")) {
            libtinsRate = fileBytes / cpu;
            libtinsWall = fileBytes / wall;
        }
    }
    if (wireloomRate > 0 && libtinsRate > 0)
        std::printf("\nwireloom / libtins: %.2f CPU (%.2f wall); goal at least 1.2: %s\n", wireloomRate / libtinsRate,
                    wireloomWall / libtinsWall, verdict(wireloomRate / libtinsRate >= 1.2));
    if (!agreed) std::fprintf(stderr, "\n*** the passes did not reassemble what the capture holds\n");
    return agreed ? 0 : 1;
}
