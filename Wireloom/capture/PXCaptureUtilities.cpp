#include <Wireloom/capture/PXCaptureUtilities.hpp>
#include <Wireloom/packets/PXIPv4Packet.hpp>
#include <Wireloom/packets/PXIPv6Packet.hpp>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace wireloom {

std::string PXCaptureUtilities::stringFromSockaddr(const sockaddr* address) {
    char text[46];  // INET6_ADDRSTRLEN
    const void* bytes = nullptr;
    if (address && address->sa_family == AF_INET)
        bytes = &reinterpret_cast<const sockaddr_in*>(address)->sin_addr;
    else if (address && address->sa_family == AF_INET6)
        bytes = &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
    if (!bytes || !inet_ntop(address->sa_family, bytes, text, sizeof text)) return "<invalid>";
    return text;
}

namespace {
template <class Address>
std::optional<std::string> addressFromPacket(const PXPacket& packet, Address address) {
    // IPv6 first: a tunnel's inner addresses are the ones that matter.
    if (auto v6 = packet.layerWithProtocol<PXIPv6Packet>()) return address(*v6);
    if (auto v4 = packet.layerWithProtocol<PXIPv4Packet>()) return address(*v4);
    return std::nullopt;
}
}  // namespace

std::optional<std::string> PXCaptureUtilities::sourceAddressFromPacket(const PXPacket& packet) {
    return addressFromPacket(packet, [](const auto& ip) { return ip.sourceAddress(); });
}

std::optional<std::string> PXCaptureUtilities::destAddressFromPacket(const PXPacket& packet) {
    return addressFromPacket(packet, [](const auto& ip) { return ip.destAddress(); });
}

}  // namespace wireloom
