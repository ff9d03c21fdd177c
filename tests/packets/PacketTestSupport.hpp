#pragma once
#include "support/FrameBuilder.hpp"

#include <Wireloom/Wireloom.hpp>

#include <pcap/pcap.h>

#include <string>
#include <vector>

namespace wireloom::testing {

inline PXPacketPtr decode(const Bytes& frame, int linkType = DLT_EN10MB, double timestamp = 1700000000.25) {
    pcap_pkthdr header{};
    header.ts.tv_sec = static_cast<time_t>(timestamp);
    header.ts.tv_usec = static_cast<suseconds_t>((timestamp - static_cast<double>(header.ts.tv_sec)) * 1e6);
    header.caplen = static_cast<bpf_u_int32>(frame.size());
    header.len = header.caplen;
    return PXPacket::packetWithHeader(header, frame.data(), linkType);
}

// The directed decoder over a copy of the frame; classes innermost first.
inline PXPacketPtr decodeAs(const Bytes& frame, std::initializer_list<const PacketClass*> classes, double timestamp = 0,
                            std::uint32_t lengthOnWire = 0) {
    return PXPacket::packetWithRawData(ByteBuffer::copy(frame), classes, timestamp, lengthOnWire);
}

// Class names of a chain from the first decoded layer inward.
inline std::vector<std::string> layerNames(const PXPacketPtr& innermost) {
    std::vector<std::string> names;
    for (PXPacketPtr p = innermost; p && p->encapsulatingPacket(); p = p->encapsulatingPacket())
        names.insert(names.begin(), std::string(p->packetClass().name()));
    return names;
}

// The same chain as one line of short names: "Ethernet IPv4 TCP".
inline std::string shape(const PXPacketPtr& innermost) {
    std::string text;
    for (const std::string& name : layerNames(innermost))
        text += (text.empty() ? "" : " ") + name.substr(2, name.size() - 8);
    return text;
}

inline bool startsWith(const std::string& text, const std::string& start) { return text.rfind(start, 0) == 0; }

inline const IPv4Address kClient4 = ip4("192.168.1.10");
inline const IPv4Address kServer4 = ip4("93.184.216.34");

inline Bytes ethernet4(std::uint8_t protocol, const Bytes& payload, const IPv4Fields& fields = {}) {
    return ethernet(kMacB, kMacA, kEtherTypeIPv4, ipv4(kClient4, kServer4, protocol, payload, fields));
}

}  // namespace wireloom::testing
