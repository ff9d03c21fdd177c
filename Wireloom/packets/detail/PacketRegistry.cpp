#include <Wireloom/core/Assert.hpp>
#include <Wireloom/packets/PXPacket.hpp>
#include <Wireloom/packets/detail/PacketRegistry.hpp>

#include <algorithm>
#include <mutex>

namespace wireloom::detail {

namespace {

struct Pending {
    std::mutex mutex;
    std::vector<const PacketClass*> classes;
    bool frozen = false;
};

Pending& pending() {
    static Pending p;
    return p;
}

// Set while this thread builds the registry, so that the sets built for the
// allowed parents do not ask for the registry that is being built.
thread_local bool tBuilding = false;

}  // namespace

void PacketRegistry::addPendingClass(const PacketClass& cls) {
    auto& p = pending();
    std::lock_guard lock(p.mutex);
    WL_ASSERT(!p.frozen, "Packet classes must be registered before the first decode");
    for (const PacketClass* c : p.classes)
        if (c == &cls) return;
    p.classes.push_back(&cls);
}

PacketRegistry::PacketRegistry() {
    registerBuiltInPacketClasses();
    std::vector<const PacketClass*> list;
    {
        auto& p = pending();
        std::lock_guard lock(p.mutex);
        p.frozen = true;
        list = p.classes;
    }
    // PXPacket gets an index so that sets can name it as a parent, but it is
    // not one of the packet classes: it is only ever the root.
    list.insert(list.begin(), &PXPacket::staticClass());
    // A host may register its classes before anything asks for the built-in
    // ones, which must still come first, at their fixed positions.
    const auto fixedIndex = [](const PacketClass* cls) { return cls->index_.load(std::memory_order_relaxed); };
    std::stable_sort(list.begin(), list.end(), [&](const PacketClass* a, const PacketClass* b) {
        const unsigned left = static_cast<unsigned>(fixedIndex(a)), right = static_cast<unsigned>(fixedIndex(b));
        return left < right;  // -1, unfixed, sorts last
    });
    for (const PacketClass* cls : list) {
        WL_ASSERT(classes_.size() < static_cast<std::size_t>(PacketClassSet::kCapacity), "Too many packet classes");
        const int index = static_cast<int>(classes_.size());
        const int fixed = cls->index_.load(std::memory_order_relaxed);
        WL_ASSERT(fixed < 0 || fixed == index, "Built-in packet classes must keep their registry positions");
        cls->index_.store(index, std::memory_order_release);
        classes_.push_back(cls);
        gRegisteredPacketClasses[index] = cls;
        if (cls != &PXPacket::staticClass()) all_.bits_ |= std::uint64_t{1} << index;
    }

    // Which classes accept which parent never changes, so the decode chain
    // gets it as one mask per parent instead of asking every candidate.
    tBuilding = true;
    acceptingParent_.assign(classes_.size(), PacketClassSet{});
    for (const PacketClass* child : classes_) {
        if (child == &PXPacket::staticClass()) continue;
        const std::optional<PacketClassSet> allowed = child->allowedParentProtocols();
        if (!allowed) acceptingAnyParent_.bits_ |= std::uint64_t{1} << child->index_.load(std::memory_order_relaxed);
        for (std::size_t parent = 0; parent < classes_.size(); ++parent) {
            if (!allowed || allowed->contains(*classes_[parent]))
                acceptingParent_[parent].bits_ |= std::uint64_t{1} << child->index_.load(std::memory_order_relaxed);
        }
    }
    tBuilding = false;
}

bool PacketRegistry::isBuildingOnThisThread() noexcept { return tBuilding; }

const PacketClass* PacketRegistry::classNamed(std::string_view name) const noexcept {
    for (const PacketClass* cls : classes_)
        if (cls->name() == name) return cls;
    return nullptr;
}

}  // namespace wireloom::detail
