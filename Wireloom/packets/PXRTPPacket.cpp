#include <Wireloom/core/detail/ByteReader.hpp>
#include <Wireloom/core/detail/Format.hpp>
#include <Wireloom/core/detail/TextWriter.hpp>
#include <Wireloom/packets/PXRTPPacket.hpp>
#include <Wireloom/packets/PXUDPPacket.hpp>
#include <Wireloom/packets/detail/PacketEntryTitles.hpp>

namespace wireloom {

constinit PacketClass PXRTPPacket::kClass("PXRTPPacket", &PXPacket::staticClass(), &PXRTPPacket::packetFromData,
                                          &PXRTPPacket::allowedParentProtocols, detail::kPXRTPPacketIndex);

PXPacketPtr PXRTPPacket::packetFromData(const ByteBuffer& data, const PXPacketPtr& parent, std::uint32_t* consumed) {
    if (data.size() < 12 || !parent) return nullptr;
    const ByteBuffer* parentPayload = parent->layerPayload();
    // Strictly more than the header: an RTP packet with no payload is refused.
    if (!parentPayload || parentPayload->size() <= 12) return nullptr;

    detail::ByteReader r(data.span());
    if ((r.readByte() & 0xc0) != 0x80) return nullptr;  // version 2
    r.skip(1);
    auto packet = newLayer<PXRTPPacket>();
    packet->sequenceNumber_ = r.readBE<std::uint16_t>();
    packet->rtpTimestamp_ = r.readBE<std::uint32_t>();
    packet->ssrcIdentifier_ = r.readBE<std::uint32_t>();
    packet->payload_ = parentPayload->subrange(12);
    *consumed = static_cast<std::uint32_t>(packet->payload_.size() + 12);
    return packet;
}

void PXRTPPacket::appendDescription(std::string& out) const {
    detail::TextWriter(out) << "(RTP) size " << detail::Decimal{static_cast<std::uint32_t>(payload_.size())}
                            << " bytes, seq " << detail::Decimal{sequenceNumber_} << ", timestamp "
                            << detail::Decimal{rtpTimestamp_} << ", identifier 0x" << detail::Hex{ssrcIdentifier_};
}

std::shared_ptr<PXReportAnalyzerEntry> PXRTPPacket::reportAnalyzerEntry() const {
    auto entry = PXReportAnalyzerEntry::entry();
    // The ports are the UDP layer's, the addresses its IP layer's.
    const PXPacket* udpLayer = encapsulatingLayer();
    const auto* udp = dynamic_cast<const PXUDPPacket*>(udpLayer);
    const PXPacket* ip = udpLayer ? udpLayer->encapsulatingLayer() : nullptr;
    detail::setTransportTitle(*entry, "RTP ", udp ? ip : nullptr, udp ? udp->sourcePort() : 0,
                              udp ? udp->destPort() : 0);
    entry->setValue(sequenceNumber_, "Sequence", 0);
    entry->setValue(rtpTimestamp_, "Timestamp", 0);
    entry->setValue(ssrcIdentifier_, "Sync Source ID", 0);
    entry->setValue(payload_, "Payload", 8);
    return entry;
}

}  // namespace wireloom
