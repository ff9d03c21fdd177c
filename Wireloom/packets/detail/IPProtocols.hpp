#pragma once
// The child classes both IP layers allow, by IP protocol number.

#include <Wireloom/packets/PacketClass.hpp>

namespace wireloom::detail {

// 4 (IP in IP) and 41 (IPv6) give the IP classes, 6 TCP, 17 UDP; every other
// number, ICMP included, gives the empty set.
inline PacketClassSet childClassesForIPProtocol(std::uint8_t protocol) noexcept {
    switch (protocol) {
    case 4: return PacketClassSet::ofBuiltIns(kPXIPv4PacketIndex);
    case 6: return PacketClassSet::ofBuiltIns(kPXTCPPacketIndex);
    case 17: return PacketClassSet::ofBuiltIns(kPXUDPPacketIndex);
    case 41: return PacketClassSet::ofBuiltIns(kPXIPv6PacketIndex);
    default: return {};
    }
}
// Link layers and the IP layers themselves, for tunnels.
PacketClassSet ipParentClasses();

}  // namespace wireloom::detail
