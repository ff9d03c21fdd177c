#include <Wireloom/core/detail/ByteReader.hpp>
#include <Wireloom/packets/PXBSDLoopbackPacket.hpp>
#include <Wireloom/packets/PXIPv4Packet.hpp>
#include <Wireloom/packets/PXIPv6Packet.hpp>

namespace wireloom {

namespace {
constexpr std::uint32_t kFamilyIPv4 = 2;
// The IPv6 family number of the platform these captures come from; other
// systems' numbers (24, 28, and Linux's 10) are deliberately not recognised.
constexpr std::uint32_t kFamilyIPv6 = 30;
}  // namespace

constinit PacketClass PXBSDLoopbackPacket::kClass("PXBSDLoopbackPacket", &PXPacket::staticClass(),
                                 &PXBSDLoopbackPacket::packetFromData, &PXBSDLoopbackPacket::allowedParentProtocols,
                                     detail::kPXBSDLoopbackPacketIndex);

std::string PXBSDLoopbackPacket::payloadTypeName() const {
    switch (payloadType_) {
    case kFamilyIPv4: return "Internet Protocol version 4";
    case kFamilyIPv6: return "Internet Protocol version 6";
    default: return "Unknown";
    }
}

std::optional<PacketClassSet> PXBSDLoopbackPacket::allowedParentProtocols() {
    return PacketClassSet{&PXPacket::staticClass()};
}

std::optional<PacketClassSet> PXBSDLoopbackPacket::restrictedChildProtocols() const {
    switch (payloadType_) {
    case kFamilyIPv4: return PacketClassSet::ofBuiltIns(detail::kPXIPv4PacketIndex);
    case kFamilyIPv6: return PacketClassSet::ofBuiltIns(detail::kPXIPv6PacketIndex);
    default: return PacketClassSet{};
    }
}

PXPacketPtr PXBSDLoopbackPacket::packetFromData(const ByteBuffer& data, const PXPacketPtr&, std::uint32_t* consumed) {
    detail::ByteReader r(data.span());
    std::uint32_t family = r.readHost<std::uint32_t>();
    if (!r) return nullptr;
    auto packet = newLayer<PXBSDLoopbackPacket>();
    packet->payloadType_ = family;
    *consumed = 4;
    return packet;
}

}  // namespace wireloom
