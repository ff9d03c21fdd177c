#pragma once
// PXBSDLoopbackPacket: the 4-byte BSD loopback header of captures of
// link-layer type 0 (DLT_NULL). The address family is read in the capturing
// host's byte order, as libpcap writes it, and only 2 (IPv4) and 30 (IPv6)
// lead to a network layer.

#include <Wireloom/packets/PXPacket.hpp>

namespace wireloom {

class PXBSDLoopbackPacket : public PXPacket {
public:
    static constexpr const PacketClass& staticClass() noexcept { return kClass; }
    const PacketClass& packetClass() const override { return staticClass(); }

    std::uint32_t payloadType() const noexcept { return payloadType_; }  // address family
    void setPayloadType(std::uint32_t family) noexcept { payloadType_ = family; }
    // Never assigned: always 0.
    std::uint32_t packetType() const noexcept { return packetType_; }
    std::string payloadTypeName() const;

    static std::optional<PacketClassSet> allowedParentProtocols();
    std::optional<PacketClassSet> restrictedChildProtocols() const override;
    static PXPacketPtr packetFromData(const ByteBuffer& data, const PXPacketPtr& parent, std::uint32_t* consumed);
    std::string name() const override { return "Loopback Packet"; }
    std::shared_ptr<PXReportAnalyzerEntry> reportAnalyzerEntry() const override;

private:
    friend class PXPacket;
    friend class detail::LayerChainBuilder;
    // Reads the header into a layer already made; false when the bytes are
    // not of this class (the layer is then dropped).
    static bool readHeader(PXBSDLoopbackPacket& layer, const ByteBuffer& data, const PXPacket* parent,
                           std::uint32_t* consumed);
    static PacketClass kClass;
    std::uint32_t payloadType_ = 0;
    std::uint32_t packetType_ = 0;
};

}  // namespace wireloom
