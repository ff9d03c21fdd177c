// The indexer's file, byte for byte, and its searches against a plain
// substring search per record over thousands of random records.
#include <Wireloom/report/WLFilterIndexer.hpp>

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <iterator>
#include <random>

using namespace wireloom;

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes fileBytes(const WLFilterIndexer& indexer) {
    std::ifstream in(indexer.path(), std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

Bytes bytes(std::string_view text) { return Bytes(text.begin(), text.end()); }

void append(Bytes& to, const Bytes& more) { to.insert(to.end(), more.begin(), more.end()); }

// The layout as the file format describes it, built without the indexer.
struct Record {
    std::string text;
    std::uint32_t index;
    std::size_t offset = 0;  // of the text in the file
};

Bytes layout(std::vector<Record>& records) {
    Bytes image;
    for (Record& record : records) {
        record.offset = image.size();
        append(image, bytes(record.text));
        do image.push_back(0);
        while (image.size() % 16 != 0);
        for (int i = 0; i < 4; ++i) image.push_back(static_cast<std::uint8_t>(record.index >> (8 * i)));
    }
    return image;
}

class FilterIndexer : public ::testing::Test {
protected:
    void SetUp() override {
        indexer = WLFilterIndexer::init(&error);
        ASSERT_TRUE(indexer) << error;
    }
    IndexSet find(const std::string& word) { return indexer->indexesContainingText({word})[0]; }

    std::string error;
    std::unique_ptr<WLFilterIndexer> indexer;
};

}  // namespace

TEST_F(FilterIndexer, RecordsAreTextPaddingAndAlignedIndex) {
    const std::string sixteen = "0123456789abcdef";
    indexer->writeFilterText(sixteen, 0x01020304);  // ends on 16: a whole block of padding
    indexer->writeFilterText("abc", 7);
    indexer->writeFilterText("twelve bytes", 0xFFFFFFFF);  // from offset 52, ends on 64

    Bytes expected = bytes(sixteen);
    append(expected, Bytes(16, 0));
    append(expected, {4, 3, 2, 1});
    append(expected, bytes("abc"));
    append(expected, Bytes(9, 0));
    append(expected, {7, 0, 0, 0});
    append(expected, bytes("twelve bytes"));
    append(expected, Bytes(16, 0));
    append(expected, {0xFF, 0xFF, 0xFF, 0xFF});
    EXPECT_EQ(fileBytes(*indexer), expected);
    EXPECT_EQ(indexer->fileLength(), static_cast<std::int64_t>(expected.size()));
    EXPECT_TRUE(indexer->path().find("/temp.") != std::string::npos) << indexer->path();

    std::mt19937 random(3);
    for (int i = 0; i < 100; ++i) {
        indexer->writeFilterText(std::string(random() % 40, 'x'), static_cast<std::uint32_t>(i));
        ASSERT_EQ(indexer->fileLength() % 16, 4);
    }
    EXPECT_EQ(fileBytes(*indexer).size(), static_cast<std::size_t>(indexer->fileLength()));
}

TEST_F(FilterIndexer, SameTextUnderTwoIndexesYieldsBoth) {
    const std::string text = "tcp 10.0.0.1:80 => 10.0.0.2:5000 get /index.html";
    indexer->writeFilterText(text, 3);
    indexer->writeFilterText("udp :53 10.0.0.9", 5);
    indexer->writeFilterText(text, 9);
    const auto found = indexer->indexesContainingText({"get", "10.0.0.", "/index.html", "l", "5"});
    EXPECT_EQ(found[0], IndexSet({3, 9}));
    EXPECT_EQ(found[1], IndexSet({3, 5, 9}));
    EXPECT_EQ(found[2], IndexSet({3, 9}));
    EXPECT_EQ(found[3], IndexSet({3, 9}));  // one byte, past the twelfth
    EXPECT_EQ(found[4], IndexSet({3, 9}));  // "5" of udp's record is within its first 12 bytes
}

TEST_F(FilterIndexer, PatternsEmptyTooLongOrCapped) {
    indexer->writeFilterText("abc", 0);
    EXPECT_TRUE(find(std::string(30, 'a')).empty());  // longer than the whole file
    const std::string longText = std::string(255, 'a') + "b" + std::string(20, 'c');
    indexer->writeFilterText(longText, 1);
    indexer->writeFilterText(std::string(300, 'a'), 2);
    EXPECT_TRUE(find("").empty());
    EXPECT_TRUE(find(std::string("a\0a", 3)).empty());  // no text holds a zero byte
    EXPECT_EQ(find(std::string(255, 'a')), IndexSet({1, 2}));
    // Only the first 255 bytes of a pattern count: the b is not looked at.
    EXPECT_EQ(find(std::string(255, 'a') + "b"), IndexSet({1, 2}));
    EXPECT_EQ(find(std::string(254, 'a') + "b"), IndexSet({1}));
    EXPECT_EQ(find("bc"), IndexSet({0, 1}));
}

TEST_F(FilterIndexer, OneByteSearchHasItsBlindSpots) {
    indexer->writeFilterText("q...............Q", 0);    // q within the file's first 16 bytes, Q after
    indexer->writeFilterText("...........z.......", 1);  // z is byte 11 of the text
    indexer->writeFilterText("............z......", 2);  // z is byte 12
    EXPECT_TRUE(find("q").empty());
    EXPECT_EQ(find("Q"), IndexSet({0}));
    EXPECT_EQ(find("z"), IndexSet({2}));
    // Longer words see every position.
    EXPECT_EQ(find("q."), IndexSet({0}));
    EXPECT_EQ(find(".z"), IndexSet({1, 2}));
}

TEST_F(FilterIndexer, WriteAfterSearchAppendsAtTheEnd) {
    indexer->writeFilterText("first record", 1);
    EXPECT_EQ(find("record"), IndexSet({1}));
    indexer->writeFilterText("second record", 2);
    EXPECT_EQ(find("record"), IndexSet({1, 2}));
    std::vector<Record> records{{"first record", 1}, {"second record", 2}};
    EXPECT_EQ(fileBytes(*indexer), layout(records));
}

TEST_F(FilterIndexer, MatchesBeginningInAnIndexFieldAreNotText) {
    // The index 0x6f6f6c00 is the bytes 00 'l' 'o' 'o': "loo" appears in the
    // file only across the index field.
    indexer->writeFilterText("first", 0x6f6f6c00);
    indexer->writeFilterText("op", 2);
    EXPECT_TRUE(find("loo").empty());
    EXPECT_TRUE(find("oop").empty());
    EXPECT_EQ(find("op"), IndexSet({2}));
}

TEST_F(FilterIndexer, ShortReadEndsTheOneByteSearch) {
    // Records up to just past 2 MiB, the byte looked for in each; then the
    // file is cut, so the second chunk cannot be read whole.
    std::uint32_t index = 0;
    while (indexer->fileLength() < static_cast<std::int64_t>(WLFilterIndexer::kReadBufferSize) + 1000)
        indexer->writeFilterText("a record holding the letter k", index++);
    ASSERT_EQ(truncate(indexer->path().c_str(), indexer->fileLength() - 10), 0);
    // Each record is 48 bytes; those wholly in the first 2 MiB are found.
    EXPECT_EQ(find("k"), IndexSet::withRange(0, WLFilterIndexer::kReadBufferSize / 48));
}

TEST(FilterIndexerDeathTest, BrokenInvariantsStopTheProgram) {
    std::string error;
    auto indexer = WLFilterIndexer::init(&error);
    ASSERT_TRUE(indexer) << error;
    EXPECT_DEATH(indexer->writeFilterText(std::string("a\0b", 3), 0), "must not contain the zero byte");
    // A file size limit makes the write short.
    const auto writeOverTheLimit = [&] {
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit{};
        limit.rlim_cur = limit.rlim_max = 64;
        setrlimit(RLIMIT_FSIZE, &limit);
        indexer->writeFilterText(std::string(100, 'x'), 0);
    };
    EXPECT_DEATH(writeOverTheLimit(), "write\\(_fd, \\[data bytes\\], entrySize\\) == entrySize");
}

TEST(FilterIndexerFailure, NoTemporaryFileNoIndexer) {
    const char* saved = std::getenv("TMPDIR");
    const std::string previous = saved ? saved : "";
    setenv("TMPDIR", "/nonexistent-wireloom-directory", 1);
    std::string error;
    EXPECT_FALSE(WLFilterIndexer::init(&error));
    EXPECT_NE(error.find("/nonexistent-wireloom-directory/temp.XXXXXX"), std::string::npos) << error;
    if (saved)
        setenv("TMPDIR", previous.c_str(), 1);
    else
        unsetenv("TMPDIR");
}

TEST(FilterIndexerTeardown, FileDisappearsWithTheIndexer) {
    std::string path;
    {
        auto indexer = WLFilterIndexer::init();
        ASSERT_TRUE(indexer);
        indexer->writeFilterText("x", 0);
        path = indexer->path();
        EXPECT_EQ(access(path.c_str(), F_OK), 0);
    }
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}

// Over 2 MiB of random records in a four-letter alphabet, with indexes whose
// bytes are often letters too; words taken from texts (prefixes, suffixes,
// pieces across the window's 2 MiB edge) or made up.
TEST_F(FilterIndexer, AgreesWithAPlainSearchPerRecord) {
    std::mt19937 random(20240611);
    const std::string alphabet = "abcd";
    const auto letter = [&] { return alphabet[random() % alphabet.size()]; };
    std::vector<Record> records;
    std::size_t total = 0;
    bool edgePlaced = false;
    while (total < WLFilterIndexer::kReadBufferSize + 200000) {
        Record record;
        // One record reaching 500 bytes over the 2 MiB edge, so that words
        // can cross it. No record advances more than 2,040 bytes, so one
        // starts within this window.
        const std::size_t edgeAt = WLFilterIndexer::kReadBufferSize;
        const bool nearEdge = !edgePlaced && total + 2200 > edgeAt && total + 100 < edgeAt;
        edgePlaced = edgePlaced || nearEdge;
        // One draw per statement: the order of two in one expression is up
        // to the compiler, and the records must not change with the build.
        const bool longRecord = random() % 8 == 0;
        const std::size_t length = nearEdge ? edgeAt - total + 500 : 1 + random() % (longRecord ? 2000 : 120);
        for (std::size_t i = 0; i < length; ++i) record.text.push_back(letter());
        if (random() % 3 == 0) {
            record.index = static_cast<std::uint32_t>(records.size());
        } else {
            const std::uint32_t all = random() % 4;
            record.index = 0x61616161u + all * 0x01010101u + (random() % 4 << 8);
        }
        // Where the next record starts: the index field sits at the first
        // multiple of 16 after the text and at least one zero byte.
        total = (total + length + 1 + 15) / 16 * 16 + 4;
        records.push_back(std::move(record));
    }
    for (const Record& record : records) indexer->writeFilterText(record.text, record.index);
    const Bytes image = layout(records);
    ASSERT_EQ(fileBytes(*indexer), image);

    const auto oneByteReference = [&](char c) {
        IndexSet expected;
        for (const Record& record : records)
            for (std::size_t f = record.offset; f < record.offset + record.text.size(); ++f)
                if (image[f] == static_cast<std::uint8_t>(c) && f % WLFilterIndexer::kReadBufferSize >= 16 &&
                    image[f - f % 16 - 1] != 0) {
                    expected.addIndex(record.index);
                    break;
                }
        return expected;
    };
    const Record* edge = nullptr;  // the record over the window's first edge
    for (const Record& record : records)
        if (record.offset + 40 < WLFilterIndexer::kReadBufferSize &&
            record.offset + record.text.size() > WLFilterIndexer::kReadBufferSize + 40)
            edge = &record;
    ASSERT_TRUE(edge);

    std::vector<std::string> words;
    for (int i = 0; i < 160; ++i) {
        const Record& from = records[random() % records.size()];
        const std::size_t length = 1 + random() % 40;
        const std::size_t kind = random() % 5;
        if (kind == 4 || length > from.text.size()) {
            std::string word;
            for (std::size_t j = 0; j < length; ++j) word.push_back(letter());
            words.push_back(word);
        } else if (kind == 3) {
            const std::size_t at = WLFilterIndexer::kReadBufferSize - edge->offset - random() % length;
            words.push_back(edge->text.substr(at, length));
        } else {
            const std::size_t at = kind == 0   ? 0
                                   : kind == 1 ? from.text.size() - length
                                               : random() % (from.text.size() - length + 1);
            words.push_back(from.text.substr(at, length));
        }
    }
    const std::vector<IndexSet> found = indexer->indexesContainingText(words);
    for (std::size_t i = 0; i < words.size(); ++i) {
        IndexSet expected;
        if (words[i].size() == 1) {
            expected = oneByteReference(words[i][0]);
        } else {
            for (const Record& record : records)
                if (record.text.find(words[i]) != std::string::npos) expected.addIndex(record.index);
        }
        EXPECT_EQ(found[i], expected) << "word " << words[i];
    }
}
