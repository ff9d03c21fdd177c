#pragma once
// PacketClass: a packet class as a run-time value. Flows remember the class
// of the packets they carry, packetWithProtocol() takes one, and the decode
// chain picks the next layer by walking the registered classes. Each packet
// class has exactly one descriptor, returned by its staticClass():
//
//   const PacketClass& tcp = PXTCPPacket::staticClass();
//   if (packet->packetClass().isSubclassOf(tcp)) ...
//
// PacketClassSet is a set of registered classes, kept as a bit mask over
// their registry indices so that the per-layer set arithmetic of the decode
// chain never allocates.

#include <Wireloom/core/ByteBuffer.hpp>

#include <atomic>
#include <bit>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string_view>

namespace wireloom {

class PXPacket;
class PacketClass;
class PacketClassSet;
namespace detail {
class PacketRegistry;
inline constexpr int kMaxPacketClasses = 64;
// The classes that ship with the library always take the first registry
// positions, in this order, so the sets the decode chain consults for every
// layer can be constants.
enum BuiltInPacketClass : int {
    kPXPacketIndex,
    kPXEthernetPacketIndex,
    kPXBSDLoopbackPacketIndex,
    kPXIPv4PacketIndex,
    kPXIPv6PacketIndex,
    kPXTCPPacketIndex,
    kPXUDPPacketIndex,
    kPXRTPPacketIndex,
    // Defined in the protocols layer; only its position is fixed here.
    kPXMDNSPacketIndex,
    kBuiltInPacketClassCount
};
// The registered classes by index, filled once when the registry is built.
inline const PacketClass* gRegisteredPacketClasses[kMaxPacketClasses] = {};
}  // namespace detail
using PXPacketPtr = std::shared_ptr<PXPacket>;

class PacketClass {
public:
    // Decodes one layer from the front of data under parent; returns the new
    // packet, or null when the bytes are not of this class. *consumed (never
    // null) receives the number of header bytes the layer took.
    using Decoder = PXPacketPtr (*)(const ByteBuffer& data, const PXPacketPtr& parent, std::uint32_t* consumed);
    // The classes this class may be decoded under; nothing means any parent.
    using AllowedParents = std::optional<PacketClassSet> (*)();

    constexpr PacketClass(std::string_view name, const PacketClass* base, Decoder decoder,
                          AllowedParents allowedParents) noexcept
        : name_(name), base_(base), decoder_(decoder), allowedParents_(allowedParents) {}
    // For the built-in classes, whose registry positions are fixed.
    constexpr PacketClass(std::string_view name, const PacketClass* base, Decoder decoder,
                          AllowedParents allowedParents, detail::BuiltInPacketClass index) noexcept
        : index_(index), name_(name), base_(base), decoder_(decoder), allowedParents_(allowedParents) {}
    PacketClass(const PacketClass&) = delete;
    PacketClass& operator=(const PacketClass&) = delete;

    std::string_view name() const noexcept { return name_; }
    const PacketClass* base() const noexcept { return base_; }
    PXPacketPtr decode(const ByteBuffer& data, const PXPacketPtr& parent, std::uint32_t* consumed) const {
        return decoder_(data, parent, consumed);
    }
    std::optional<PacketClassSet> allowedParentProtocols() const;

    // True for this class itself and every class derived from it.
    bool isSubclassOf(const PacketClass& other) const noexcept {
        for (const PacketClass* c = this; c; c = c->base_)
            if (c == &other) return true;
        return false;
    }

    // Position in the registry, or -1 while the class is not registered.
    int registryIndex() const noexcept {
        int index = index_.load(std::memory_order_acquire);
        return index >= 0 ? index : registryIndexSlow();
    }

private:
    int registryIndexSlow() const noexcept;

    friend class detail::PacketRegistry;
    // Assigned once, while the registry is built; read on every decoded layer.
    mutable std::atomic<int> index_{-1};
    std::string_view name_;
    const PacketClass* base_;
    Decoder decoder_;
    AllowedParents allowedParents_;
};

class PacketClassSet {
public:
    static constexpr int kCapacity = detail::kMaxPacketClasses;

    constexpr PacketClassSet() noexcept = default;
    // The set whose members are the classes at the set bits' registry indices.
    static constexpr PacketClassSet fromMask(std::uint64_t mask) noexcept {
        PacketClassSet set;
        set.bits_ = mask;
        return set;
    }
    template <class... Index>
    static constexpr PacketClassSet ofBuiltIns(Index... index) noexcept {
        return fromMask(((std::uint64_t{1} << index) | ... | 0));
    }
    // Classes that are not registered are left out: a set names only classes
    // the decode chain can reach.
    PacketClassSet(std::initializer_list<const PacketClass*> classes) noexcept;

    void insert(const PacketClass& cls) noexcept;
    bool contains(const PacketClass& cls) const noexcept;
    bool empty() const noexcept { return bits_ == 0; }
    int count() const noexcept { return std::popcount(bits_); }
    PacketClassSet& operator&=(const PacketClassSet& other) noexcept {
        bits_ &= other.bits_;
        return *this;
    }
    friend bool operator==(const PacketClassSet&, const PacketClassSet&) = default;

    // Iterates in registry order.
    class iterator {
    public:
        explicit iterator(std::uint64_t bits) noexcept : bits_(bits) {}
        const PacketClass& operator*() const noexcept { return *detail::gRegisteredPacketClasses[index()]; }
        // The registry index of the class it points at. The builtin, unlike
        // std::countr_zero, tells the compiler that the index is below 64 (a
        // set bit is there), which the sanitizers' bounds warnings ask for.
        int index() const noexcept { return __builtin_ctzll(bits_); }
        iterator& operator++() noexcept {
            bits_ &= bits_ - 1;
            return *this;
        }
        bool operator!=(const iterator& other) const noexcept { return bits_ != other.bits_; }

    private:
        std::uint64_t bits_;
    };
    iterator begin() const noexcept { return iterator(bits_); }
    iterator end() const noexcept { return iterator(0); }

private:
    friend class detail::PacketRegistry;
    std::uint64_t bits_ = 0;
};

}  // namespace wireloom
