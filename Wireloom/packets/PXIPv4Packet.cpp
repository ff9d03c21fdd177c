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

bool PXIPv4Packet::readHeader(PXIPv4Packet& layer, const ByteBuffer& data, const PXPacket*, std::uint32_t* consumed) {
    detail::ByteReader r(data.span());
    const auto length = static_cast<std::uint32_t>(data.size());
    if (length < 20) return false;
    const std::uint8_t versionAndIHL = r.peekBEAt<std::uint8_t>(0);
    if (versionAndIHL >> 4 != 4) return false;
    // The header-length check that used to follow compared the captured length
    // with the IHL word count rather than with IHL * 4; with length >= 20 it
    // never fires, so an IHL below 5 is accepted and consumes that little.
    const std::uint32_t headerBytes = (versionAndIHL & 0x0f) * 4u;
    const std::uint32_t totalLength = r.peekBEAt<std::uint16_t>(2);

    layer.protocol_ = r.peekBEAt<std::uint8_t>(9);
    if (totalLength >= headerBytes) {
        layer.payloadSize_ = totalLength - headerBytes;
        layer.headerSize_ = headerBytes;
    }
    if (totalLength > length) {
        // Cut by the snap length (or lying): the transport layer gets no payload.
        layer.payloadSize_ = 0;
        layer.headerSize_ = headerBytes;
    }
    r.seek(12);
    r.readInto(layer.sourceAddress_, 4);
    r.readInto(layer.destAddress_, 4);
    *consumed = headerBytes;
    return true;
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
