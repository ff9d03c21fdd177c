// wireloom's HTTP exchanges in a capture of real clients and servers talking
// on lo, beside tshark's reading of the same file. Needs root (to capture),
// tcpdump, tshark, curl and python3; skips with the reason otherwise.
#include <gtest/gtest.h>
#include "support/Paths.hpp"
#include "support/Processes.hpp"

#include <unistd.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using namespace wireloom::testing;

namespace {

// What one TCP connection carried, as either tool lists it. The requests
// are a multiset: tshark lists pipelined requests together, wireloom pairs
// them with the responses its own way, but both see the same requests.
struct Connection {
    std::multiset<std::pair<std::string, std::string>> requests;  // method, resource
    std::vector<long long> statusCodes;                           // in the order sent
    std::vector<long long> bodyLengths;                           // of the responses, in order
};

// Connections by their two ports, the lower first: on lo the client's
// ephemeral port tells them apart.
using Connections = std::map<std::pair<int, int>, Connection>;

std::pair<int, int> portPair(int a, int b) { return {std::min(a, b), std::max(a, b)}; }

// "a,b,c" as its parts; tshark joins a field's occurrences in one frame so.
std::vector<std::string> occurrences(const std::string& field) {
    std::vector<std::string> parts;
    if (field.empty()) return parts;
    std::istringstream in(field);
    for (std::string part; std::getline(in, part, ',');) parts.push_back(part);
    return parts;
}

Connections tsharkConnections(const std::string& capture, const std::vector<int>& serverPorts) {
    std::string command = "tshark -r " + capture + " -o tcp.reassemble_out_of_order:TRUE";
    for (int port : serverPorts) command += " -d tcp.port==" + std::to_string(port) + ",http";
    command +=
        " -Y http -T fields -E separator=/t -e tcp.srcport -e tcp.dstport -e http.request.method"
        " -e http.request.uri -e http.response.code -e http.content_length_header 2>/dev/null";
    Connections connections;
    std::istringstream lines(output(command));
    for (std::string line; std::getline(lines, line);) {
        std::vector<std::string> fields;
        std::istringstream in(line);
        for (std::string field; std::getline(in, field, '\t');) fields.push_back(field);
        fields.resize(6);
        Connection& connection = connections[portPair(std::stoi(fields[0]), std::stoi(fields[1]))];
        const std::vector<std::string> methods = occurrences(fields[2]), uris = occurrences(fields[3]);
        for (std::size_t i = 0; i < methods.size() && i < uris.size(); ++i)
            connection.requests.emplace(methods[i], uris[i]);
        for (const std::string& code : occurrences(fields[4])) connection.statusCodes.push_back(std::stoll(code));
        if (!fields[4].empty())
            for (const std::string& length : occurrences(fields[5]))
                connection.bodyLengths.push_back(std::stoll(length));
    }
    return connections;
}

// From `read --http --format json`; also keeps the lines, for closer looks.
Connections wireloomConnections(const std::string& jsonLines, std::vector<nlohmann::json>* exchanges) {
    Connections connections;
    std::istringstream lines(jsonLines);
    for (std::string line; std::getline(lines, line);) {
        nlohmann::json exchange = nlohmann::json::parse(line, nullptr, false);
        if (exchange.is_discarded()) {
            ADD_FAILURE() << "not JSON: " << line;
            continue;
        }
        // "127.0.0.1:18811-127.0.0.1:47804"
        const std::string key = exchange["key"];
        const std::size_t dash = key.find('-');
        const int first = std::stoi(key.substr(key.rfind(':', dash) + 1));
        const int second = std::stoi(key.substr(key.rfind(':') + 1));
        Connection& connection = connections[portPair(first, second)];
        if (const auto& request = exchange["request"]; !request.is_null())
            connection.requests.emplace(request["method"], request["resource"]);
        if (const auto& response = exchange["response"]; !response.is_null()) {
            connection.statusCodes.push_back(response["statusCode"]);
            connection.bodyLengths.push_back(
                response["bodyLength"].is_null() ? -1 : response["bodyLength"].get<long long>());
        }
        exchanges->push_back(std::move(exchange));
    }
    return connections;
}

bool hasRequest(const Connection& connection, const std::string& method) {
    return std::any_of(connection.requests.begin(), connection.requests.end(),
                       [&](const auto& request) { return request.first == method; });
}

}  // namespace

// Five connections: curl and python's HTTP/1.0 server; curl fetching two files
// and a missing one over one kept-alive connection; a HEAD; two POSTs kept
// alive, answered with a binary property list and with JSON; and two
// requests pipelined in one send.
TEST(RealHttpCapture, ExchangesAgreeWithTshark) {
    const fs::path wireloom = binaryDir() / "cli" / "wireloom";
    if (!fs::exists(wireloom)) GTEST_SKIP() << "the wireloom command was not built";
    if (geteuid() != 0) GTEST_SKIP() << "capturing on lo needs root";
    for (const char* program : {"tcpdump", "tshark", "curl", "python3"})
        if (!have(program)) GTEST_SKIP() << program << " is not installed";

    const fs::path dir = fs::path(::testing::TempDir()) / ("wireloom-http-" + std::to_string(getpid()));
    const fs::path site = dir / "site";
    fs::create_directories(site);
    std::ofstream(site / "one.txt") << "first file\n";
    std::ofstream(site / "old.txt") << "served by HTTP/1.0\n";
    // Larger than one loopback segment.
    std::string two(70'000, '\0');
    std::mt19937 random(7);
    for (char& c : two) c = static_cast<char>(random());
    std::ofstream(site / "two.bin", std::ios::binary) << two;
    output(
        "python3 -c \"import plistlib,sys; sys.stdout.buffer.write(plistlib.dumps("
        "{'name': 'loom', 'tries': 2}, fmt=plistlib.FMT_BINARY))\" > " +
        (dir / "ask.plist").string());

    const int oldPort = 24000 + getpid() % 2000, keptPort = 26000 + getpid() % 2000;
    const std::string old = "http://127.0.0.1:" + std::to_string(oldPort);
    const std::string kept = "http://127.0.0.1:" + std::to_string(keptPort);
    const std::string helper = (sourceDir() / "tests" / "cli" / "loopback_http.py").string();
    const std::string capture = (dir / "lo.pcap").string();
    const std::string oldPid =
        spawn("python3 -u -m http.server " + std::to_string(oldPort) + " --bind 127.0.0.1 --directory " + site.string(),
              dir / "old.log");
    const std::string keptPid =
        spawn("python3 -u " + helper + " serve " + std::to_string(keptPort) + " " + site.string(), dir / "kept.log");
    const std::string dumpPid =
        spawn("tcpdump -Z root -s 0 -B 131072 --immediate-mode -i lo -U -w " + capture + " tcp port " +
                  std::to_string(oldPort) + " or tcp port " + std::to_string(keptPort),
              dir / "tcpdump.log");
    waitFor(dir / "old.log", "Serving HTTP");
    waitFor(dir / "kept.log", "serving");
    waitFor(dir / "tcpdump.log", "listening on");

    output("curl -s -o /dev/null " + old + "/old.txt");
    output("curl -s -o /dev/null -o /dev/null -o /dev/null " + kept + "/one.txt " + kept + "/two.bin " + kept +
           "/missing.txt");
    output("curl -s -I " + kept + "/one.txt");
    const std::string answers =
        output("curl -s -H 'Content-Type: application/x-apple-binary-plist' --data-binary @" +
               (dir / "ask.plist").string() + " " + kept + "/plist -o /dev/null --next -s -H 'Content-Type: " +
               "application/json' --data-binary '{\"weave\": \"plain\"}' " + kept + "/json");
    ASSERT_NE(answers.find("\"weave\": \"plain\""), std::string::npos) << answers;
    output("python3 " + helper + " pipeline " + std::to_string(keptPort) + " /two.bin /one.txt");
    std::this_thread::sleep_for(std::chrono::seconds(1));
    std::system(("kill " + dumpPid + " " + oldPid + " " + keptPid + " 2>/dev/null").c_str());
    waitFor(dir / "tcpdump.log", "dropped by kernel");
    const std::string log = output("cat " + (dir / "tcpdump.log").string());
    ASSERT_NE(log.find("\n0 packets dropped by kernel"), std::string::npos) << log;

    const Connections expected = tsharkConnections(capture, {oldPort, keptPort});
    std::vector<nlohmann::json> exchanges;
    const Connections found =
        wireloomConnections(output(wireloom.string() + " read " + capture + " --http --format json 2>&1"), &exchanges);
    ASSERT_EQ(expected.size(), 5u);
    ASSERT_EQ(found.size(), expected.size());

    for (const auto& [ports, theirs] : expected) {
        SCOPED_TRACE("ports " + std::to_string(ports.first) + " and " + std::to_string(ports.second));
        const auto mine = found.find(ports);
        ASSERT_NE(mine, found.end());
        EXPECT_EQ(mine->second.requests, theirs.requests);
        if (hasRequest(theirs, "HEAD")) {
            // The answer to a HEAD announces the length of a body it never
            // sends. Bodies are delimited by Content-Length alone, so the
            // answer waits for those bytes and the connection ends first:
            // the HEAD stays unanswered where tshark, which remembers the
            // method, shows its 200.
            EXPECT_EQ(theirs.statusCodes, std::vector<long long>{200});
            EXPECT_TRUE(mine->second.statusCodes.empty());
            continue;
        }
        EXPECT_EQ(mine->second.statusCodes, theirs.statusCodes);
        EXPECT_EQ(mine->second.bodyLengths, theirs.bodyLengths);
    }

    const auto exchange = [&](const std::string& method, const std::string& resource) -> const nlohmann::json& {
        for (const nlohmann::json& e : exchanges)
            if (!e["request"].is_null() && e["request"]["method"] == method && e["request"]["resource"] == resource)
                return e;
        static const nlohmann::json none;
        ADD_FAILURE() << "no exchange for " << method << " " << resource;
        return none;
    };
    // The property lists both ways, decoded; the JSON answer is no plist.
    const nlohmann::json& plist = exchange("POST", "/plist");
    EXPECT_EQ(plist["request"]["plist"], nlohmann::json({{"name", "loom"}, {"tries", 2}}));
    EXPECT_EQ(plist["response"]["plist"],
              nlohmann::json({{"greeting", "hello loom"}, {"tries", 3}, {"ok", true}, {"items", {"warp", "weft"}}}));
    EXPECT_EQ(plist["response"]["error"], nullptr);
    EXPECT_FALSE(exchange("POST", "/json")["response"].contains("plist"));
    EXPECT_EQ(exchange("GET", "/old.txt")["response"]["version"], "1.0");
    EXPECT_EQ(exchange("GET", "/missing.txt")["response"]["error"], "Response is not 200 OK");
    // Pipelined: the answers come in order, the first (two.bin's) paired by
    // the one slot with the latest request, the second with nothing.
    const std::multiset<std::pair<std::string, std::string>> pipelined = {{"GET", "/two.bin"}, {"GET", "/one.txt"}};
    const auto connection =
        std::find_if(found.begin(), found.end(), [&](const auto& c) { return c.second.requests == pipelined; });
    ASSERT_NE(connection, found.end());
    EXPECT_EQ(connection->second.bodyLengths, (std::vector<long long>{70'000, 11}));

    EXPECT_EQ(output(wireloom.string() + " read " + capture + " --http --format none"),
              "HTTP requests: 9\nHTTP responses: 8\nHTTP errors: 1\n");
    fs::remove_all(dir);
}
