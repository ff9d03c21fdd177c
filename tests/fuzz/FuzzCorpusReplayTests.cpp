// Replays every kept fuzz input (the seed corpus and each input that once
// crashed a decoder) through the same entry point the fuzzer uses, so the
// unit tests, and their sanitizer build, guard against regressions.
#include <gtest/gtest.h>
#include "support/Paths.hpp"

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

int wireloomFuzz_packet_decode(const std::uint8_t* data, std::size_t size);
int wireloomFuzz_tcp_buffer(const std::uint8_t* data, std::size_t size);
int wireloomFuzz_helper_request(const std::uint8_t* data, std::size_t size);
int wireloomFuzz_flow_table(const std::uint8_t* data, std::size_t size);
int wireloomFuzz_http_analyzer(const std::uint8_t* data, std::size_t size);
int wireloomFuzz_mdns_decode(const std::uint8_t* data, std::size_t size);
int wireloomFuzz_filter_index(const std::uint8_t* data, std::size_t size);

namespace {

std::filesystem::path fuzzDirectory() { return wireloom::testing::sourceDir() / "fuzz"; }

using FuzzTarget = int (*)(const std::uint8_t*, std::size_t);

std::size_t replayAll(const std::filesystem::path& directory, FuzzTarget target) {
    std::size_t replayed = 0;
    if (!std::filesystem::exists(directory)) return 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
        if (!entry.is_regular_file()) continue;
        std::ifstream in(entry.path(), std::ios::binary);
        std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        target(bytes.data(), bytes.size());
        ++replayed;
    }
    return replayed;
}

}  // namespace

TEST(FuzzCorpus, PacketDecodeInputsReplayCleanly) {
    EXPECT_GT(replayAll(fuzzDirectory() / "corpus" / "packet_decode", wireloomFuzz_packet_decode), 0u);
    replayAll(fuzzDirectory() / "regressions" / "packet_decode", wireloomFuzz_packet_decode);
}

TEST(FuzzCorpus, TcpBufferInputsReplayCleanly) {
    EXPECT_GT(replayAll(fuzzDirectory() / "corpus" / "tcp_buffer", wireloomFuzz_tcp_buffer), 0u);
    replayAll(fuzzDirectory() / "regressions" / "tcp_buffer", wireloomFuzz_tcp_buffer);
}

TEST(FuzzCorpus, HelperRequestInputsReplayCleanly) {
    EXPECT_GT(replayAll(fuzzDirectory() / "corpus" / "helper_request", wireloomFuzz_helper_request), 0u);
    replayAll(fuzzDirectory() / "regressions" / "helper_request", wireloomFuzz_helper_request);
}

TEST(FuzzCorpus, FlowTableInputsReplayCleanly) {
    EXPECT_GT(replayAll(fuzzDirectory() / "corpus" / "flow_table", wireloomFuzz_flow_table), 0u);
    replayAll(fuzzDirectory() / "regressions" / "flow_table", wireloomFuzz_flow_table);
}

TEST(FuzzCorpus, HttpAnalyzerInputsReplayCleanly) {
    EXPECT_GT(replayAll(fuzzDirectory() / "corpus" / "http_analyzer", wireloomFuzz_http_analyzer), 0u);
    replayAll(fuzzDirectory() / "regressions" / "http_analyzer", wireloomFuzz_http_analyzer);
}

TEST(FuzzCorpus, MdnsDecodeInputsReplayCleanly) {
    EXPECT_GT(replayAll(fuzzDirectory() / "corpus" / "mdns_decode", wireloomFuzz_mdns_decode), 0u);
    replayAll(fuzzDirectory() / "regressions" / "mdns_decode", wireloomFuzz_mdns_decode);
}

TEST(FuzzCorpus, FilterIndexInputsReplayCleanly) {
    EXPECT_GT(replayAll(fuzzDirectory() / "corpus" / "filter_index", wireloomFuzz_filter_index), 0u);
    replayAll(fuzzDirectory() / "regressions" / "filter_index", wireloomFuzz_filter_index);
}
