#include <Wireloom/flows/detail/FlowEndpoints.hpp>
#include <Wireloom/packets/PXIPv4Packet.hpp>
#include <Wireloom/packets/PXIPv6Packet.hpp>

#include <charconv>

namespace wireloom::detail {

std::string FlowEndpoints::endpointWithAddress(std::string_view address, std::uint16_t port) {
    char digits[8];
    const auto end = std::to_chars(digits, digits + sizeof digits, port).ptr;
    std::string endpoint;
    endpoint.reserve(address.size() + 1 + static_cast<std::size_t>(end - digits));
    endpoint.append(address).push_back(':');
    endpoint.append(digits, end);
    return endpoint;
}

bool FlowEndpoints::carriesEndpoints(const PXPacket& packet, std::uint16_t sourcePort, std::uint16_t destPort) const {
    const auto matches = [&](const std::string& source, const std::string& dest) {
        return (sourcePort == endpoint0Port_ && destPort == endpoint1Port_ && source == endpoint0Address_ &&
                dest == endpoint1Address_) ||
               (sourcePort == endpoint1Port_ && destPort == endpoint0Port_ && source == endpoint1Address_ &&
                dest == endpoint0Address_);
    };
    if (auto v6 = packet.layerWithProtocol<PXIPv6Packet>(); v6 && matches(v6->sourceAddress(), v6->destAddress()))
        return true;
    auto v4 = packet.layerWithProtocol<PXIPv4Packet>();
    return v4 && matches(v4->sourceAddress(), v4->destAddress());
}

}  // namespace wireloom::detail
