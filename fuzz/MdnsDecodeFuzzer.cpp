// Feeds arbitrary bytes to the mDNS decoder as a datagram from 5353 to 5353,
// alone and in a frame decoded through the chain (where the message keeps its
// records and resources in the frame's block), then asks each message for
// everything it tells: every record's resource,
// the report entry's text. The first byte also starts a name read at an
// offset of its choosing, with and without the message start, so that the
// name reader meets cursors the packet decoder never hands it. The two
// decodes of a message must read the same names.
#include "FuzzTarget.hpp"

#include <Wireloom/Wireloom.hpp>

#include <pcap/pcap.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace {

using namespace wireloom;

std::size_t inspect(const PXMDNSPacket& packet, std::size_t size) {
    std::size_t total = 0;
    for (const PXMDNSQuestion& question : packet.questionRecords()) total += question.recordName().size();
    for (const std::span<const PXMDNSRecord> section :
         {packet.answerRecords(), packet.authoritativeAnswerRecords(), packet.additionalRecords()}) {
        for (const PXMDNSRecord& record : section) {
            WL_ASSERT(record.resourceData().size() == record.resourceDataLength(), "resource data of another length");
            WL_ASSERT(
                record.resourceDataOffsetInMessage() + record.resourceDataLength() <= static_cast<std::int64_t>(size),
                "resource data outside the message");
            if (auto txt = std::dynamic_pointer_cast<PXDNSTXTResource>(record.resource())) total += txt->txt().size();
        }
    }
    return total + packet.reportAnalyzerEntry()->pasteboardStringWithIdentation("").size();
}

// What a resource reads from the message as text.
std::optional<std::string_view> resourceText(const PXMDNSRecord& record) {
    const PXDNSResource::Ptr resource = record.resource();
    if (auto srv = std::dynamic_pointer_cast<PXDNSSRVResource>(resource)) return srv->target();
    if (auto ptr = std::dynamic_pointer_cast<PXDNSPTRResource>(resource)) return ptr->canonicalName();
    return std::nullopt;
}

// Decoded in the frame's block a message reads each name once and takes the
// text again where a pointer leads to it; decoded alone it walks every name.
// Both must read the same.
void assertSameNames(const PXMDNSPacket& alone, const PXMDNSPacket& inBlock) {
    WL_ASSERT(alone.questionRecords().size() == inBlock.questionRecords().size(), "questions differ");
    for (std::size_t i = 0; i < alone.questionRecords().size(); ++i)
        WL_ASSERT(alone.questionRecords()[i].recordName() == inBlock.questionRecords()[i].recordName(),
                  "a question's name differs");
    auto sections = [](const PXMDNSPacket& packet) {
        return std::array{packet.answerRecords(), packet.authoritativeAnswerRecords(), packet.additionalRecords()};
    };
    const auto walked = sections(alone), remembered = sections(inBlock);
    for (std::size_t s = 0; s < walked.size(); ++s) {
        WL_ASSERT(walked[s].size() == remembered[s].size(), "a section differs");
        for (std::size_t i = 0; i < walked[s].size(); ++i) {
            WL_ASSERT(walked[s][i].recordName() == remembered[s][i].recordName(), "a record's name differs");
            WL_ASSERT(resourceText(walked[s][i]) == resourceText(remembered[s][i]), "a resource's name differs");
        }
    }
}

}  // namespace

WIRELOOM_FUZZ_TARGET(mdns_decode) {
    if (size < 1) return 0;
    const std::size_t start = data[0];
    ++data;
    --size;
    auto udp = std::make_shared<PXUDPPacket>();
    udp->setSourcePort(5353);
    udp->setDestPort(5353);
    std::uint32_t consumed = 0;
    std::size_t total = 0;
    const auto alone = std::static_pointer_cast<PXMDNSPacket>(
        PXMDNSPacket::packetFromData(ByteBuffer::copy(data, size), udp, &consumed));
    if (alone) {
        WL_ASSERT(consumed >= 12 && consumed <= size, "consumed more than the message");
        total += inspect(*alone, size);
    }
    // The same message as a frame's datagram, decoded through the chain: its
    // records and resources then lie in the frame's block, as far as it has room.
    if (size <= 0xffff - 28) {
        std::vector<std::uint8_t> frame(42 + size);
        const auto put16 = [&](std::size_t at, std::size_t value) {
            frame[at] = static_cast<std::uint8_t>(value >> 8);
            frame[at + 1] = static_cast<std::uint8_t>(value);
        };
        put16(12, 0x0800);
        frame[14] = 0x45;
        put16(16, 28 + size);
        frame[22] = 64;
        frame[23] = 17;
        put16(34, 5353);
        put16(36, 5353);
        put16(38, 8 + size);
        if (size) std::memcpy(frame.data() + 42, data, size);
        pcap_pkthdr header{};
        header.caplen = header.len = static_cast<bpf_u_int32>(frame.size());
        const PXPacketPtr innermost = PXPacket::packetWithHeader(header, frame.data(), DLT_EN10MB);
        if (const auto* message = dynamic_cast<const PXMDNSPacket*>(innermost.get())) {
            total += inspect(*message, size);
            WL_ASSERT(alone, "decoded in a frame only");
            assertSameNames(*alone, *message);
        }
    }
    if (start < size) {
        for (const std::uint8_t* messageStart : {data, static_cast<const std::uint8_t*>(nullptr)}) {
            detail::ByteReader cursor(data + start, size - start);
            std::uint32_t count = 0;
            if (auto name = readFullyQualitifiedDomainName(messageStart, size, cursor, count)) total += name->size();
            WL_ASSERT(count <= size - start, "a name counted bytes it did not read");
        }
    }
    if (total == 1u << 31) __builtin_trap();  // keeps the work observable; never true
    return 0;
}
