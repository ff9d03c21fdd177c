#include <Wireloom/core/detail/UTF8.hpp>
#include <Wireloom/protocols/DNSNameReader.hpp>

namespace wireloom {

std::optional<std::string> readFullyQualitifiedDomainName(const std::uint8_t* messageStart, std::size_t messageLength,
                                                          detail::ByteReader& cursor, std::uint32_t& consumed,
                                                          std::string partialName, int depth) {
    if (depth > kDNSNameMaxPointerDepth) return std::nullopt;
    // Moving an empty partial name still copies its inline buffer, with a
    // slow string instruction: only a name begun elsewhere is taken over.
    std::string name;
    if (partialName.empty())
        name.reserve(64);
    else
        name = std::move(partialName);

    // A pointer hands reading over to a cursor of its own at the target, as a
    // nested read would, so the loop needs no recursion. What that cursor
    // reads is counted into a scratch count.
    detail::ByteReader* reader = &cursor;
    detail::ByteReader followed(messageStart, 0);
    std::uint32_t scratch = 0;
    std::uint32_t* counted = &consumed;
    for (;;) {
        if (reader->remaining() == 0) return std::nullopt;
        const std::uint8_t length = reader->readByte();
        ++*counted;
        if (length == 0) return name;

        if (messageStart && (length & 0xC0) == 0xC0) {
            if (reader->remaining() == 0) return std::nullopt;
            const std::size_t offset = static_cast<std::size_t>(length & 0x3F) << 8 | reader->readByte();
            ++*counted;
            if (offset >= messageLength || ++depth > kDNSNameMaxPointerDepth) return std::nullopt;
            followed = detail::ByteReader(messageStart + offset, messageLength - offset);
            reader = &followed;
            counted = &scratch;
            continue;
        }

        if (!name.empty()) name += '.';
        // One byte more than the label must remain: the name cannot end
        // without its terminator or a pointer.
        if (reader->remaining() <= length) return std::nullopt;
        const std::size_t at = reader->offset();
        const std::uint8_t* label = reader->readBytes(length);
        if (!detail::validUTF8(label, length)) {
            reader->seek(at);
            return std::nullopt;
        }
        *counted += length;
        // Knowing a label is under 256 bytes, GCC copies it with rep movsq,
        // which costs more to start than the short labels of real names take:
        // hiding the bound leaves the copy to memcpy.
        std::size_t size = length;
        __asm__("" : "+r"(size));
        name.append(reinterpret_cast<const char*>(label), size);
    }
}

}  // namespace wireloom
