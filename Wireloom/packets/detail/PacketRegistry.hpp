#pragma once
// The process's list of packet classes. It is built once, on first use, from
// the built-in classes and those registered before; from then on it never
// changes, which is what lets the decode chain read it without a lock.

#include <Wireloom/packets/PacketClass.hpp>

#include <vector>

namespace wireloom::detail {

class PacketRegistry {
public:
    // Inline, so that a decode pays only the test of the guard.
    static const PacketRegistry& shared() {
        static const PacketRegistry registry;
        return registry;
    }
    // Adds a class to the registry that is about to be built.
    static void addPendingClass(const PacketClass& cls);
    static bool isBuildingOnThisThread() noexcept;

    const PacketClassSet& allClasses() const noexcept { return all_; }
    const PacketClass& classAt(int index) const noexcept { return *classes_[static_cast<std::size_t>(index)]; }
    const PacketClass* classNamed(std::string_view name) const noexcept;
    // The classes that may be decoded under a packet of the given registered
    // class: those whose allowed parents are unrestricted or include it.
    // A parent of an unregistered class (index -1) is accepted only by the
    // classes that accept any parent.
    const PacketClassSet& classesAcceptingParent(int parentIndex) const noexcept {
        return parentIndex < 0 ? acceptingAnyParent_ : acceptingParent_[static_cast<std::size_t>(parentIndex)];
    }

    // True unless the host registered classes of its own.
    bool hasOnlyBuiltInClasses() const noexcept { return all_.bits_ >> kBuiltInPacketClassCount == 0; }

private:
    PacketRegistry();
    std::vector<const PacketClass*> classes_;
    std::vector<PacketClassSet> acceptingParent_;
    PacketClassSet acceptingAnyParent_;
    PacketClassSet all_;
};

// Defined by the library's top-level target, which sees every layer.
void registerBuiltInPacketClasses();

}  // namespace wireloom::detail
