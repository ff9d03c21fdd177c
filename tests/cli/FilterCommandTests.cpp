// Words on the command line: read and capture --filter and --exclude, and
// search with its interactive lines, over the bundled demo capture.
#include "support/Paths.hpp"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

namespace fs = std::filesystem;
using namespace wireloom::testing;

namespace {

struct Output {
    int status = -1;
    std::string out, err;
};

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> all;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) all.push_back(line);
    return all;
}

class FilterCommand : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fs::exists(binaryDir() / "cli" / "wireloom")) GTEST_SKIP() << "the wireloom command was not built";
    }

    // The command with standard input from `input`, both outputs kept.
    Output run(const std::string& arguments, const std::string& input = "") {
        const fs::path base = fs::path(::testing::TempDir()) / ("wireloom-filter-" + std::to_string(getpid()));
        std::ofstream(base.string() + ".in") << input;
        const std::string command = (binaryDir() / "cli" / "wireloom").string() + " " + arguments + " <" +
                                    base.string() + ".in >" + base.string() + ".out 2>" + base.string() + ".err";
        const int status = std::system(command.c_str());
        Output result;
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        for (auto [suffix, text] : {std::pair{".out", &result.out}, std::pair{".err", &result.err}}) {
            std::ifstream in(base.string() + suffix);
            *text = std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        }
        return result;
    }
    // The lines `read` (or another command) prints for these options.
    std::vector<std::string> shown(const std::string& options, const std::string& command = "read") {
        const Output r = run(command + " " + demo + " " + options);
        EXPECT_EQ(r.status, 0) << options << ": " << r.err;
        // Object addresses differ from run to run.
        static const std::regex address(": 0x[0-9a-f]+>");
        return lines(std::regex_replace(r.out, address, ": 0x?>"));
    }

    const std::string demo = (sourceDir() / "samples" / "demo.pcap").string();
};

bool isSubsequence(const std::vector<std::string>& part, const std::vector<std::string>& whole) {
    auto at = whole.begin();
    for (const std::string& line : part)
        if ((at = std::find(at, whole.end(), line)) == whole.end()) return false;
    return true;
}

}  // namespace

TEST_F(FilterCommand, ReadShowsMatchingFramesUnchangedWithTheirNumbers) {
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
}

TEST_F(FilterCommand, FlowsExchangesAndMdnsMessagesAreFoundByTheirContent) {
    const auto posted = shown("--flows --format oneline --filter api/notes");
    ASSERT_EQ(posted.size(), 1u);
    EXPECT_EQ(posted[0].rfind("TCP 192.168.1.10:51522-203.0.113.80:80 ", 0), 0u) << posted[0];
    const auto notes = shown("--http --format oneline --filter api/NOTES");
    ASSERT_EQ(notes.size(), 1u);
    EXPECT_NE(notes[0].find("POST /api/notes"), std::string::npos);
    EXPECT_TRUE(
        isSubsequence(shown("--flows --http --format tree --exclude get"), shown("--flows --http --format tree")));
    const auto display = shown("--mdns --format json --filter 'kitchen display'");
    ASSERT_EQ(display.size(), 1u);
    EXPECT_EQ(display[0].rfind("{\"frame\":38,", 0), 0u) << display[0];
}

TEST_F(FilterCommand, SearchFindsWhatReadFilters) {
    for (const char* words : {"get", "udp :53", "host example", "tcp 10 ack"})
        EXPECT_EQ(shown(std::string("--format oneline --filter '") + words + "'"),
                  shown(std::string("'") + words + "' --format oneline", "search"))
            << words;
    // A search keeps frames as records and decodes the ones it shows again.
    EXPECT_EQ(shown("--mdns --format json --filter local"), shown("local --mdns --format json", "search"));
    EXPECT_EQ(shown("--format tree --filter 'ipv6 hop'"), shown("'ipv6 hop' --format tree", "search"));
    const auto read = shown("--http --flows --format json --filter tcp --exclude 80");
    EXPECT_EQ(shown("tcp --exclude 80 --http --flows --format json", "search"), read);
    EXPECT_EQ(run("search " + demo + " tcp --exclude 80 --http --flows").err,
              "wireloom: " + std::to_string(read.size()) + " of 16 sources\n");
}

TEST_F(FilterCommand, InteractiveSearchAnswersEachLine) {
    const Output r =
        run("search " + demo + " --http --format oneline --interactive", "get\nGET --exclude css\n\nnothing here\n");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err,
              "wireloom: 4 of 5 sources\nwireloom: 1 of 5 sources\nwireloom: 5 of 5 sources\n"
              "wireloom: 0 of 5 sources\n");
    EXPECT_EQ(lines(r.out).size(), 10u);
}

TEST_F(FilterCommand, WrongUsageExitsWithTwo) {
    for (std::string arguments :
         {std::string("search"), "search " + demo, "search " + demo + " a b", "search " + demo + " a --format none",
          "read " + demo + " --filter", std::string("capture --exclude")}) {
        const Output r = run(arguments);
        EXPECT_EQ(r.status, 2) << arguments;
        EXPECT_NE(r.err.find("usage: wireloom"), std::string::npos) << arguments;
    }
}
