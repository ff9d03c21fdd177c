#include <Wireloom/report/WLFilterIndexer.hpp>

#include <Wireloom/core/Assert.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace wireloom {

namespace {

constexpr std::int64_t kAlign = WLFilterIndexer::kNullTerminatorSize;
constexpr auto kBufferSize = static_cast<std::int64_t>(WLFilterIndexer::kReadBufferSize);
// Ten skips that advance less than this hand over to memchr.
constexpr std::int64_t kShortAdvance = 128;

std::uint32_t littleEndian32(const std::uint8_t* bytes) {
    return static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
           static_cast<std::uint32_t>(bytes[2]) << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
}

// The bytes [start, start + length) of the file; false when fewer arrive,
// which only happens when the file was cut behind the indexer's back.
bool readAt(int fd, std::uint8_t* into, std::int64_t start, std::int64_t length) {
    while (length > 0) {
        const ssize_t got = pread(fd, into, static_cast<std::size_t>(length), start);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        into += got, start += got, length -= got;
    }
    return true;
}

// One pattern's tuned Boyer-Moore search over the first N bytes of the file,
// through a 2 MiB window that is slid forward when a candidate leaves it.
//
// Positions are file offsets. t is one past the end of the candidate match;
// the skip loop moves it by d[byte at t - 1] until that byte is the
// pattern's last (shift 0), which is then checked against the guard byte
// (the next-to-last) before the whole pattern is compared.
class PatternSearch {
public:
    PatternSearch(int fd, std::int64_t fileLength, std::uint8_t* buffer) : fd_(fd), n_(fileLength), buffer_(buffer) {}

    void run(std::string_view pattern, IndexSet& result);

private:
    enum class Verdict { Rejected, Accepted, Stop };

    // The window starts at `start` and holds up to 2 MiB, never past N.
    bool slideTo(std::int64_t start) {
        start = std::max<std::int64_t>(start, 0);
        if (start >= n_) return false;
        bufferStart_ = start;
        bufferLength_ = std::min(kBufferSize, n_ - start);
        return readAt(fd_, buffer_, start, bufferLength_);
    }
    bool holds(std::int64_t position) const noexcept {
        return position >= bufferStart_ && position < bufferStart_ + bufferLength_;
    }
    std::uint8_t at(std::int64_t position) const noexcept { return buffer_[position - bufferStart_]; }

    void buildTables();
    Verdict verify(std::int64_t t);
    // Adds the index of the record holding the match that ends at t and
    // moves t to the first candidate end in the next record's text.
    bool recordMatch(std::int64_t& t, IndexSet& result);
    void runFast(std::int64_t& t, IndexSet& result, bool& stopped);
    void runCareful(std::int64_t t, IndexSet& result);
    void runOneByte(std::uint8_t c, IndexSet& result);

    int fd_;
    std::int64_t n_;
    std::uint8_t* buffer_;
    std::int64_t bufferStart_ = 0;
    std::int64_t bufferLength_ = 0;

    const std::uint8_t* p_ = nullptr;
    std::int64_t m_ = 0;
    std::array<std::uint8_t, 256> d_{};
    std::int64_t md2_ = 0;
    std::uint8_t guard_ = 0;
};

void PatternSearch::buildTables() {
    // Shifts fit in a byte because patterns are capped at 255 bytes.
    d_.fill(static_cast<std::uint8_t>(m_));
    for (std::int64_t i = 0; i < m_; ++i) d_[p_[i]] = static_cast<std::uint8_t>(m_ - 1 - i);
    // After a mismatch, slide to the previous occurrence of the last byte.
    md2_ = m_;
    for (std::int64_t i = 0; i < m_ - 1; ++i)
        if (p_[i] == p_[m_ - 1]) md2_ = m_ - 1 - i;
    guard_ = p_[m_ - 2];
}

PatternSearch::Verdict PatternSearch::verify(std::int64_t t) {
    const std::int64_t start = t - m_;
    // A match that begins inside an index field (whose bytes can look like
    // text) is not in any record's text. Index fields start on a multiple of
    // 16 right after a zero byte, and the first record has none before it.
    const bool mayBeInIndexField = start % kAlign < 4 && start >= kAlign;
    const std::int64_t lookBehind = start - start % kAlign - 1;
    if (t - bufferStart_ >= kBufferSize || (mayBeInIndexField && lookBehind < bufferStart_)) {
        if (!slideTo(t - m_ - kAlign)) return Verdict::Stop;
    }
    if (!holds(t - 1) || !holds(start)) return Verdict::Stop;
    if (at(t - 2) != guard_ || std::memcmp(buffer_ + (start - bufferStart_), p_, static_cast<std::size_t>(m_ - 2)) != 0)
        return Verdict::Rejected;
    if (!mayBeInIndexField) return Verdict::Accepted;
    WL_ASSERT(lookBehind - bufferStart_ >= 0, "BUF_OFF(tp-i-(tp%kNullTerminatorSize))-1 >= 0");
    return at(lookBehind) != 0 ? Verdict::Accepted : Verdict::Rejected;
}

bool PatternSearch::recordMatch(std::int64_t& t, IndexSet& result) {
    // The record's index field is the first multiple of 16 after the match
    // whose preceding byte is zero: texts hold no zero bytes.
    std::int64_t position = (t / kAlign + 1) * kAlign;
    for (;;) {
        if (position - 1 >= bufferStart_ + bufferLength_ && !slideTo(position - 1)) return false;
        const std::int64_t o = position - bufferStart_;
        WL_ASSERT(o > 0, "o > 0");
        if (buffer_[o - 1] == 0) break;
        position += kAlign;
    }
    if (position + 4 > bufferStart_ + bufferLength_ && (!slideTo(position - 1) || position + 4 > n_)) return false;
    result.addIndex(littleEndian32(buffer_ + (position - bufferStart_)));
    t = position + 4 + m_;
    return true;
}

void PatternSearch::runFast(std::int64_t& t, IndexSet& result, bool& stopped) {
    // The skip loop takes ten steps of at most m without looking at the end
    // of the file or of the window: the limit keeps 11 m of file after t and
    // the slide keeps 10 m of window.
    const std::int64_t limit = n_ - 11 * m_;
    const std::uint8_t* d = d_.data();
    const std::uint8_t last = p_[m_ - 1];
    while (t <= limit) {
        if (t - bufferStart_ + 10 * m_ >= kBufferSize && !slideTo(t - m_ - 1)) {
            stopped = true;
            return;
        }
        const std::uint8_t* b = buffer_;
        const std::int64_t k0 = t - bufferStart_;
        std::int64_t k = k0;
        std::uint8_t s;
        // Unrolled 2 + 3 + 3 + 2: a zero shift stays zero, so testing the
        // last shift of each group is enough.
        s = d[b[k - 1]], k += s;
        s = d[b[k - 1]], k += s;
        if (s != 0) {
            s = d[b[k - 1]], k += s;
            s = d[b[k - 1]], k += s;
            s = d[b[k - 1]], k += s;
            if (s != 0) {
                s = d[b[k - 1]], k += s;
                s = d[b[k - 1]], k += s;
                s = d[b[k - 1]], k += s;
                if (s != 0) {
                    s = d[b[k - 1]], k += s;
                    s = d[b[k - 1]], k += s;
                    // Ten steps that went little way mean the pattern's
                    // bytes are everywhere: memchr finds the next last byte
                    // faster, a vector at a time. It passes over no end of
                    // a match, so the answers are the same.
                    if (s != 0 && k - k0 < kShortAdvance) {
                        const std::int64_t stop = std::min(limit - bufferStart_, kBufferSize - 10 * m_ - 1);
                        const void* next =
                            k <= stop ? std::memchr(b + k - 1, last, static_cast<std::size_t>(stop - k + 1)) : nullptr;
                        if (next) {
                            k = static_cast<const std::uint8_t*>(next) - b + 1;
                            s = 0;
                        } else {
                            k = std::max(k, stop + 1);
                        }
                    }
                }
            }
        }
        t = k + bufferStart_;
        if (s != 0) continue;
        // Most candidates fail on the guard byte, which the window always
        // holds here (it starts before t - m).
        if (b[k - 2] != guard_) {
            t += md2_;
            continue;
        }
        switch (verify(t)) {
        case Verdict::Stop: stopped = true; return;
        case Verdict::Accepted:
            if (!recordMatch(t, result)) {
                stopped = true;
                return;
            }
            break;
        case Verdict::Rejected: t += md2_; break;
        }
    }
}

void PatternSearch::runCareful(std::int64_t t, IndexSet& result) {
    // The tail of the file, where ten blind steps could run past its end:
    // each shift is checked against N before it is taken.
    const auto shiftAt = [&](std::int64_t end, std::uint8_t& s) {
        if (!holds(end - 1) && !slideTo(end - m_ - 1)) return false;
        s = d_[at(end - 1)];
        return true;
    };
    std::uint8_t s = 0;
    if (t > n_ || !shiftAt(t, s)) return;
    for (;;) {
        while (s != 0) {
            if (s > n_ - t) return;
            t += s;
            if (!shiftAt(t, s)) return;
        }
        switch (verify(t)) {
        case Verdict::Stop: return;
        case Verdict::Accepted:
            if (!recordMatch(t, result) || t > n_ || !shiftAt(t, s)) return;
            break;
        case Verdict::Rejected: s = static_cast<std::uint8_t>(md2_); break;
        }
    }
}

void PatternSearch::runOneByte(std::uint8_t c, IndexSet& result) {
    // A plain scan, 2 MiB at a time. A byte counts only when the byte before
    // its 16-byte block is not zero, which rules out index fields, but also,
    // deliberately, a text's first 12 bytes (they share their block with the
    // index before them) and each chunk's first 16 bytes.
    enum class Mode { Scan, Seek, ReadIndex } mode = Mode::Scan;
    std::int64_t next = 0;      // Scan: the next offset to look at
    std::int64_t position = 0;  // Seek, ReadIndex: the candidate index field
    std::uint8_t index[4];
    int gathered = 0;
    for (std::int64_t chunk = 0; chunk < n_;) {
        const std::int64_t length = std::min(kBufferSize, n_ - chunk);
        if (!readAt(fd_, buffer_, chunk, length)) return;
        const std::int64_t end = chunk + length;
        const std::uint8_t* b = buffer_;
        for (;;) {
            if (mode == Mode::Scan) {
                std::int64_t q = std::max<std::int64_t>(next - chunk, kAlign);
                bool hit = false;
                while (q < length) {
                    const void* found = std::memchr(b + q, c, static_cast<std::size_t>(length - q));
                    if (!found) break;
                    q = static_cast<const std::uint8_t*>(found) - b;
                    if (b[q - q % kAlign - 1] != 0) {
                        hit = true;
                        break;
                    }
                    ++q;
                }
                if (!hit) {
                    next = end;
                    break;
                }
                position = chunk + q - q % kAlign + kAlign;
                mode = Mode::Seek;
            }
            if (mode == Mode::Seek) {
                while (position - 1 < end && b[position - 1 - chunk] != 0) position += kAlign;
                if (position - 1 >= end) break;  // the text goes on in the next chunk
                mode = Mode::ReadIndex;
                gathered = 0;
            }
            // Index fields never straddle a chunk, which is a multiple of 16
            // long, but a file shorter than its records can end inside one.
            while (gathered < 4 && position + gathered < end) {
                index[gathered] = b[position + gathered - chunk];
                ++gathered;
            }
            if (gathered < 4) break;
            result.addIndex(littleEndian32(index));
            next = position + 4;
            mode = Mode::Scan;
        }
        chunk = end;
    }
}

void PatternSearch::run(std::string_view pattern, IndexSet& result) {
    m_ = static_cast<std::int64_t>(std::min(pattern.size(), WLFilterIndexer::kMaximumPatternLength));
    p_ = reinterpret_cast<const std::uint8_t*>(pattern.data());
    // Texts hold no zero byte, so a pattern with one matches nothing (and
    // would otherwise find padding).
    if (m_ == 0 || m_ > n_ || std::memchr(p_, 0, static_cast<std::size_t>(m_))) return;
    if (m_ == 1) return runOneByte(p_[0], result);
    buildTables();
    if (!slideTo(0)) return;
    std::int64_t t = m_;
    if (n_ > 12 * m_) {
        bool stopped = false;
        runFast(t, result, stopped);
        if (stopped) return;
    }
    runCareful(t, result);
}

}  // namespace

std::unique_ptr<WLFilterIndexer> WLFilterIndexer::init(std::string* errorDescription) {
    const char* directory = std::getenv("TMPDIR");
    std::string path = directory && *directory ? directory : "/tmp";
    if (path.back() != '/') path += '/';
    path += "temp.XXXXXX";
    const std::string pattern = path;  // mkstemp may leave a failed name in path
    const int fd = mkstemp(path.data());
    if (fd < 0) {
        if (errorDescription) *errorDescription = pattern + ": " + std::strerror(errno);
        return nullptr;
    }
    return std::unique_ptr<WLFilterIndexer>(new WLFilterIndexer(fd, std::move(path)));
}

WLFilterIndexer::~WLFilterIndexer() {
    if (fd_ >= 0) close(fd_);
    if (!path_.empty()) unlink(path_.c_str());
}

void WLFilterIndexer::writeFilterText(std::string_view text, std::uint32_t index) {
    WL_ASSERT(std::memchr(text.data(), 0, text.size()) == nullptr, "Filter texts must not contain the zero byte");
    // One record buffer per thread: writers append thousands of short texts.
    thread_local std::vector<std::uint8_t> data;
    lock_.acquire();
    const auto length = static_cast<std::int64_t>(text.size());
    const std::int64_t padding = kNullTerminatorSize - (fileLength_ + length) % kNullTerminatorSize;
    const std::int64_t entrySize = length + padding + 4;
    data.assign(static_cast<std::size_t>(entrySize), 0);
    std::memcpy(data.data(), text.data(), text.size());
    for (int i = 0; i < 4; ++i)
        data[static_cast<std::size_t>(entrySize - 4 + i)] = static_cast<std::uint8_t>(index >> (8 * i));
    WL_ASSERT((fileLength_ + entrySize - 4) % kNullTerminatorSize == 0,
              "(_fileLength+entrySize-4)%kNullTerminatorSize == 0");
    lseek(fd_, 0, SEEK_END);
    WL_ASSERT(write(fd_, data.data(), static_cast<std::size_t>(entrySize)) == entrySize,
              "write(_fd, [data bytes], entrySize) == entrySize");
    fileLength_ += entrySize;
    lock_.release();
}

std::vector<IndexSet> WLFilterIndexer::indexesContainingText(std::span<const std::string> texts) {
    std::vector<IndexSet> results(texts.size());
    lock_.acquire();
    if (fileLength_ > 0 && !texts.empty()) {
        // One window for every pattern of the search, zeroed so that nothing
        // in it is ever undefined.
        std::unique_ptr<std::uint8_t[]> buffer(new std::uint8_t[kReadBufferSize]());
        for (std::size_t i = 0; i < texts.size(); ++i)
            PatternSearch(fd_, fileLength_, buffer.get()).run(texts[i], results[i]);
    }
    // Writes append at the end whatever a search did with the descriptor.
    lseek(fd_, 0, SEEK_END);
    lock_.release();
    return results;
}

}  // namespace wireloom
