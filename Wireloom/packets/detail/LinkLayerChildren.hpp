#pragma once
// The child classes the link layers allow, by EtherType or address family.
// Inline so the decode chain can apply them without a call per layer.

#include <Wireloom/packets/PacketClass.hpp>

#include <cstdint>

namespace wireloom::detail {

inline constexpr std::uint16_t kEtherTypeIPv4 = 0x0800;
inline constexpr std::uint16_t kEtherTypeARP = 0x0806;
inline constexpr std::uint16_t kEtherTypeIPv6 = 0x86DD;

inline constexpr std::uint32_t kLoopbackFamilyIPv4 = 2;
// The IPv6 family number of the platform these captures come from; other
// systems' numbers (24, 28, and Linux's 10) are deliberately not recognised.
inline constexpr std::uint32_t kLoopbackFamilyIPv6 = 30;

// IPv4 and IPv6 only; every other EtherType (ARP and 802.1Q included) ends
// the chain.
inline PacketClassSet childClassesForEtherType(std::uint16_t type) noexcept {
    switch (type) {
    case kEtherTypeIPv4: return PacketClassSet::ofBuiltIns(kPXIPv4PacketIndex);
    case kEtherTypeIPv6: return PacketClassSet::ofBuiltIns(kPXIPv6PacketIndex);
    default: return {};
    }
}

inline PacketClassSet childClassesForLoopbackFamily(std::uint32_t family) noexcept {
    switch (family) {
    case kLoopbackFamilyIPv4: return PacketClassSet::ofBuiltIns(kPXIPv4PacketIndex);
    case kLoopbackFamilyIPv6: return PacketClassSet::ofBuiltIns(kPXIPv6PacketIndex);
    default: return {};
    }
}

}  // namespace wireloom::detail
