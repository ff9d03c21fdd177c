#include <Wireloom/packets/PXBSDLoopbackPacket.hpp>
#include <Wireloom/packets/PXEthernetPacket.hpp>
#include <Wireloom/packets/PXIPv4Packet.hpp>
#include <Wireloom/packets/PXIPv6Packet.hpp>
#include <Wireloom/packets/PXTCPPacket.hpp>
#include <Wireloom/packets/PXUDPPacket.hpp>
#include <Wireloom/packets/detail/IPProtocols.hpp>

namespace wireloom::detail {

PacketClassSet childClassesForIPProtocol(std::uint8_t protocol) {
    // Built once: every IP layer of every frame asks.
    static const PacketClassSet ipv4{&PXIPv4Packet::staticClass()};
    static const PacketClassSet tcp{&PXTCPPacket::staticClass()};
    static const PacketClassSet udp{&PXUDPPacket::staticClass()};
    static const PacketClassSet ipv6{&PXIPv6Packet::staticClass()};
    switch (protocol) {
    case 4: return ipv4;
    case 6: return tcp;
    case 17: return udp;
    case 41: return ipv6;
    default: return {};
    }
}

PacketClassSet ipParentClasses() {
    return {&PXBSDLoopbackPacket::staticClass(), &PXEthernetPacket::staticClass(), &PXIPv4Packet::staticClass(),
            &PXIPv6Packet::staticClass()};
}

}  // namespace wireloom::detail
