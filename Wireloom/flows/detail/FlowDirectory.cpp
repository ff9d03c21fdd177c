#include <Wireloom/capture/PXCaptureUtilities.hpp>
#include <Wireloom/flows/detail/FlowDirectory.hpp>
#include <Wireloom/flows/detail/FlowEndpoints.hpp>
#include <Wireloom/packets/PXIPv4Packet.hpp>
#include <Wireloom/packets/PXIPv6Packet.hpp>

namespace wireloom::detail {

bool packetPathOf(const PXPacket& packet, std::uint16_t sourcePort, std::uint16_t destPort, PacketPath* path) {
    // The same layers the address texts come from: IPv6 first.
    std::size_t size = 16;
    const std::uint8_t* source = nullptr;
    const std::uint8_t* dest = nullptr;
    if (auto v6 = packet.layerWithProtocol<PXIPv6Packet>()) {
        source = v6->sourceAddressBytes();
        dest = v6->destAddressBytes();
        path->family = 6;
    } else if (auto v4 = packet.layerWithProtocol<PXIPv4Packet>()) {
        source = v4->sourceAddressBytes();
        dest = v4->destAddressBytes();
        path->family = 4;
        size = 4;
    } else {
        return false;
    }
    std::uint8_t* out = path->bytes.data();
    std::memcpy(out, source, size);
    std::memcpy(out + 16, dest, size);
    out[32] = static_cast<std::uint8_t>(sourcePort >> 8);
    out[33] = static_cast<std::uint8_t>(sourcePort);
    out[34] = static_cast<std::uint8_t>(destPort >> 8);
    out[35] = static_cast<std::uint8_t>(destPort);
    return true;
}

std::optional<FlowSides> flowSidesOf(const PXPacket& packet, std::uint16_t sourcePort, std::uint16_t destPort) {
    std::optional<std::string> source = PXCaptureUtilities::sourceAddressFromPacket(packet);
    std::optional<std::string> dest = PXCaptureUtilities::destAddressFromPacket(packet);
    if (!source || !dest) return std::nullopt;
    FlowSides sides;
    std::string sourceEndpoint = FlowEndpoints::endpointWithAddress(*source, sourcePort);
    std::string destEndpoint = FlowEndpoints::endpointWithAddress(*dest, destPort);
    // Equal identifiers leave the sender at endpoint 0.
    sides.sourceIsZero = !(destEndpoint < sourceEndpoint);
    const int from = sides.sourceIsZero ? 0 : 1;
    sides.address[from] = std::move(*source);
    sides.address[1 - from] = std::move(*dest);
    sides.port[from] = sourcePort;
    sides.port[1 - from] = destPort;
    sides.endpoint[from] = std::move(sourceEndpoint);
    sides.endpoint[1 - from] = std::move(destEndpoint);
    sides.key.reserve(sides.endpoint[0].size() + 1 + sides.endpoint[1].size());
    sides.key.append(sides.endpoint[0]).append("-").append(sides.endpoint[1]);
    return sides;
}

}  // namespace wireloom::detail
