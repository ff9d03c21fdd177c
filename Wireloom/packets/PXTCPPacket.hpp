#pragma once
// PXTCPPacket: a TCP header under an IPv4 or IPv6 layer, with its payload.
// The payload size comes from the IP layer (its payload less the TCP header),
// so Ethernet padding after a short segment is never mistaken for data. The
// chain always ends here: stream contents belong to the flows.

#include <Wireloom/core/detail/ByteReader.hpp>
#include <Wireloom/packets/PXIPv4Packet.hpp>
#include <Wireloom/packets/PXIPv6Packet.hpp>
#include <Wireloom/packets/PXPacket.hpp>

#include <typeinfo>

namespace wireloom {

class PXTCPPacket : public PXPacket {
public:
    static constexpr const PacketClass& staticClass() noexcept { return kClass; }
    const PacketClass& packetClass() const override { return staticClass(); }

    std::uint32_t payloadSize() const noexcept { return payloadSize_; }
    void setPayloadSize(std::uint32_t size) noexcept { payloadSize_ = size; }
    // Shares the frame's bytes rather than copying them; never mutated.
    const ByteBuffer& payload() const noexcept { return payload_; }
    void setPayload(ByteBuffer payload) noexcept { payload_ = std::move(payload); }
    std::uint16_t sourcePort() const noexcept { return sourcePort_; }
    void setSourcePort(std::uint16_t port) noexcept { sourcePort_ = port; }
    std::uint16_t destPort() const noexcept { return destPort_; }
    void setDestPort(std::uint16_t port) noexcept { destPort_ = port; }
    std::uint32_t seqNumber() const noexcept { return seqNumber_; }
    void setSeqNumber(std::uint32_t number) noexcept { seqNumber_ = number; }
    std::uint32_t ackNumber() const noexcept { return ackNumber_; }
    void setAckNumber(std::uint32_t number) noexcept { ackNumber_ = number; }
    bool ackFlag() const noexcept { return ackFlag_; }
    void setAckFlag(bool flag) noexcept { ackFlag_ = flag; }
    bool synFlag() const noexcept { return synFlag_; }
    void setSynFlag(bool flag) noexcept { synFlag_ = flag; }
    bool finFlag() const noexcept { return finFlag_; }
    void setFinFlag(bool flag) noexcept { finFlag_ = flag; }

    static std::optional<PacketClassSet> allowedParentProtocols();
    static PXPacketPtr packetFromData(const ByteBuffer& data, const PXPacketPtr& parent, std::uint32_t* consumed);
    std::string name() const override { return "TCP Packet"; }
    std::shared_ptr<PXReportAnalyzerEntry> reportAnalyzerEntry() const override;
    void appendDescription(std::string& out) const override;
    std::optional<std::uint32_t> layerPayloadSize() const noexcept override { return payloadSize_; }
    const ByteBuffer* layerPayload() const noexcept override { return &payload_; }
    void stopBorrowingBytes() noexcept override { payload_.stopBorrowing(); }

private:
    friend class PXPacket;
    friend class detail::LayerChainBuilder;
    static std::optional<std::uint32_t> payloadSizeOf(const PXPacket& parent);
    // Reads the header into a layer already made; false when the bytes are
    // not of this class (the layer is then dropped).
    static bool readHeader(PXTCPPacket& layer, const ByteBuffer& data, const PXPacket* parent, std::uint32_t* consumed);
    static PacketClass kClass;
    ByteBuffer payload_;
    std::uint32_t payloadSize_ = 0;
    std::uint32_t seqNumber_ = 0;
    std::uint32_t ackNumber_ = 0;
    std::uint16_t sourcePort_ = 0;
    std::uint16_t destPort_ = 0;
    bool ackFlag_ = false;
    bool synFlag_ = false;
    bool finFlag_ = false;
};

// The parent's payload size. A parent of exactly a built-in IP class is read
// directly: the virtual call returns a std::optional through memory, which
// costs a store-forwarding stall on every segment. The type_info addresses are
// compared rather than the type_infos: equal addresses prove the type, and a
// class seen through another copy of its type_info merely takes the call.
inline std::optional<std::uint32_t> PXTCPPacket::payloadSizeOf(const PXPacket& parent) {
    const std::type_info& type = typeid(parent);
    if (&type == &typeid(PXIPv4Packet)) return static_cast<const PXIPv4Packet&>(parent).payloadSize();
    if (&type == &typeid(PXIPv6Packet)) return static_cast<const PXIPv6Packet&>(parent).payloadSize();
    return parent.layerPayloadSize();
}

// Inline, for the decode chain, which reads every built-in header.
inline bool PXTCPPacket::readHeader(PXTCPPacket& layer, const ByteBuffer& data, const PXPacket* parent,
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

}  // namespace wireloom
