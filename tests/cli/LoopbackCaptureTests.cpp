// wireloom on captures of real traffic on lo: curl and python's servers,
// captured by wireloom itself or by tcpdump, and read back beside tshark's
// reading of the same file. Needs root (to capture), tcpdump, tshark, curl
// and python3; skips with the reason otherwise.
#include "CommandText.hpp"
#include "support/Processes.hpp"

#include <gtest/gtest.h>

#include <unistd.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <functional>
#include <map>
#include <random>
#include <set>

namespace fs = std::filesystem;
using namespace wireloom::testing;
using nlohmann::json;

namespace {

// Servers and capturers in the background for one test, all stopped (and
// their folder removed) when it ends, however it ends.
class Loopback : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fs::exists(wireloomCommand())) GTEST_SKIP() << "the wireloom command was not built";
        if (geteuid() != 0) GTEST_SKIP() << "capturing on lo needs root";
        for (const char* program : {"tcpdump", "tshark", "curl", "python3"})
            if (!have(program)) GTEST_SKIP() << program << " is not installed";
        fs::create_directories(site);
    }
    void TearDown() override {
        stop();
        fs::remove_all(dir);
    }

    // Each test process its own ports: ctest runs them side by side.
    static int port(int base) { return base + getpid() % 2000; }
    static std::string url(int port) { return "http://127.0.0.1:" + std::to_string(port); }

    // Runs `command` until stop() sends it `signal`, once its log says `ready`.
    void start(const std::string& command, const std::string& log, const std::string& ready,
               const std::string& signal = "TERM") {
        running_.push_back("kill -" + signal + " " + spawn(command, dir / log));
        if (!waitFor(dir / log, ready))
            ADD_FAILURE() << log << " never said \"" << ready << "\":\n" << slurp(dir / log);
    }
    void serveSite(int port) {
        start("python3 -u -m http.server " + std::to_string(port) + " --bind 127.0.0.1 --directory " + site.string(),
              "server-" + std::to_string(port) + ".log", "Serving HTTP");
    }
    // Stops everything, two seconds after the last request: frames still on
    // their way are dropped, and a loaded machine (sanitizers, parallel
    // tests) needs more than a blink. Returns the log `capturer` once it
    // says `lastWords`.
    std::string stop(const std::string& capturer = "", const std::string& lastWords = "") {
        if (running_.empty()) return "";
        std::this_thread::sleep_for(std::chrono::seconds(2));
        for (const std::string& kill : running_) std::system((kill + " 2>/dev/null").c_str());
        running_.clear();
        if (capturer.empty()) return "";
        waitFor(dir / capturer, lastWords);
        return slurp(dir / capturer);
    }
    // Captures what `traffic` sends over `connections` TCP connections with
    // tcpdump, whose snap length keeps loopback's 64 KiB segments whole (a
    // capture of our own cuts frames at 65,535 bytes), until the file holds
    // both FINs of each. Both tools would read a frame lost to tcpdump, or a
    // segment TCP had to send again, each its own way, and on a crowded
    // machine either can happen to any capture: such a capture is taken
    // again, up to three times.
    void captureCleanly(const std::string& filter, int connections, const std::function<void()>& traffic) {
        std::string attempts;
        for (int attempt = 0; attempt < 3; ++attempt) {
            const std::string log = dir / "tcpdump.log";
            const std::string kill =
                "kill " +
                spawn("tcpdump -Z root -s 0 -B 131072 --immediate-mode -i lo -U -w " + capture + " " + filter, log);
            const bool listening = waitFor(log, "listening on");
            const bool closed =
                listening && (traffic(), waitUntil([&] { return frames("tcp.flags.fin == 1") >= 2 * connections; }));
            std::system((kill + " 2>/dev/null").c_str());
            if (!listening) FAIL() << "tcpdump did not start:\n" << slurp(log);
            waitFor(log, "dropped by kernel");
            const std::string stats = slurp(log);
            const int resent = frames("tcp.analysis.retransmission || tcp.analysis.lost_segment");
            if (closed && stats.find("\n0 packets dropped by kernel") != npos && resent == 0) return;
            attempts += "attempt " + std::to_string(attempt + 1) + ": " + (closed ? "" : "not every FIN captured, ") +
                        std::to_string(resent) + " segments resent or lost; tcpdump:\n" + stats;
        }
        FAIL() << "no clean capture in three attempts\n" << attempts;
    }
    // How many frames of the capture match a display filter.
    int frames(const std::string& displayFilter) {
        return static_cast<int>(
            split(output("tshark -r " + capture + " -Y '" + displayFilter + "' 2>/dev/null")).size());
    }
    std::string wireloom(const std::string& arguments) { return output(wireloomCommand().string() + " " + arguments); }

    const fs::path dir = fs::path(::testing::TempDir()) / ("wireloom-lo-" + std::to_string(getpid()));
    const fs::path site = dir / "site";
    const std::string capture = (dir / "lo.pcap").string();

private:
    std::vector<std::string> running_;  // the commands that stop them
};

std::string writeRandom(const fs::path& path, std::size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::string content(size, '\0');
    for (char& c : content) c = static_cast<char>(random());
    std::ofstream(path, std::ios::binary) << content;
    return content;
}

}  // namespace

// What the capture command prints as it goes, and the file it writes, while
// curl fetches three pages from python's http.server.
TEST_F(Loopback, CaptureShowsAndWritesWhatCurlFetched) {
    const std::string server = std::to_string(port(20000));
    const std::vector<std::string> pages = {"one.txt", "two.txt", "three.txt"};
    for (const std::string& page : pages) std::ofstream(site / page) << "page " << page << "\n";
    serveSite(port(20000));
    start(
        wireloomCommand().string() + " capture -i lo -f 'tcp port " + server + "' -w " + capture + " --format oneline",
        "capture.log", "capturing on lo", "INT");
    for (const std::string& page : pages)
        EXPECT_EQ(output("curl -s " + url(port(20000)) + "/" + page), "page " + page + "\n");
    const std::string live = stop("capture.log", "frames announced");
    ASSERT_NE(live.find("dropped 0"), npos) << live;

    // It printed each frame as read prints it from the file; Linux captures lo
    // as Ethernet with zero addresses.
    std::string printed;
    for (const std::string& line : split(live))
        if (!line.starts_with("wireloom: ")) printed += line + "\n";
    EXPECT_EQ(withoutAddresses(printed), withoutAddresses(wireloom("read " + capture + " --format oneline")));
    EXPECT_NE(printed.find("(Eth) MAC 00:00:00:00:00:00 => 00:00:00:00:00:00, proto 0x0800 - "), npos) << printed;

    // Every frame announced is in the file, as tshark and read see it, and
    // so are the exchanges.
    const std::string frames = output("tshark -r " + capture + " 2>/dev/null | wc -l");
    EXPECT_NE(live.find("wireloom: " + std::to_string(std::stoi(frames)) + " frames announced"), npos) << live;
    EXPECT_GE(std::stoi(frames), 3 * 8);
    std::size_t objects = 0;
    for (const std::string& line : split(wireloom("read " + capture + " --format json")))
        objects += json::parse(line).is_object();
    EXPECT_EQ(objects, static_cast<std::size_t>(std::stoi(frames)));
    const std::string exchanges = wireloom("read " + capture + " --http --format oneline");
    EXPECT_EQ(split(exchanges).size(), pages.size()) << exchanges;
    for (const std::string& page : pages)
        EXPECT_NE(exchanges.find("GET /" + page + " \xe2\x86\x92 200 OK"), npos) << exchanges;
}

// A capture that sees nothing still leaves a file that reads as a capture,
// and one that cannot start leaves no file at all.
TEST_F(Loopback, WrittenFileExistsExactlyWhenTheCaptureRan) {
    const std::string command = wireloomCommand().string() + " capture -i lo --duration 0.3 -w ";
    output(command + capture + " -f 'tcp port 1' 2>/dev/null");
    EXPECT_EQ(fs::file_size(capture), 24u);
    EXPECT_EQ(output(wireloomCommand().string() + " read " + capture + " 2>&1; echo $?"), "0\n");
    const fs::path refused = dir / "refused.pcap";
    EXPECT_EQ(output(command + refused.string() + " -f '(((' 2>&1; echo $?"),
              "wireloom: can't parse filter expression: syntax error\n1\n");
    EXPECT_FALSE(fs::exists(refused));
}

// Both directions of curl fetching megabytes, as `wireloom follow`
// reassembles them: the request, and the response header followed by the
// file's bytes, every one of them.
TEST_F(Loopback, FollowReassemblesDownloadsByteForByte) {
    const std::string server = "127.0.0.1:" + std::to_string(port(22000));
    const std::pair<std::string, std::string> files[] = {{"three.bin", writeRandom(site / "three.bin", 3'000'000, 3)},
                                                         {"five.bin", writeRandom(site / "five.bin", 5'242'880, 5)}};
    serveSite(port(22000));
    ASSERT_NO_FATAL_FAILURE(captureCleanly("tcp port " + std::to_string(port(22000)), 2, [&] {
        for (const auto& [name, content] : files) output("curl -s -o /dev/null " + url(port(22000)) + "/" + name);
    }));

    // The clients' ports, from their SYNs, in the order they fetched.
    const std::vector<std::string> clients =
        split(output("tshark -r " + capture +
                     " -Y 'tcp.flags.syn == 1 && tcp.flags.ack == 0' -T fields -e tcp.srcport 2>/dev/null"));
    ASSERT_EQ(clients.size(), std::size(files));
    for (std::size_t i = 0; i < clients.size(); ++i) {
        const auto& [name, content] = files[i];
        SCOPED_TRACE(name);
        // A flow's key puts the endpoint that sorts first as endpoint 0.
        const std::string client = "127.0.0.1:" + clients[i];
        const std::string follow =
            "follow " + capture + " " + std::min(server, client) + "-" + std::max(server, client) + " --direction ";
        const std::string request = wireloom(follow + (server < client ? "1" : "0"));
        EXPECT_TRUE(request.starts_with("GET /" + name + " HTTP/1.1\r\n") && request.ends_with("\r\n\r\n")) << request;
        EXPECT_EQ(request.find("\r\n\r\n"), request.size() - 4) << request;
        const std::string response = wireloom(follow + (server < client ? "0" : "1"));
        EXPECT_TRUE(response.starts_with("HTTP/1.0 200 OK\r\n")) << response.substr(0, 300);
        const std::size_t body = response.find("\r\n\r\n") + 4;
        const std::string_view file = std::string_view(response).substr(std::min(body, response.size()));
        EXPECT_EQ(file.size(), content.size());
        const auto differ = std::mismatch(file.begin(), file.end(), content.begin(), content.end());
        EXPECT_EQ(differ.first, file.end())
            << "the file came out different from byte " << (differ.first - file.begin());
    }
}

namespace {

// What one TCP connection carried, as either tool lists it. The requests
// are a multiset: tshark lists pipelined requests together, wireloom pairs
// them with the responses its own way, but both see the same requests.
struct Connection {
    std::multiset<std::pair<std::string, std::string>> requests;  // method, resource
    std::vector<long long> statusCodes;                           // in the order sent
    std::vector<long long> bodyLengths;                           // of the responses, in order
};

// By their two ports, the lower first: on lo the client's port tells them apart.
using Connections = std::map<std::pair<int, int>, Connection>;

Connection& connection(Connections& all, int a, int b) { return all[{std::min(a, b), std::max(a, b)}]; }

Connections tsharkConnections(const std::string& capture, const std::vector<int>& serverPorts) {
    std::string command = "tshark -r " + capture + " -o tcp.reassemble_out_of_order:TRUE";
    for (int port : serverPorts) command += " -d tcp.port==" + std::to_string(port) + ",http";
    command +=
        " -Y http -T fields -E separator=/t -e tcp.srcport -e tcp.dstport -e http.request.method"
        " -e http.request.uri -e http.response.code -e http.content_length_header 2>/dev/null";
    Connections connections;
    for (const std::string& line : split(output(command))) {
        std::vector<std::string> fields = split(line, '\t', true);
        fields.resize(6);
        Connection& c = connection(connections, std::stoi(fields[0]), std::stoi(fields[1]));
        // A field's occurrences in one frame come joined by commas.
        const std::vector<std::string> methods = split(fields[2], ','), uris = split(fields[3], ',');
        for (std::size_t i = 0; i < methods.size() && i < uris.size(); ++i) c.requests.emplace(methods[i], uris[i]);
        for (const std::string& code : split(fields[4], ',')) c.statusCodes.push_back(std::stoll(code));
        if (!fields[4].empty())
            for (const std::string& length : split(fields[5], ',')) c.bodyLengths.push_back(std::stoll(length));
    }
    return connections;
}

// From `read --http --format json` lines, "key": "127.0.0.1:18811-127.0.0.1:47804".
Connections wireloomConnections(const std::vector<json>& exchanges) {
    Connections connections;
    for (const json& exchange : exchanges) {
        const std::string key = exchange["key"];
        const std::size_t dash = key.find('-');
        Connection& c = connection(connections, std::stoi(key.substr(key.rfind(':', dash) + 1)),
                                   std::stoi(key.substr(key.rfind(':') + 1)));
        if (const json& request = exchange["request"]; !request.is_null())
            c.requests.emplace(request["method"], request["resource"]);
        if (const json& response = exchange["response"]; !response.is_null()) {
            c.statusCodes.push_back(response["statusCode"]);
            c.bodyLengths.push_back(response["bodyLength"].is_null() ? -1 : response["bodyLength"].get<long long>());
        }
    }
    return connections;
}

}  // namespace

// Five connections: curl and python's HTTP/1.0 server; curl fetching two
// files and a missing one over one kept-alive connection; a HEAD; two POSTs
// kept alive, answered with a binary property list and with JSON; and two
// requests pipelined in one send.
TEST_F(Loopback, HttpExchangesAgreeWithTshark) {
    std::ofstream(site / "one.txt") << "first file\n";
    std::ofstream(site / "old.txt") << "served by HTTP/1.0\n";
    writeRandom(site / "two.bin", 70'000, 7);  // larger than one loopback segment
    output(
        "python3 -c \"import plistlib,sys; sys.stdout.buffer.write(plistlib.dumps("
        "{'name': 'loom', 'tries': 2}, fmt=plistlib.FMT_BINARY))\" > " +
        (dir / "ask.plist").string());
    const int oldPort = port(24000), keptPort = port(26000);
    const std::string old = url(oldPort), kept = url(keptPort);
    const std::string helper = "python3 -u " + (sourceDir() / "tests" / "cli" / "loopback_http.py").string();
    serveSite(oldPort);
    start(helper + " serve " + std::to_string(keptPort) + " " + site.string(), "kept.log", "serving");
    ASSERT_NO_FATAL_FAILURE(
        captureCleanly("tcp port " + std::to_string(oldPort) + " or tcp port " + std::to_string(keptPort), 5, [&] {
            output("curl -s -o /dev/null " + old + "/old.txt");
            output("curl -s -o /dev/null -o /dev/null -o /dev/null " + kept + "/one.txt " + kept + "/two.bin " + kept +
                   "/missing.txt");
            output("curl -s -I " + kept + "/one.txt");
            output("curl -s -H 'Content-Type: application/x-apple-binary-plist' --data-binary @" +
                   (dir / "ask.plist").string() + " " + kept +
                   "/plist -o /dev/null --next -s -H 'Content-Type: application/json' --data-binary '{\"weave\": 1}' " +
                   kept + "/json");
            output(helper + " pipeline " + std::to_string(keptPort) + " /two.bin /one.txt");
        }));

    std::vector<json> exchanges;
    for (const std::string& line : split(wireloom("read " + capture + " --http --format json 2>&1")))
        exchanges.push_back(json::parse(line));
    const Connections expected = tsharkConnections(capture, {oldPort, keptPort});
    const Connections found = wireloomConnections(exchanges);
    ASSERT_EQ(expected.size(), 5u);
    ASSERT_EQ(found.size(), expected.size());
    for (const auto& [ports, theirs] : expected) {
        SCOPED_TRACE("ports " + std::to_string(ports.first) + " and " + std::to_string(ports.second));
        const auto mine = found.find(ports);
        ASSERT_NE(mine, found.end());
        EXPECT_EQ(mine->second.requests, theirs.requests);
        if (theirs.requests.contains({"HEAD", "/one.txt"})) {
            // The answer to a HEAD announces a body it never sends; bodies are
            // delimited by Content-Length alone, so the connection ends first
            // and the HEAD stays unanswered where tshark shows its 200.
            EXPECT_EQ(theirs.statusCodes, std::vector<long long>{200});
            EXPECT_TRUE(mine->second.statusCodes.empty());
            continue;
        }
        EXPECT_EQ(mine->second.statusCodes, theirs.statusCodes);
        EXPECT_EQ(mine->second.bodyLengths, theirs.bodyLengths);
    }

    const auto exchange = [&](const std::string& method, const std::string& resource) -> const json& {
        for (const json& e : exchanges)
            if (!e["request"].is_null() && e["request"]["method"] == method && e["request"]["resource"] == resource)
                return e;
        static const json none;
        ADD_FAILURE() << "no exchange for " << method << " " << resource;
        return none;
    };
    // The property lists both ways, decoded; the JSON answer is no plist.
    const json& plist = exchange("POST", "/plist");
    EXPECT_EQ(plist["request"]["plist"], json({{"name", "loom"}, {"tries", 2}}));
    EXPECT_EQ(plist["response"]["plist"],
              json({{"greeting", "hello loom"}, {"tries", 3}, {"ok", true}, {"items", {"warp", "weft"}}}));
    EXPECT_EQ(plist["response"]["error"], nullptr);
    EXPECT_EQ(exchange("POST", "/json")["response"]["statusCode"], 200);
    EXPECT_FALSE(exchange("POST", "/json")["response"].contains("plist"));
    EXPECT_EQ(exchange("GET", "/old.txt")["response"]["version"], "1.0");
    EXPECT_EQ(exchange("GET", "/missing.txt")["response"]["error"], "Response is not 200 OK");
    // Pipelined: the answers come in order, the first (two.bin's) paired by
    // the one slot with the latest request, the second with nothing.
    const std::multiset<std::pair<std::string, std::string>> pipelined = {{"GET", "/two.bin"}, {"GET", "/one.txt"}};
    const auto both =
        std::find_if(found.begin(), found.end(), [&](const auto& c) { return c.second.requests == pipelined; });
    ASSERT_NE(both, found.end());
    EXPECT_EQ(both->second.bodyLengths, (std::vector<long long>{70'000, 11}));

    EXPECT_EQ(wireloom("read " + capture + " --http --format none"),
              "HTTP requests: 9\nHTTP responses: 8\nHTTP errors: 1\n");
}
