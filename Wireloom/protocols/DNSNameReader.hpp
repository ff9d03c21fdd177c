#pragma once
// readFullyQualitifiedDomainName (the spelling is the established one): reads
// one DNS name, label by label, from a cursor over a message and returns it
// dotted, "foo.local" (the root name is ""), or nothing when it cannot be
// read. The cursor and the consumed count move over what lies inline; a
// compression pointer is followed through the message with a cursor of its
// own, so the caller's cursor ends after the pointer's two bytes and what the
// pointer reached is not counted:
//
//   detail::ByteReader cursor(message, length);
//   cursor.seek(12);
//   std::uint32_t consumed = 12;
//   auto name = readFullyQualitifiedDomainName(message, length, cursor, consumed);
//
// Pointers may lead forwards as well as backwards; only the depth limit ends
// a loop of them. Without a message start pointers cannot be followed, and a
// length byte of 0xC0 or more is then a plain (long) label length, as are the
// reserved lengths 64 to 191 always. Labels must be UTF-8.

#include <Wireloom/core/detail/ByteReader.hpp>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace wireloom {

// Pointers followed beyond this depth make the name unreadable.
inline constexpr int kDNSNameMaxPointerDepth = 100;

// The text of a name as it is read: in place while it has the length of a
// name on the wire, on the heap past that (pointers can join labels into
// longer ones), so that reading an ordinary name allocates nothing.
class DNSNameText {
public:
    DNSNameText() noexcept : inPlace_(ownRoom_) {}
    // Writes in `room` instead while the name fits, when it can hold any name
    // as the wire writes them: where the text is to be kept, saving a copy.
    explicit DNSNameText(std::span<char> room) noexcept : inPlace_(room.size() >= kInPlace ? room.data() : ownRoom_) {}
    DNSNameText(const DNSNameText&) = delete;
    DNSNameText& operator=(const DNSNameText&) = delete;

    std::string_view view() const noexcept {
        if (shared_) return {shared_, size_};
        return size_ <= kInPlace ? std::string_view(inPlace_, size_) : std::string_view(spilled_);
    }
    std::size_t size() const noexcept { return size_; }
    // One label (at least a byte), after a dot unless it is the first; false,
    // and the text unchanged in length, when the label is not UTF-8.
    bool appendLabel(const std::uint8_t* label, std::size_t length);
    // The rest of the name, already read and checked (see DNSNameCache). On an
    // empty text it is not copied: the text is then `known` itself (shared()).
    void appendKnown(std::string_view known);
    bool shared() const noexcept { return shared_ != nullptr; }

private:
    static constexpr std::size_t kInPlace = 255;
    bool spill(const std::uint8_t* label, std::size_t length);

    char* inPlace_;
    const char* shared_ = nullptr;
    std::size_t size_ = 0;
    std::string spilled_;  // the whole text once it has outgrown inPlace_
    char ownRoom_[kInPlace];
};

// The names one message has had read, by the offset each starts at, so that a
// pointer to one takes its text instead of walking and checking its labels
// again: in a response most owner names, and the SRV target's host, point at
// a name an earlier record already read. Each name also keeps how many
// pointers reading it followed, so that one reached at a depth where reading
// it would pass the limit is still refused.
//
// A read notes where it started and each pointer it followed; once its text
// is kept where it stays for the whole decode (the frame's block), keep()
// remembers it, and each pointer's target as the rest of it.
class DNSNameCache {
public:
    DNSNameCache() noexcept { std::memset(offsets_, 0xff, sizeof offsets_); }
    DNSNameCache(const DNSNameCache&) = delete;
    DNSNameCache& operator=(const DNSNameCache&) = delete;

    // Plain fields, empty text for a name not known: wrapped in optionals
    // they went through the stack in halves and were read back whole, which
    // stalled the loads.
    struct Known {
        const char* text;
        std::uint32_t size;
        int pointers;
        explicit operator bool() const noexcept { return size != 0; }
    };
    Known find(std::size_t offset) const noexcept {
        const std::size_t slot = offset % kSlots;
        if (offsets_[slot] != offset) return {};
        return {texts_[slot], sizes_[slot], pointers_[slot]};
    }

    void startRead() noexcept { marks_ = 0; }
    // The name from `offset` is what the read has still to append when the
    // text is `textSize` long, after `depth` pointers.
    void mark(std::size_t offset, std::size_t textSize, int depth) noexcept {
        if (marks_ < kMarks && offset < kPointerReach) pending_[marks_++] = {offset, textSize, depth};
    }
    void finishRead(int depth) noexcept { depth_ = depth; }
    // The text of the read just finished, kept where it stays.
    // Inline: it runs once for every name read by walking.
    void keep(std::string_view text) noexcept {
        for (std::size_t i = 0; i < marks_; ++i) {
            const Mark& mark = pending_[i];
            // What followed the mark, after the dot that joined it.
            const std::size_t from = mark.textSize + (mark.textSize != 0);
            if (from >= text.size()) continue;
            const std::size_t slot = mark.offset % kSlots;
            offsets_[slot] = static_cast<std::uint16_t>(mark.offset);
            texts_[slot] = text.data() + from;
            sizes_[slot] = static_cast<std::uint32_t>(text.size() - from);
            pointers_[slot] = static_cast<std::uint8_t>(depth_ - mark.depth);
        }
        marks_ = 0;
    }

private:
    static constexpr std::size_t kSlots = 32;  // a power of two; a clash only costs a walk
    static constexpr std::size_t kMarks = 4;
    static constexpr std::size_t kPointerReach = 0x4000;  // past this no pointer can lead
    struct Mark {
        std::size_t offset;
        std::size_t textSize;
        int depth;
    };

    std::uint16_t offsets_[kSlots];
    const char* texts_[kSlots];
    std::uint32_t sizes_[kSlots];
    std::uint8_t pointers_[kSlots];
    Mark pending_[kMarks];
    std::size_t marks_ = 0;
    int depth_ = 0;
};

// Appends the name's labels to `text`; false when it cannot be read. The
// cursor and count move as for readFullyQualitifiedDomainName. With a cache,
// names it knows are taken from it, and the read is noted in it.
bool readDomainNameText(const std::uint8_t* messageStart, std::size_t messageLength, detail::ByteReader& cursor,
                        std::uint32_t& consumed, DNSNameText& text, DNSNameCache* cache = nullptr);

// The name at the cursor when it is nothing but a pointer to a name the
// cache knows, as readDomainNameText would read it (moving the cursor and
// count past the pointer); empty, and nothing moved, otherwise. Most
// owner names in a response are such a pointer: this reads them without
// setting up a walk.
inline std::string_view readKnownName(const DNSNameCache& cache, detail::ByteReader& cursor,
                                      std::uint32_t& consumed) noexcept {
    if (!cursor.has(2)) return {};
    const std::uint8_t* p = cursor.data() + cursor.offset();
    if ((p[0] & 0xC0) != 0xC0) return {};
    // Only offsets inside the message are known, and this pointer is the
    // read's first: one deep.
    const auto known = cache.find(static_cast<std::size_t>(p[0] & 0x3F) << 8 | p[1]);
    if (!known || 1 + known.pointers > kDNSNameMaxPointerDepth) return {};
    cursor.skip(2);
    consumed += 2;
    return {known.text, known.size};
}

// On failure the cursor is left where reading stopped: after the length byte
// of a label that ran out or was not UTF-8, after a pointer that led nowhere.
std::optional<std::string> readFullyQualitifiedDomainName(const std::uint8_t* messageStart, std::size_t messageLength,
                                                          detail::ByteReader& cursor, std::uint32_t& consumed,
                                                          std::string partialName = {}, int depth = 0);

}  // namespace wireloom
