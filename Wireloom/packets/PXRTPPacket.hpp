#pragma once
// PXRTPPacket: the fixed 12-byte RTP header in a UDP payload. Nothing marks
// a datagram as RTP, so the automatic chain never picks this class; callers
// that know a flow carries RTP decode it on request:
//
//   auto rtp = PXPacket::packetWithRawData(frame, {&PXRTPPacket::staticClass(),
//       &PXUDPPacket::staticClass(), &PXIPv4Packet::staticClass(),
//       &PXEthernetPacket::staticClass()}, timestamp, frame.size());
//
// The payload always starts at byte 12, so a CSRC list or header extension
// stays at its front.

#include <Wireloom/packets/PXPacket.hpp>

namespace wireloom {

class PXRTPPacket : public PXPacket {
public:
    static constexpr const PacketClass& staticClass() noexcept { return kClass; }
    const PacketClass& packetClass() const override { return staticClass(); }

    std::uint16_t sequenceNumber() const noexcept { return sequenceNumber_; }
    void setSequenceNumber(std::uint16_t number) noexcept { sequenceNumber_ = number; }
    std::uint32_t rtpTimestamp() const noexcept { return rtpTimestamp_; }
    void setRtpTimestamp(std::uint32_t timestamp) noexcept { rtpTimestamp_ = timestamp; }
    std::uint32_t ssrcIdentifier() const noexcept { return ssrcIdentifier_; }
    void setSsrcIdentifier(std::uint32_t identifier) noexcept { ssrcIdentifier_ = identifier; }
    // A sub-range of the parent's payload.
    const ByteBuffer& payload() const noexcept { return payload_; }
    void setPayload(ByteBuffer payload) noexcept { payload_ = std::move(payload); }

    static std::optional<PacketClassSet> allowedParentProtocols() { return PacketClassSet{}; }
    std::optional<PacketClassSet> restrictedChildProtocols() const override { return PacketClassSet{}; }
    static PXPacketPtr packetFromData(const ByteBuffer& data, const PXPacketPtr& parent, std::uint32_t* consumed);
    std::string name() const override { return "RTP Packet"; }
    std::shared_ptr<PXReportAnalyzerEntry> reportAnalyzerEntry() const override;
    void appendDescription(std::string& out) const override;
    const ByteBuffer* layerPayload() const noexcept override { return &payload_; }

private:
    static PacketClass kClass;
    ByteBuffer payload_;
    std::uint32_t rtpTimestamp_ = 0;
    std::uint32_t ssrcIdentifier_ = 0;
    std::uint16_t sequenceNumber_ = 0;
};

}  // namespace wireloom
