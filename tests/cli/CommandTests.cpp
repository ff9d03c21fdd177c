// The wireloom command as a user runs it on the bundled samples: exit
// statuses and messages, output compared with committed expected files
// (tests/data/update-expected.sh writes them again after a deliberate
// change), and what --filter, --exclude, search and follow pick out.
#include "CommandText.hpp"
#include "support/FrameBuilder.hpp"
#include "support/TcpConversation.hpp"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace fs = std::filesystem;
using namespace wireloom::testing;

namespace {

struct Output {
    int status = -1;
    std::string out, err;
};

bool isSubsequence(const std::vector<std::string>& part, const std::vector<std::string>& whole) {
    auto at = whole.begin();
    for (const std::string& line : part)
        if ((at = std::find(at, whole.end(), line)) == whole.end()) return false;
    return true;
}

class Command : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fs::exists(wireloomCommand())) GTEST_SKIP() << "the wireloom command was not built";
    }

    // ctest runs tests as parallel processes: each gets its own files.
    static fs::path temp(const std::string& name) {
        return fs::path(::testing::TempDir()) / ("wireloom-" + std::to_string(getpid()) + "-" + name);
    }

    static Output run(const std::string& arguments, const std::string& input = "") {
        std::ofstream(temp("in")) << input;
        const std::string command = wireloomCommand().string() + " " + arguments + " <" + temp("in").string() + " >" +
                                    temp("out").string() + " 2>" + temp("err").string();
        const int status = std::system(command.c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(temp("out")), slurp(temp("err"))};
    }

    // The lines `read` (or `search`) prints for the demo with these options.
    std::vector<std::string> shown(const std::string& options, const std::string& command = "read") const {
        const Output r = run(command + " " + demo + " " + options);
        EXPECT_EQ(r.status, 0) << options << ": " << r.err;
        return split(withoutAddresses(r.out));
    }

    const std::string demo = (sourceDir() / "samples" / "demo.pcap").string();
};

}  // namespace

TEST_F(Command, WrongUsageExitsWithTwoSayingWhy) {
    const std::pair<std::string, std::string> cases[] = {
        {"", "usage: wireloom read FILE"},
        {"frobnicate", "wireloom: unknown command 'frobnicate'"},
        {"read", "wireloom: read needs a capture file"},
        {"read a.pcap b.pcap", "wireloom: unexpected argument 'b.pcap'"},
        {"read --format", "wireloom: --format needs a value"},
        {"read x.pcap --format xml", "wireloom: unknown format 'xml'"},
        {"read x.pcap --frobnicate", "wireloom: unknown option '--frobnicate'"},
        {"read x.pcap --color sometimes", "wireloom: unknown colour mode 'sometimes'"},
        {"read x.pcap --mdns --http", "wireloom: --mdns cannot be combined with --flows or --http"},
        {"read x.pcap --filter", "wireloom: --filter needs a value"},
        {"search", "wireloom: search needs a capture file and words (or --interactive)"},
        {"search x.pcap", "wireloom: search needs a capture file and words (or --interactive)"},
        {"search x.pcap a b", "wireloom: unexpected argument 'b'"},
        {"search x.pcap a --format none", "wireloom: unknown format 'none'"},
        {"follow x.pcap", "wireloom: follow needs a capture file and a flow key"},
        {"follow x.pcap k --direction 2", "wireloom: --direction takes 0 or 1"},
        {"follow x.pcap k -v", "wireloom: unknown option '-v'"},
        {"capture --exclude", "wireloom: --exclude needs a value"},
        {"capture -c 1.5", "wireloom: -c needs a positive whole number, not '1.5'"},
        {"capture -c 1e20", "wireloom: -c needs a positive whole number, not '1e20'"},
        {"capture x", "wireloom: unexpected argument 'x'"},
        {"devices x", "wireloom: devices takes no arguments"},
    };
    for (const auto& [arguments, reason] : cases) {
        SCOPED_TRACE(arguments);
        const Output r = run(arguments);
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.err.rfind(reason, 0), 0u) << r.err;
        EXPECT_NE(r.err.find("usage: wireloom"), npos);
        EXPECT_TRUE(r.out.empty());
    }
}

TEST_F(Command, UnreadableFilesExitWithOneAfterWhatCouldBeRead) {
    std::ofstream(temp("garbage.txt")) << "hello, I am not a capture file\n";
    for (const fs::path& path : {temp("garbage.txt"), temp("missing.pcap")}) {
        const Output r = run("read " + path.string());
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.err.rfind("wireloom: " + path.string() + ": ", 0), 0u) << r.err;
        EXPECT_EQ(split(r.err).size(), 1u) << r.err;
    }
    const fs::path cut = temp("cut.pcap");
    const Bytes frame = arpRequest(kMacA, ip4("10.0.0.1"), ip4("10.0.0.2"));
    ASSERT_TRUE(writePcap(cut.string(), 1, {{1, frame, 0}, {2, frame, 0}, {3, frame, 0}}));
    fs::resize_file(cut, fs::file_size(cut) - 7);
    const Output r = run("read " + cut.string() + " --format oneline");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(split(r.out).size(), 2u);
    EXPECT_EQ(r.out.rfind("1 1.000000 (Eth) MAC 02:00:5e:10:00:01 => ff:ff:ff:ff:ff:ff, proto 0x0806", 0), 0u) << r.out;
    EXPECT_NE(r.err.find("truncated"), npos) << r.err;
}

TEST_F(Command, SamplesPrintAsTheirExpectedFiles) {
    std::vector<std::pair<std::string, std::string>> cases;  // options, expected file
    for (const std::string sample : {"demo", "demo-loopback"})
        for (const std::string format : {"tree", "json", "oneline", "none"})
            cases.emplace_back(sample + ".pcap --format " + format, sample + "-" + format);
    for (const std::string view : {"flows", "http", "mdns"})
        for (const std::string format : {"tree", "json"})
            cases.emplace_back("demo.pcap --" + view + " --format " + format, "demo-" + view + "-" + format);
    for (const auto& [options, expected] : cases) {
        SCOPED_TRACE(options);
        const Output r = run("read " + (sourceDir() / "samples").string() + "/" + options);
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(withoutAddresses(r.out), slurp(sourceDir() / "tests" / "data" / (expected + ".txt")));
    }
    const std::pair<std::string, std::string> counts[] = {
        {"--http", "HTTP requests: 5\nHTTP responses: 5\nHTTP errors: 1\n"},
        {"--flows",
         "TCP flows: 4\nUDP flows: 7\nTCP bytes reassembled, client to server: 558\n"
         "TCP bytes reassembled, server to client: 11743\nUDP payload bytes: 564\n"},
        {"--mdns", "frames read: 65\nmDNS messages: 2\nquestions: 1\nrecords: 4\n"},
    };
    for (const auto& [view, text] : counts) EXPECT_EQ(run("read " + demo + " " + view + " --format none").out, text);
    // The frames shown keep their numbers in the capture.
    EXPECT_EQ(run("read " + demo + " --mdns --format oneline").out.rfind("37 1767225600.412007 ", 0), 0u);

    // Tree is the default, and colours are only where asked: not on a pipe.
    const std::string tree = run("read " + demo + " --format tree").out;
    EXPECT_EQ(run("read " + demo).out, tree);
    EXPECT_EQ(run("read " + demo + " --color auto").out, tree);
    EXPECT_EQ(run("read " + demo + " --color never").out, tree);
    EXPECT_NE(run("read " + demo + " --color always").out.find("\x1b[38;2;"), npos);
}

TEST_F(Command, FollowWritesOneFlowOrNamesTheFlowsThereAre) {
    const std::string key = "192.168.1.10:51522-203.0.113.80:80";
    const Output both = run("follow " + demo + " " + key);
    ASSERT_EQ(both.status, 0) << both.err;
    EXPECT_EQ(both.out.rfind("==> 192.168.1.10:51522 -> 203.0.113.80:80 (endpoint 0), 207 bytes at 1767225601.", 0), 0u)
        << both.out;
    EXPECT_NE(both.out.find("\n==> 203.0.113.80:80 -> 192.168.1.10:51522 (endpoint 1), 223 bytes at "), npos);
    const std::string request = run("follow " + demo + " " + key + " --direction 0").out;
    EXPECT_EQ(request.size(), 207u);
    EXPECT_EQ(request.rfind("POST /api/notes HTTP/1.1\r\n", 0), 0u);
    EXPECT_NE(both.out.find(request), npos);
    EXPECT_EQ(run("follow " + demo + " " + key + " --direction 1").out.size(), 223u);

    const Output missing = run("follow " + demo + " 10.0.0.1:1-10.0.0.2:2");
    EXPECT_EQ(missing.status, 1);
    EXPECT_TRUE(missing.out.empty());
    EXPECT_NE(missing.err.find("its flows: 192.168.1.10:51514-203.0.113.80:80, "), npos) << missing.err;

    // A flow that opened and closed without a byte is there, with nothing to write.
    TcpConversation conversation(1, {kMacA, "10.0.0.9", 5000}, {kMacB, "10.0.0.10", 80}, 100, 900);
    std::vector<Frame> frames;
    double clock = 1767225600;
    conversation.open(frames, clock);
    conversation.close(frames, clock);
    ASSERT_TRUE(writePcap(temp("empty.pcap").string(), 1, frames));
    const Output empty = run("follow " + temp("empty.pcap").string() + " 10.0.0.10:80-10.0.0.9:5000 --direction 0");
    EXPECT_EQ(empty.status, 0);
    EXPECT_EQ(empty.out + empty.err, "");
}

TEST_F(Command, ReadShowsWhatHoldsTheWordsUnchanged) {
    const auto all = shown("--format json");
    const auto udp = shown("--format json --filter UDP");
    const auto dns = shown("--format json --filter 'udp  :53' --exclude 5353");
    EXPECT_TRUE(isSubsequence(udp, all));
    EXPECT_TRUE(isSubsequence(dns, udp));
    EXPECT_LT(dns.size(), udp.size());
    EXPECT_LT(udp.size(), all.size());
    ASSERT_FALSE(dns.empty());
    EXPECT_EQ(dns[0].rfind("{\"frame\":3,", 0), 0u) << dns[0];
    // A word in the payloads only: the request for the style sheet, and the
    // two pages that link it.
    const auto css = shown("--format oneline --filter style.css");
    ASSERT_EQ(css.size(), 3u);
    EXPECT_EQ(css[0].substr(0, 3) + css[1].substr(0, 3) + css[2].substr(0, 3), "12 14 56 ");
    // Hex dumps are not searched: the MAC address as dumped bytes is nowhere else.
    EXPECT_TRUE(shown("--filter 0a1b2c3d").empty());
    EXPECT_EQ(shown("--format none --filter 'udp :53' --exclude 5353")[1],
              "frames shown: " + std::to_string(dns.size()));

    // Flows by the bytes they carried, exchanges by their words in any case.
    const auto posted = shown("--flows --format oneline --filter api/notes");
    ASSERT_EQ(posted.size(), 1u);
    EXPECT_EQ(posted[0].rfind("TCP 192.168.1.10:51522-203.0.113.80:80 ", 0), 0u) << posted[0];
    const auto notes = shown("--http --format oneline --filter api/NOTES");
    ASSERT_EQ(notes.size(), 1u);
    EXPECT_NE(notes[0].find("POST /api/notes"), npos);
    EXPECT_TRUE(
        isSubsequence(shown("--flows --http --format tree --exclude get"), shown("--flows --http --format tree")));
    const auto display = shown("--mdns --format json --filter 'kitchen display'");
    ASSERT_EQ(display.size(), 1u);
    EXPECT_EQ(display[0].rfind("{\"frame\":38,", 0), 0u) << display[0];
}

TEST_F(Command, SearchFindsWhatReadFiltersAndAnswersEachLine) {
    for (const std::string words : {"get", "udp :53", "host example", "tcp 10 ack"})
        EXPECT_EQ(shown("--format oneline --filter '" + words + "'"),
                  shown("'" + words + "' --format oneline", "search"))
            << words;
    // A search keeps frames as records and decodes the ones it shows again.
    EXPECT_EQ(shown("--mdns --format json --filter local"), shown("local --mdns --format json", "search"));
    EXPECT_EQ(shown("--format tree --filter 'ipv6 hop'"), shown("'ipv6 hop' --format tree", "search"));
    const auto read = shown("--http --flows --format json --filter tcp --exclude 80");
    EXPECT_EQ(shown("tcp --exclude 80 --http --flows --format json", "search"), read);
    EXPECT_EQ(run("search " + demo + " tcp --exclude 80 --http --flows").err,
              "wireloom: " + std::to_string(read.size()) + " of 16 sources\n");

    const Output r = run("search " + demo + " --http --format oneline --interactive",
                         "get\nGET --exclude css\n\nnothing here\nget--exclude css\n");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err,
              "wireloom: 4 of 5 sources\nwireloom: 1 of 5 sources\nwireloom: 5 of 5 sources\n"
              "wireloom: 0 of 5 sources\nwireloom: 0 of 5 sources\n");
    EXPECT_EQ(split(r.out).size(), 10u);
}
