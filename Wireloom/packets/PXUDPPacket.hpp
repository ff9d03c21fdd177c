#pragma once
// PXUDPPacket: a UDP header under an IPv4 or IPv6 layer, with its payload.
// Only datagrams from port 5353 to port 5353 lead to a deeper layer
// (multicast DNS); RTP is decoded only on request, through the directed
// decoder, since nothing in UDP says a datagram carries it.

#include <Wireloom/core/detail/ByteReader.hpp>
#include <Wireloom/packets/PXPacket.hpp>

namespace wireloom {

class PXUDPPacket : public PXPacket {
public:
    static constexpr const PacketClass& staticClass() noexcept { return kClass; }
    const PacketClass& packetClass() const override { return staticClass(); }

    std::uint32_t payloadSize() const noexcept { return payloadSize_; }
    void setPayloadSize(std::uint32_t size) noexcept { payloadSize_ = size; }
    const ByteBuffer& payload() const noexcept { return payload_; }
    void setPayload(ByteBuffer payload) noexcept { payload_ = std::move(payload); }
    std::uint16_t sourcePort() const noexcept { return static_cast<std::uint16_t>(ports_ >> 16); }
    void setSourcePort(std::uint16_t port) noexcept { ports_ = (ports_ & 0xffffu) | std::uint32_t{port} << 16; }
    std::uint16_t destPort() const noexcept { return static_cast<std::uint16_t>(ports_); }
    void setDestPort(std::uint16_t port) noexcept { ports_ = (ports_ & 0xffff0000u) | port; }

    // Port 5353 to port 5353: the only datagrams decoded further.
    bool leadsToMDNS() const noexcept { return ports_ == (std::uint32_t{kMDNSPort} << 16 | kMDNSPort); }

    static std::optional<PacketClassSet> allowedParentProtocols();
    std::optional<PacketClassSet> restrictedChildProtocols() const override { return childRestriction(); }
    // The same without the virtual call, inline for the decode chain: an
    // optional returned from a call goes back through memory, which stalled
    // the load that read it.
    std::optional<PacketClassSet> childRestriction() const noexcept {
        if (!leadsToMDNS()) return std::nullopt;
        // The mDNS class lives in the protocols layer, above this one; its
        // registry position is fixed with the other built-in classes.
        return PacketClassSet::ofBuiltIns(detail::kPXMDNSPacketIndex);
    }
    static PXPacketPtr packetFromData(const ByteBuffer& data, const PXPacketPtr& parent, std::uint32_t* consumed);
    std::string name() const override { return "UDP Packet"; }
    std::shared_ptr<PXReportAnalyzerEntry> reportAnalyzerEntry() const override;
    void appendDescription(std::string& out) const override;
    std::optional<std::uint32_t> layerPayloadSize() const noexcept override { return payloadSize_; }
    const ByteBuffer* layerPayload() const noexcept override { return &payload_; }
    void stopBorrowingBytes() noexcept override { payload_.stopBorrowing(); }

private:
    friend class PXPacket;
    friend class detail::LayerChainBuilder;
    // Reads the header into a layer already made; false when the bytes are
    // not of this class (the layer is then dropped).
    static bool readHeader(PXUDPPacket& layer, const ByteBuffer& data, const PXPacket* parent, std::uint32_t* consumed);
    static constexpr std::uint16_t kMDNSPort = 5353;
    static PacketClass kClass;
    ByteBuffer payload_;
    std::uint32_t payloadSize_ = 0;
    // Both ports as they follow each other on the wire, source first: stored
    // with one write, so that the chain's test of both right after the
    // decode reads them back from that write (a read spanning two stores
    // waits for both to reach the cache).
    std::uint32_t ports_ = 0;
};

// Inline, for the decode chain, which reads every built-in header.
inline bool PXUDPPacket::readHeader(PXUDPPacket& layer, const ByteBuffer& data, const PXPacket*,
                                    std::uint32_t* consumed) {
    detail::ByteReader r(data.span());
    if (!r.has(8)) return false;
    layer.ports_ = r.readBE<std::uint32_t>();
    const std::uint32_t udpLength = r.readBE<std::uint16_t>();
    if (data.size() >= udpLength && udpLength >= 8) layer.payloadSize_ = udpLength - 8;
    layer.payload_.borrow(data, layer.payloadSize_ ? 8 : 0, layer.payloadSize_);
    *consumed = 8;
    return true;
}

}  // namespace wireloom
