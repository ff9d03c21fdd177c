#include <Wireloom/core/detail/ByteReader.hpp>
#include <Wireloom/core/detail/Format.hpp>
#include <Wireloom/packets/PXUDPPacket.hpp>
#include <Wireloom/protocols/DNSNameReader.hpp>
#include <Wireloom/protocols/PXMDNSPacket.hpp>
#include <Wireloom/text/String+PXRV.hpp>

#include <algorithm>

namespace wireloom {

constinit PacketClass PXMDNSPacket::kClass("PXMDNSPacket", &PXPacket::staticClass(), &PXMDNSPacket::packetFromData,
                                           &PXMDNSPacket::allowedParentProtocols, detail::kPXMDNSPacketIndex);

namespace {

constexpr std::size_t kHeaderSize = 12;
// The fewest bytes a question (root name, type, class) and a record (root
// name, four fields) can take, to size the arrays before reading them.
constexpr std::size_t kSmallestQuestion = 5;
constexpr std::size_t kSmallestRecord = 11;

// The name a question or record starts with. Most of them, past the first
// few, are a pointer to a name read before: taken here, without a call.
[[gnu::always_inline]] inline void readOwnerName(DNSText& name, detail::FrameArena* arena,
                                                 std::span<const std::uint8_t> message, detail::ByteReader& cursor,
                                                 std::uint32_t& consumed, DNSNameCache& names) {
    if (arena)
        if (const std::string_view known = readKnownName(names, cursor, consumed); !known.empty())
            return name.borrowFromFrame(known);
    detail::readDecodedName(name, arena, message, cursor, consumed, &names);
}

}  // namespace

std::optional<PacketClassSet> PXMDNSPacket::allowedParentProtocols() {
    return PacketClassSet{&PXUDPPacket::staticClass()};
}

std::string_view PXMDNSPacket::nameOfRecordType(std::uint16_t type) noexcept {
    switch (type) {
    case 1: return "A (IPv4)";
    case 12: return "PTR";
    case 16: return "TXT";
    case 28: return "AAAA (IPv6)";
    case 33: return "SRV";
    case 41: return "OPT";
    case 47: return "NSEC";
    case 255: return "All";
    default: return "unknown";
    }
}

// Reads `count` records into `records`; false when a field runs short.
bool PXMDNSPacket::readRecords(const PXMDNSPacket* holder, detail::FrameArena* arena, detail::ByteReader& cursor,
                               std::uint32_t& consumed, std::uint16_t count, detail::FrameArray<PXMDNSRecord>& records,
                               DNSNameCache& names) {
    const ByteBuffer& message = holder->message_;
    records.reserve(arena, std::min<std::size_t>(count, cursor.remaining() / kSmallestRecord + 1));
    for (std::uint16_t i = 0; i < count; ++i) {
        PXMDNSRecord& record = records.emplace_back();
        // Unlike a question's, a record's unreadable name spoils nothing
        // else: reading goes on from wherever the name reader stopped.
        readOwnerName(record.recordName_, arena, message.span(), cursor, consumed, names);
        if (!cursor.has(10)) return false;
        // A reader of its own over the four fields, whose bounds the compiler
        // can see, checks them once rather than field by field.
        detail::ByteReader fields(cursor.readBytes(10), 10);
        record.setRecordType(fields.readBE<std::uint16_t>());
        record.setRecordClass(fields.readBE<std::uint16_t>());
        record.setTtl(fields.readBE<std::uint32_t>());
        const std::uint16_t length = fields.readBE<std::uint16_t>();
        consumed += 10;
        if (!cursor.has(length)) return false;
        record.keepDecodedData(message, cursor.offset(), length);
        cursor.skip(length);
        consumed += length;
        record.decodeResource(message.span(), holder, arena, &names);
    }
    return true;
}

PXPacketPtr PXMDNSPacket::packetFromData(const ByteBuffer& data, const PXPacketPtr& parent, std::uint32_t* consumed) {
    if (!parent || !parent->isKindOf(PXUDPPacket::staticClass())) return nullptr;
    const auto& udp = static_cast<const PXUDPPacket&>(*parent);
    if (!udp.leadsToMDNS()) return nullptr;
    // The message ends where the datagram does, not at the end of the frame,
    // which may be padded; a UDP length that did not fit the capture leaves
    // the captured bytes to go by.
    std::size_t length = data.size();
    if (udp.payloadSize() > 0 && udp.payloadSize() < length) length = udp.payloadSize();
    if (length < kHeaderSize) return nullptr;
    auto packet = newLayer<PXMDNSPacket>();
    // Owning, unlike the borrowed view the decoder is handed: the records'
    // data are views of it.
    packet->message_ = data.subrange(0, length);
    const ByteBuffer& message = packet->message_;
    detail::ByteReader cursor(message.span());
    // As for a record's fields: a reader whose size the compiler can see.
    detail::ByteReader header(cursor.readBytes(kHeaderSize), kHeaderSize);
    packet->transactionID_ = header.readBE<std::uint16_t>();
    packet->flags_ = header.readBE<std::uint16_t>();
    packet->questionRRC_ = header.readBE<std::uint16_t>();
    packet->answerRRC_ = header.readBE<std::uint16_t>();
    packet->authorityRRC_ = header.readBE<std::uint16_t>();
    packet->additionalRRC_ = header.readBE<std::uint16_t>();
    std::uint32_t count = kHeaderSize;
    DNSNameCache names;
    // Looked up once: every name and resource of the message goes where the
    // message lies.
    detail::FrameArena* const arena = detail::arenaHolding(packet.get());

    packet->questionRecords_.reserve(
        arena, std::min<std::size_t>(packet->questionRRC_, cursor.remaining() / kSmallestQuestion));
    for (std::uint16_t i = 0; i < packet->questionRRC_; ++i) {
        DNSText name;
        readOwnerName(name, arena, message.span(), cursor, count, names);
        if (!name.present() || !cursor.has(4)) return nullptr;
        PXMDNSQuestion& question = packet->questionRecords_.emplace_back();
        question.setRecordName(std::move(name));
        question.setQuestionType(cursor.readBE<std::uint16_t>());
        question.setQuestionClass(cursor.readBE<std::uint16_t>());
        count += 4;
    }
    if (!readRecords(packet.get(), arena, cursor, count, packet->answerRRC_, packet->answerRecords_, names) ||
        !readRecords(packet.get(), arena, cursor, count, packet->authorityRRC_, packet->authorityRecords_, names) ||
        !readRecords(packet.get(), arena, cursor, count, packet->additionalRRC_, packet->additionalRecords_, names))
        return nullptr;
    *consumed = count;
    return packet;
}

namespace {

// "0x000c (PTR)"
std::string typeText(std::uint16_t type) {
    const std::string_view name = PXMDNSPacket::nameOfRecordType(type);
    return detail::stringWithFormat("0x%04x (%.*s)", type, static_cast<int>(name.size()), name.data());
}

void addRecordSection(PXReportAnalyzerEntry& entry, std::string_view label, std::span<const PXMDNSRecord> records) {
    auto section = entry.addNestedEntry();
    section->setTitleWithLabel(label, records.size(), "record");
    unsigned number = 0;
    for (const PXMDNSRecord& record : records) {
        auto line = section->addNestedEntry();
        line->setSectionTitle(detail::stringWithFormat("Record %u", number++));
        const std::optional<std::string_view> name = record.recordName();
        line->addLineWithKey("Name", name ? Value(std::string(*name)) : Value());
        line->addLineWithKey("Type", typeText(record.recordType()));
        line->addLineWithKey("Class", detail::stringWithFormat("0x%04x", record.recordClass()));
        line->addLineWithKey(
            "TTL", detail::stringWithFormat("%u (%s)", record.ttl(), stringWithDuration(record.ttl()).c_str()));
        line->addLineWithKey("Resource Data Length", record.resourceDataLength());
        line->addEntryWithData(record.resourceData(), "Resource Data");
        if (const PXDNSResource::Ptr resource = record.resource())
            if (auto parsed = resource->reportAnalyzerEntry()) line->addEntry(parsed);
    }
}

}  // namespace

std::shared_ptr<PXReportAnalyzerEntry> PXMDNSPacket::reportAnalyzerEntry() const {
    auto entry = PXReportAnalyzerEntry::entry();
    std::string title = "Peerbell ";
    const char* separator = "";
    auto list = [&](const char* prefix, std::optional<std::string_view> name) {
        title.append(separator).append(prefix).append(name ? *name : "(null)");
        separator = ", ";
    };
    for (const PXMDNSQuestion& question : questionRecords()) list("Q: ", question.recordName());
    auto listRecords = [&](const char* prefix, std::span<const PXMDNSRecord> records) {
        for (const PXMDNSRecord& record : records) list(prefix, record.recordName());
    };
    listRecords("A: ", answerRecords());
    listRecords("AA: ", authoritativeAnswerRecords());
    listRecords("AR: ", additionalRecords());
    entry->setProtocolLayerName(title);

    entry->setValue(transactionID_, "Transaction ID", 0);
    entry->setValue(flags_, "Flags", 3);
    entry->setValue(isNameServiceResponse(), "Name Service Response", 9);
    entry->setValue(isNameServiceRequest(), "Name Service Request", 9);
    entry->setValue(operationCode(), "Operation Code", 2);
    entry->setValue(isAuthoritativeAnswer(), "Authoritative Answer", 9);
    entry->setValue(hasTruncation(), "Truncated", 9);
    entry->setValue(recursionDesired(), "Recursion Desired", 9);
    entry->setValue(recursionAvailable(), "Recursion Available", 9);
    entry->setValue(reserved(), "Reserved", 2);
    entry->setValue(returnCode(), "Return Code", 2);
    entry->setValue(questionRRC_, "Question Record Count", 0);
    entry->setValue(answerRRC_, "Answer Record Count", 0);
    entry->setValue(authorityRRC_, "Authority Record Count", 0);
    entry->setValue(additionalRRC_, "Additional Record Count", 0);

    auto questions = entry->addNestedEntry();
    questions->setTitleWithLabel("Questions", questionRecords_.size(), "record");
    unsigned number = 0;
    for (const PXMDNSQuestion& question : questionRecords()) {
        auto line = questions->addNestedEntry();
        line->setSectionTitle(detail::stringWithFormat("Question %u", number++));
        line->addLineWithKey("Name", std::string(question.recordName()));
        line->addLineWithKey("Type", typeText(question.questionType()));
        line->addLineWithKey("Class", detail::stringWithFormat("0x%04x", question.questionClass()));
    }
    addRecordSection(*entry, "Answers", answerRecords());
    addRecordSection(*entry, "Authoritative Answers", authoritativeAnswerRecords());
    addRecordSection(*entry, "Additional", additionalRecords());
    return entry;
}

}  // namespace wireloom
