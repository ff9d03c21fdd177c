// How fast the report entries of a large capture are built and rendered. The
// frames of the generated mix are decoded once, up front, and kept; the
// passes then build every layer's entry, as the trace and `wireloom read` do
// for each frame they show. See BENCHMARKS.md for what a layer entry holds.
//
//   entry_benchmark [--megabytes 100] [--repetitions 5] [--only NAME]
//   entry_benchmark --write-capture FILE [--megabytes 100]
//
// --only runs one pass (entries, ansi, hexdump, tree), for profiling under
// callgrind or perf. --write-capture writes the capture and exits, for
// versus_tshark.sh to time whole processes on the same frames.

#include "EntryOutput.hpp"
#include "TrafficMix.hpp"

#include <Wireloom/packets/PXPacket.hpp>
#include <Wireloom/report/PXReportAnalyzerEntry.hpp>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace {

using namespace wireloom;
using namespace wireloom::bench;
using EntryPtr = std::shared_ptr<PXReportAnalyzerEntry>;

// Every pass folds something it read into this, so no loop is dead code.
volatile std::uint64_t gSink = 0;

// Every layer of every frame, the root first, as `wireloom read` lists them.
// The innermost packets keep their chains alive.
struct DecodedCapture {
    std::vector<PXPacketPtr> frames;
    std::vector<const PXPacket*> layers;
};

DecodedCapture decode(const LoadedCapture& capture) {
    DecodedCapture decoded;
    decoded.frames.reserve(capture.records.size());
    std::vector<const PXPacket*> chain;
    for (const Record& record : capture.records) {
        decoded.frames.push_back(PXPacket::packetWithHeader(record.header, record.data, DLT_EN10MB));
        chain.clear();
        for (const PXPacket* layer = decoded.frames.back().get(); layer; layer = layer->encapsulatingPacket().get())
            chain.push_back(layer);
        decoded.layers.insert(decoded.layers.end(), chain.rbegin(), chain.rend());
    }
    return decoded;
}

// Hex dumps are the rows whose lines are made when first read.
bool isHexDump(const PXReportAnalyzerEntry& row) { return static_cast<bool>(row.childLoaderBlock()); }

// (a) The timed figure of the target: the entry with its title and rows, and
// every plain title, dropped again. Hex dump rows count with their title only.
std::uint64_t buildWithPlainTitles(const PXPacket& layer) {
    const EntryPtr entry = layer.reportAnalyzerEntry();
    std::uint64_t sink = entry->plainTitle().size();
    if (const auto* rows = entry->children())
        for (const EntryPtr& row : *rows) sink += row->plainTitle().size();
    return sink;
}

// The untimed part of the rendering passes: entries built in batches small
// enough to keep, so that only the rendering is timed.
constexpr std::size_t kBatchLayers = 4096;

std::vector<EntryPtr> buildBatch(std::span<const PXPacket* const> layers) {
    std::vector<EntryPtr> entries;
    entries.reserve(layers.size());
    for (const PXPacket* layer : layers) {
        entries.push_back(layer->reportAnalyzerEntry());
        entries.back()->children();
    }
    return entries;
}

std::uint64_t ansiLength(const PXReportAnalyzerEntry& entry) {
    return entry.title() ? entry.title()->attributedString()->ansiText().size() : 0;
}

// (b) Every title and row rendered as terminal text.
std::uint64_t renderAnsi(const std::vector<EntryPtr>& entries) {
    std::uint64_t sink = 0;
    for (const EntryPtr& entry : entries) {
        sink += ansiLength(*entry);
        for (const EntryPtr& row : *entry->entries()) sink += ansiLength(*row);
    }
    return sink;
}

// (c) Every hex dump opened, each line's plain title taken.
std::uint64_t openHexDumps(const std::vector<EntryPtr>& entries) {
    std::uint64_t lines = 0;
    for (const EntryPtr& entry : entries)
        for (const EntryPtr& row : *entry->entries()) {
            if (!isHexDump(*row)) continue;
            if (const auto* dump = row->children())
                for (const EntryPtr& line : *dump) gSink = gSink + line->plainTitle().size(), ++lines;
        }
    return lines;
}

// Times `render` over batches built outside the clock; returns its CPU
// seconds and adds up what it returns.
double timeOverBatches(const DecodedCapture& decoded, std::uint64_t& total,
                       const std::function<std::uint64_t(const std::vector<EntryPtr>&)>& render) {
    double seconds = 0;
    total = 0;
    const std::span<const PXPacket* const> layers(decoded.layers);
    for (std::size_t first = 0; first < layers.size(); first += kBatchLayers) {
        const std::vector<EntryPtr> batch =
            buildBatch(layers.subspan(first, std::min(kBatchLayers, layers.size() - first)));
        const double start = threadSeconds();
        total += render(batch);
        seconds += threadSeconds() - start;
    }
    return seconds;
}

// What a pass produced and how long it took; `units` is what it counts.
struct Sample {
    double cpu = 0, wall = 0;
    std::uint64_t units = 0;
};

struct Pass {
    const char* name;
    const char* what;
    const char* unit;
    std::function<Sample()> run;
    std::vector<double> cpuRate, wallRate;
};

template <class Body>
Sample timeWhole(Body body) {
    const auto wallStart = std::chrono::steady_clock::now();
    const double start = threadSeconds();
    Sample sample;
    sample.units = body();
    sample.cpu = threadSeconds() - start;
    sample.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();
    return sample;
}

// The shape of the entries and what building them allocates, before any
// pass is timed (also the warm-up).
struct Shape {
    std::uint64_t entries = 0, rows = 0, dumps = 0, dumpLines = 0, allocations = 0;
};

Shape measureShape(const DecodedCapture& decoded) {
    Shape shape;
    for (const PXPacket* layer : decoded.layers) {
        const std::uint64_t before = allocationCount();
        gSink = gSink + buildWithPlainTitles(*layer);
        shape.allocations += allocationCount() - before;
        const EntryPtr entry = layer->reportAnalyzerEntry();
        ++shape.entries;
        for (const EntryPtr& row : *entry->children()) {
            ++shape.rows;
            if (!isHexDump(*row)) continue;
            ++shape.dumps;
            shape.dumpLines += row->numChildren();
        }
    }
    return shape;
}

}  // namespace

int main(int argc, char** argv) {
    CommonOptions options{100};
    std::string writeCapture;
    for (int i = 1; i < argc; i += 2) {
        const std::string option = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (value && options.parse(option, value)) continue;
        if (value && option == "--write-capture") {
            writeCapture = value;
        } else {
            std::fprintf(stderr, "usage: %s [--megabytes N] [--repetitions N] [--only NAME] [--write-capture FILE]\n",
                         argv[0]);
            return 2;
        }
    }

    Traffic traffic = generateTraffic(20240611, options.megabytes * 1000000);
    if (!writeCapture.empty()) {
        if (!testing::writePcap(writeCapture, DLT_EN10MB, traffic.frames)) {
            std::fprintf(stderr, "cannot write %s\n", writeCapture.c_str());
            return 1;
        }
        std::printf("%s: %zu frames, %.1f MB of frames\n", writeCapture.c_str(), traffic.frames.size(),
                    static_cast<double>(traffic.bytes) / 1e6);
        return 0;
    }

    std::printf("Machine: %ld cores, %s\nBuild: %s\n", sysconf(_SC_NPROCESSORS_ONLN), cpuModel().c_str(),
                WIRELOOM_BENCH_BUILD);
    TemporaryCapture file;
    if (!testing::writePcap(file.path, DLT_EN10MB, traffic.frames)) {
        std::fprintf(stderr, "cannot write %s\n", file.path.c_str());
        return 1;
    }
    const std::uint64_t fileSize = captureFileSize(traffic);
    const std::size_t frameCount = traffic.frames.size();
    traffic.frames = {};
    const LoadedCapture capture = load(file.path, fileSize);
    const DecodedCapture decoded = decode(capture);
    if (decoded.frames.size() != frameCount) {
        std::fprintf(stderr, "decoded %zu of %zu frames\n", decoded.frames.size(), frameCount);
        return 1;
    }
    const Shape shape = measureShape(decoded);
    const auto perEntry = [&](std::uint64_t n) { return static_cast<double>(n) / static_cast<double>(shape.entries); };
    std::printf(
        "Capture: %zu frames, %.1f MB of frames; %llu layer entries (%.2f per frame), %.2f rows each,\n"
        "  %llu hex dumps of %llu lines in all (%.1f lines per frame)\n",
        frameCount, static_cast<double>(traffic.bytes) / 1e6, static_cast<unsigned long long>(shape.entries),
        static_cast<double>(shape.entries) / static_cast<double>(frameCount), perEntry(shape.rows),
        static_cast<unsigned long long>(shape.dumps), static_cast<unsigned long long>(shape.dumpLines),
        static_cast<double>(shape.dumpLines) / static_cast<double>(frameCount));
    std::printf("Allocations per layer entry (built, plain titles taken, dropped): %.1f (%.2f per title or row)\n",
                perEntry(shape.allocations),
                static_cast<double>(shape.allocations) / static_cast<double>(shape.entries + shape.rows));

    std::vector<Pass> passes = {
        {"entries",
         "build each layer entry, plain title of it and its rows",
         "entry",
         [&] {
             return timeWhole([&] {
                 std::uint64_t sink = 0;
                 for (const PXPacket* layer : decoded.layers) sink += buildWithPlainTitles(*layer);
                 gSink = gSink + sink;
                 return static_cast<std::uint64_t>(decoded.layers.size());
             });
         },
         {},
         {}},
        {"ansi",
         "ANSI text of each title and row (built untimed)",
         "entry",
         [&] {
             Sample sample;
             std::uint64_t sink = 0;
             sample.cpu = sample.wall = timeOverBatches(decoded, sink, renderAnsi);
             gSink = gSink + sink;
             sample.units = decoded.layers.size();
             return sample;
         },
         {},
         {}},
        {"hexdump",
         "open each hex dump, plain title of each line (built untimed)",
         "line",
         [&] {
             Sample sample;
             sample.cpu = sample.wall = timeOverBatches(decoded, sample.units, openHexDumps);
             return sample;
         },
         {},
         {}},
        {"tree",
         "the text `wireloom read --format tree` writes, in memory",
         "frame",
         [&] {
             return timeWhole([&] {
                 cli::TextBuffer buffer;
                 std::uint64_t sink = 0;
                 for (const PXPacketPtr& frame : decoded.frames) {
                     buffer.clear();
                     for (const EntryPtr& entry : cli::layerEntries(*frame))
                         cli::appendEntryText(buffer, *entry, false);
                     sink += buffer.size();
                 }
                 gSink = gSink + sink;
                 return static_cast<std::uint64_t>(decoded.frames.size());
             });
         },
         {},
         {}},
    };
    if (!keepOnly(passes, options.only)) return 2;

    // The order rotates each repetition, so no pass always runs first.
    for (int rep = 0; rep < options.repetitions; ++rep) {
        for (std::size_t i = 0; i < passes.size(); ++i) {
            Pass& pass = passes[(i + static_cast<std::size_t>(rep)) % passes.size()];
            const Sample sample = pass.run();
            pass.cpuRate.push_back(static_cast<double>(sample.units) / sample.cpu);
            pass.wallRate.push_back(static_cast<double>(sample.units) / sample.wall);
        }
    }

    std::printf("\nmedians of %d runs, CPU time of the thread (the batched passes time only their rendering)\n",
                options.repetitions);
    std::printf("%-8s %-62s %10s %9s   %s\n", "pass", "what", "M units/s", "ns/unit", "runs, CPU/wall M units/s");
    for (const Pass& pass : passes) {
        const double rate = median(pass.cpuRate);
        std::printf("%-8s %-62s %10.3f %9.0f  ", pass.name, pass.what, rate / 1e6, 1e9 / rate);
        for (std::size_t i = 0; i < pass.cpuRate.size(); ++i)
            std::printf(" %.3f/%.3f", pass.cpuRate[i] / 1e6, pass.wallRate[i] / 1e6);
        std::printf("   (unit: %s)\n", pass.unit);
    }
    for (const Pass& pass : passes)
        if (std::string(pass.name) == "entries")
            std::printf("\nentries / target of 1 M layer entries/s: %.2f\n", median(pass.cpuRate) / 1e6);
    return 0;
}
