// wireloom on captures of real traffic: curl asking python's http.server on
// the loopback interface. Needs root (to capture), tcpdump or tshark, curl
// and python3; skips with the reason otherwise.
#include <gtest/gtest.h>
#include "support/Paths.hpp"
#include "support/Processes.hpp"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

namespace fs = std::filesystem;

using namespace wireloom::testing;

TEST(RealLoopbackCapture, ReadDecodesCurlTalkingToHttpServer) {
    fs::path wireloom = wireloom::testing::binaryDir() / "cli" / "wireloom";
    if (!fs::exists(wireloom)) GTEST_SKIP() << "the wireloom command was not built";
    if (geteuid() != 0) GTEST_SKIP() << "capturing on lo needs root";
    for (const char* program : {"tcpdump", "curl", "python3"})
        if (!have(program)) GTEST_SKIP() << program << " is not installed";

    fs::path dir = fs::path(::testing::TempDir()) / ("wireloom-live-" + std::to_string(getpid()));
    fs::create_directories(dir);
    std::ofstream(dir / "hello.txt") << "hello from the loopback test\n";
    const int port = 18000 + getpid() % 2000;
    const std::string capture = (dir / "lo.pcap").string();

    const std::string serverPid =
        spawn("python3 -u -m http.server " + std::to_string(port) + " --bind 127.0.0.1 --directory " + dir.string(),
              dir / "server.log");
    // -Z root: tcpdump would otherwise drop to its own user, who cannot write here.
    const std::string dumpPid =
        spawn("tcpdump -Z root --immediate-mode -i lo -U -w " + capture + " tcp port " + std::to_string(port),
              dir / "tcpdump.log");
    // Both say when they are ready.
    waitFor(dir / "server.log", "Serving HTTP");
    waitFor(dir / "tcpdump.log", "listening on");
    const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/hello.txt";
    const std::string body = output("curl -s " + url);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    std::system(("kill " + dumpPid + " " + serverPid + " 2>/dev/null; sleep 0.5").c_str());
    ASSERT_EQ(body, "hello from the loopback test\n");

    const std::string lines = output(wireloom.string() + " read --format oneline " + capture + " 2>&1");
    // Linux captures lo as Ethernet with zero addresses.
    EXPECT_NE(lines.find("(Eth) MAC 00:00:00:00:00:00 => 00:00:00:00:00:00, proto 0x0800"), std::string::npos) << lines;
    EXPECT_NE(lines.find("addr 127.0.0.1 => 127.0.0.1"), std::string::npos) << lines;
    EXPECT_NE(lines.find("->" + std::to_string(port) + ", seq"), std::string::npos) << lines;
    EXPECT_NE(lines.find("ack:0, syn:1, fin: 0"), std::string::npos) << lines;  // the SYN
    EXPECT_NE(lines.find("ack:1, syn:0, fin: 1"), std::string::npos) << lines;  // a FIN
    // curl's request and the server's answer each travel as data segments.
    const std::regex request("\\(TCP\\) size ([1-9][0-9]+) bytes, port [0-9]+->" + std::to_string(port));
    const std::regex answer("\\(TCP\\) size ([1-9][0-9]*) bytes, port " + std::to_string(port) + "->");
    EXPECT_TRUE(std::regex_search(lines, request)) << lines;
    EXPECT_TRUE(std::regex_search(lines, answer)) << lines;
    EXPECT_GE(std::count(lines.begin(), lines.end(), '\n'), 8) << lines;
    fs::remove_all(dir);
}

TEST(RealLoopbackCapture, CaptureCommandWritesWhatCurlFetched) {
    fs::path wireloom = wireloom::testing::binaryDir() / "cli" / "wireloom";
    if (!fs::exists(wireloom)) GTEST_SKIP() << "the wireloom command was not built";
    if (geteuid() != 0) GTEST_SKIP() << "capturing on lo needs root";
    for (const char* program : {"tshark", "curl", "python3"})
        if (!have(program)) GTEST_SKIP() << program << " is not installed";

    fs::path dir = fs::path(::testing::TempDir()) / ("wireloom-capture-" + std::to_string(getpid()));
    fs::create_directories(dir);
    for (const char* page : {"one.txt", "two.txt", "three.txt"}) std::ofstream(dir / page) << "page " << page << "\n";
    const int port = 20000 + getpid() % 2000;
    const std::string capture = (dir / "out.pcap").string();
    const std::string serverPid =
        spawn("python3 -u -m http.server " + std::to_string(port) + " --bind 127.0.0.1 --directory " + dir.string(),
              dir / "server.log");
    const std::string capturePid = spawn(wireloom.string() + " capture -i lo -f 'tcp port " + std::to_string(port) +
                                             "' -w " + capture + " --format oneline",
                                         dir / "capture.log");
    waitFor(dir / "server.log", "Serving HTTP");
    waitFor(dir / "capture.log", "capturing on lo");
    for (const char* page : {"one.txt", "two.txt", "three.txt"})
        output("curl -s http://127.0.0.1:" + std::to_string(port) + "/" + page);
    // Frames still on their way when the capture stops are dropped; a
    // loaded machine (sanitizers, parallel tests) needs more than a moment.
    std::this_thread::sleep_for(std::chrono::seconds(2));
    std::system(("kill -INT " + capturePid + "; kill " + serverPid).c_str());
    waitFor(dir / "capture.log", "frames announced");
    const std::string log = output("cat " + (dir / "capture.log").string());
    ASSERT_NE(log.find("dropped 0"), std::string::npos) << log;

    // tshark finds the three requests in the file, and as many frames as
    // wireloom reads back as JSON objects, one a line.
    const std::string uris = output("tshark -r " + capture + " -Y http.request -T fields -e http.request.uri 2>/dev/null");
    EXPECT_EQ(uris, "/one.txt\n/two.txt\n/three.txt\n");
    const std::string frames = output("tshark -r " + capture + " 2>/dev/null | wc -l");
    const std::string objects =
        output(wireloom.string() + " read " + capture +
               " --format json | python3 -c 'import json,sys; print(sum(1 for l in sys.stdin if json.loads(l)))'");
    EXPECT_EQ(objects, frames);
    EXPECT_GE(std::stoi(frames), 3 * 8);
    fs::remove_all(dir);
}

namespace {

// The two directions of stream N as tshark's raw follow writes them: hex
// lines, those of node 1 indented by a tab. Keyed by node identifier.
std::map<std::string, std::string> tsharkFollow(const std::string& capture, int stream) {
    const std::string text =
        output("tshark -r " + capture + " -q -z follow,tcp,raw," + std::to_string(stream) + " 2>/dev/null");
    std::map<std::string, std::string> bytes;
    std::string node[2];
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("Node 0: ", 0) == 0) node[0] = line.substr(8);
        if (line.rfind("Node 1: ", 0) == 0) node[1] = line.substr(8);
        if (node[1].empty() || line.rfind("Node ", 0) == 0 || line.rfind("====", 0) == 0) continue;
        const bool fromOne = !line.empty() && line[0] == '\t';
        std::string& out = bytes[node[fromOne ? 1 : 0]];
        for (std::size_t i = fromOne ? 1 : 0; i + 1 < line.size(); i += 2)
            out.push_back(static_cast<char>(std::stoi(line.substr(i, 2), nullptr, 16)));
    }
    bytes.emplace(node[0], "");
    bytes.emplace(node[1], "");
    return bytes;
}

}  // namespace

// Each direction of each connection, as `wireloom follow` reassembles it from
// a capture of curl fetching megabytes, byte for byte what tshark follows.
// tcpdump captures, because its snap length keeps loopback's 64 KiB segments
// whole (a capture of our own cuts frames at 65,535 bytes).
TEST(RealLoopbackCapture, FollowAgreesWithTsharkOnDownloads) {
    fs::path wireloom = wireloom::testing::binaryDir() / "cli" / "wireloom";
    if (!fs::exists(wireloom)) GTEST_SKIP() << "the wireloom command was not built";
    if (geteuid() != 0) GTEST_SKIP() << "capturing on lo needs root";
    for (const char* program : {"tcpdump", "tshark", "curl", "python3"})
        if (!have(program)) GTEST_SKIP() << program << " is not installed";

    fs::path dir = fs::path(::testing::TempDir()) / ("wireloom-follow-" + std::to_string(getpid()));
    fs::create_directories(dir);
    std::mt19937 random(20261121);
    const std::map<std::string, std::size_t> files = {{"three.bin", 3'000'000}, {"five.bin", 5'242'880}};
    for (const auto& [name, size] : files) {
        std::string content(size, '\0');
        for (char& c : content) c = static_cast<char>(random());
        std::ofstream(dir / name, std::ios::binary) << content;
    }
    const int port = 22000 + getpid() % 2000;
    const std::string capture = (dir / "lo.pcap").string();
    const std::string serverPid =
        spawn("python3 -u -m http.server " + std::to_string(port) + " --bind 127.0.0.1 --directory " + dir.string(),
              dir / "server.log");
    const std::string dumpPid =
        spawn("tcpdump -Z root -s 0 -B 131072 --immediate-mode -i lo -U -w " + capture + " tcp port " +
                  std::to_string(port),
              dir / "tcpdump.log");
    waitFor(dir / "server.log", "Serving HTTP");
    waitFor(dir / "tcpdump.log", "listening on");
    for (const auto& [name, size] : files)
        output("curl -s -o /dev/null http://127.0.0.1:" + std::to_string(port) + "/" + name);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    std::system(("kill " + dumpPid + " " + serverPid + " 2>/dev/null; sleep 0.5").c_str());
    // Both tools would follow a capture with holes differently: tshark
    // writes what comes after a hole, a flow stops at it.
    waitFor(dir / "tcpdump.log", "dropped by kernel");
    const std::string log = output("cat " + (dir / "tcpdump.log").string());
    ASSERT_NE(log.find("\n0 packets dropped by kernel"), std::string::npos) << log;

    std::size_t served = 0;
    for (int stream = 0; stream < static_cast<int>(files.size()); ++stream) {
        SCOPED_TRACE("tcp.stream " + std::to_string(stream));
        const std::map<std::string, std::string> expected = tsharkFollow(capture, stream);
        ASSERT_EQ(expected.size(), 2u);
        const std::string& lesser = expected.begin()->first;
        const std::string key = lesser + "-" + std::next(expected.begin())->first;
        int direction = 0;
        for (const auto& [endpoint, bytes] : expected) {
            const std::string followed =
                output(wireloom.string() + " follow " + capture + " " + key + " --direction " +
                       std::to_string(direction++) + " 2>&1");
            EXPECT_EQ(followed.size(), bytes.size()) << endpoint;
            EXPECT_TRUE(followed == bytes) << endpoint << " sent different bytes";
            if (endpoint.ends_with(":" + std::to_string(port))) served += bytes.size();
        }
    }
    // Both files, each behind its response header.
    EXPECT_GT(served, 8'242'880u);
    fs::remove_all(dir);
}
