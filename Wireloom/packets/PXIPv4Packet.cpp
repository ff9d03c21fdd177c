#include <Wireloom/core/detail/ByteReader.hpp>
#include <Wireloom/core/detail/Format.hpp>
#include <Wireloom/core/detail/TextWriter.hpp>
#include <Wireloom/packets/PXIPv4Packet.hpp>
#include <Wireloom/packets/detail/IPProtocols.hpp>
#include <Wireloom/packets/detail/PacketEntryTitles.hpp>

#include <charconv>

namespace wireloom {

constinit PacketClass PXIPv4Packet::kClass("PXIPv4Packet", &PXPacket::staticClass(), &PXIPv4Packet::packetFromData,
                                           &PXIPv4Packet::allowedParentProtocols, detail::kPXIPv4PacketIndex);

std::string PXIPv4Packet::stringFromIPv4Address(const std::uint8_t* a) {
    std::string text;
    appendIPv4Address(text, a);
    return text;
}

void PXIPv4Packet::appendIPv4Address(std::string& out, const std::uint8_t* a) {
    char text[16];
    char* end = text;
    for (int i = 0; i < 4; ++i) {
        if (i) *end++ = '.';
        end = std::to_chars(end, text + sizeof text, a[i]).ptr;
    }
    out.append(text, static_cast<std::size_t>(end - text));
}

std::optional<PacketClassSet> PXIPv4Packet::allowedParentProtocols() { return detail::ipParentClasses(); }

std::optional<PacketClassSet> PXIPv4Packet::restrictedChildProtocols() const {
    return detail::childClassesForIPProtocol(protocol_);
}

PXPacketPtr PXIPv4Packet::packetFromData(const ByteBuffer& data, const PXPacketPtr& parent, std::uint32_t* consumed) {
    return decodeLayer<PXIPv4Packet>(data, parent, consumed);
}

void PXIPv4Packet::appendDescription(std::string& out) const {
    detail::TextWriter(out) << "(IPv4) size " << detail::Decimal{payloadSize_} << " bytes, addr ";
    appendIPv4Address(out, sourceAddress_);
    out += " => ";
    appendIPv4Address(out, destAddress_);
    out += " - ";
    appendGenericDescription(out);
}

std::shared_ptr<PXReportAnalyzerEntry> PXIPv4Packet::reportAnalyzerEntry() const {
    auto entry = PXReportAnalyzerEntry::entry();
    const std::string source = sourceAddress(), dest = destAddress();
    entry->setProtocolLayerAttributedName(detail::addressTitle("IPv4 ", source, dest));
    entry->setValue(payloadSize_, "Payload Size", 0);
    entry->setValue(headerSize_, "Header Size", 0);
    entry->setValue(source, "Source", 7);
    entry->setValue(dest, "Destination", 7);
    return entry;
}

}  // namespace wireloom
