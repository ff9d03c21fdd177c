// The indexer's file, byte for byte, and its searches against a plain
// substring search per record over thousands of random records, with the
// cases that random records seldom reach on their own.
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
        image.insert(image.end(), record.text.begin(), record.text.end());
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
        EXPECT_NE(path.find("/temp."), std::string::npos) << path;
        EXPECT_EQ(access(path.c_str(), F_OK), 0);
    }
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}

// Over 2 MiB of random records in a four-letter alphabet, with indexes whose
// bytes are often letters too, so that a match could begin in an index; words
// taken from texts (prefixes, suffixes, pieces across the window's 2 MiB
// edge) or made up.
TEST_F(FilterIndexer, AgreesWithAPlainSearchPerRecord) {
    std::mt19937 random(20240611);
    const std::string alphabet = "abcd";
    const auto letter = [&] { return alphabet[random() % alphabet.size()]; };
    std::vector<Record> records;
    std::size_t total = 0, edgeRecord = 0;
    while (total < WLFilterIndexer::kReadBufferSize + 200000) {
        Record record;
        // One record reaching 500 bytes over the 2 MiB edge, so that words
        // can cross it. No record advances more than 2,040 bytes, so one
        // starts within this window.
        const std::size_t edgeAt = WLFilterIndexer::kReadBufferSize;
        const bool nearEdge = edgeRecord == 0 && total + 2200 > edgeAt && total + 100 < edgeAt;
        if (nearEdge) edgeRecord = records.size();
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
    // The file byte for byte: text, 1 to 16 zero bytes up to a multiple of
    // 16, the index in little-endian order.
    const Bytes image = layout(records);
    ASSERT_EQ(fileBytes(*indexer), image);
    ASSERT_EQ(indexer->fileLength(), static_cast<std::int64_t>(image.size()));

    // A one-byte word is blind where the indexer says it is.
    const auto contains = [&](const Record& record, const std::string& word) {
        if (word.size() > 1) return record.text.find(word) != std::string::npos;
        for (std::size_t f = record.offset; f < record.offset + record.text.size(); ++f)
            if (image[f] == static_cast<std::uint8_t>(word[0]) && f % WLFilterIndexer::kReadBufferSize >= 16 &&
                image[f - f % 16 - 1] != 0)
                return true;
        return false;
    };
    const Record* edge = &records[edgeRecord];
    ASSERT_TRUE(edge->offset + 40 < WLFilterIndexer::kReadBufferSize &&
                edge->offset + edge->text.size() > WLFilterIndexer::kReadBufferSize + 40);

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
        for (const Record& record : records)
            if (contains(record, words[i])) expected.addIndex(record.index);
        EXPECT_EQ(found[i], expected) << "word " << words[i];
    }
}
