// The command writes frames' JSON itself rather than through nlohmann values;
// every line must still be what nlohmann's dump() made of the same tree.
#include "EntryOutput.hpp"
#include "packets/PacketTestSupport.hpp"

#include <gtest/gtest.h>

using namespace wireloom;
using namespace wireloom::testing;

namespace {

// What `write` makes of `text`, or the message of what nlohmann threw.
template <class Write>
std::string written(const std::string& text, Write write) {
    std::string out;
    try {
        write(out, text);
    } catch (const nlohmann::json::exception& e) {
        return std::string("threw ") + e.what();
    }
    return out;
}

std::string ours(PXReportAnalyzerEntry& entry) {
    std::string out;
    cli::appendEntryJSON(out, entry);
    return out;
}

}  // namespace

TEST(JsonWriter, StringsEscapeAsNlohmannEscapesThem) {
    std::vector<std::string> texts;
    for (int c = 0; c < 0x80; ++c) texts.push_back(std::string("a") + static_cast<char>(c) + "b");
    for (const char* text : {"", "\"\\\"", "Größe 日本 🙂", "\x7f\x1f", "bad \xff byte", "over\xc0\xaflong",
                             "cut \xe6\x97", "surrogate \xed\xa0\x80"})
        texts.push_back(text);
    for (const std::string& text : texts)
        EXPECT_EQ(written(text, cli::appendJSONString),
                  written(text, [](std::string& out, const std::string& t) { out = nlohmann::json(t).dump(); }))
            << text;
}

TEST(JsonWriter, FrameTreesMatchTheirNlohmannDump) {
    // Quotes, backslashes and control bytes in the payload reach the dump's
    // text column; an empty payload makes a dump with no lines.
    Bytes payload = bytesOf("GET /\"quoted\"\\path HTTP/1.1\r\n\t");
    for (int c = 0; c < 256; ++c) payload.push_back(static_cast<std::uint8_t>(c));
    for (const Bytes& data : {payload, Bytes{}}) {
        const Bytes frame = ethernet(kMacA, kMacB, kEtherTypeIPv4,
                                     ipv4(ip4("10.0.0.1"), ip4("10.0.0.2"), kProtoTCP,
                                          tcp({.sourcePort = 49152, .destPort = 80, .seq = 1, .payload = data})));
        for (const auto& entry : cli::layerEntries(*decode(frame)))
            EXPECT_EQ(ours(*entry), cli::entryJSON(*entry).dump()) << entry->plainTitle();
    }
    // A tree whose lines were already built is written from them.
    auto tree = PXReportAnalyzerEntry::entry();
    tree->setProtocolLayerName("Outer");
    const std::uint8_t bytes[] = {'"', 0, '\\', 0x7f, 'x'};
    tree->addEntryWithData(ByteBuffer::copy(bytes, sizeof bytes));
    (void)tree->children()->front()->children();
    EXPECT_EQ(ours(*tree), cli::entryJSON(*tree).dump());
}
