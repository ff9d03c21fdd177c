// How fast the report filter's index answers a word over 1,000,000 records
// of report text, beside `grep -c -F` over the same index file and a plain
// memmem scan of it, in one process run; and what indexing costs in memory.
//
//   filter_benchmark [--records 1000000] [--repetitions 5] [--only NAME]
//
// The passes, each for the words of 4, 8 and 32 bytes and for all three at
// once (one call of the index, three greps, three scans):
//
//   index    WLFilterIndexer::indexesContainingText, thread CPU time
//   grep     LC_ALL=C grep -c -F -e WORD FILE, the child's CPU time
//   memmem   the file read through a 2 MiB buffer, memmem over each piece
//
// Each runs --repetitions times, the passes in an order that rotates each
// repetition; the figures are medians. Before any is timed, the index's
// answers are checked against the records that were generated with each
// word.

#include "TrafficMix.hpp"
#include "support/StubEntrySource.hpp"

#include <Wireloom/report/PXReportAnalyzerFilter.hpp>
#include <Wireloom/report/WLFilterIndexer.hpp>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace wireloom;
using namespace wireloom::bench;

// The words searched for, and how often the generator puts each in a record.
const std::vector<std::string> kWords = {"post", "/api/v2/", "accept-language: de-ch, fr;q=0.8"};
constexpr double kWordShare[] = {0.08, 0.03, 0.01};

// Report text of the kind the command indexes for a frame, lower-cased:
// layer names, addresses, ports, sequence numbers and an application line,
// about 200 bytes.
class ReportText {
public:
    explicit ReportText(std::uint64_t seed) : random_(seed) {}

    std::string next(std::uint64_t number) {
        std::string text = "frame " + std::to_string(number) + "\nethernet 02:00:5e:10:" + hex2() + ":" + hex2() +
                           " => 0a:1b:2c:3d:4e:" + hex2() + "\n";
        const bool v6 = random_.chance(0.1);
        text += v6 ? "ipv6 2001:db8:" + std::to_string(random_.between(1, 99)) +
                         "::" + std::to_string(random_.between(1, 999))
                   : "ipv4 10." + std::to_string(random_.between(0, 255)) + "." +
                         std::to_string(random_.between(0, 255)) + "." + std::to_string(random_.between(1, 254));
        text += " => 203.0.113." + std::to_string(random_.between(1, 254)) + "\n";
        const std::uint32_t kind = random_.between(0, 99);
        if (kind < 15) {
            text += "udp " + std::to_string(random_.between(1024, 65535)) + " => 53 size " +
                    std::to_string(random_.between(30, 500)) + " bytes\ndns query a " + host() + " id " +
                    std::to_string(random_.between(0, 65535)) + "\n";
        } else if (kind < 20) {
            text += "udp 5353 => 5353 mdns _" + service() + "._tcp.local ptr " + host() + " ttl 4500\n";
        } else {
            text += "tcp " + std::to_string(random_.between(1024, 65535)) + " => " + (kind < 40 ? "443" : "80") +
                    " seq " + std::to_string(random_.next() % 4294967296) + " ack " +
                    std::to_string(random_.next() % 4294967296) + " flags ack psh\n";
            text += kind < 40 ? "tls application data length " + std::to_string(random_.between(20, 16000)) + "\n"
                              : request();
        }
        return text;
    }

private:
    std::string hex2() {
        static constexpr char kHex[] = "0123456789abcdef";
        const std::uint32_t v = random_.between(0, 255);
        return {kHex[v >> 4], kHex[v & 15]};
    }
    std::string host() {
        static const char* const kHosts[] = {"www.example.org",  "cdn.example.net",  "api.example.com",
                                             "mail.example.org", "time.example.com", "shop.example.net"};
        return kHosts[random_.between(0, 5)];
    }
    std::string service() {
        static const char* const kServices[] = {"airplay",        "raop",       "ipp",
                                                "companion-link", "googlecast", "spotify-connect"};
        return kServices[random_.between(0, 5)];
    }
    std::string request() {
        std::string method = random_.chance(kWordShare[0] / 0.6) ? "post" : "get";
        std::string path = random_.chance(kWordShare[1] / 0.6) ? "/api/v2/items/" : "/static/img/";
        std::string line =
            method + " " + path + std::to_string(random_.between(1, 99999)) + " http/1.1\nhost: " + host() + "\n";
        line += random_.chance(kWordShare[2] / 0.6) ? kWords[2] + "\n" : "accept: */*\n";
        return line;
    }

    Random random_;
};

long residentKilobytes() {
    std::ifstream statm("/proc/self/statm");
    long pages = 0, resident = 0;
    statm >> pages >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// grep's count of lines, and the CPU seconds the child took.
std::pair<long, double> grepCount(const std::string& word, const std::string& path) {
    ProcessRun run;
    if (!runProcess({"grep", "-c", "-F", "-e", word, path}, &run)) return {-1, 0};
    return {std::atol(run.output.c_str()), run.cpu};
}

// Occurrences of the word, the file read as the index reads it.
long memmemCount(const std::string& word, int fd, std::int64_t length, std::vector<char>& buffer) {
    long count = 0;
    const std::size_t keep = word.size() - 1;  // a match may straddle two reads
    std::size_t held = 0;
    for (std::int64_t offset = 0; offset < length;) {
        const ssize_t got = pread(fd, buffer.data() + held, buffer.size() - held, offset);
        if (got <= 0) break;
        offset += got;
        const std::size_t size = held + static_cast<std::size_t>(got);
        const char* at = buffer.data();
        const char* end = buffer.data() + size;
        while (
            (at = static_cast<const char*>(memmem(at, static_cast<std::size_t>(end - at), word.data(), word.size())))) {
            ++count;
            at += word.size();
        }
        held = std::min(keep, size);
        std::memmove(buffer.data(), end - held, held);
    }
    return count;
}

// A source that makes its text when asked, as a packet builds its entry: it
// holds nothing but its number.
class NumberedSource : public wireloom::testing::StubEntrySource {
public:
    explicit NumberedSource(std::uint64_t number) : number_(number) {}
    std::string representativeFilterText() override { return ReportText(number_).next(number_); }

private:
    std::uint64_t number_;
};

// In a child process, so that the parent's heap does not blur it: the
// resident size with the sources made, then after a filter has taken them
// all in one append. With `texts` each source's text is indexed; without,
// every source has an empty text and decides for itself, so the filter keeps
// the same lists but indexes nothing. The difference is what the texts cost.
struct FilterMemory {
    double sourcesMB = 0, filterMB = 0, seconds = 0;
};

FilterMemory measureFilter(long records, bool texts) {
    int pipeEnds[2];
    if (pipe(pipeEnds) != 0) return {};
    std::fflush(stdout);
    const pid_t child = fork();
    if (child != 0) {
        close(pipeEnds[1]);
        FilterMemory memory;
        if (read(pipeEnds[0], &memory, sizeof memory) != sizeof memory) memory = {};
        close(pipeEnds[0]);
        waitpid(child, nullptr, 0);
        return memory;
    }
    close(pipeEnds[0]);
    std::vector<PXReportAnalyzerFilter::SourcePtr> sources;
    sources.reserve(static_cast<std::size_t>(records));
    const long beforeSources = residentKilobytes();
    for (long i = 0; i < records; ++i)
        sources.push_back(texts ? std::make_shared<NumberedSource>(static_cast<std::uint64_t>(i))
                                : std::make_shared<testing::StubEntrySource>(std::string(), true));
    const long withSources = residentKilobytes();
    const auto wallStart = std::chrono::steady_clock::now();
    auto filter = PXReportAnalyzerFilter::init();
    filter->appendEntrySources(sources);
    FilterMemory memory;
    memory.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();
    memory.sourcesMB = static_cast<double>(withSources - beforeSources) / 1024;
    memory.filterMB = static_cast<double>(residentKilobytes() - withSources) / 1024;
    if (write(pipeEnds[1], &memory, sizeof memory) != sizeof memory) _exit(1);
    _exit(0);
}

void reportFilterMemory(long records) {
    const FilterMemory indexed = measureFilter(records, true);
    const FilterMemory bare = measureFilter(records, false);
    std::printf(
        "Filter, %ld sources appended in one call:\n"
        "  texts indexed:   %.2f s wall (texts built on every core); sources %.1f MB, filter %.1f MB more\n"
        "  no texts:        %.2f s wall; sources %.1f MB, filter %.1f MB more (its lists alone)\n"
        "  the texts cost:  %.1f MB resident (target under 16 MB)\n",
        records, indexed.seconds, indexed.sourcesMB, indexed.filterMB, bare.seconds, bare.sourcesMB, bare.filterMB,
        indexed.filterMB - bare.filterMB);
    std::fflush(stdout);
}

struct Pass {
    std::string name;                // index, grep, memmem
    std::vector<std::string> words;  // one, or all three
    std::function<double()> run;     // CPU seconds
    std::vector<double> cpu, wall;
};

}  // namespace

int main(int argc, char** argv) {
    long records = 1000000;
    int repetitions = 5;
    std::string only;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        if (option == "--records")
            records = std::stol(argv[i + 1]);
        else if (option == "--repetitions")
            repetitions = std::stoi(argv[i + 1]);
        else if (option == "--only")
            only = argv[i + 1];
        else {
            std::fprintf(stderr, "usage: %s [--records N] [--repetitions N] [--only index|grep|memmem]\n", argv[0]);
            return 2;
        }
    }
    std::printf("Machine: %ld cores, %s\nBuild: %s\n", sysconf(_SC_NPROCESSORS_ONLN), cpuModel().c_str(),
                WIRELOOM_BENCH_BUILD);
    // grep compares bytes, as the index does, only in the C locale.
    setenv("LC_ALL", "C", 1);

    // Indexing, with the resident size before and after: the texts are
    // made one at a time and dropped, so what grows is the indexer's.
    const long residentBefore = residentKilobytes();
    std::string error;
    std::unique_ptr<WLFilterIndexer> indexer = WLFilterIndexer::init(&error);
    if (!indexer) {
        std::fprintf(stderr, "no index file: %s\n", error.c_str());
        return 1;
    }
    ReportText generator(20240611);
    std::vector<long> expected(kWords.size());
    std::uint64_t textBytes = 0;
    const double writeStart = threadSeconds();
    for (long i = 0; i < records; ++i) {
        const std::string text = generator.next(static_cast<std::uint64_t>(i));
        for (std::size_t w = 0; w < kWords.size(); ++w) expected[w] += text.find(kWords[w]) != std::string::npos;
        textBytes += text.size();
        indexer->writeFilterText(text, static_cast<std::uint32_t>(i));
    }
    const double writeSeconds = threadSeconds() - writeStart;
    const long residentAfter = residentKilobytes();
    std::printf("Index: %ld records, %.1f bytes of text each, file %.1f MB; written in %.2f s CPU (%.2f us a record)\n",
                records, static_cast<double>(textBytes) / static_cast<double>(records),
                static_cast<double>(indexer->fileLength()) / 1e6, writeSeconds, writeSeconds * 1e6 / records);
    std::printf("Resident size: %ld kB before, %ld kB after indexing: grew %.2f MB (target under 16 MB)\n",
                residentBefore, residentAfter, static_cast<double>(residentAfter - residentBefore) / 1024);

    reportFilterMemory(records);

    // The answers, checked before anything is timed (also the warm-up).
    const std::vector<IndexSet> found = indexer->indexesContainingText(kWords);
    for (std::size_t w = 0; w < kWords.size(); ++w) {
        std::printf("  \"%s\" (%zu bytes): %llu records\n", kWords[w].c_str(), kWords[w].size(),
                    static_cast<unsigned long long>(found[w].count()));
        if (static_cast<long>(found[w].count()) != expected[w]) {
            std::fprintf(stderr, "the index found %llu records with \"%s\", the generator made %ld\n",
                         static_cast<unsigned long long>(found[w].count()), kWords[w].c_str(), expected[w]);
            return 1;
        }
    }

    const int fd = open(indexer->path().c_str(), O_RDONLY);
    std::vector<char> buffer(WLFilterIndexer::kReadBufferSize);
    std::vector<Pass> passes;
    std::vector<std::vector<std::string>> wordSets;
    for (const std::string& word : kWords) wordSets.push_back({word});
    wordSets.push_back(kWords);
    std::uint64_t sink = 0;
    for (const auto& words : wordSets) {
        passes.push_back({"index", words, [&, words] {
                              const double start = threadSeconds();
                              for (const IndexSet& set : indexer->indexesContainingText(words)) sink += set.count();
                              return threadSeconds() - start;
                          }});
        passes.push_back({"grep", words, [&, words] {
                              double seconds = 0;
                              for (const std::string& word : words) {
                                  const auto [count, cpu] = grepCount(word, indexer->path());
                                  sink += static_cast<std::uint64_t>(count);
                                  seconds += cpu;
                              }
                              return seconds;
                          }});
        passes.push_back({"memmem", words, [&, words] {
                              const double start = threadSeconds();
                              for (const std::string& word : words)
                                  sink +=
                                      static_cast<std::uint64_t>(memmemCount(word, fd, indexer->fileLength(), buffer));
                              return threadSeconds() - start;
                          }});
    }
    if (!only.empty()) std::erase_if(passes, [&](const Pass& pass) { return pass.name != only; });

    for (int r = 0; r < repetitions; ++r)
        for (std::size_t k = 0; k < passes.size(); ++k) {
            Pass& pass = passes[(k + static_cast<std::size_t>(r)) % passes.size()];
            const auto wallStart = std::chrono::steady_clock::now();
            pass.cpu.push_back(pass.run());
            pass.wall.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count());
        }
    close(fd);

    std::printf("\nMedians of %d repetitions, milliseconds (CPU; wall in brackets):\n", repetitions);
    std::printf("%-10s %-8s %-10s %-10s %s\n", "words", "index", "grep", "memmem", "grep / index");
    for (const auto& words : wordSets) {
        std::string label = words.size() == 1 ? std::to_string(words[0].size()) + " bytes" : "all three";
        double cpu[3] = {}, wall[3] = {};
        const char* names[] = {"index", "grep", "memmem"};
        for (const Pass& pass : passes)
            for (int n = 0; n < 3; ++n)
                if (pass.words == words && pass.name == names[n])
                    cpu[n] = median(pass.cpu), wall[n] = median(pass.wall);
        std::printf("%-10s %6.1f [%5.1f] %6.1f [%5.1f] %6.1f [%5.1f] %5.2f\n", label.c_str(), cpu[0] * 1e3,
                    wall[0] * 1e3, cpu[1] * 1e3, wall[1] * 1e3, cpu[2] * 1e3, wall[2] * 1e3,
                    cpu[0] > 0 ? cpu[1] / cpu[0] : 0.0);
    }
    std::printf("(sink %llu)\n", static_cast<unsigned long long>(sink));
    return 0;
}
