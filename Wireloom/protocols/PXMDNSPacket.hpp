#pragma once
// PXMDNSPacket: a multicast-DNS message, the layer under a UDP datagram from
// port 5353 to port 5353. It keeps the header and the four sections; SRV,
// TXT, PTR and AAAA records carry their data decoded (PXMDNSRecord::resource).
//
//   if (auto mdns = innermost->packetWithProtocol<PXMDNSPacket>())
//       for (const PXMDNSRecord& answer : mdns->answerRecords()) ...
//
// The flag bits are counted from the least significant bit of the flags
// word, the reverse of the order DNS gives them on the wire: a standard
// response (0x8400) reads as a request with return code 8. Reports and their
// readers rely on this reading, so it stays.
//
// Decoding is strict (a short field anywhere, or an unreadable question
// name, and the message is not mDNS) except for record owner names: a record
// whose name cannot be read is kept without one.

#include <Wireloom/packets/PXPacket.hpp>
#include <Wireloom/packets/detail/FrameArray.hpp>
#include <Wireloom/protocols/PXMDNSQuestion.hpp>
#include <Wireloom/protocols/PXMDNSRecord.hpp>

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace wireloom {

namespace detail {
class ByteReader;
}

class PXMDNSPacket : public PXPacket {
public:
    static constexpr const PacketClass& staticClass() noexcept { return kClass; }
    const PacketClass& packetClass() const override { return staticClass(); }

    std::uint16_t transactionID() const noexcept { return transactionID_; }
    void setTransactionID(std::uint16_t id) noexcept { transactionID_ = id; }
    std::uint16_t flags() const noexcept { return flags_; }
    void setFlags(std::uint16_t flags) noexcept { flags_ = flags; }
    std::uint16_t questionRRC() const noexcept { return questionRRC_; }
    std::uint16_t answerRRC() const noexcept { return answerRRC_; }
    std::uint16_t authorityRRC() const noexcept { return authorityRRC_; }
    std::uint16_t additionalRRC() const noexcept { return additionalRRC_; }
    void setCounts(std::uint16_t questions, std::uint16_t answers, std::uint16_t authority,
                   std::uint16_t additional) noexcept {
        questionRRC_ = questions, answerRRC_ = answers, authorityRRC_ = authority, additionalRRC_ = additional;
    }

    bool isNameServiceResponse() const noexcept { return flagBits(0, 1) != 0; }
    bool isNameServiceRequest() const noexcept { return !isNameServiceResponse(); }
    std::uint8_t operationCode() const noexcept { return flagBits(1, 4); }
    bool isAuthoritativeAnswer() const noexcept { return flagBits(5, 1) != 0; }
    bool hasTruncation() const noexcept { return flagBits(6, 1) != 0; }
    bool recursionDesired() const noexcept { return flagBits(7, 1) != 0; }
    bool recursionAvailable() const noexcept { return flagBits(8, 1) != 0; }
    std::uint8_t reserved() const noexcept { return flagBits(9, 3); }
    std::uint8_t returnCode() const noexcept { return flagBits(12, 4); }

    // The sections, valid while the message lives; copy a record to keep it
    // on its own.
    std::span<const PXMDNSQuestion> questionRecords() const noexcept { return questionRecords_.span(); }
    void setQuestionRecords(std::vector<PXMDNSQuestion> records) { questionRecords_.assign(std::move(records)); }
    std::span<const PXMDNSRecord> answerRecords() const noexcept { return answerRecords_.span(); }
    void setAnswerRecords(std::vector<PXMDNSRecord> records) { answerRecords_.assign(std::move(records)); }
    std::span<const PXMDNSRecord> authoritativeAnswerRecords() const noexcept { return authorityRecords_.span(); }
    void setAuthoritativeAnswerRecords(std::vector<PXMDNSRecord> records) {
        authorityRecords_.assign(std::move(records));
    }
    std::span<const PXMDNSRecord> additionalRecords() const noexcept { return additionalRecords_.span(); }
    void setAdditionalRecords(std::vector<PXMDNSRecord> records) { additionalRecords_.assign(std::move(records)); }

    // "PTR", "SRV", "AAAA (IPv6)"...; "unknown" for types the library does not name.
    static std::string_view nameOfRecordType(std::uint16_t type) noexcept;

    static std::optional<PacketClassSet> allowedParentProtocols();
    static PXPacketPtr packetFromData(const ByteBuffer& data, const PXPacketPtr& parent, std::uint32_t* consumed);
    std::string name() const override { return "Peerbell"; }
    std::shared_ptr<PXReportAnalyzerEntry> reportAnalyzerEntry() const override;
    void appendDescription(std::string& out) const override { out += "(mDNS)"; }

private:
    std::uint8_t flagBits(int first, int count) const noexcept {
        return static_cast<std::uint8_t>(flags_ >> first & ((1u << count) - 1));
    }

    static bool readRecords(const PXMDNSPacket* holder, detail::FrameArena* arena, detail::ByteReader& cursor,
                            std::uint32_t& consumed, std::uint16_t count, detail::FrameArray<PXMDNSRecord>& records,
                            DNSNameCache& names);

    friend class PXMDNSRecord;
    static PacketClass kClass;
    // The message's bytes: the one share of the frame's that the records'
    // data, and the TXT resources in the block, are views of. Declared
    // first, so destroyed after them.
    ByteBuffer message_;
    // In the frame's block with the message when it lies there (see
    // FrameArray), so that a message costs no allocation of its own.
    detail::FrameArray<PXMDNSQuestion> questionRecords_;
    detail::FrameArray<PXMDNSRecord> answerRecords_;
    detail::FrameArray<PXMDNSRecord> authorityRecords_;
    detail::FrameArray<PXMDNSRecord> additionalRecords_;
    std::uint16_t transactionID_ = 0;
    std::uint16_t flags_ = 0;
    std::uint16_t questionRRC_ = 0;
    std::uint16_t answerRRC_ = 0;
    std::uint16_t authorityRRC_ = 0;
    std::uint16_t additionalRRC_ = 0;
};

}  // namespace wireloom
