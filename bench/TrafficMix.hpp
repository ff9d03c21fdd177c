#pragma once
// What the benchmarks share: the seeded traffic mix they all measure, the
// temporary pcap file it is written to, the file loaded back into memory as
// records, and the clocks and counters the passes are timed with. See
// BENCHMARKS.md for the mix.
//
//   TemporaryCapture file;
//   Traffic traffic = generateTraffic(20240611, 100 * 1000000);
//   writePcap(file.path, DLT_EN10MB, traffic.frames);
//   LoadedCapture capture = load(file.path, captureFileSize(traffic));

#include "support/FrameBuilder.hpp"
#include "support/TcpConversation.hpp"

#include <pcap/pcap.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

// The build the figures come from, set by bench/CMakeLists.txt.
#ifndef WIRELOOM_BENCH_BUILD
#define WIRELOOM_BENCH_BUILD "unknown"
#endif

namespace wireloom::bench {

using testing::Frame;

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

// Payloads cut from one block of seeded random bytes, so that hundreds of
// megabytes of frames cost no random number per byte.
class PayloadPool {
public:
    PayloadPool(Random& random, std::size_t size) : random_(random), bytes_(size) {
        for (auto& byte : bytes_) byte = static_cast<std::uint8_t>(random_.next());
    }
    // At most the pool's size.
    testing::Bytes take(std::size_t size) {
        const auto at = bytes_.begin() + random_.between(0, static_cast<std::uint32_t>(bytes_.size() - size));
        return testing::Bytes(at, at + static_cast<std::ptrdiff_t>(size));
    }

private:
    Random& random_;
    testing::Bytes bytes_;
};

// Kinds of traffic and their share of the frames. Whole TCP conversations
// come in bursts of frames, so the next one is always of the kind that lags
// furthest behind its share.
enum Kind { kTcp4, kTcp6, kDns4, kUdp4, kUdp6, kKindCount };
inline constexpr std::array<double, kKindCount> kShare = {0.76, 0.08, 0.08, 0.04, 0.04};
inline constexpr std::array<const char*, kKindCount> kKindName = {"IPv4 TCP", "IPv6 TCP", "IPv4 DNS", "IPv4 UDP other",
                                                                  "IPv6 UDP"};

struct Traffic {
    std::vector<Frame> frames;
    std::array<std::uint64_t, kKindCount> framesOfKind{};
    std::uint64_t tcpFrames = 0;
    std::uint64_t udpFrames = 0;
    std::uint64_t bytes = 0;
};

// The same frames for the same seed, on every machine.
Traffic generateTraffic(std::uint64_t seed, std::uint64_t byteBudget);
// The pcap file the frames make: global header, then a record header per frame.
std::uint64_t captureFileSize(const Traffic& traffic);

// A path in $TMPDIR (or /tmp) for the capture; the file is removed at exit,
// and on Ctrl-C, so a stopped run leaves no hundreds of megabytes behind.
struct TemporaryCapture {
    std::string path;
    TemporaryCapture();
    ~TemporaryCapture();
    TemporaryCapture(const TemporaryCapture&) = delete;
    TemporaryCapture& operator=(const TemporaryCapture&) = delete;
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

LoadedCapture load(const std::string& path, std::uint64_t fileSize);

// Every operator new of the process so far (the benchmarks replace it); a
// plain count, as only the main thread allocates.
std::uint64_t allocationCount() noexcept;
// The calling thread's CPU time: other builds sharing the cores do not count.
double threadSeconds();
double median(std::vector<double> values);
std::string cpuModel();

// A program run to its end: what it wrote to its standard output, and its
// CPU (user and system) and wall seconds.
struct ProcessRun {
    std::string output;
    double cpu = 0, wall = 0;
};
// argv[0] is looked up in PATH. False, with a message, if the program could
// not be started or did not exit with 0. Its standard error is kept unless
// quiet.
bool runProcess(const std::vector<std::string>& argv, ProcessRun* run, bool quiet = false);

// The options every benchmark takes: --megabytes of frames to generate,
// --repetitions of each pass, --only one pass.
struct CommonOptions {
    std::uint64_t megabytes;
    int repetitions = 5;
    std::string only;
    // False if the option is none of these.
    bool parse(const std::string& option, const char* value);
};

// For --only: keeps the pass of that name (all if the name is empty); false,
// with a message, if there is none.
template <class Pass>
bool keepOnly(std::vector<Pass>& passes, const std::string& only) {
    if (only.empty()) return true;
    std::erase_if(passes, [&](const Pass& pass) { return only != pass.name; });
    if (passes.empty()) std::fprintf(stderr, "no pass named %s\n", only.c_str());
    return !passes.empty();
}

}  // namespace wireloom::bench
