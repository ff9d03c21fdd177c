#pragma once
// Address-to-text conversions used by capture devices and packet consumers.

#include <Wireloom/packets/PXPacket.hpp>

#include <optional>
#include <string>

struct sockaddr;

namespace wireloom {

class PXCaptureUtilities {
public:
    // IPv4 and IPv6 addresses as inet_ntop writes them; "<invalid>" for any
    // other family, a null address or a failed conversion.
    static std::string stringFromSockaddr(const sockaddr* address);
    // The source (destination) address of the chain's IPv6 layer if it has
    // one, else of its IPv4 layer, else nothing.
    static std::optional<std::string> sourceAddressFromPacket(const PXPacket& packet);
    static std::optional<std::string> destAddressFromPacket(const PXPacket& packet);
};

}  // namespace wireloom
