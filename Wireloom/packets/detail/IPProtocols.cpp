#include <Wireloom/packets/PXBSDLoopbackPacket.hpp>
#include <Wireloom/packets/PXEthernetPacket.hpp>
#include <Wireloom/packets/PXIPv4Packet.hpp>
#include <Wireloom/packets/PXIPv6Packet.hpp>
#include <Wireloom/packets/PXTCPPacket.hpp>
#include <Wireloom/packets/PXUDPPacket.hpp>
#include <Wireloom/packets/detail/IPProtocols.hpp>

namespace wireloom::detail {

PacketClassSet ipParentClasses() {
    return {&PXBSDLoopbackPacket::staticClass(), &PXEthernetPacket::staticClass(), &PXIPv4Packet::staticClass(),
            &PXIPv6Packet::staticClass()};
}

}  // namespace wireloom::detail
