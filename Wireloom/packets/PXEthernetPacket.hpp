#pragma once
// PXEthernetPacket: an Ethernet II header, the first layer of captures of
// link-layer type 1 (DLT_EN10MB). No 802.1Q tag handling: a tagged frame ends
// here with the payload type 0x8100.

#include <Wireloom/core/detail/ByteReader.hpp>
#include <Wireloom/packets/PXPacket.hpp>

#include <array>

namespace wireloom {

class PXEthernetPacket : public PXPacket {
public:
    static constexpr const PacketClass& staticClass() noexcept { return kClass; }
    const PacketClass& packetClass() const override { return staticClass(); }

    std::uint16_t payloadType() const noexcept { return payloadType_; }  // EtherType
    void setPayloadType(std::uint16_t type) noexcept { payloadType_ = type; }
    // Addresses are kept as their six bytes and formatted when asked, which
    // keeps string building out of the decode path.
    std::string macSource() const { return stringFromMACAddress(macSource_.data()); }
    std::string macDest() const { return stringFromMACAddress(macDest_.data()); }
    std::string payloadTypeName() const;

    // "%02x:%02x:%02x:%02x:%02x:%02x" of six bytes.
    static std::string stringFromMACAddress(const std::uint8_t* address);
    // The same text appended to `out`.
    static void appendMACAddress(std::string& out, const std::uint8_t* address);

    static std::optional<PacketClassSet> allowedParentProtocols();
    std::optional<PacketClassSet> restrictedChildProtocols() const override;
    static PXPacketPtr packetFromData(const ByteBuffer& data, const PXPacketPtr& parent, std::uint32_t* consumed);
    std::string name() const override { return "Ethernet Packet"; }
    std::shared_ptr<PXReportAnalyzerEntry> reportAnalyzerEntry() const override;
    void appendDescription(std::string& out) const override;

private:
    friend class PXPacket;
    friend class detail::LayerChainBuilder;
    // Reads the header into a layer already made; false when the bytes are
    // not of this class (the layer is then dropped).
    static bool readHeader(PXEthernetPacket& layer, const ByteBuffer& data, const PXPacket* parent,
                           std::uint32_t* consumed);
    static PacketClass kClass;
    std::array<std::uint8_t, 6> macSource_{};
    std::array<std::uint8_t, 6> macDest_{};
    std::uint16_t payloadType_ = 0;
};

// Inline, for the decode chain, which reads every built-in header.
inline bool PXEthernetPacket::readHeader(PXEthernetPacket& layer, const ByteBuffer& data, const PXPacket*,
                                         std::uint32_t* consumed) {
    detail::ByteReader r(data.span());
    if (!r.has(14)) return false;
    r.readInto(layer.macDest_.data(), 6);
    r.readInto(layer.macSource_.data(), 6);
    layer.payloadType_ = r.readBE<std::uint16_t>();
    *consumed = 14;
    return true;
}

}  // namespace wireloom
