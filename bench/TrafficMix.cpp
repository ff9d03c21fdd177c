#include "TrafficMix.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>

extern char** environ;

// Every operator new of the process, the peers' included, comes through here
// so that a pass can count its allocations. A plain increment is noise beside
// malloc; only the main thread ever allocates.
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

namespace wireloom::bench {

namespace {

using namespace wireloom::testing;

class TrafficGenerator {
public:
    explicit TrafficGenerator(std::uint64_t seed) : random_(seed), pool_(random_, 1 << 19) {}

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

    Bytes payload(std::size_t size) { return pool_.take(size); }

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
    PayloadPool pool_;
    double clock_ = 1700000000.0;
};

char gTemporaryPath[256] = "";

void removeTemporaryFile(int signal) {
    if (gTemporaryPath[0]) unlink(gTemporaryPath);
    _exit(128 + signal);
}

}  // namespace

Traffic generateTraffic(std::uint64_t seed, std::uint64_t byteBudget) {
    return TrafficGenerator(seed).generate(byteBudget);
}

std::uint64_t captureFileSize(const Traffic& traffic) { return 24 + 16 * traffic.frames.size() + traffic.bytes; }

TemporaryCapture::TemporaryCapture() {
    const char* dir = std::getenv("TMPDIR");
    std::snprintf(gTemporaryPath, sizeof gTemporaryPath, "%s/wireloom-bench-XXXXXX.pcap", dir && *dir ? dir : "/tmp");
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

TemporaryCapture::~TemporaryCapture() {
    unlink(path.c_str());
    gTemporaryPath[0] = 0;
}

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

bool CommonOptions::parse(const std::string& option, const char* value) {
    if (option == "--megabytes")
        megabytes = std::max<std::uint64_t>(1, std::strtoull(value, nullptr, 10));
    else if (option == "--repetitions")
        repetitions = std::max(1, std::atoi(value));
    else if (option == "--only")
        only = value;
    else
        return false;
    return true;
}

std::uint64_t allocationCount() noexcept { return gAllocations; }

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

std::string cpuModel() {
    std::ifstream cpuinfo("/proc/cpuinfo");
    for (std::string line; std::getline(cpuinfo, line);)
        if (line.rfind("model name", 0) == 0) return line.substr(line.find(':') + 2);
    return "unknown";
}

bool runProcess(const std::vector<std::string>& argv, ProcessRun* run, bool quiet) {
    int out[2];
    if (pipe(out) != 0) return false;
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    if (quiet) posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    const auto start = std::chrono::steady_clock::now();
    pid_t pid = 0;
    const int failed = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    run->output.clear();
    char buffer[65536];
    for (ssize_t n; (n = read(out[0], buffer, sizeof buffer)) > 0;)
        run->output.append(buffer, static_cast<std::size_t>(n));
    close(out[0]);
    if (failed) {
        std::fprintf(stderr, "cannot start %s: %s\n", args[0], std::strerror(failed));
        return false;
    }
    int status = 0;
    rusage usage{};
    if (wait4(pid, &status, 0, &usage) != pid) return false;
    run->wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6;
    };
    run->cpu = seconds(usage.ru_utime) + seconds(usage.ru_stime);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "%s failed (status %d)\n", args[0], status);
        return false;
    }
    return true;
}

}  // namespace wireloom::bench
