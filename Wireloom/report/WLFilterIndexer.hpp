#pragma once
// WLFilterIndexer: the full-text index behind the report filter. It keeps one
// text per entry source in an append-only temporary file and answers, for
// each word, which sources' texts contain it, without holding any text in
// memory between searches:
//
//   std::string error;
//   auto indexer = WLFilterIndexer::init(&error);     // null when no file can be made
//   indexer->writeFilterText("tcp 10.0.0.1:80 get /", 0);
//   indexer->writeFilterText("udp 10.0.0.2:53", 1);
//   auto found = indexer->indexesContainingText({"10.0.0.", "get"});
//   // found[0] == {0, 1}, found[1] == {0}
//
// The file, "temp.XXXXXX" in $TMPDIR (or /tmp), is a run of records: the
// text's bytes, 1 to 16 zero bytes that end it on a multiple of 16, then the
// source index as 4 bytes, little-endian. So every index field starts on a
// multiple of 16 right after a zero byte, which is how a search finds the
// record around a match without any table. Texts must not contain the zero
// byte. The file is deleted with the indexer.
//
// Searches are byte-exact (the filter lower-cases both sides) and look at
// most at a word's first 255 bytes. A one-byte word is searched with a plain
// scan that, deliberately, does not see a byte among the first 12 of a text
// (16 for the first text of the file), nor among the first 16 bytes of each
// 2 MiB the scan reads.
//
// Writers and searchers may be on different threads: every write and every
// whole search holds `lock`.

#include <Wireloom/core/IndexSet.hpp>

#include <cstdint>
#include <memory>
#include <semaphore>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace wireloom {

class WLFilterIndexer {
public:
    // The record alignment; also the most zero bytes a record's padding has.
    static constexpr std::int64_t kNullTerminatorSize = 16;
    static constexpr std::size_t kReadBufferSize = 0x200000;
    static constexpr std::size_t kMaximumPatternLength = 255;

    // A new, empty index in a new temporary file; null, with the reason in
    // *errorDescription, when the file cannot be made.
    static std::unique_ptr<WLFilterIndexer> init(std::string* errorDescription = nullptr);
    ~WLFilterIndexer();
    WLFilterIndexer(const WLFilterIndexer&) = delete;
    WLFilterIndexer& operator=(const WLFilterIndexer&) = delete;

    // Appends one record. The same index may be written more than once; each
    // copy can match.
    void writeFilterText(std::string_view text, std::uint32_t index);
    // One set per text, in the same order: the index of every record whose
    // text contains it.
    std::vector<IndexSet> indexesContainingText(std::span<const std::string> texts);
    std::vector<IndexSet> indexesContainingText(std::initializer_list<std::string> texts) {
        return indexesContainingText(std::span<const std::string>(texts.begin(), texts.size()));
    }

    int fd() const noexcept { return fd_; }
    const std::string& path() const noexcept { return path_; }
    // Bytes written so far: searches read no further, so they never see a
    // record being written.
    std::int64_t fileLength() const noexcept { return fileLength_; }
    std::binary_semaphore& lock() noexcept { return lock_; }

private:
    WLFilterIndexer(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}

    int fd_ = -1;
    std::string path_;
    std::int64_t fileLength_ = 0;
    std::binary_semaphore lock_{1};
};

}  // namespace wireloom
