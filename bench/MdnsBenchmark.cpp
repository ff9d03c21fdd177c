// How fast Wireloom decodes multicast-DNS responses into their questions,
// records and resources, beside libtins parsing the same datagrams into its
// DNS PDU and enumerating every section, and tshark reading the same file,
// all in one run. The responses are what service discovery answers with: a
// PTR for each service and, as additional records, its SRV, TXT, A and AAAA,
// the names compressed as responders write them. Generated from a seed, so
// every run sees the same bytes; see BENCHMARKS.md.
//
//   mdns_benchmark [--messages 100000] [--repetitions 5] [--tshark-runs 3] [--only NAME]

#include "TrafficMix.hpp"
#include "support/DnsMessage.hpp"

#include <Wireloom/Wireloom.hpp>

#include <sys/resource.h>
#include <sys/wait.h>
#include <tins/tins.h>

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace wireloom;
using namespace wireloom::bench;
using namespace wireloom::testing;

volatile std::uint64_t gSink = 0;

// --- The responses ------------------------------------------------------------

constexpr const char* kDevices[] = {"Living Room TV",  "Kitchen Display",    "Office Printer", "Bedroom Speaker",
                                    "Studio Mac mini", "Hallway Thermostat", "Garage Camera",  "Den Receiver"};
constexpr const char* kServices[] = {"_airplay._tcp", "_raop._tcp",          "_ipp._tcp",
                                     "_http._tcp",    "_googlecast._tcp",    "_spotify-connect._tcp",
                                     "_hap._tcp",     "_companion-link._tcp"};

struct Generated {
    std::vector<Frame> frames;
    std::uint64_t records = 0;
    std::uint64_t bytes = 0;
};

Generated generateResponses(std::uint64_t seed, std::size_t count) {
    std::mt19937_64 random(seed);
    auto below = [&](std::size_t n) { return static_cast<std::size_t>(random() % n); };
    Generated out;
    out.frames.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        const std::string device = kDevices[below(std::size(kDevices))];
        std::string host = device;
        for (char& c : host) c = c == ' ' ? '-' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        host += ".local";
        DnsMessage m(0, 0x8400);
        // One service in most responses, two in some.
        const std::size_t services = 1 + (below(4) == 0);
        for (std::size_t s = 0; s < services; ++s) {
            const std::string service = std::string(kServices[below(std::size(kServices))]) + ".local";
            const std::string instance = device + "." + service;
            m.record(DnsMessage::answer, service, 12, 1, 4500, [&](DnsMessage& d) { d.writeName(instance); });
            m.record(DnsMessage::additional, instance, 33, 0x8001, 120, [&](DnsMessage& d) {
                d.write(0, 2);
                d.write(0, 2);
                d.write(1024 + below(50000), 2);
                d.writeName(host);
            });
            m.record(DnsMessage::additional, instance, 16, 0x8001, 4500, [&](DnsMessage& d) {
                std::vector<std::string> txt = {"txtvers=1", "model=WL" + std::to_string(below(900) + 100),
                                                "id=" + std::to_string(random() % 1000000007)};
                if (below(2)) txt.push_back("flags=0x" + std::to_string(below(0x10000)));
                if (below(3) == 0) txt.push_back("secure");
                d.writeTxt(txt);
            });
            out.records += 3;
        }
        m.record(DnsMessage::additional, host, 1, 0x8001, 120,
                 [&](DnsMessage& d) { d.write(0xc0a80100 | below(254), 4); });
        m.record(DnsMessage::additional, host, 28, 0x8001, 120, [&](DnsMessage& d) {
            d.write(0xfe80000000000000ull, 8);
            d.write(random(), 8);
        });
        out.records += 2;
        const Bytes frame = mdnsFrame(m.bytes(), {192, 168, 1, static_cast<std::uint8_t>(1 + below(254))});
        out.bytes += frame.size();
        out.frames.push_back({1767225600.0 + static_cast<double>(i) * 0.001, frame, 0});
    }
    return out;
}

// --- The passes -------------------------------------------------------------

std::uint64_t enumerate(const PXPacket& innermost) {
    if (!innermost.isKindOf(PXMDNSPacket::staticClass())) return 0;
    const auto& message = static_cast<const PXMDNSPacket&>(innermost);
    std::uint64_t sink = 0;
    for (const PXMDNSQuestion& question : message.questionRecords()) sink += question.recordName().size();
    for (const std::span<const PXMDNSRecord> section :
         {message.answerRecords(), message.authoritativeAnswerRecords(), message.additionalRecords()})
        for (const PXMDNSRecord& record : section)
            sink += (record.recordName() ? record.recordName()->size() : 0) + record.resourceData().size() +
                    record.hasResource();
    return sink;
}

std::uint64_t decodeWithWireloom(const Record& record) {
    return enumerate(*PXPacket::packetWithHeader(record.header, record.data, DLT_EN10MB));
}

// The same from the file, read as `wireloom read` reads it.
std::uint64_t readFileWithWireloom(const std::string& path) {
    std::string error;
    auto file = PXCaptureFile::open(path, &error);
    std::uint64_t sink = 0;
    while (file)
        if (PXPacketPtr innermost = file->nextPacket(&error))
            sink += enumerate(*innermost);
        else
            break;
    return sink;
}

std::uint64_t parseWithLibtins(const Record& record) {
    try {
        const Tins::EthernetII frame(record.data, record.header.caplen);
        const Tins::DNS dns = frame.rfind_pdu<Tins::RawPDU>().to<Tins::DNS>();
        std::uint64_t sink = 0;
        for (const Tins::DNS::query& query : dns.queries()) sink += query.dname().size();
        for (const auto& section : {dns.answers(), dns.authority(), dns.additional()})
            for (const Tins::DNS::resource& resource : section)
                sink += resource.dname().size() + resource.data().size() + 1;
        return sink;
    } catch (const Tins::exception_base&) {
        return 0;
    }
}

// tshark's whole run over the file, its output thrown away; CPU time is the
// child's user and system time.
struct ProcessTimes {
    double wall = 0, cpu = 0;
};

std::optional<ProcessTimes> runTshark(const std::string& path) {
    rusage before{}, after{};
    getrusage(RUSAGE_CHILDREN, &before);
    const auto start = std::chrono::steady_clock::now();
    const int status = std::system(("tshark -r '" + path + "' > /dev/null 2>&1").c_str());
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
    getrusage(RUSAGE_CHILDREN, &after);
    if (status != 0) return std::nullopt;
    auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6;
    };
    return ProcessTimes{wall.count(), seconds(after.ru_utime) - seconds(before.ru_utime) + seconds(after.ru_stime) -
                                          seconds(before.ru_stime)};
}

struct Pass {
    const char* name;
    const char* what;
    std::function<std::uint64_t()> run;
    std::vector<double> wall, cpu;
};

// Both libraries must have read every record of every message.
bool check(const LoadedCapture& capture, const Generated& generated) {
    std::uint64_t ours = 0, theirs = 0;
    for (const Record& record : capture.records) {
        const PXPacketPtr innermost = PXPacket::packetWithHeader(record.header, record.data, DLT_EN10MB);
        if (const auto* message = dynamic_cast<const PXMDNSPacket*>(innermost.get()))
            for (const std::span<const PXMDNSRecord> section : {message->answerRecords(), message->additionalRecords()})
                for (const PXMDNSRecord& r : section) ours += r.recordName() && (r.recordType() == 1 || r.resource());
        const Tins::EthernetII frame(record.data, record.header.caplen);
        const Tins::DNS dns = frame.rfind_pdu<Tins::RawPDU>().to<Tins::DNS>();
        theirs += dns.answers().size() + dns.additional().size();
    }
    if (ours == generated.records && theirs == generated.records) return true;
    std::fprintf(stderr, "records generated %llu, decoded by wireloom %llu, by libtins %llu\n",
                 static_cast<unsigned long long>(generated.records), static_cast<unsigned long long>(ours),
                 static_cast<unsigned long long>(theirs));
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    CommonOptions options{0};
    std::size_t messages = 100000;
    int tsharkRuns = 3;
    for (int i = 1; i < argc; i += 2) {
        const std::string option = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (value && option == "--messages") {
            messages = std::max<std::size_t>(1, std::strtoull(value, nullptr, 10));
        } else if (value && option == "--tshark-runs") {
            tsharkRuns = std::max(0, std::atoi(value));
        } else if (!value || option == "--megabytes" || !options.parse(option, value)) {
            std::fprintf(stderr, "usage: %s [--messages N] [--repetitions N] [--tshark-runs N] [--only NAME]\n",
                         argv[0]);
            return 2;
        }
    }
    std::printf("Machine: %ld cores, %s\nBuild: %s\n", sysconf(_SC_NPROCESSORS_ONLN), cpuModel().c_str(),
                WIRELOOM_BENCH_BUILD);

    TemporaryCapture file;
    Generated generated = generateResponses(20260101, messages);
    if (!writePcap(file.path, DLT_EN10MB, generated.frames)) {
        std::fprintf(stderr, "cannot write %s\n", file.path.c_str());
        return 1;
    }
    std::uint64_t fileSize = 24;
    for (const Frame& frame : generated.frames) fileSize += 16 + frame.bytes.size();
    std::printf("Capture: %zu mDNS responses, %.1f records each, mean frame %.0f bytes\n", messages,
                static_cast<double>(generated.records) / static_cast<double>(messages),
                static_cast<double>(generated.bytes) / static_cast<double>(messages));
    generated.frames = {};
    const LoadedCapture capture = load(file.path, fileSize);
    if (capture.records.size() != messages || !check(capture, generated)) return 1;

    auto overRecords = [&](std::uint64_t (*visit)(const Record&)) {
        return [&capture, visit] {
            std::uint64_t sink = 0;
            for (const Record& record : capture.records) sink += visit(record);
            return sink;
        };
    };
    std::vector<Pass> passes = {
        {"wireloom", "packetWithHeader, then every question and record", overRecords(decodeWithWireloom), {}, {}},
        {"libtins", "EthernetII, RawPDU::to<DNS>, every section", overRecords(parseWithLibtins), {}, {}},
        {"wl-file", "the same from the file (PXCaptureFile)", [&] { return readFileWithWireloom(file.path); }, {}, {}},
    };
    if (options.only != "tshark" && !keepOnly(passes, options.only)) return 2;
    if (options.only == "tshark") passes.clear();
    for (int rep = 0; rep < options.repetitions; ++rep) {
        for (std::size_t i = 0; i < passes.size(); ++i) {
            Pass& pass = passes[(i + static_cast<std::size_t>(rep)) % passes.size()];
            const auto start = std::chrono::steady_clock::now();
            const double cpuStart = threadSeconds();
            const std::uint64_t sink = pass.run();
            const double cpu = threadSeconds() - cpuStart;
            const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
            gSink = gSink + sink;
            pass.cpu.push_back(static_cast<double>(messages) / cpu);
            pass.wall.push_back(static_cast<double>(messages) / wall.count());
        }
    }
    std::vector<ProcessTimes> tshark;
    for (int run = 0; run < tsharkRuns && (options.only.empty() || options.only == "tshark"); ++run) {
        const std::optional<ProcessTimes> times = runTshark(file.path);
        if (!times) {
            std::fprintf(stderr, "tshark failed on %s\n", file.path.c_str());
            return 1;
        }
        tshark.push_back(*times);
    }

    std::printf("\nmedians of %d runs (tshark: %zu); CPU time, wall time in the runs' list\n", options.repetitions,
                tshark.size());
    std::printf("%-9s %-50s %10s %9s   %s\n", "pass", "what", "kmsg/s", "ns/msg", "runs, CPU/wall kmsg/s");
    auto row = [](const char* name, const char* what, const std::vector<double>& cpu, const std::vector<double>& wall) {
        std::printf("%-9s %-50s %10.1f %9.0f  ", name, what, median(cpu) / 1e3, 1e9 / median(cpu));
        for (std::size_t i = 0; i < cpu.size(); ++i) std::printf(" %.1f/%.1f", cpu[i] / 1e3, wall[i] / 1e3);
        std::printf("\n");
    };
    for (const Pass& pass : passes) row(pass.name, pass.what, pass.cpu, pass.wall);
    std::vector<double> tsharkCpu, tsharkWall;
    for (const ProcessTimes& t : tshark) {
        tsharkCpu.push_back(static_cast<double>(messages) / t.cpu);
        tsharkWall.push_back(static_cast<double>(messages) / t.wall);
    }
    if (!tshark.empty()) row("tshark", "tshark -r FILE > /dev/null, the whole process", tsharkCpu, tsharkWall);

    const Pass* ours = nullptr;
    const Pass* libtins = nullptr;
    const Pass* ourFile = nullptr;
    for (const Pass& pass : passes)
        (pass.name == std::string("wireloom") ? ours : pass.name == std::string("libtins") ? libtins : ourFile) = &pass;
    std::printf("\n");
    if (ours && libtins) {
        const double ratio = median(ours->cpu) / median(libtins->cpu);
        std::printf("wireloom / libtins: %.2f CPU (%.2f wall); target at least 1: %s\n", ratio,
                    median(ours->wall) / median(libtins->wall), ratio >= 1 ? "met" : "missed");
    }
    // Against the file pass, which reads the file as tshark does.
    if (ourFile && !tshark.empty()) {
        const double ratio = median(ourFile->cpu) / median(tsharkCpu);
        std::printf("wl-file / tshark:   %.1f CPU (%.1f wall); target at least 30: %s\n", ratio,
                    median(ourFile->wall) / median(tsharkWall), ratio >= 30 ? "met" : "missed");
    }
    return 0;
}
