#include <Wireloom/core/detail/UTF8.hpp>
#include <Wireloom/protocols/DNSNameReader.hpp>

namespace wireloom {

namespace {

// Copies a label and tells whether it was all ASCII, in one pass of word
// loads: the last word overlaps the one before instead of ending in a loop
// of bytes, and short labels take two overlapping loads of their own size.
// (A plain memcpy of a length GCC knows is under 256 becomes rep movsq,
// slow to start for labels this short.)
[[gnu::always_inline]] inline bool copyLabelIfASCII(char* out, const std::uint8_t* in, std::size_t n) noexcept {
    std::uint64_t seen = 0;
    auto move = [&]<class Word>(std::size_t at) {
        Word word;
        std::memcpy(&word, in + at, sizeof word);
        std::memcpy(out + at, &word, sizeof word);
        seen |= word;
    };
    if (n >= 8) {
        for (std::size_t at = 0; at + 8 < n; at += 8) move.operator()<std::uint64_t>(at);
        move.operator()<std::uint64_t>(n - 8);
    } else if (n >= 4) {
        move.operator()<std::uint32_t>(0);
        move.operator()<std::uint32_t>(n - 4);
    } else {
        move.operator()<std::uint8_t>(0);
        move.operator()<std::uint8_t>(n / 2);
        move.operator()<std::uint8_t>(n - 1);
    }
    return (seen & 0x8080808080808080u) == 0;
}

}  // namespace

// Inlined into the reader's loop: a call per label cost as much as the copy.
[[gnu::always_inline]] inline bool DNSNameText::appendLabel(const std::uint8_t* label, std::size_t length) {
    const std::size_t dot = size_ != 0;
    if (size_ + dot + length > kInPlace) return spill(label, length);
    inPlace_[size_] = '.';
    char* out = inPlace_ + size_ + dot;
    if (!copyLabelIfASCII(out, label, length) && !detail::validUTF8(label, length)) return false;
    size_ += dot + length;
    return true;
}

bool DNSNameText::spill(const std::uint8_t* label, std::size_t length) {
    if (!detail::validUTF8(label, length)) return false;
    if (size_ <= kInPlace) spilled_.assign(inPlace_, size_);
    if (size_ != 0) spilled_ += '.';
    spilled_.append(reinterpret_cast<const char*>(label), length);
    size_ = spilled_.size();
    return true;
}

void DNSNameText::appendKnown(std::string_view known) {
    if (known.empty()) return;
    if (size_ == 0) {
        shared_ = known.data();
        size_ = known.size();
        return;
    }
    // Checked when it was first read: a dotted run of UTF-8 labels is UTF-8.
    if (size_ + 1 + known.size() > kInPlace) {
        spill(reinterpret_cast<const std::uint8_t*>(known.data()), known.size());
        return;
    }
    inPlace_[size_] = '.';
    // The label copy rather than memcpy, whose call costs more than copying
    // a name this short; whether it is ASCII is known already.
    copyLabelIfASCII(inPlace_ + size_ + 1, reinterpret_cast<const std::uint8_t*>(known.data()), known.size());
    size_ += 1 + known.size();
}

namespace {

// The reading itself, from a depth already reached. It walks the bytes
// with a plain pointer and puts the caller's cursor in place once at the
// end; a pointer moves the walk into the message, where nothing more is
// counted and the caller's cursor stays after the pointer.
bool readNameFrom(const std::uint8_t* messageStart, std::size_t messageLength, detail::ByteReader& cursor,
                  std::uint32_t& consumed, DNSNameText& text, int depth, DNSNameCache* cache) {
    if (depth > kDNSNameMaxPointerDepth) return false;
    const std::uint8_t* const callerBytes = cursor.data();
    const std::uint8_t* p = callerBytes + cursor.offset();
    const std::uint8_t* end = callerBytes + cursor.size();
    const std::uint8_t* callerStop = nullptr;  // set once a pointer is followed
    if (cache) {
        cache->startRead();
        // Read up to the message's end, the caller's name is what a pointer to
        // its offset would read.
        const auto at = reinterpret_cast<std::uintptr_t>(p) - reinterpret_cast<std::uintptr_t>(messageStart);
        if (messageStart && end == messageStart + messageLength && at < messageLength) cache->mark(at, 0, depth);
    }
    bool read = false;
    for (;;) {
        if (p == end) break;
        const std::uint8_t length = *p++;
        if (length == 0) {
            read = true;
            break;
        }

        if (messageStart && (length & 0xC0) == 0xC0) {
            if (p == end) break;
            const std::size_t offset = static_cast<std::size_t>(length & 0x3F) << 8 | *p++;
            if (!callerStop) callerStop = p;
            if (offset >= messageLength || ++depth > kDNSNameMaxPointerDepth) break;
            if (cache) {
                // Reading it again would follow as many pointers and find the
                // same labels.
                if (const DNSNameCache::Known known = cache->find(offset);
                    known && depth + known.pointers <= kDNSNameMaxPointerDepth) {
                    text.appendKnown({known.text, known.size});
                    depth += known.pointers;
                    read = true;
                    break;
                }
                cache->mark(offset, text.size(), depth);
            }
            p = messageStart + offset;
            end = messageStart + messageLength;
            continue;
        }

        // One byte more than the label must remain: the name cannot end
        // without its terminator or a pointer.
        if (static_cast<std::size_t>(end - p) <= length || !text.appendLabel(p, length)) break;
        p += length;
    }
    // What was read inline is what the caller's cursor moves over.
    const std::uint8_t* const stop = callerStop ? callerStop : p;
    consumed += static_cast<std::uint32_t>(stop - (callerBytes + cursor.offset()));
    cursor.seek(static_cast<std::size_t>(stop - callerBytes));
    if (cache && read) cache->finishRead(depth);
    return read;
}

}  // namespace

bool readDomainNameText(const std::uint8_t* messageStart, std::size_t messageLength, detail::ByteReader& cursor,
                        std::uint32_t& consumed, DNSNameText& text, DNSNameCache* cache) {
    return readNameFrom(messageStart, messageLength, cursor, consumed, text, 0, cache);
}

std::optional<std::string> readFullyQualitifiedDomainName(const std::uint8_t* messageStart, std::size_t messageLength,
                                                          detail::ByteReader& cursor, std::uint32_t& consumed,
                                                          std::string partialName, int depth) {
    DNSNameText text;
    if (!readNameFrom(messageStart, messageLength, cursor, consumed, text, depth, nullptr)) return std::nullopt;
    if (!partialName.empty() && !text.view().empty()) partialName += '.';
    partialName += text.view();
    return partialName;
}

}  // namespace wireloom
