#include <Wireloom/core/detail/ByteReader.hpp>
#include <Wireloom/core/detail/Format.hpp>
#include <Wireloom/core/detail/TextWriter.hpp>
#include <Wireloom/packets/PXIPv4Packet.hpp>
#include <Wireloom/packets/PXIPv6Packet.hpp>
#include <Wireloom/packets/PXTCPPacket.hpp>
#include <Wireloom/packets/detail/PacketEntryTitles.hpp>

#include <typeinfo>

namespace wireloom {

constinit PacketClass PXTCPPacket::kClass("PXTCPPacket", &PXPacket::staticClass(), &PXTCPPacket::packetFromData,
                                          &PXTCPPacket::allowedParentProtocols, detail::kPXTCPPacketIndex);

std::optional<PacketClassSet> PXTCPPacket::allowedParentProtocols() {
    return PacketClassSet{&PXIPv4Packet::staticClass(), &PXIPv6Packet::staticClass()};
}

PXPacketPtr PXTCPPacket::packetFromData(const ByteBuffer& data, const PXPacketPtr& parent, std::uint32_t* consumed) {
    return decodeLayer<PXTCPPacket>(data, parent, consumed);
}

void PXTCPPacket::appendDescription(std::string& out) const {
    detail::TextWriter(out) << "(TCP) size " << detail::Decimal{payloadSize_} << " bytes, port "
                            << detail::Decimal{sourcePort_} << "->" << detail::Decimal{destPort_} << ", seq "
                            << detail::Decimal{seqNumber_} << " bytes, ack " << detail::Decimal{ackNumber_}
                            << " bytes, ack:" << detail::Decimal{ackFlag_} << ", syn:" << detail::Decimal{synFlag_}
                            << ", fin: " << detail::Decimal{finFlag_} << " - ";
    appendGenericDescription(out);
}

std::shared_ptr<PXReportAnalyzerEntry> PXTCPPacket::reportAnalyzerEntry() const {
    auto entry = PXReportAnalyzerEntry::entry();
    detail::setTransportTitle(*entry, "TCP ", encapsulatingLayer(), sourcePort_, destPort_);
    entry->setValue(sourcePort_, "Source Port", 0);
    entry->setValue(destPort_, "Destination Port", 0);
    entry->setValue(seqNumber_, "Seq", 0);
    entry->setValue(ackNumber_, "Ack", 0);
    entry->setValue(ackFlag_, "Ack Flag", 9);
    entry->setValue(synFlag_, "Syn Flag", 9);
    entry->setValue(finFlag_, "Fin Flag", 9);
    entry->setValue(payloadSize_, "Payload Size", 0);
    entry->setValue(payload_, "Payload", 8);
    return entry;
}

}  // namespace wireloom
