#include <Wireloom/core/detail/ByteReader.hpp>
#include <Wireloom/core/detail/Format.hpp>
#include <Wireloom/core/detail/TextWriter.hpp>
#include <Wireloom/packets/PXIPv4Packet.hpp>
#include <Wireloom/packets/PXIPv6Packet.hpp>
#include <Wireloom/packets/PXUDPPacket.hpp>
#include <Wireloom/packets/detail/PacketEntryTitles.hpp>

namespace wireloom {

constinit PacketClass PXUDPPacket::kClass("PXUDPPacket", &PXPacket::staticClass(), &PXUDPPacket::packetFromData,
                                          &PXUDPPacket::allowedParentProtocols, detail::kPXUDPPacketIndex);

std::optional<PacketClassSet> PXUDPPacket::allowedParentProtocols() {
    return PacketClassSet{&PXIPv4Packet::staticClass(), &PXIPv6Packet::staticClass()};
}

PXPacketPtr PXUDPPacket::packetFromData(const ByteBuffer& data, const PXPacketPtr& parent, std::uint32_t* consumed) {
    return decodeLayer<PXUDPPacket>(data, parent, consumed);
}

void PXUDPPacket::appendDescription(std::string& out) const {
    detail::TextWriter(out) << "(UDP) size " << detail::Decimal{payloadSize_} << " bytes, ports "
                            << detail::Decimal{sourcePort()} << "=>" << detail::Decimal{destPort()};
}

std::shared_ptr<PXReportAnalyzerEntry> PXUDPPacket::reportAnalyzerEntry() const {
    auto entry = PXReportAnalyzerEntry::entry();
    detail::setTransportTitle(*entry, "UDP ", encapsulatingLayer(), sourcePort(), destPort());
    entry->setValue(sourcePort(), "Source Port", 0);
    entry->setValue(destPort(), "Destination Port", 0);
    entry->setValue(payloadSize_, "Payload Size", 0);
    entry->setValue(payload_, "Payload", 8);
    return entry;
}

}  // namespace wireloom
