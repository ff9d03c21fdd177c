// The wireloom command as a user runs it: exit statuses, messages, and the
// output for the bundled samples compared with committed expected files
// (tests/data/update-expected.sh writes them again after a deliberate change).
#include "support/FrameBuilder.hpp"
#include "support/TcpConversation.hpp"
#include "support/Paths.hpp"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

namespace fs = std::filesystem;
using namespace wireloom::testing;

namespace {

struct CommandResult {
    int status = -1;
    std::string out;
    std::string err;
};

std::string slurp(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

class ReadCommand : public ::testing::Test {
protected:
    void SetUp() override {
        binary_ = binaryDir() / "cli" / "wireloom";
        if (!fs::exists(binary_)) GTEST_SKIP() << "the wireloom command was not built";
    }

    CommandResult run(const std::string& arguments) {
        // ctest runs tests as parallel processes: each gets its own file.
        fs::path err = fs::path(::testing::TempDir()) / ("wireloom-stderr-" + std::to_string(getpid()) + ".txt");
        std::string command = binary_.string() + " " + arguments + " 2>" + err.string();
        CommandResult result;
        std::FILE* pipe = popen(command.c_str(), "r");
        std::array<char, 4096> chunk;
        while (std::size_t n = std::fread(chunk.data(), 1, chunk.size(), pipe)) result.out.append(chunk.data(), n);
        int status = pclose(pipe);
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        result.err = slurp(err);
        return result;
    }

    fs::path binary_;
};

// Object addresses differ from run to run; everything else must not.
std::string withoutAddresses(const std::string& text) {
    static const std::regex address(": 0x[0-9a-f]+>");
    return std::regex_replace(text, address, ": 0x?>");
}

std::size_t lineCount(const std::string& text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

}  // namespace

TEST_F(ReadCommand, WrongUsageExitsWithTwo) {
    for (const char* arguments : {"", "read", "read a.pcap b.pcap", "read --format", "read x.pcap --format xml",
                                  "read x.pcap --frobnicate", "frobnicate"}) {
        CommandResult r = run(arguments);
        EXPECT_EQ(r.status, 2) << arguments;
        EXPECT_NE(r.err.find("usage: wireloom"), std::string::npos) << arguments;
        EXPECT_TRUE(r.out.empty()) << arguments;
    }
}

TEST_F(ReadCommand, FileThatIsNotACaptureIsOneLineAndExitOne) {
    fs::path garbage = fs::path(::testing::TempDir()) / "not-a-capture.txt";
    std::ofstream(garbage) << "hello, I am not a capture file\n";
    CommandResult r = run("read " + garbage.string());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(lineCount(r.err), 1u);
    EXPECT_EQ(r.err.rfind("wireloom: " + garbage.string() + ": ", 0), 0u) << r.err;

    r = run("read " + (fs::path(::testing::TempDir()) / "does-not-exist.pcap").string());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(lineCount(r.err), 1u);
}

TEST_F(ReadCommand, TruncatedFilePrintsWholeFramesThenTheError) {
    fs::path cut = fs::path(::testing::TempDir()) / ("cut-" + std::to_string(getpid()) + ".pcap");
    Bytes frame = arpRequest(kMacA, ip4("10.0.0.1"), ip4("10.0.0.2"));
    ASSERT_TRUE(writePcap(cut.string(), 1, {{1, frame, 0}, {2, frame, 0}, {3, frame, 0}}));
    fs::resize_file(cut, fs::file_size(cut) - 7);
    CommandResult r = run("read " + cut.string() + " --format oneline");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(lineCount(r.out), 2u);
    EXPECT_EQ(r.out.rfind("1 1.000000 (Eth) MAC 02:00:5e:10:00:01 => ff:ff:ff:ff:ff:ff, proto 0x0806", 0), 0u) << r.out;
    EXPECT_NE(r.err.find("truncated"), std::string::npos) << r.err;
}

TEST_F(ReadCommand, SamplesMatchTheirExpectedOutput) {
    for (const char* sample : {"demo", "demo-loopback"}) {
        const fs::path capture = sourceDir() / "samples" / (std::string(sample) + ".pcap");
        const fs::path expected = sourceDir() / "tests" / "data";
        for (const char* format : {"tree", "json", "oneline", "none"}) {
            CommandResult r = run("read " + capture.string() + " --format " + format);
            ASSERT_EQ(r.status, 0) << r.err;
            EXPECT_EQ(withoutAddresses(r.out), slurp(expected / (std::string(sample) + "-" + format + ".txt")))
                << sample << " " << format;
        }
        // Tree is the default, and without a terminal it has no colours.
        EXPECT_EQ(run("read " + capture.string()).out, run("read " + capture.string() + " --format tree").out);
    }
}

TEST_F(ReadCommand, ColoursOnlyWhereAsked) {
    const std::string capture = (sourceDir() / "samples" / "demo.pcap").string();
    EXPECT_NE(run("read " + capture + " --color always").out.find("\x1b[38;2;"), std::string::npos);
    EXPECT_EQ(run("read " + capture + " --color never").out.find('\x1b'), std::string::npos);
    EXPECT_EQ(run("read " + capture + " --color auto").out.find('\x1b'), std::string::npos);  // a pipe
    EXPECT_EQ(run("read " + capture + " --color sometimes").status, 2);
}

TEST_F(ReadCommand, FlowsHttpAndMdnsOfTheDemoMatchTheirExpectedOutput) {
    const std::string capture = (sourceDir() / "samples" / "demo.pcap").string();
    for (const char* view : {"flows", "http", "mdns"}) {
        for (const char* format : {"tree", "json"}) {
            CommandResult r = run("read " + capture + " --" + view + " --format " + format);
            ASSERT_EQ(r.status, 0) << r.err;
            EXPECT_EQ(r.out, slurp(sourceDir() / "tests" / "data" /
                                   ("demo-" + std::string(view) + "-" + format + ".txt")))
                << view << " " << format;
        }
    }
    EXPECT_EQ(run("read " + capture + " --http --format none").out,
              "HTTP requests: 5\nHTTP responses: 5\nHTTP errors: 1\n");
    CommandResult r = run("read " + capture + " --flows --format none");
    EXPECT_EQ(r.out,
              "TCP flows: 4\nUDP flows: 7\nTCP bytes reassembled, client to server: 558\n"
              "TCP bytes reassembled, server to client: 11743\nUDP payload bytes: 564\n");
    EXPECT_EQ(run("read " + capture + " --mdns --format none").out,
              "frames read: 65\nmDNS messages: 2\nquestions: 1\nrecords: 4\n");
    // The frames shown keep their numbers in the capture.
    EXPECT_EQ(run("read " + capture + " --mdns --format oneline").out.rfind("37 1767225600.412007 ", 0), 0u);
    EXPECT_EQ(run("read " + capture + " --mdns --http").status, 2);
}

TEST_F(ReadCommand, FollowWritesOneFlowOrNamesTheFlowsThereAre) {
    const std::string capture = (sourceDir() / "samples" / "demo.pcap").string();
    const std::string key = "192.168.1.10:51522-203.0.113.80:80";
    CommandResult both = run("follow " + capture + " " + key);
    ASSERT_EQ(both.status, 0) << both.err;
    EXPECT_EQ(both.out.rfind("==> 192.168.1.10:51522 -> 203.0.113.80:80 (endpoint 0), 207 bytes at 1767225601.", 0), 0u)
        << both.out;
    EXPECT_NE(both.out.find("\n==> 203.0.113.80:80 -> 192.168.1.10:51522 (endpoint 1), 223 bytes at "),
              std::string::npos);
    const std::string request = run("follow " + capture + " " + key + " --direction 0").out;
    const std::string response = run("follow " + capture + " " + key + " --direction 1").out;
    EXPECT_EQ(request.size(), 207u);
    EXPECT_EQ(request.rfind("POST /api/notes HTTP/1.1\r\n", 0), 0u);
    EXPECT_EQ(response.size(), 223u);
    EXPECT_NE(both.out.find(request), std::string::npos);

    CommandResult missing = run("follow " + capture + " 10.0.0.1:1-10.0.0.2:2");
    EXPECT_EQ(missing.status, 1);
    EXPECT_TRUE(missing.out.empty());
    EXPECT_NE(missing.err.find("its flows: 192.168.1.10:51514-203.0.113.80:80, "), std::string::npos) << missing.err;

    for (const char* arguments : {"follow", "follow x.pcap", "follow x.pcap k --direction 2", "follow x.pcap k -v"})
        EXPECT_EQ(run(arguments).status, 2) << arguments;
}

TEST_F(ReadCommand, FollowingAFlowThatCarriedNoDataPrintsNothing) {
    const fs::path path = fs::path(::testing::TempDir()) / ("empty-flow-" + std::to_string(getpid()) + ".pcap");
    TcpConversation conversation(1, {kMacA, "10.0.0.9", 5000}, {kMacB, "10.0.0.10", 80}, 100, 900);
    std::vector<Frame> frames;
    double clock = 1767225600;
    conversation.open(frames, clock);
    conversation.close(frames, clock);
    ASSERT_TRUE(writePcap(path.string(), 1, frames));
    CommandResult r = run("follow " + path.string() + " 10.0.0.10:80-10.0.0.9:5000 --direction 0");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(r.out.empty());
    EXPECT_TRUE(r.err.empty());
}
