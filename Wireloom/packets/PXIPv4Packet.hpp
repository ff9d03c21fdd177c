#pragma once
// PXIPv4Packet: an IPv4 header under a link layer or another IP layer.
// Options are skipped unread, the checksum is not verified and fragments are
// decoded like whole datagrams. A datagram cut short by the snap length keeps
// its header but reports an empty payload (payloadSize 0), so the transport
// layer below it is still decoded, with no payload bytes.

#include <Wireloom/core/detail/ByteReader.hpp>
#include <Wireloom/packets/PXPacket.hpp>

namespace wireloom {

class PXIPv4Packet : public PXPacket {
public:
    static constexpr const PacketClass& staticClass() noexcept { return kClass; }
    const PacketClass& packetClass() const override { return staticClass(); }

    std::uint32_t payloadSize() const noexcept { return payloadSize_; }
    void setPayloadSize(std::uint32_t size) noexcept { payloadSize_ = size; }
    std::uint32_t headerSize() const noexcept { return headerSize_; }
    void setHeaderSize(std::uint32_t size) noexcept { headerSize_ = size; }
    std::uint8_t protocol() const noexcept { return protocol_; }
    void setProtocol(std::uint8_t protocol) noexcept { protocol_ = protocol; }
    // Dotted decimal, formatted from the header's bytes when asked.
    std::string sourceAddress() const { return stringFromIPv4Address(sourceAddress_); }
    std::string destAddress() const { return stringFromIPv4Address(destAddress_); }
    // The header's 4 address bytes, in network order.
    const std::uint8_t* sourceAddressBytes() const noexcept { return sourceAddress_; }
    const std::uint8_t* destAddressBytes() const noexcept { return destAddress_; }

    // "%u.%u.%u.%u" of four bytes.
    static std::string stringFromIPv4Address(const std::uint8_t* address);
    // The same text appended to `out`.
    static void appendIPv4Address(std::string& out, const std::uint8_t* address);

    static std::optional<PacketClassSet> allowedParentProtocols();
    std::optional<PacketClassSet> restrictedChildProtocols() const override;
    static PXPacketPtr packetFromData(const ByteBuffer& data, const PXPacketPtr& parent, std::uint32_t* consumed);
    std::string name() const override { return "IPv4 Packet"; }
    std::shared_ptr<PXReportAnalyzerEntry> reportAnalyzerEntry() const override;
    void appendDescription(std::string& out) const override;
    std::optional<std::uint32_t> layerPayloadSize() const noexcept override { return payloadSize_; }

private:
    friend class PXPacket;
    friend class detail::LayerChainBuilder;
    // Reads the header into a layer already made; false when the bytes are
    // not of this class (the layer is then dropped).
    static bool readHeader(PXIPv4Packet& layer, const ByteBuffer& data, const PXPacket* parent,
                           std::uint32_t* consumed);
    static PacketClass kClass;
    std::uint32_t payloadSize_ = 0;
    std::uint32_t headerSize_ = 0;
    std::uint8_t protocol_ = 0;
    std::uint8_t sourceAddress_[4]{};
    std::uint8_t destAddress_[4]{};
};

// Inline, for the decode chain, which reads every built-in header.
inline bool PXIPv4Packet::readHeader(PXIPv4Packet& layer, const ByteBuffer& data, const PXPacket*,
                                     std::uint32_t* consumed) {
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

}  // namespace wireloom
