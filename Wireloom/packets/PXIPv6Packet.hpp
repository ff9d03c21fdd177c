#pragma once
// PXIPv6Packet: an IPv6 header and its chain of extension headers. The layer
// reports the upper-layer protocol found after the extension headers and the
// payload that follows them. Unlike IPv4, a datagram cut short by the snap
// length is not decoded at all.
//
// Addresses are written by stringFromIPv6Address, this library's own text
// form: every run of zero groups is compressed and a group loses the leading
// zero of its low byte (2001:db8:: reads "201:db8:", ::1 reads ":1"). Flow
// keys and reports use these strings as they are.

#include <Wireloom/packets/PXPacket.hpp>

namespace wireloom {

class PXIPv6Packet : public PXPacket {
public:
    static constexpr const PacketClass& staticClass() noexcept { return kClass; }
    const PacketClass& packetClass() const override { return staticClass(); }

    std::uint32_t payloadSize() const noexcept { return payloadSize_; }
    void setPayloadSize(std::uint32_t size) noexcept { payloadSize_ = size; }
    std::uint8_t protocol() const noexcept { return protocol_; }
    void setProtocol(std::uint8_t protocol) noexcept { protocol_ = protocol; }
    std::string sourceAddress() const { return stringFromIPv6Address(sourceAddress_); }
    std::string destAddress() const { return stringFromIPv6Address(destAddress_); }
    // The header's 16 address bytes, in network order.
    const std::uint8_t* sourceAddressBytes() const noexcept { return sourceAddress_; }
    const std::uint8_t* destAddressBytes() const noexcept { return destAddress_; }

    static constexpr std::size_t kIPv6AddressTextSize = 40;
    static std::string stringFromIPv6Address(const std::uint8_t* address);
    // The same text written at `out`, which has room for kIPv6AddressTextSize
    // characters; returns its length (at most 39).
    static std::size_t writeIPv6Address(const std::uint8_t* address, char* out);

    static std::optional<PacketClassSet> allowedParentProtocols();
    std::optional<PacketClassSet> restrictedChildProtocols() const override;
    static PXPacketPtr packetFromData(const ByteBuffer& data, const PXPacketPtr& parent, std::uint32_t* consumed);
    std::string name() const override { return "IPv6 Packet"; }
    std::shared_ptr<PXReportAnalyzerEntry> reportAnalyzerEntry() const override;
    void appendDescription(std::string& out) const override;
    std::optional<std::uint32_t> layerPayloadSize() const noexcept override { return payloadSize_; }

private:
    friend class PXPacket;
    friend class detail::LayerChainBuilder;
    // Reads the header into a layer already made; false when the bytes are
    // not of this class (the layer is then dropped).
    static bool readHeader(PXIPv6Packet& layer, const ByteBuffer& data, const PXPacket* parent,
                           std::uint32_t* consumed);
    static PacketClass kClass;
    std::uint32_t payloadSize_ = 0;
    std::uint8_t protocol_ = 0;
    std::uint8_t sourceAddress_[16]{};
    std::uint8_t destAddress_[16]{};
};

}  // namespace wireloom
