#include <Wireloom/core/detail/ByteReader.hpp>
#include <Wireloom/core/detail/Format.hpp>
#include <Wireloom/core/detail/TextWriter.hpp>
#include <Wireloom/packets/PXEthernetPacket.hpp>
#include <Wireloom/packets/PXIPv4Packet.hpp>
#include <Wireloom/packets/PXIPv6Packet.hpp>
#include <Wireloom/packets/detail/LinkLayerChildren.hpp>
#include <Wireloom/packets/detail/PacketEntryTitles.hpp>

namespace wireloom {

using detail::kEtherTypeARP;
using detail::kEtherTypeIPv4;
using detail::kEtherTypeIPv6;

constinit PacketClass PXEthernetPacket::kClass("PXEthernetPacket", &PXPacket::staticClass(),
                                               &PXEthernetPacket::packetFromData,
                                               &PXEthernetPacket::allowedParentProtocols,
                                               detail::kPXEthernetPacketIndex);

std::string PXEthernetPacket::stringFromMACAddress(const std::uint8_t* a) {
    std::string text;
    appendMACAddress(text, a);
    return text;
}

void PXEthernetPacket::appendMACAddress(std::string& out, const std::uint8_t* a) {
    static constexpr char kHex[] = "0123456789abcdef";
    char text[17];
    for (std::size_t i = 0; i < 6; ++i) {
        text[3 * i] = kHex[a[i] >> 4];
        text[3 * i + 1] = kHex[a[i] & 0x0f];
        if (i < 5) text[3 * i + 2] = ':';
    }
    out.append(text, sizeof text);
}

std::string PXEthernetPacket::payloadTypeName() const {
    switch (payloadType_) {
    case kEtherTypeIPv4: return "Internet Protocol version 4";
    case kEtherTypeARP: return "Address Resolution Protocol";
    case kEtherTypeIPv6: return "Internet Protocol Version 6";
    default: return "Unknown";
    }
}

std::optional<PacketClassSet> PXEthernetPacket::allowedParentProtocols() {
    return PacketClassSet{&PXPacket::staticClass()};
}

std::optional<PacketClassSet> PXEthernetPacket::restrictedChildProtocols() const {
    return detail::childClassesForEtherType(payloadType_);
}

PXPacketPtr PXEthernetPacket::packetFromData(const ByteBuffer& data, const PXPacketPtr& parent,
                                             std::uint32_t* consumed) {
    return decodeLayer<PXEthernetPacket>(data, parent, consumed);
}

void PXEthernetPacket::appendDescription(std::string& out) const {
    out += "(Eth) MAC ";
    appendMACAddress(out, macSource_.data());
    out += " => ";
    appendMACAddress(out, macDest_.data());
    detail::TextWriter(out) << ", proto 0x" << detail::Hex{payloadType_, 4} << " - ";
    appendGenericDescription(out);
}

std::shared_ptr<PXReportAnalyzerEntry> PXEthernetPacket::reportAnalyzerEntry() const {
    auto entry = PXReportAnalyzerEntry::entry();
    const std::string source = macSource(), dest = macDest();
    entry->setProtocolLayerAttributedName(detail::addressTitle("Ethernet ", source, dest));
    entry->setValue(source, "Source", 7);
    entry->setValue(dest, "Destination", 7);
    // The type twice under one label, deliberately: the number, then its name.
    entry->setValue(payloadType_, "Payload Type", 3);
    entry->setValue(payloadTypeName(), "Payload Type", 7);
    return entry;
}

}  // namespace wireloom
