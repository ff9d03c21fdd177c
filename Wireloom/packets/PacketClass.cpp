#include <Wireloom/packets/PacketClass.hpp>
#include <Wireloom/packets/detail/PacketRegistry.hpp>

namespace wireloom {

using detail::PacketRegistry;

std::optional<PacketClassSet> PacketClass::allowedParentProtocols() const {
    return allowedParents_ ? allowedParents_() : std::nullopt;
}

int PacketClass::registryIndexSlow() const noexcept {
    if (!PacketRegistry::isBuildingOnThisThread()) PacketRegistry::shared();
    return index_.load(std::memory_order_acquire);
}

PacketClassSet::PacketClassSet(std::initializer_list<const PacketClass*> classes) noexcept {
    for (const PacketClass* cls : classes)
        if (cls) insert(*cls);
}

void PacketClassSet::insert(const PacketClass& cls) noexcept {
    int index = cls.registryIndex();
    if (index >= 0) bits_ |= std::uint64_t{1} << index;
}

bool PacketClassSet::contains(const PacketClass& cls) const noexcept {
    int index = cls.registryIndex();
    return index >= 0 && (bits_ >> index & 1) != 0;
}

}  // namespace wireloom
