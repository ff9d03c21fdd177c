// Writes records decoded from the input to a filter index, searches it for
// patterns from the input, and stops at the first answer that differs from
// a plain search per record (for one-byte patterns, from the same search
// with the deliberate blind spots, worked out on a copy of the layout).
//
// The input: a pattern count, the patterns (a length byte, then the bytes,
// zero bytes included), then records until the input ends. A record is a
// mode byte and its text; mode bit 0x80 gives the text as a length byte and
// bytes (zero bytes become 'z'); otherwise the text is a filler of one
// letter, up to 2.2 KiB long, or with bit 0x20 up to 2.5 MiB, so that records
// and matches reach across the search's 2 MiB window; bit 0x40 takes the
// index from four input bytes, which can make an index field look like text.
#include "FuzzTarget.hpp"

#include <Wireloom/core/Assert.hpp>
#include <Wireloom/core/detail/ByteReader.hpp>
#include <Wireloom/report/WLFilterIndexer.hpp>

#include <string>
#include <vector>

namespace {

using namespace wireloom;

constexpr std::size_t kMostFileBytes = 3 << 20;

struct Record {
    std::string text;
    std::uint32_t index;
    std::size_t offset;
};

}  // namespace

WIRELOOM_FUZZ_TARGET(filter_index) {
    detail::ByteReader in(data, size);
    std::vector<std::string> patterns(1 + in.readByte() % 4);
    for (std::string& pattern : patterns) {
        const std::size_t length = in.readByte() % 48;
        for (std::size_t i = 0; i < length && in.has(1); ++i) pattern.push_back(static_cast<char>(in.readByte()));
    }
    std::vector<Record> records;
    std::string image;  // the file as its layout says it must be
    while (in.remaining() >= 2 && image.size() < kMostFileBytes) {
        const std::uint8_t mode = in.readByte();
        Record record{{}, static_cast<std::uint32_t>(records.size()), image.size()};
        if (mode & 0x80) {
            for (std::size_t length = in.readByte(); length > 0 && in.has(1); --length) {
                const auto c = static_cast<char>(in.readByte());
                record.text.push_back(c == '\0' ? 'z' : c);
            }
        } else {
            const std::size_t unit = mode & 0x20 ? 80000 : 64;
            record.text.assign((mode & 0x1F) * unit + in.readByte(), static_cast<char>('a' + mode % 3));
        }
        if ((mode & 0x40) && in.has(4)) record.index = in.readHost<std::uint32_t>();
        image += record.text;
        do image.push_back('\0');
        while (image.size() % 16 != 0);
        for (int i = 0; i < 4; ++i) image.push_back(static_cast<char>(record.index >> (8 * i)));
        records.push_back(std::move(record));
    }

    std::unique_ptr<WLFilterIndexer> indexer = WLFilterIndexer::init();
    if (!indexer) return 0;
    for (const Record& record : records) indexer->writeFilterText(record.text, record.index);
    WL_ASSERT(indexer->fileLength() == static_cast<std::int64_t>(image.size()), "file length differs from the layout");
    const std::vector<IndexSet> found = indexer->indexesContainingText(patterns);

    for (std::size_t p = 0; p < patterns.size(); ++p) {
        const std::string& pattern = patterns[p];
        IndexSet expected;
        if (pattern.find('\0') == std::string::npos) {
            for (const Record& record : records) {
                if (pattern.size() > 1) {
                    if (record.text.find(pattern) != std::string::npos) expected.addIndex(record.index);
                    continue;
                }
                for (std::size_t f = record.offset; pattern.size() == 1 && f < record.offset + record.text.size(); ++f)
                    if (image[f] == pattern[0] && f % WLFilterIndexer::kReadBufferSize >= 16 &&
                        image[f - f % 16 - 1] != '\0') {
                        expected.addIndex(record.index);
                        break;
                    }
            }
        }
        WL_ASSERT(found[p] == expected, "search differs from the plain search");
    }
    return 0;
}
