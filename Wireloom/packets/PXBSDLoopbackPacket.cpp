#include <Wireloom/core/detail/ByteReader.hpp>
#include <Wireloom/packets/PXBSDLoopbackPacket.hpp>
#include <Wireloom/packets/PXIPv4Packet.hpp>
#include <Wireloom/packets/PXIPv6Packet.hpp>
#include <Wireloom/packets/detail/LinkLayerChildren.hpp>

namespace wireloom {

using detail::kLoopbackFamilyIPv4;
using detail::kLoopbackFamilyIPv6;

constinit PacketClass PXBSDLoopbackPacket::kClass("PXBSDLoopbackPacket", &PXPacket::staticClass(),
                                                  &PXBSDLoopbackPacket::packetFromData,
                                                  &PXBSDLoopbackPacket::allowedParentProtocols,
                                                  detail::kPXBSDLoopbackPacketIndex);

std::string PXBSDLoopbackPacket::payloadTypeName() const {
    switch (payloadType_) {
    case kLoopbackFamilyIPv4: return "Internet Protocol version 4";
    case kLoopbackFamilyIPv6: return "Internet Protocol version 6";
    default: return "Unknown";
    }
}

std::optional<PacketClassSet> PXBSDLoopbackPacket::allowedParentProtocols() {
    return PacketClassSet{&PXPacket::staticClass()};
}

std::optional<PacketClassSet> PXBSDLoopbackPacket::restrictedChildProtocols() const {
    return detail::childClassesForLoopbackFamily(payloadType_);
}

PXPacketPtr PXBSDLoopbackPacket::packetFromData(const ByteBuffer& data, const PXPacketPtr& parent,
                                                std::uint32_t* consumed) {
    return decodeLayer<PXBSDLoopbackPacket>(data, parent, consumed);
}

bool PXBSDLoopbackPacket::readHeader(PXBSDLoopbackPacket& layer, const ByteBuffer& data, const PXPacket*,
                                     std::uint32_t* consumed) {
    detail::ByteReader r(data.span());
    const std::uint32_t family = r.readHost<std::uint32_t>();
    if (!r) return false;
    layer.payloadType_ = family;
    *consumed = 4;
    return true;
}

std::shared_ptr<PXReportAnalyzerEntry> PXBSDLoopbackPacket::reportAnalyzerEntry() const {
    auto entry = PXReportAnalyzerEntry::entry();
    entry->setProtocolLayerAttributedName(WLAttributedString::stringWithFormat(WLTokenText, "Loopback ", WLTokenEnd));
    entry->setValue(payloadType_, "Payload Type", 3);
    entry->setValue(payloadTypeName(), "Payload Type", 7);
    return entry;
}

}  // namespace wireloom
