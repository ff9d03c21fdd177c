// wireloom-make-samples: writes the bundled captures, demo.pcap and
// demo-loopback.pcap, into the folder given on the command line. The build's
// `samples` target runs it on the source tree's samples/.
//
// demo.pcap is a laptop on a home network as its own capture would see it:
// ARP for the gateway, DNS for the web server, HTTP/1.1 over IPv4 and IPv6,
// mDNS service discovery, NTP, syslog, and an IPv6 datagram with a
// hop-by-hop header. demo-loopback.pcap is local services on lo0.
//
// Times, sequence numbers and addresses are all fixed, so every run writes
// the same bytes, and a change to the samples shows up as a change to this
// file or to the frame builders.

#include "support/DnsMessage.hpp"
#include "support/FrameBuilder.hpp"
#include "support/TcpConversation.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace {

using namespace wireloom::testing;

constexpr double kEpoch = 1767225600.0;  // 2026-01-01 00:00:00 UTC, a Thursday
constexpr const char* kDate = "Thu, 01 Jan 2026 00:00:00 GMT";

// The home network. Locally administered MACs, documentation addresses.
const Mac kLaptopMac = mac("0a:1b:2c:3d:4e:10");
const Mac kGatewayMac = mac("0a:1b:2c:3d:4e:01");
const Mac kNasMac = mac("0a:1b:2c:3d:4e:02");
const Mac kDisplayMac = mac("0a:1b:2c:3d:4e:20");
const Mac kMdnsMac = mac("01:00:5e:00:00:fb");
constexpr const char* kLaptop = "192.168.1.10";
constexpr const char* kLaptop6 = "2001:db8:1::10";
constexpr const char* kGateway = "192.168.1.1";
constexpr const char* kGateway6 = "2001:db8:1::1";
constexpr const char* kNas = "192.168.1.2";
constexpr const char* kDisplay = "192.168.1.20";
constexpr const char* kWebServer = "203.0.113.80";
constexpr const char* kWebServer6 = "2001:db8:80::80";
constexpr const char* kMdnsGroup = "224.0.0.251";

Bytes bytesOfArray(const auto& array) { return Bytes(array.begin(), array.end()); }

// --- HTTP ----------------------------------------------------------------------

Bytes httpRequest(const std::string& method, const std::string& path, const std::string& host,
                  const std::string& contentType = {}, const std::string& body = {}) {
    std::string text =
        method + " " + path + " HTTP/1.1\r\nHost: " + host + "\r\nUser-Agent: demo-client/2.1\r\nAccept: */*\r\n";
    if (!contentType.empty())
        text += "Content-Type: " + contentType + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n";
    return bytesOf(text + "\r\n" + body);
}

Bytes httpResponse(const std::string& status, const std::string& contentType, const std::string& body,
                   const std::string& extraHeaders = {}) {
    return bytesOf("HTTP/1.1 " + status + "\r\nDate: " + kDate +
                   "\r\nServer: demo-httpd/1.4\r\nContent-Type: " + contentType +
                   "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + extraHeaders + "\r\n" + body);
}

const std::string kIndexPage = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<title>Example Domain</title>
<link rel="stylesheet" href="/style.css">
</head>
<body>
<main>
<h1>Example Domain</h1>
<p>This domain is for use in illustrative examples in documents. You may use
this domain in literature without prior coordination or asking for permission.</p>
<p><a href="/report.csv">Download the December report</a></p>
</main>
</body>
</html>
)";

const std::string kStyleSheet = R"(body { background: #f0f0f2; margin: 0; font-family: sans-serif; }
main { width: 600px; margin: 5em auto; padding: 2em; background: #fdfdff; border-radius: 0.5em; }
a:link, a:visited { color: #38488f; text-decoration: none; }
)";

// Large enough to need several segments: a month of hourly readings.
std::string reportCsv() {
    std::string csv = "time,sensor,temperature_c,humidity_pct\n";
    char line[64];
    for (int hour = 0; hour < 24 * 10; ++hour) {
        const double temperature = 19.0 + 3.0 * std::sin(hour * 0.2618) + (hour % 7) * 0.1;
        const int humidity = 40 + (hour * 37) % 21;
        std::snprintf(line, sizeof line, "2025-12-%02dT%02d:00:00Z,living-room,%.1f,%d\n", 1 + hour / 24, hour % 24,
                      temperature, humidity);
        csv += line;
    }
    return csv;
}

// --- Other UDP -----------------------------------------------------------------

struct Host {
    Mac mac;
    const char* address;
};

// One host's IPv4 identification counter, shared by its UDP datagrams.
std::uint16_t nextIdentification(const char* address) {
    static std::map<std::string, std::uint16_t> counters;
    auto [it, added] = counters.emplace(address, static_cast<std::uint16_t>(0x1f00 + counters.size() * 0x1000));
    return it->second++;
}

Frame udpFrame(double time, const Host& from, const Host& to, std::uint16_t sourcePort, std::uint16_t destPort,
               const Bytes& payload, std::uint8_t ttl = 64) {
    IPv4Fields fields;
    fields.ttl = ttl;
    fields.identification = nextIdentification(from.address);
    return Frame{time, ethernet(to.mac, from.mac, kEtherTypeIPv4,
                                ipv4(ip4(from.address), ip4(to.address), kProtoUDP, udp(sourcePort, destPort, payload),
                                     fields))};
}

// NTP's 64-bit timestamp: seconds since 1900 and a binary fraction.
void appendNtpTime(Bytes& b, double unixTime) {
    const double seconds = std::floor(unixTime);
    appendBE(b, static_cast<std::uint64_t>(seconds) + 2208988800u, 4);
    appendBE(b, static_cast<std::uint64_t>(std::ldexp(unixTime - seconds, 32)), 4);
}

Bytes ntpPacket(bool server, double originate, double receive, double transmit) {
    Bytes b;
    if (!server) {
        b = {0x23, 0, 0, 0};  // version 4, client, nothing else known
        b.resize(40, 0);
        appendNtpTime(b, transmit);
        return b;
    }
    b = {0x24, 2, 3, 0xe9};               // version 4, server, stratum 2, poll 8 s, precision 2^-23
    appendBE(b, 0x00000a3d, 4);           // root delay
    appendBE(b, 0x00001c29, 4);           // root dispersion
    b.insert(b.end(), {192, 0, 2, 123});  // reference: the upstream server
    appendNtpTime(b, receive - 37.25);
    appendNtpTime(b, originate);
    appendNtpTime(b, receive);
    appendNtpTime(b, transmit);
    return b;
}

// One request and its response on a connection, with the server's time to
// answer and the client's pause before whatever comes next.
struct Exchange {
    Bytes request;
    double serverTime;
    Bytes response;
    double pauseAfter;
};

// A whole connection: the handshake, the exchanges, the client's close.
void connection(TcpConversation conversation, double start, const std::vector<Exchange>& exchanges,
                std::vector<Frame>& frames, std::size_t mss = 1448) {
    double clock = start;
    conversation.open(frames, clock);
    for (const Exchange& exchange : exchanges) {
        conversation.send(true, exchange.request, frames, clock, mss);
        clock += exchange.serverTime;
        conversation.send(false, exchange.response, frames, clock, mss);
        clock += exchange.pauseAfter;
    }
    conversation.close(frames, clock);
}

// --- demo.pcap -------------------------------------------------------------------

std::vector<Frame> demoFrames() {
    std::vector<Frame> frames;
    const Host laptop{kLaptopMac, kLaptop};
    const Host gateway{kGatewayMac, kGateway};

    // The laptop finds its gateway.
    Bytes reply = arpRequest(kGatewayMac, ip4(kGateway), ip4(kLaptop));
    std::copy(kLaptopMac.begin(), kLaptopMac.end(), reply.begin());       // to the laptop
    reply[21] = 2;                                                        // reply
    std::copy(kLaptopMac.begin(), kLaptopMac.end(), reply.begin() + 32);  // target hardware address
    frames.push_back({kEpoch + 0.000120, arpRequest(kLaptopMac, ip4(kLaptop), ip4(kGateway))});
    frames.push_back({kEpoch + 0.001874, reply});

    // It resolves the web server, both families.
    const std::string host = "www.example.com";
    frames.push_back(
        udpFrame(kEpoch + 0.002310, laptop, gateway, 41873, 53, DnsMessage(0x3c5a, 0x0100).ask(host, 1).bytes()));
    frames.push_back(
        udpFrame(kEpoch + 0.002395, laptop, gateway, 52244, 53, DnsMessage(0x91e7, 0x0100).ask(host, 28).bytes()));
    frames.push_back(udpFrame(
        kEpoch + 0.014782, gateway, laptop, 53, 41873,
        DnsMessage(0x3c5a, 0x8180)
            .ask(host, 1)
            .record(DnsMessage::answer, host, 1, 1, 300, [](DnsMessage& m) { m.write(bytesOfArray(ip4(kWebServer))); })
            .bytes()));
    frames.push_back(udpFrame(kEpoch + 0.015106, gateway, laptop, 53, 52244,
                              DnsMessage(0x91e7, 0x8180)
                                  .ask(host, 28)
                                  .record(DnsMessage::answer, host, 28, 1, 300,
                                          [](DnsMessage& m) { m.write(bytesOfArray(ip6(kWebServer6))); })
                                  .bytes()));

    // A browser: the page and its style sheet on one kept-alive connection,
    // the report on a second connection opened meanwhile.
    connection(TcpConversation(1, {kLaptopMac, kLaptop, 51514}, {kGatewayMac, kWebServer, 80}, 0x5b2e1f07, 0xc8d3a410),
               kEpoch + 0.015400,
               {{httpRequest("GET", "/", host), 0.003120,
                 httpResponse("200 OK", "text/html; charset=utf-8", kIndexPage), 0.004570},
                {httpRequest("GET", "/style.css", host), 0.001980,
                 httpResponse("200 OK", "text/css", kStyleSheet, "Cache-Control: max-age=3600\r\n"),
                 4.2}},  // the browser lets the idle connection go
               frames);
    connection(
        TcpConversation(1, {kLaptopMac, kLaptop, 51516}, {kGatewayMac, kWebServer, 80}, 0x0e94c3b1, 0x7f21d865),
        kEpoch + 0.072310,
        {{httpRequest("GET", "/report.csv", host), 0.008760, httpResponse("200 OK", "text/csv", reportCsv()), 0.010}},
        frames);

    // Looking for web servers on the local network.
    const Host mdnsGroup{kMdnsMac, kMdnsGroup};
    const std::string service = "_http._tcp.local";
    const std::string instance = "Kitchen Display." + service;
    const std::string target = "kitchen-display.local";
    frames.push_back(
        udpFrame(kEpoch + 0.412007, laptop, mdnsGroup, 5353, 5353, DnsMessage(0, 0).ask(service, 12).bytes(), 255));
    DnsMessage announcement(0, 0x8400);  // response, authoritative
    announcement.record(DnsMessage::answer, service, 12, 1, 4500, [&](DnsMessage& m) { m.writeName(instance); })
        .record(DnsMessage::additional, instance, 33, 0x8001, 120,
                [&](DnsMessage& m) {
                    m.write(0, 2);   // priority
                    m.write(0, 2);   // weight
                    m.write(80, 2);  // port
                    m.writeName(target);
                })
        .record(DnsMessage::additional, instance, 16, 0x8001, 4500,
                [](DnsMessage& m) {
                    m.writeTxt({"path=/", "model=kd-10"});
                })
        .record(DnsMessage::additional, target, 1, 0x8001, 120,
                [](DnsMessage& m) { m.write(bytesOfArray(ip4(kDisplay))); });
    frames.push_back(
        udpFrame(kEpoch + 0.415388, {kDisplayMac, kDisplay}, mdnsGroup, 5353, 5353, announcement.bytes(), 255));

    // Clock synchronisation with the gateway.
    const double ntpSent = kEpoch + 0.603115;
    const double ntpAnswered = kEpoch + 0.604822;
    frames.push_back(udpFrame(ntpSent, laptop, gateway, 123, 123, ntpPacket(false, 0, 0, ntpSent - 0.000012)));
    frames.push_back(udpFrame(ntpAnswered, gateway, laptop, 123, 123,
                              ntpPacket(true, ntpSent - 0.000012, ntpSent + 0.000811, ntpSent + 0.000834)));

    // A form post.
    connection(TcpConversation(1, {kLaptopMac, kLaptop, 51522}, {kGatewayMac, kWebServer, 80}, 0x9a0c5e72, 0x33b8f1d4),
               kEpoch + 1.180442,
               {{httpRequest("POST", "/api/notes", host, "application/json",
                             R"({"title":"Shopping","text":"Milk, eggs, bread","pinned":false})"),
                 0.006310,
                 httpResponse("201 Created", "application/json",
                              R"({"id":42,"title":"Shopping","created":"2026-01-01T00:00:01Z"})",
                              "Location: /api/notes/42\r\n"),
                 0.25}},
               frames);

    // The same site over IPv6, whose longer header leaves 1428 bytes a segment.
    connection(
        TcpConversation(1, {kLaptopMac, kLaptop6, 51530}, {kGatewayMac, kWebServer6, 80}, 0x61f0a9c3, 0xd45e0b28),
        kEpoch + 1.902650,
        {{httpRequest("GET", "/", host), 0.002870, httpResponse("200 OK", "text/html; charset=utf-8", kIndexPage),
          0.5}},
        frames, 1428);

    // A datagram to the discard port behind a hop-by-hop header (8 bytes,
    // PadN only). The UDP checksum is taken without the extension header,
    // which the pseudo-header does not cover.
    const Bytes probe = ipv6(ip6(kLaptop6), ip6(kGateway6), kProtoUDP, udp(50211, 9, bytesOf("hop-by-hop probe\n")));
    const Bytes datagram(probe.begin() + 40, probe.end());
    frames.push_back({kEpoch + 2.250031,
                      ethernet(kGatewayMac, kLaptopMac, kEtherTypeIPv6,
                               ipv6(ip6(kLaptop6), ip6(kGateway6), 0, ipv6Extension(kProtoUDP, 0, 8, datagram)))});

    // The laptop logs to the NAS.
    frames.push_back(udpFrame(kEpoch + 2.731904, laptop, {kNasMac, kNas}, 45120, 514,
                              bytesOf("<134>1 2026-01-01T00:00:02.731Z laptop demo-client 4242 - - "
                                      "fetched 3 documents from www.example.com")));

    return frames;
}

// --- demo-loopback.pcap ------------------------------------------------------------

std::vector<Frame> loopbackFrames() {
    std::vector<Frame> frames;
    connection(TcpConversation(0, {{}, "127.0.0.1", 52100}, {{}, "127.0.0.1", 8080}, 0x2a7d0c19, 0x8e51b3f6),
               kEpoch + 10.000000,
               {{httpRequest("GET", "/health", "localhost:8080"), 0.000420,
                 httpResponse("200 OK", "application/json", R"({"status":"ok","uptime":86400})"), 0.001}},
               frames);
    connection(TcpConversation(0, {{}, "::1", 52102}, {{}, "::1", 8080}, 0xf3c2a815, 0x4b96e07d), kEpoch + 10.020000,
               {{httpRequest("GET", "/metrics", "[::1]:8080"), 0.000610,
                 httpResponse("200 OK", "text/plain; version=0.0.4",
                              "# TYPE http_requests_total counter\n"
                              "http_requests_total{path=\"/health\"} 1\n"
                              "http_requests_total{path=\"/metrics\"} 1\n"),
                 0.001}},
               frames);
    // A counter for a local statistics daemon.
    IPv4Fields fields;
    fields.identification = 0x6c01;
    frames.push_back(
        {kEpoch + 10.010500, loopback(kLoopbackIPv4, ipv4(ip4("127.0.0.1"), ip4("127.0.0.1"), kProtoUDP,
                                                          udp(53110, 8125, bytesOf("demo.requests:1|c")), fields))});

    return frames;
}

// The conversations are built one after the other; the file has them
// interleaved, in the order of time.
bool write(const std::string& path, int linkLayerType, std::vector<Frame> frames) {
    std::stable_sort(frames.begin(), frames.end(),
                     [](const Frame& a, const Frame& b) { return a.timestamp < b.timestamp; });
    if (!writePcap(path, linkLayerType, frames)) {
        std::fprintf(stderr, "wireloom-make-samples: cannot write %s\n", path.c_str());
        return false;
    }
    std::printf("%s: %zu frames\n", path.c_str(), frames.size());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: wireloom-make-samples DIRECTORY\n");
        return 2;
    }
    const std::string directory = argv[1];
    const bool ok = write(directory + "/demo.pcap", 1, demoFrames()) &&
                    write(directory + "/demo-loopback.pcap", 0, loopbackFrames());
    return ok ? 0 : 1;
}
