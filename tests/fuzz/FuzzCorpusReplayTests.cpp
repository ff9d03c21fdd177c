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

TEST(FuzzCorpus, EveryTargetReplaysItsInputsCleanly) {
    const struct {
        const char* name;
        FuzzTarget target;
    } targets[] = {{"packet_decode", wireloomFuzz_packet_decode},   {"tcp_buffer", wireloomFuzz_tcp_buffer},
                   {"helper_request", wireloomFuzz_helper_request}, {"flow_table", wireloomFuzz_flow_table},
                   {"http_analyzer", wireloomFuzz_http_analyzer},   {"mdns_decode", wireloomFuzz_mdns_decode},
                   {"filter_index", wireloomFuzz_filter_index}};
    for (const auto& [name, target] : targets) {
        EXPECT_GT(replayAll(fuzzDirectory() / "corpus" / name, target), 0u) << name;
        replayAll(fuzzDirectory() / "regressions" / name, target);
    }
}
