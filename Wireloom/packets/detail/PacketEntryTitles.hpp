#pragma once
// The two title layouts of packet report entries. Addresses and ports are
// drawn through the shared colour variables, so a changed colour scheme shows
// at the next rendering.

#include <Wireloom/report/PXReportAnalyzerEntry.hpp>

#include <cstdint>
#include <string>

namespace wireloom {
class PXPacket;
}

namespace wireloom::detail {

// "Ethernet src => dst", "IPv4 ...": the layer word, then both addresses.
std::shared_ptr<WLAttributedString> addressTitle(const char* word, const std::string& source, const std::string& dest);

// "TCP src:port => dst:port" from the given IP layer when it is IPv4 or
// IPv6; the plain word ("TCP") when there is no such layer.
void setTransportTitle(PXReportAnalyzerEntry& entry, const char* word, const PXPacket* ipLayer,
                       std::uint16_t sourcePort, std::uint16_t destPort);

}  // namespace wireloom::detail
