// The builders: value kinds, missing values, counted titles with their
// plural rule, error lines, paired fields, and hex dumps.
#include <Wireloom/report/PXReportAnalyzerEntry.hpp>
#include <Wireloom/text/WLColors.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>

using namespace wireloom;

namespace {

using Entry = PXReportAnalyzerEntry;

std::vector<std::string> childTitles(const Entry::Ptr& entry) {
    std::vector<std::string> titles;
    if (auto children = entry->children())
        for (const auto& child : *children) titles.emplace_back(child->plainTitle());
    return titles;
}

}  // namespace

TEST(EntryBuilders, ValueKindsFormatTheirValues) {
    auto e = Entry::entry();
    const std::uint64_t big = 0xfedcba9876543210ull;
    struct Case {
        Value value;
        unsigned type;
        const char* expected;
    };
    for (const Case& c :
         {Case{big, 0, "k: 18364758544493064720"}, Case{5, 1, "k: 0x5"}, Case{5, 2, "k: 0x05"},
          Case{0x800, 3, "k: 0x0800"}, Case{0x86dd, 4, "k: 0x000086dd"}, Case{big, 5, "k: 0xfedcba9876543210"},
          Case{1.5, 6, "k: 1.500000"}, Case{"text", 7, "k: text"}, Case{true, 9, "k: YES"}, Case{false, 9, "k: NO"},
          Case{Value(), 0, "k: (null)"}, Case{5, 8, "k: (null)"}}) {
        auto line = e->setValue(c.value, "k", c.type);
        ASSERT_TRUE(line) << c.expected;
        EXPECT_EQ(line->plainTitle(), c.expected);
    }
    EXPECT_EQ(e->setValue(1, "k", 10), nullptr);

    // Keys in the key colour, values in the value colour, nulls in their own.
    auto line = e->addLineWithKey("Source", "10.0.0.1");
    EXPECT_EQ(line->title()->stringWithoutColorizedText(), ": ");
    auto rendered = line->title()->attributedString();
    EXPECT_EQ(rendered->attributesAt(0).foregroundColor, *WLColors::keyColorPointer());
    EXPECT_EQ(rendered->attributesAt(8).foregroundColor, *WLColors::valueColorPointer());
    rendered = e->addLineWithKey("Gone", Value())->title()->attributedString();
    EXPECT_EQ(rendered->attributesAt(6).foregroundColor, *WLColors::nullValueColorPointer());
}

TEST(EntryBuilders, CountedTitlesAndThePluralRule) {
    auto e = Entry::entry();
    e->setTitleWithLabel(std::optional<std::string>("Payload"), 0, "byte");
    EXPECT_EQ(e->plainTitle(), "Payload (0 bytes)");
    e->setTitleWithLabel(std::optional<std::string>("Answers"), 1, "entry");
    EXPECT_EQ(e->plainTitle(), "Answers (1 entry)");
    e->setTitleWithLabel(std::nullopt, 3, "entry");
    EXPECT_EQ(e->plainTitle(), "3 entries");
    EXPECT_EQ(Entry::pluralOfUnit("day"), "days");
    EXPECT_EQ(Entry::pluralOfUnit("awy"), "awies");  // w counts as a consonant, deliberately
    // The coloured variant only ever appends "s".
    e->setTitleWithLabel("Records", Color::red(), 2, "entry");
    EXPECT_EQ(e->plainTitle(), "Records (2 entrys)");
    EXPECT_EQ(e->title()->stringWithoutColorizedText(), " ( entrys)");
}

TEST(EntryBuilders, ErrorLinesAndPairedFields) {
    auto e = Entry::entry();
    auto error = e->addLineWithErrorLabel("Parse", "bad header");
    EXPECT_EQ(error->plainTitle(), "Parse: bad header");
    EXPECT_EQ(error->title()->stringWithoutColorizedText(), "Parse: ");

    auto fields = Entry::entry();
    fields->addLinesWithValueKeyFields({Value("v1"), Value("k1"), Value("orphan")});
    EXPECT_EQ(childTitles(fields), std::vector<std::string>{"k1: v1"});
    auto section = fields->addLinesWithValueKeyFields({Value(1), Value("a"), Value(), Value("b")}, "Section");
    EXPECT_EQ(section->plainTitle(), "Section");
    EXPECT_EQ(childTitles(section), (std::vector<std::string>{"a: 1", "b: (null)"}));
}

// Every byte value in every column, and a last line of five bytes at an
// offset past four digits (its characters either side of the printable
// range), against printf; the plain writer, used while the lines are not
// built, agrees with the lines.
TEST(EntryBuilders, HexDumpsMatchPrintfLineForLine) {
    std::vector<std::uint8_t> bytes(0x10000 + 5);
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(i * 167 + 3 + i / 2048);
    std::copy_n("\x1f\x20\x7e\x7f\x41", 5, bytes.end() - 5);
    auto e = Entry::entry();
    auto dump = e->addEntryWithData(ByteBuffer::copy(bytes.data(), bytes.size()), "All");
    EXPECT_EQ(dump->plainTitle(), "All (65541 bytes)");
    std::string plain(dump->hexDumpTextBound("  "), '\0');
    plain.resize(static_cast<std::size_t>(dump->writeHexDumpText(plain.data(), "  ") - plain.data()));

    std::string expected, fromLines;
    for (std::size_t offset = 0; offset < bytes.size(); offset += 8) {
        char line[64];
        std::string hex, characters;
        for (std::size_t i = 0; i < 8; ++i) {
            if (i % 4 == 0) hex += ' ';
            const bool present = offset + i < bytes.size();
            std::snprintf(line, sizeof line, "%02x", present ? bytes[offset + i] : 0);
            hex += present ? line : "  ";
            if (present) characters += std::isprint(bytes[offset + i]) ? static_cast<char>(bytes[offset + i]) : '.';
        }
        std::snprintf(line, sizeof line, "  %04zx%s    %s\n", offset, hex.c_str(), characters.c_str());
        expected += line;
    }
    for (const auto& child : *dump->children()) fromLines += "  " + std::string(child->plainTitle()) + "\n";
    EXPECT_EQ(plain, expected);
    EXPECT_EQ(fromLines, expected);
    EXPECT_EQ(dump->hexDumpTextBound("  "), 0u);  // its lines are built now
    // Fixed pitch; offset and characters coloured, the hex plain.
    const auto& first = dump->children()->front();
    EXPECT_TRUE(first->displayUsingFixedPitchFont());
    EXPECT_EQ(first->title()->stringWithoutColorizedText(), " 03aa51f8 9f46ed94    ");

    auto empty = e->setValue(ByteBuffer(), "Payload", 8);
    EXPECT_EQ(empty->plainTitle(), "Payload (0 bytes)");
    EXPECT_EQ(empty->numChildren(), 0u);
}
