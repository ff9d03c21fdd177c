// wireloom read on a capture that tcpdump made of real traffic: curl asking
// python's http.server on the loopback interface. Needs root (to capture),
// tcpdump, curl and python3; skips with the reason otherwise.
#include <gtest/gtest.h>
#include "support/Paths.hpp"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <thread>

namespace fs = std::filesystem;

namespace {

bool have(const char* program) {
    return std::system((std::string("command -v ") + program + " >/dev/null 2>&1").c_str()) == 0;
}

std::string output(const std::string& command) {
    std::string text;
    if (std::FILE* pipe = popen(command.c_str(), "r")) {
        char chunk[4096];
        while (std::size_t n = std::fread(chunk, 1, sizeof chunk, pipe)) text.append(chunk, n);
        pclose(pipe);
    }
    return text;
}

// Starts a command in the background, its output going to log, and returns
// its process id.
std::string spawn(const std::string& command, const fs::path& log) {
    std::string pid = output("exec " + command + " >" + log.string() + " 2>&1 & echo $!");
    while (!pid.empty() && (pid.back() == '\n' || pid.back() == ' ')) pid.pop_back();
    return pid;
}

void waitFor(const fs::path& log, const std::string& text) {
    for (int i = 0; i < 200 && output("cat " + log.string()).find(text) == std::string::npos; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
}

}  // namespace

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
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
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
