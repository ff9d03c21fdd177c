// How fast a capture file becomes HTTP exchanges. The capture is the flow
// benchmark's web traffic (WebTraffic.hpp: interleaved conversations, some
// segments swapped, some sent again), carrying HTTP/1.1 on port 80: GETs
// answered with bodies of 200 B to 300 kB, a few POSTs, 304s without a body
// and 404s with one, every body delimited by Content-Length. The passes:
//
//   wireloom       the file through PXCaptureFile, a capture without a device
//                  and a PXTCPFlowTable, a PXHTTPStreamAnalyzer on every flow
//                  the table detects (as `read --http` attaches them), its
//                  delegate counting requests and responses, reading no body
//   libtins        the file through Tins::FileSniffer and a StreamFollower,
//                  each direction cut into messages by a Content-Length framer
//                  of our own, which skips bodies without keeping them
//   wireloom-read  `wireloom read FILE --http --format none`, a process
//   tshark         `tshark -r FILE -o tcp.reassemble_out_of_order:TRUE -Y
//                  http.request -T fields -e http.request.method`, a process
//
// The first two run in this process (thread CPU time), the others as
// processes (their user and system time); medians of --repetitions runs in
// an order that rotates. Every pass must count exactly the requests the
// generator wrote, and the first three its responses too. See BENCHMARKS.md.
//
//   http_benchmark [--megabytes 200] [--repetitions 5] [--only NAME] [--wireloom PATH]
//   http_benchmark --write-capture FILE [--megabytes 200]   (the capture alone, for profiling)

#include "WebTraffic.hpp"

#include <Wireloom/capture/PXCaptureFile.hpp>
#include <Wireloom/capture/PXNetworkCapture.hpp>
#include <Wireloom/flows/PXTCPFlow.hpp>
#include <Wireloom/flows/PXTCPFlowTable.hpp>
#include <Wireloom/protocols/PXHTTPStreamAnalyzer.hpp>

#include <tins/tcp_ip/stream_follower.h>
#include <tins/tins.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#ifndef WIRELOOM_CLI
#define WIRELOOM_CLI "wireloom"
#endif

namespace {

using namespace wireloom;
using namespace wireloom::bench;
using testing::Bytes;

// --- The content ------------------------------------------------------------

// A browser-like client fetching objects: of every hundred exchanges, 5 are
// POSTs of 100 B to 4 kB, 5 conditional GETs answered 304 without a body, 5
// GETs of something missing answered 404 with a page, the rest GETs answered
// 200 with 200 B to 300 kB (log-uniform, as the decode benchmark's mix: many
// small objects, most bytes in few large ones). Request headers come to 200
// to 900 bytes, cookies making up the difference.
class HttpContent : public WebContent {
public:
    std::uint64_t requests = 0, responses = 0;

    std::uint16_t serverPort(Random&) override { return 80; }

    void exchange(Random& random, PayloadPool& pool, Bytes* request, Bytes* response) override {
        const std::uint32_t kind = random.between(0, 99);
        const bool post = kind < 5, conditional = kind >= 90 && kind < 95, missing = kind >= 95;
        char object[32];
        std::snprintf(object, sizeof object, "%016" PRIx64, random.next());
        std::string head = std::string(post ? "POST /upload/" : "GET /objects/") + object +
                           " HTTP/1.1\r\nHost: www.example.com\r\nUser-Agent: loom-bench/1.0\r\n"
                           "Accept: */*\r\nAccept-Encoding: gzip, deflate, br\r\n";
        Bytes body;
        if (post) {
            body = pool.take(random.between(100, 4000));
            head += "Content-Type: application/octet-stream\r\nContent-Length: " + std::to_string(body.size()) + "\r\n";
        }
        if (conditional) head += std::string("If-None-Match: \"") + object + "\"\r\n";
        const std::size_t size = random.between(200, 900);
        constexpr std::string_view kCookie = "Cookie: session=";
        if (head.size() + kCookie.size() + 4 < size)
            head += std::string(kCookie) + std::string(size - head.size() - kCookie.size() - 4, 'c') + "\r\n";
        head += "\r\n";
        *request = message(head, body);

        head = "HTTP/1.1 ";
        body.clear();
        if (conditional) {
            head += std::string("304 Not Modified\r\nETag: \"") + object + "\"\r\n";
        } else if (missing) {
            static const std::string page = "<html><body><h1>Not Found</h1></body></html>\n";
            body.assign(page.begin(), page.end());
            head += "404 Not Found\r\nContent-Type: text/html\r\n";
        } else {
            body = pool.take(random.logBetween(200, 300'000));
            head += "200 OK\r\nContent-Type: application/octet-stream\r\nCache-Control: max-age=3600\r\n";
        }
        head += "Date: Tue, 14 Nov 2023 22:13:20 GMT\r\nServer: loom-bench\r\n";
        if (!conditional) head += "Content-Length: " + std::to_string(body.size()) + "\r\n";
        head += "\r\n";
        *response = message(head, body);
        ++requests, ++responses;
    }

private:
    static Bytes message(const std::string& head, const Bytes& body) {
        Bytes bytes(head.begin(), head.end());
        bytes.insert(bytes.end(), body.begin(), body.end());
        return bytes;
    }
};

// --- The passes ---------------------------------------------------------------

struct Result {
    double cpu = 0, wall = 0;
    std::uint64_t requests = 0, responses = 0;
};

template <class Run>
Result timed(Run run) {
    Result result;
    const auto start = std::chrono::steady_clock::now();
    const double cpuStart = threadSeconds();
    run(result);
    result.cpu = threadSeconds() - cpuStart;
    result.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return result;
}

bool isClient(std::uint16_t port) { return port >= kFirstClientPort; }

class CountingDelegate : public PXHTTPStreamAnalyzerDelegate {
public:
    explicit CountingDelegate(Result& result) : result_(result) {}
    Value httpStreamAnalyzer(PXHTTPStreamAnalyzer&, const std::optional<ByteBuffer>&, const std::string*, std::string*,
                             const std::shared_ptr<Object>&) override {
        return {};
    }
    Value httpStreamAnalyzer(PXHTTPStreamAnalyzer&, const PXHTTPRequest::Ptr&) override {
        ++result_.requests;
        return {};
    }
    void httpStreamAnalyzer(PXHTTPStreamAnalyzer&, const PXHTTPResponse::Ptr&, const Value&) override {
        ++result_.responses;
    }

private:
    Result& result_;
};

// Not inlined, so that callgrind's --toggle-collect can find the passes.
[[gnu::noinline]] Result exchangesWithWireloom(const std::string& path) {
    return timed([&](Result& result) {
        std::string error;
        auto file = PXCaptureFile::open(path, &error);
        if (!file) {
            std::fprintf(stderr, "%s\n", error.c_str());
            return;
        }
        auto capture = PXNetworkCapture::captureWithNullDevice();
        auto table = PXTCPFlowTable::initWithCapture(capture);
        auto delegate = std::make_shared<CountingDelegate>(result);
        std::unordered_map<const PXTCPFlow*, PXHTTPStreamAnalyzer::Ptr> analyzers;
        NotificationCenter& center = NotificationCenter::defaultCenter();
        center.addObserver(
            &analyzers, kPXTCPFlowDetectedNotificationName,
            [&](const Notification& n) {
                auto flow = n.userInfo.at("flow").object<PXTCPFlow>();
                analyzers[flow.get()] =
                    PXHTTPStreamAnalyzer::initWithTCPFlow(flow, delegate, isClient(flow->endpoint0Port()));
            },
            table.get());
        center.addObserver(
            &analyzers, kPXTCPFlowEndedNotificationName,
            [&](const Notification& n) {
                const auto found = analyzers.find(n.userInfo.at("flow").object<PXTCPFlow>().get());
                if (found == analyzers.end()) return;
                found->second->invalidate();
                analyzers.erase(found);
            },
            table.get());
        if (!capture->replayCaptureFile(*file, &error)) std::fprintf(stderr, "%s\n", error.c_str());
        table->invalidate();
        center.removeObserver(&analyzers);
    });
}

// Cuts one direction of a stream into HTTP messages the way the analyser
// delimits them: a header block, then a body of Content-Length bytes, if
// the header has that field. Bodies are skipped, not kept.
class ContentLengthFramer {
public:
    // How many messages the bytes completed.
    std::uint64_t feed(const std::vector<std::uint8_t>& payload) {
        const std::uint8_t* data = payload.data();
        std::size_t size = payload.size();
        std::uint64_t messages = 0;
        while (size) {
            if (bodyLeft_) {
                const std::size_t take = static_cast<std::size_t>(std::min<std::uint64_t>(bodyLeft_, size));
                data += take, size -= take, bodyLeft_ -= take;
                messages += bodyLeft_ == 0;
                continue;
            }
            const std::size_t before = header_.size();
            header_.append(reinterpret_cast<const char*>(data), size);
            // The blank line may straddle the previous payload's end.
            const std::size_t end = header_.find("\r\n\r\n", before >= 3 ? before - 3 : 0);
            if (end == std::string::npos) return messages;
            const std::size_t used = end + 4 - before;
            data += used, size -= used;
            bodyLeft_ = contentLength(std::string_view(header_).substr(0, end + 2));
            header_.clear();
            messages += bodyLeft_ == 0;
        }
        return messages;
    }

private:
    static std::uint64_t contentLength(std::string_view header) {
        constexpr std::string_view kField = "\r\nContent-Length: ";
        const std::size_t at = header.find(kField);
        if (at == std::string_view::npos) return 0;
        return std::strtoull(header.data() + at + kField.size(), nullptr, 10);
    }

    std::string header_;
    std::uint64_t bodyLeft_ = 0;
};

[[gnu::noinline]] Result exchangesWithLibtins(const std::string& path) {
    return timed([&](Result& result) {
        Tins::TCPIP::StreamFollower follower;
        follower.new_stream_callback([&](Tins::TCPIP::Stream& stream) {
            // Each payload is emptied once its callback has run.
            stream.auto_cleanup_payloads(true);
            auto client = std::make_shared<ContentLengthFramer>(), server = std::make_shared<ContentLengthFramer>();
            stream.client_data_callback(
                [&result, client](Tins::TCPIP::Stream& s) { result.requests += client->feed(s.client_payload()); });
            stream.server_data_callback(
                [&result, server](Tins::TCPIP::Stream& s) { result.responses += server->feed(s.server_payload()); });
        });
        Tins::FileSniffer sniffer(path);
        sniffer.sniff_loop([&](Tins::Packet& packet) {
            follower.process_packet(packet);
            return true;
        });
    });
}

// The number after `label` in the command's summary.
std::uint64_t summaryCount(const std::string& text, const std::string& label) {
    const std::size_t at = text.find(label);
    return at == std::string::npos ? 0 : std::strtoull(text.c_str() + at + label.size(), nullptr, 10);
}

bool exchangesWithCommand(const std::string& wireloom, const std::string& path, Result* result) {
    ProcessRun run;
    if (!runProcess({wireloom, "read", path, "--http", "--format", "none"}, &run)) return false;
    *result = {run.cpu, run.wall, summaryCount(run.output, "HTTP requests: "),
               summaryCount(run.output, "HTTP responses: ")};
    return true;
}

// tshark prints one line per frame holding requests, their methods joined
// by commas where requests were pipelined; it lists no responses here.
bool requestsWithTshark(const std::string& path, Result* result) {
    ProcessRun run;
    // Quiet: tshark warns on every run as root.
    if (!runProcess({"tshark", "-r", path, "-o", "tcp.reassemble_out_of_order:TRUE", "-Y", "http.request", "-T",
                     "fields", "-e", "http.request.method"},
                    &run, true))
        return false;
    *result = {run.cpu, run.wall, 0, 0};
    for (char c : run.output) result->requests += c == '\n' || c == ',';
    return true;
}

struct Pass {
    const char* name;
    const char* what;
    std::vector<Result> runs;
};

const char* verdict(bool met) { return met ? "met" : "MISSED"; }

}  // namespace

int main(int argc, char** argv) {
    CommonOptions options{200};
    std::string wireloom = WIRELOOM_CLI, writeOnly;
    for (int i = 1; i < argc; i += 2) {
        const std::string option = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (value && options.parse(option, value)) continue;
        if (value && option == "--wireloom")
            wireloom = value;
        else if (value && option == "--write-capture")
            writeOnly = value;
        else {
            std::fprintf(stderr,
                         "usage: %s [--megabytes N] [--repetitions N] [--only NAME] [--wireloom PATH]\n"
                         "       %s --write-capture FILE [--megabytes N]\n",
                         argv[0], argv[0]);
            return 2;
        }
    }

    HttpContent content;
    WebCapture capture = WebTrafficGenerator(20240611, content).generate(options.megabytes * 1000000);
    TemporaryCapture temporary;
    const std::string path = writeOnly.empty() ? temporary.path : writeOnly;
    if (!writePcap(path, DLT_EN10MB, capture.frames)) {
        std::fprintf(stderr, "cannot write %s\n", path.c_str());
        return 1;
    }
    if (!writeOnly.empty()) return 0;
    const double fileBytes = static_cast<double>(capture.fileSize());
    const std::uint64_t exchanges = content.requests;

    std::printf("Machine: %ld cores, %s\nBuild: %s\n", sysconf(_SC_NPROCESSORS_ONLN), cpuModel().c_str(),
                WIRELOOM_BENCH_BUILD);
    std::printf("Capture: %zu frames, %.1f MB file, %" PRIu64 " conversations, %zu open at a time\n",
                capture.frames.size(), fileBytes / 1e6, capture.conversations, kConcurrentConversations);
    std::printf("  %" PRIu64 " requests and as many responses; stream bytes %" PRIu64 " client to server, %" PRIu64
                " server to client\n",
                exchanges, capture.sent[0], capture.sent[1]);
    std::printf("  of %" PRIu64 " data segments: %" PRIu64 " swapped with the next, %" PRIu64 " sent again (%" PRIu64
                " overlapping the next)\n",
                capture.dataSegments, capture.swapped, capture.repeated, capture.overlapping);
    capture.frames = {};

    std::vector<Pass> passes = {
        {"wireloom", "file, null-device capture, TCP flow table, an HTTP analyser per flow, counting delegate", {}},
        {"libtins", "FileSniffer, StreamFollower, a Content-Length framer per direction", {}},
        {"wireloom-read", "`wireloom read FILE --http --format none`, a process", {}},
        {"tshark",
         "`tshark -r FILE -o tcp.reassemble_out_of_order:TRUE -Y http.request -T fields -e "
         "http.request.method`, a process",
         {}},
    };
    if (!keepOnly(passes, options.only)) return 2;

    bool agreed = true;
    for (int rep = 0; rep < options.repetitions; ++rep) {
        for (std::size_t i = 0; i < passes.size(); ++i) {
            Pass& pass = passes[(i + static_cast<std::size_t>(rep)) % passes.size()];
            const std::string name = pass.name;
            Result result;
            bool ran = true;
            if (name == "wireloom")
                result = exchangesWithWireloom(path);
            else if (name == "libtins")
                result = exchangesWithLibtins(path);
            else if (name == "wireloom-read")
                ran = exchangesWithCommand(wireloom, path, &result);
            else
                ran = requestsWithTshark(path, &result);
            if (!ran) {
                std::fprintf(stderr, "the %s pass failed\n", pass.name);
                return 1;
            }
            // tshark lists only the requests here.
            if (result.requests != exchanges || (name != "tshark" && result.responses != exchanges)) {
                std::fprintf(stderr,
                             "*** %s counted %" PRIu64 " requests and %" PRIu64 " responses; the capture holds %" PRIu64
                             " of each\n",
                             pass.name, result.requests, result.responses, exchanges);
                agreed = false;
            }
            pass.runs.push_back(result);
        }
    }

    std::printf(
        "\nmedians of %d runs; CPU time (wall time): the thread's for passes in this process, user +\n"
        "system for processes\n",
        options.repetitions);
    std::unordered_map<std::string, double> cpuOf;
    for (const Pass& pass : passes) {
        std::vector<double> cpu, wall;
        for (const Result& r : pass.runs) cpu.push_back(r.cpu), wall.push_back(r.wall);
        const double c = median(cpu), w = median(wall);
        cpuOf[pass.name] = c;
        std::printf("\n%s: %s\n", pass.name, pass.what);
        std::printf("  %.3f s CPU (%.3f s wall): %.1f MB/s of file (%.1f wall), %.0f exchanges/s\n", c, w,
                    fileBytes / c / 1e6, fileBytes / w / 1e6, static_cast<double>(exchanges) / c);
        std::printf("  counted %" PRIu64 " requests, %" PRIu64 " responses; runs, s CPU/wall:",
                    pass.runs.back().requests, pass.runs.back().responses);
        for (const Result& r : pass.runs) std::printf(" %.3f/%.3f", r.cpu, r.wall);
        std::printf("\n");
    }
    std::printf("\n");
    // How many times faster than b a is, against a goal.
    const auto ratio = [&](const char* a, const char* b, double goal) {
        if (!cpuOf.count(a) || !cpuOf.count(b)) return;
        const double times = cpuOf[b] / cpuOf[a];
        std::printf("%s / %s: %.2f; goal at least %.1f: %s\n", a, b, times, goal, verdict(times >= goal));
    };
    ratio("wireloom", "libtins", 1.0);
    ratio("wireloom-read", "tshark", 30);
    ratio("wireloom", "tshark", 30);
    if (!agreed) std::fprintf(stderr, "\n*** the passes did not count what the capture holds\n");
    return agreed ? 0 : 1;
}
