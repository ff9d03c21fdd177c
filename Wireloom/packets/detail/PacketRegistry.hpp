#pragma once
// The process's list of packet classes. It is built once, on first use, from
// the built-in classes and those registered before; from then on it never
// changes, which is what lets the decode chain read it without a lock.

#include <Wireloom/packets/PacketClass.hpp>

#include <vector>

namespace wireloom::detail {

class PacketRegistry {
public:
    static const PacketRegistry& shared();
    // Adds a class to the registry that is about to be built.
    static void addPendingClass(const PacketClass& cls);
    static bool isBuildingOnThisThread() noexcept;

    const PacketClassSet& allClasses() const noexcept { return all_; }
    const PacketClass& classAt(int index) const noexcept { return *classes_[static_cast<std::size_t>(index)]; }
    const PacketClass* classNamed(std::string_view name) const noexcept;
    // The cached allowedParentProtocols() of a registered class.
    const std::optional<PacketClassSet>& allowedParents(const PacketClass& cls) const noexcept {
        return allowedParents_[static_cast<std::size_t>(cls.index_)];
    }

private:
    PacketRegistry();
    std::vector<const PacketClass*> classes_;
    std::vector<std::optional<PacketClassSet>> allowedParents_;
    PacketClassSet all_;
};

// Defined by the library's top-level target, which sees every layer.
void registerBuiltInPacketClasses();

}  // namespace wireloom::detail
