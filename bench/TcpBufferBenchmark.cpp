// How fast one direction's stream buffer reassembles 10 MiB of stream, beside
// plain memcpy over the same bytes, in one process run. The patterns:
//
//   memcpy    each 1448-byte segment copied into a 10 MiB destination
//   in-order  the same segments pushed in order
//   reorder   5 % of them held back behind the next one
//   hostile   the first byte, then every other byte one at a time across
//             the whole 10 MiB window, then the bytes between them from the
//             front, each closing a hole and delivering two bytes
//   hostile-1MiB  the same over a 1 MiB window: its cost per byte beside the
//             full window's shows that the cost follows the bytes, not the
//             bytes times the window
//   bytewise  every byte in order, a push each: as many pushes as hostile,
//             so the two differ only by what the pattern itself costs
//
// Each pattern runs 7 repetitions, interleaved at random, timed on the
// thread's CPU clock; after Google Benchmark's own table comes one of the
// medians and their ratios to the targets. Benchmark flags pass through:
//
//   tcp_buffer_benchmark [--benchmark_repetitions=N] [--benchmark_filter=REGEX]

#include "TrafficMix.hpp"

#include <Wireloom/flows/PXTCPBuffer.hpp>

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace wireloom;

constexpr std::size_t kStreamBytes = PXTCPBuffer::kMaxWindow;
constexpr std::size_t kSegmentBytes = 1448;
constexpr std::uint32_t kInitialSequence = 1'000'000;

struct Segment {
    std::size_t offset, length;
};

const std::vector<std::uint8_t>& stream() {
    static const std::vector<std::uint8_t> bytes = [] {
        std::vector<std::uint8_t> b(kStreamBytes);
        std::mt19937_64 random(20260611);
        for (std::size_t i = 0; i < b.size(); i += 8) {
            const std::uint64_t word = random();
            std::memcpy(&b[i], &word, std::min<std::size_t>(8, b.size() - i));
        }
        return b;
    }();
    return bytes;
}

std::vector<Segment> inOrder(std::size_t bytes) {
    std::vector<Segment> segments;
    for (std::size_t at = 0; at < bytes; at += kSegmentBytes)
        segments.push_back({at, std::min(kSegmentBytes, bytes - at)});
    return segments;
}

std::vector<Segment> reordered(std::size_t bytes) {
    std::vector<Segment> segments = inOrder(bytes);
    std::mt19937 random(7);
    std::bernoulli_distribution late(0.05);
    for (std::size_t i = 0; i + 1 < segments.size(); ++i)
        if (late(random)) std::swap(segments[i], segments[i + 1]), ++i;
    return segments;
}

std::vector<Segment> hostile(std::size_t bytes) {
    std::vector<Segment> segments{{0, 1}};
    for (std::size_t at = 2; at < bytes; at += 2) segments.push_back({at, 1});
    for (std::size_t at = 1; at < bytes; at += 2) segments.push_back({at, 1});
    return segments;
}

std::vector<Segment> bytewise(std::size_t bytes) {
    std::vector<Segment> segments;
    for (std::size_t at = 0; at < bytes; ++at) segments.push_back({at, 1});
    return segments;
}

struct Pattern {
    const char* name;
    std::vector<Segment> (*segments)(std::size_t bytes);
    std::size_t bytes;
};
const Pattern kPatterns[] = {{"in-order", inOrder, kStreamBytes},
                             {"reorder", reordered, kStreamBytes},
                             {"hostile", hostile, kStreamBytes},
                             {"hostile-1MiB", hostile, kStreamBytes / 10},
                             {"bytewise", bytewise, kStreamBytes}};

// The bytes delivered, or with `check` whether they are the stream itself.
std::size_t reassemble(const std::vector<Segment>& segments, bool check = false) {
    const std::uint8_t* bytes = stream().data();
    PXTCPBuffer buffer;
    std::size_t delivered = 0;
    for (const Segment& s : segments) {
        auto chunk = buffer.pushData({bytes + s.offset, s.length}, kInitialSequence + s.offset, nullptr);
        if (!chunk) continue;
        if (check && std::memcmp(chunk->data(), bytes + delivered, chunk->size()) != 0) return 0;
        delivered += chunk->size();
    }
    return delivered;
}

void memcpyPass(benchmark::State& state) {
    const std::vector<Segment> segments = inOrder(kStreamBytes);
    std::vector<std::uint8_t> destination(kStreamBytes);
    for (auto _ : state) {
        for (const Segment& s : segments) std::memcpy(&destination[s.offset], &stream()[s.offset], s.length);
        benchmark::DoNotOptimize(destination.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kStreamBytes));
}

void bufferPass(benchmark::State& state, const Pattern* pattern) {
    const std::vector<Segment> segments = pattern->segments(pattern->bytes);
    for (auto _ : state)
        if (reassemble(segments) != pattern->bytes) state.SkipWithError("the stream did not come out whole");
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * pattern->bytes));
}

// Keeps Google Benchmark's table and notes each pattern's median CPU time.
class MedianReporter : public benchmark::ConsoleReporter {
public:
    std::map<std::string, double> medianMs;
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs)
            if (run.aggregate_name == "median") medianMs[run.run_name.function_name] = run.GetAdjustedCPUTime();
        ConsoleReporter::ReportRuns(runs);
    }
};

}  // namespace

int main(int argc, char** argv) {
    std::printf("Machine: %ld cores, %s\nBuild: %s\n", sysconf(_SC_NPROCESSORS_ONLN), bench::cpuModel().c_str(),
                WIRELOOM_BENCH_BUILD);
    for (const Pattern& pattern : kPatterns) {
        if (reassemble(pattern.segments(pattern.bytes), true) != pattern.bytes) {
            std::fprintf(stderr, "%s: the stream did not come out byte for byte\n", pattern.name);
            return 1;
        }
    }

    std::vector<char*> args(argv, argv + argc);
    std::string interleave = "--benchmark_enable_random_interleaving=true";
    std::string repetitions = "--benchmark_repetitions=7";
    // Before the caller's flags, which may override them.
    args.insert(args.begin() + 1, {interleave.data(), repetitions.data()});
    int count = static_cast<int>(args.size());
    benchmark::Initialize(&count, args.data());
    for (const Pattern& pattern : kPatterns)
        benchmark::RegisterBenchmark(pattern.name, bufferPass, &pattern)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("memcpy", memcpyPass)->Unit(benchmark::kMillisecond);

    MedianReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    auto& ms = reporter.medianMs;
    for (const char* name : {"memcpy", "in-order", "reorder", "hostile", "hostile-1MiB", "bytewise"})
        if (!ms.count(name)) return 0;  // a filtered run: no table
    std::printf("\nMedians, CPU time:\n");
    for (const char* name : {"memcpy", "in-order", "reorder", "hostile", "hostile-1MiB", "bytewise"}) {
        const double bytes = std::string(name) == "hostile-1MiB" ? kStreamBytes / 10 : kStreamBytes;
        std::printf("  %-12s %9.3f ms  %8.3f GB/s  %6.3f ns/byte\n", name, ms[name], bytes / ms[name] / 1e6,
                    ms[name] * 1e6 / bytes);
    }
    const double inOrderShare = ms["memcpy"] / ms["in-order"], reorderShare = ms["memcpy"] / ms["reorder"];
    const double hostileTimes = ms["hostile"] / ms["in-order"];
    std::printf("in-order / memcpy throughput  %.2f  (target at least 0.33: %s)\n", inOrderShare,
                inOrderShare >= 1.0 / 3 ? "met" : "missed");
    std::printf("reorder / memcpy throughput   %.2f  (target at least 0.20: %s)\n", reorderShare,
                reorderShare >= 1.0 / 5 ? "met" : "missed");
    std::printf("hostile / in-order time       %.1f  (target under 100: %s)\n", hostileTimes,
                hostileTimes < 100 ? "met" : "missed");
    std::printf("hostile per byte, 10 MiB / 1 MiB window  %.2f  (1 when the cost follows the bytes alone)\n",
                ms["hostile"] / ms["hostile-1MiB"] / 10);
    std::printf("hostile / bytewise time       %.2f  (the same pushes in order)\n", ms["hostile"] / ms["bytewise"]);
    return 0;
}
