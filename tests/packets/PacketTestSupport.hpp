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

// Class names of a chain from the first decoded layer inward.
inline std::vector<std::string> layerNames(const PXPacketPtr& innermost) {
    std::vector<std::string> names;
    for (PXPacketPtr p = innermost; p && p->encapsulatingPacket(); p = p->encapsulatingPacket())
        names.insert(names.begin(), std::string(p->packetClass().name()));
    return names;
}

inline const IPv4Address kClient4 = ip4("192.168.1.10");
inline const IPv4Address kServer4 = ip4("93.184.216.34");

}  // namespace wireloom::testing
