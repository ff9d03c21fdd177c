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
        return size_ <= kInPlace ? std::string_view(inPlace_, size_) : std::string_view(spilled_);
    }
    // One label (at least a byte), after a dot unless it is the first; false,
    // and the text unchanged in length, when the label is not UTF-8.
    bool appendLabel(const std::uint8_t* label, std::size_t length);

private:
    static constexpr std::size_t kInPlace = 255;
    bool spill(const std::uint8_t* label, std::size_t length);

    char* inPlace_;
    std::size_t size_ = 0;
    std::string spilled_;  // the whole text once it has outgrown inPlace_
    char ownRoom_[kInPlace];
};

// Appends the name's labels to `text`; false when it cannot be read. The
// cursor and count move as for readFullyQualitifiedDomainName.
bool readDomainNameText(const std::uint8_t* messageStart, std::size_t messageLength, detail::ByteReader& cursor,
                        std::uint32_t& consumed, DNSNameText& text);

// On failure the cursor is left where reading stopped: after the length byte
// of a label that ran out or was not UTF-8, after a pointer that led nowhere.
std::optional<std::string> readFullyQualitifiedDomainName(const std::uint8_t* messageStart, std::size_t messageLength,
                                                          detail::ByteReader& cursor, std::uint32_t& consumed,
                                                          std::string partialName = {}, int depth = 0);

}  // namespace wireloom
