// Registers the packet classes that ship with the library. It lives in the
// top-level target because it has to see every layer's classes, while the
// packet registry itself must not depend on the layers above it.
#include <Wireloom/Wireloom.hpp>

namespace wireloom::detail {

void registerBuiltInPacketClasses() {
    for (const PacketClass* cls :
         {&PXEthernetPacket::staticClass(), &PXBSDLoopbackPacket::staticClass(), &PXIPv4Packet::staticClass(),
          &PXIPv6Packet::staticClass(), &PXTCPPacket::staticClass(), &PXUDPPacket::staticClass(),
          &PXRTPPacket::staticClass(), &PXMDNSPacket::staticClass()})
        PXPacket::registerPacketClass(*cls);
}

}  // namespace wireloom::detail
