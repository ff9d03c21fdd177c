// Drives arbitrary bytes through the packet decoders. The first byte picks
// the road: the automatic chain under link type 0, 1 or an unknown one, or
// the directed decoder with a class list taken from the following bytes.
// Every decoded layer is then asked for everything it can tell, so that
// formatting code is exercised on hostile values too.
#include "FuzzTarget.hpp"

#include <Wireloom/Wireloom.hpp>

#include <pcap/pcap.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace {

using namespace wireloom;

const PacketClass* classForByte(std::uint8_t byte) {
    static const PacketClass* const classes[] = {
        &PXPacket::staticClass(),     &PXEthernetPacket::staticClass(), &PXBSDLoopbackPacket::staticClass(),
        &PXIPv4Packet::staticClass(), &PXIPv6Packet::staticClass(),     &PXTCPPacket::staticClass(),
        &PXUDPPacket::staticClass(),  &PXRTPPacket::staticClass(),
    };
    return classes[byte % (sizeof classes / sizeof classes[0])];
}

void inspect(const PXPacketPtr& innermost) {
    if (!innermost) return;
    std::size_t total = 0;
    for (PXPacketPtr p = innermost; p; p = p->encapsulatingPacket()) {
        total += p->description().size() + p->name().size();
        if (auto v4 = std::dynamic_pointer_cast<PXIPv4Packet>(p)) total += v4->sourceAddress().size();
        if (auto v6 = std::dynamic_pointer_cast<PXIPv6Packet>(p)) total += v6->destAddress().size();
        if (const ByteBuffer* payload = p->layerPayload()) total += payload->hexEncodedString().size();
    }
    total += innermost->pcapFileEntry().size();
    total += static_cast<std::size_t>(innermost->linkLayerType() + 1);
    if (total == 1) __builtin_trap();  // keeps the work observable; never true
}

}  // namespace

WIRELOOM_FUZZ_TARGET(packet_decode) {
    if (size < 1) return 0;
    const std::uint8_t mode = data[0] % 4;
    ++data;
    --size;
    if (mode < 3) {
        static const int linkTypes[] = {DLT_NULL, DLT_EN10MB, 228};
        pcap_pkthdr header{};
        header.caplen = static_cast<bpf_u_int32>(size);
        header.len = header.caplen;
        inspect(PXPacket::packetWithHeader(header, data, linkTypes[mode]));
        return 0;
    }
    if (size < 1) return 0;
    std::size_t count = data[0] % 6;
    if (size < 1 + count) return 0;
    std::vector<const PacketClass*> classes;
    for (std::size_t i = 0; i < count; ++i) classes.push_back(classForByte(data[1 + i]));
    ByteBuffer frame = ByteBuffer::copy(data + 1 + count, size - 1 - count);
    inspect(PXPacket::packetWithRawData(frame, classes, 0, static_cast<std::uint32_t>(frame.size())));
    return 0;
}
