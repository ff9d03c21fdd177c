#include <Wireloom/core/detail/ByteReader.hpp>
#include <Wireloom/core/detail/Format.hpp>
#include <Wireloom/core/detail/TextWriter.hpp>
#include <Wireloom/packets/PXIPv4Packet.hpp>
#include <Wireloom/packets/PXIPv6Packet.hpp>
#include <Wireloom/packets/PXTCPPacket.hpp>
#include <Wireloom/packets/detail/PacketEntryTitles.hpp>

#include <typeinfo>

namespace wireloom {

namespace {

// The parent's payload size. A parent of exactly a built-in IP class is read
// directly: the virtual call returns a std::optional through memory, which
// costs a store-forwarding stall on every segment. The type_info addresses are
// compared rather than the type_infos: equal addresses prove the type, and a
// class seen through another copy of its type_info merely takes the call.
std::optional<std::uint32_t> payloadSizeOf(const PXPacket& parent) {
    const std::type_info& type = typeid(parent);
    if (&type == &typeid(PXIPv4Packet)) return static_cast<const PXIPv4Packet&>(parent).payloadSize();
    if (&type == &typeid(PXIPv6Packet)) return static_cast<const PXIPv6Packet&>(parent).payloadSize();
    return parent.layerPayloadSize();
}

}  // namespace

constinit PacketClass PXTCPPacket::kClass("PXTCPPacket", &PXPacket::staticClass(), &PXTCPPacket::packetFromData,
                                          &PXTCPPacket::allowedParentProtocols, detail::kPXTCPPacketIndex);

std::optional<PacketClassSet> PXTCPPacket::allowedParentProtocols() {
    return PacketClassSet{&PXIPv4Packet::staticClass(), &PXIPv6Packet::staticClass()};
}

PXPacketPtr PXTCPPacket::packetFromData(const ByteBuffer& data, const PXPacketPtr& parent, std::uint32_t* consumed) {
    return decodeLayer<PXTCPPacket>(data, parent, consumed);
}

bool PXTCPPacket::readHeader(PXTCPPacket& layer, const ByteBuffer& data, const PXPacket* parent,
                             std::uint32_t* consumed) {
    if (data.size() < 20 || !parent) return false;
    const std::optional<std::uint32_t> parentPayloadSize = payloadSizeOf(*parent);
    if (!parentPayloadSize) return false;

    detail::ByteReader r(data.span());
    layer.sourcePort_ = r.readBE<std::uint16_t>();
    layer.destPort_ = r.readBE<std::uint16_t>();
    layer.seqNumber_ = r.readBE<std::uint32_t>();
    layer.ackNumber_ = r.readBE<std::uint32_t>();
    const std::uint32_t headerLength = (r.readByte() >> 4) * 4u;
    const std::uint8_t flags = r.readByte();
    layer.finFlag_ = flags & 0x01;
    layer.synFlag_ = flags & 0x02;
    layer.ackFlag_ = flags & 0x10;

    if (*parentPayloadSize >= headerLength) layer.payloadSize_ = *parentPayloadSize - headerLength;
    // The IP layer vouches for its payload size; a parent that does not (a
    // hand-picked class list can put anything above TCP) must still never
    // make the payload reach past the captured bytes.
    if (headerLength > data.size() || layer.payloadSize_ > data.size() - headerLength) layer.payloadSize_ = 0;
    layer.payload_.borrow(data, layer.payloadSize_ ? headerLength : 0, layer.payloadSize_);
    *consumed = headerLength;
    return true;
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
