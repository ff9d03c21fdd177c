#include <Wireloom/core/Log.hpp>
#include <Wireloom/packets/PXBSDLoopbackPacket.hpp>
#include <Wireloom/packets/PXEthernetPacket.hpp>
#include <Wireloom/packets/PXIPv4Packet.hpp>
#include <Wireloom/packets/PXIPv6Packet.hpp>
#include <Wireloom/packets/PXPacket.hpp>
#include <Wireloom/packets/PXTCPPacket.hpp>
#include <Wireloom/packets/PXUDPPacket.hpp>
#include <Wireloom/packets/detail/IPProtocols.hpp>
#include <Wireloom/packets/detail/LinkLayerChildren.hpp>
#include <Wireloom/packets/detail/PacketRegistry.hpp>

#include <pcap/pcap.h>

#include <cmath>
#include <cstring>
#include <limits>

namespace wireloom {

using detail::PacketRegistry;

namespace {

// Links child below current and makes it current; the reference current
// held moves into the child rather than being copied.
inline void descend(PXPacketPtr& current, PXPacketPtr&& child) {
    current->setEncapsulatedPacket(child);
    child->setEncapsulatingPacket(std::move(current));
    current = std::move(child);
}

// What the chain asks of a layer before decoding below it.
struct LayerRules {
    int index;  // registry index of the layer's class
    std::optional<PacketClassSet> restriction;
};

std::optional<PacketClassSet> linkLayerRestriction(int linkLayerType) noexcept {
    if (linkLayerType == DLT_NULL) return PacketClassSet::ofBuiltIns(detail::kPXBSDLoopbackPacketIndex);
    if (linkLayerType == DLT_EN10MB) return PacketClassSet::ofBuiltIns(detail::kPXEthernetPacketIndex);
    return std::nullopt;
}

// The built-in decoders create exactly their own class, never a subclass, so
// a layer one of them made follows that class's rules, read here from its
// fields. Calling restrictedChildProtocols() instead would cost two virtual
// calls per layer, and a std::optional returned from a call that is not
// inlined goes through memory (a store-forwarding stall on every layer). A
// layer from any other decoder is asked through its virtual functions, which
// its class may override.
LayerRules rulesBelow(const PXPacket& layer, const PacketClass& decodedBy) {
    using namespace detail;
    switch (decodedBy.registryIndex()) {
    case kPXEthernetPacketIndex:
        return {kPXEthernetPacketIndex,
                childClassesForEtherType(static_cast<const PXEthernetPacket&>(layer).payloadType())};
    case kPXBSDLoopbackPacketIndex:
        return {kPXBSDLoopbackPacketIndex,
                childClassesForLoopbackFamily(static_cast<const PXBSDLoopbackPacket&>(layer).payloadType())};
    case kPXIPv4PacketIndex:
        return {kPXIPv4PacketIndex, childClassesForIPProtocol(static_cast<const PXIPv4Packet&>(layer).protocol())};
    case kPXIPv6PacketIndex:
        return {kPXIPv6PacketIndex, childClassesForIPProtocol(static_cast<const PXIPv6Packet&>(layer).protocol())};
    case kPXTCPPacketIndex: return {kPXTCPPacketIndex, std::nullopt};
    case kPXUDPPacketIndex: {
        const auto& udp = static_cast<const PXUDPPacket&>(layer);
        if (!udp.leadsToMDNS()) return {kPXUDPPacketIndex, std::nullopt};
        return {kPXUDPPacketIndex, udp.PXUDPPacket::restrictedChildProtocols()};
    }
    // Built in too, though its class lives in a layer above this one: it
    // restricts nothing (PXMDNSPacket keeps the base's answer), so it needs
    // no virtual call either.
    case kPXMDNSPacketIndex: return {kPXMDNSPacketIndex, std::nullopt};
    default: return {layer.packetClass().registryIndex(), layer.restrictedChildProtocols()};
    }
}

// An empty owner whose reference-count block, in the frame's arena, keeps
// the captured bytes alive for as long as any buffer points into them.
struct FrameBytesOwner {};

template <class T>
void put(std::uint8_t*& out, T value) {
    std::memcpy(out, &value, sizeof value);  // host byte order on purpose
    out += sizeof value;
}

// Whole seconds of a timestamp, without the undefined behaviour of
// converting a negative, huge or NaN double straight to an unsigned type.
std::int64_t floorSeconds(double timestamp) {
    double seconds = std::floor(timestamp);
    if (!(seconds >= -9.2e18 && seconds <= 9.2e18)) return 0;
    return static_cast<std::int64_t>(seconds);
}

}  // namespace

PXPacket::PXPacket(const pcap_pkthdr& header)
    : timestamp_(static_cast<double>(header.ts.tv_sec) + static_cast<double>(header.ts.tv_usec) / 1000000.0) {}

constinit PacketClass PXPacket::kClass("PXPacket", nullptr, &PXPacket::packetFromData,
                                       &PXPacket::allowedParentProtocols, detail::kPXPacketIndex);

double PXPacket::timestamp() const noexcept {
    return encapsulatingPacket_ ? encapsulatingPacket_->timestamp() : timestamp_;
}

const ByteBuffer& PXPacket::rawData() const noexcept {
    return encapsulatingPacket_ ? encapsulatingPacket_->rawData() : rawData_;
}

std::uint32_t PXPacket::lengthOnWire() const noexcept {
    return encapsulatingPacket_ ? encapsulatingPacket_->lengthOnWire() : lengthOnWire_;
}

PXPacketPtr PXPacket::packetFromData(const ByteBuffer&, const PXPacketPtr&, std::uint32_t*) { return nullptr; }

const PacketClassSet& PXPacket::packetClasses() { return PacketRegistry::shared().allClasses(); }

void PXPacket::registerPacketClass(const PacketClass& cls) { PacketRegistry::addPendingClass(cls); }

const PacketClass* PXPacket::packetClassNamed(std::string_view name) {
    return PacketRegistry::shared().classNamed(name);
}

PXPacketPtr PXPacket::packetWithHeader(const pcap_pkthdr& header, const std::uint8_t* data, int linkLayerType) {
    const PacketRegistry& registry = PacketRegistry::shared();
    // One block for the frame: its bytes, then every layer decoded from them.
    // The layers decode from this copy, so their payloads are sub-ranges of
    // it rather than copies of their own.
    detail::FrameArena* arena = detail::FrameArena::create(header.caplen);
    if (header.caplen) std::memcpy(arena->frameData(), data, header.caplen);
    detail::FrameArenaScope scope(arena);

    auto owner = std::allocate_shared<FrameBytesOwner>(detail::FrameArenaAllocator<FrameBytesOwner>(arena));
    auto root = std::allocate_shared<PXPacket>(detail::FrameArenaAllocator<PXPacket>(arena), header);
    root->rawData_ = ByteBuffer::withSharedStorage(
        std::shared_ptr<const std::uint8_t>(std::move(owner), arena->frameData()), header.caplen);
    root->lengthOnWire_ = header.len;

    const ByteBuffer& frame = root->rawData_;
    PXPacketPtr current = std::move(root);
    // The root is a plain PXPacket, so its rules need no asking.
    LayerRules rules{detail::kPXPacketIndex, linkLayerRestriction(linkLayerType)};
    std::size_t offset = 0;
    for (int depth = 0; depth < kMaxDecodeDepth; ++depth) {
        PacketClassSet candidates = registry.classesAcceptingParent(rules.index);
        if (rules.restriction) candidates &= *rules.restriction;
        if (candidates.empty()) break;

        // Each layer sees the rest of the frame as a view that costs no
        // reference counting; what a layer keeps of it owns its bytes.
        const ByteBuffer remaining = frame.borrowedView(offset, frame.size() - offset);
        PXPacketPtr child;
        std::uint32_t consumed = 0;
        const PacketClass* decodedBy = nullptr;
        for (const PacketClass& candidate : candidates) {
            consumed = 0;
            child = candidate.decode(remaining, current, &consumed);
            if (child) {
                decodedBy = &candidate;
                break;
            }
        }
        if (!child) break;
        rules = rulesBelow(*child, *decodedBy);
        descend(current, std::move(child));
        if (consumed >= remaining.size()) break;
        offset += consumed;
    }
    return current;
}

PXPacketPtr PXPacket::packetWithRawData(const ByteBuffer& data, std::span<const PacketClass* const> classes,
                                        double timestamp, std::uint32_t lengthOnWire) {
    for (const PacketClass* cls : classes) {
        // Only direct subclasses are accepted, deliberately, like the class
        // lists callers have always passed.
        if (cls != &staticClass() && cls->base() != &staticClass()) {
            std::string name(cls->name());
            Log::error("Error: Class %s is not a subclass of PXPacket", name.c_str());
            return nullptr;
        }
    }

    detail::FrameArena* arena = detail::FrameArena::create(0);
    detail::FrameArenaScope scope(arena);
    auto root = std::allocate_shared<PXPacket>(detail::FrameArenaAllocator<PXPacket>(arena));
    root->timestamp_ = timestamp;
    root->rawData_ = data;
    root->lengthOnWire_ = lengthOnWire;

    const ByteBuffer& frame = root->rawData_;
    PXPacketPtr current = std::move(root);
    std::size_t offset = 0;
    for (auto it = classes.rbegin(); it != classes.rend(); ++it) {
        const ByteBuffer remaining = frame.borrowedView(offset, frame.size() - offset);
        std::uint32_t consumed = 0;
        PXPacketPtr child = (*it)->decode(remaining, current, &consumed);
        if (!child) break;
        descend(current, std::move(child));
        if (consumed >= remaining.size()) break;
        offset += consumed;
    }
    return current;
}

PXPacketPtr PXPacket::rootPacket() const {
    const PXPacket* p = this;
    while (p->encapsulatingPacket_) p = p->encapsulatingPacket_.get();
    return std::const_pointer_cast<PXPacket>(std::static_pointer_cast<const PXPacket>(p->shared_from_this()));
}

PXPacketPtr PXPacket::packetWithProtocol(const PacketClass& cls) const {
    const PXPacket* p = layerWithProtocol(cls);
    if (!p) return nullptr;
    return std::const_pointer_cast<PXPacket>(std::static_pointer_cast<const PXPacket>(p->shared_from_this()));
}

const PXPacket* PXPacket::layerWithProtocol(const PacketClass& cls) const noexcept {
    for (const PXPacket* p = this; p; p = p->encapsulatingPacket_.get())
        if (p->isKindOf(cls)) return p;
    return nullptr;
}

int PXPacket::linkLayerType() const {
    PXPacketPtr first = rootPacket()->encapsulatedPacket();
    if (!first) return -1;
    if (first->isKindOf(PXEthernetPacket::staticClass())) return DLT_EN10MB;
    if (first->isKindOf(PXBSDLoopbackPacket::staticClass())) return DLT_NULL;
    return -1;
}

std::optional<PacketClassSet> PXPacket::restrictedChildProtocolsWithLinkLayerType(int linkLayerType) const {
    if (&packetClass() != &staticClass()) return restrictedChildProtocols();
    return linkLayerRestriction(linkLayerType);
}

ByteBuffer PXPacket::pcapHeaderForLinkLayerType(std::int32_t linkLayerType) {
    std::uint8_t header[24];
    std::uint8_t* out = header;
    put<std::uint32_t>(out, 0xa1b2c3d4);
    put<std::uint16_t>(out, 2);
    put<std::uint16_t>(out, 4);
    put<std::int32_t>(out, 0);
    put<std::uint32_t>(out, 0);
    put<std::uint32_t>(out, kSnapLength);
    put<std::uint32_t>(out, static_cast<std::uint32_t>(linkLayerType));
    return ByteBuffer::copy(header, sizeof header);
}

ByteBuffer PXPacket::pcapHeaderForRepresentativePacket(const PXPacket& packet) {
    return pcapHeaderForLinkLayerType(packet.linkLayerType());
}

ByteBuffer PXPacket::pcapFileEntry() const {
    const double ts = timestamp();
    const std::int64_t seconds = floorSeconds(ts);
    // Rounded, not truncated, and never carried into the seconds: a
    // timestamp of 1.9999996 is written as 1 s and 1,000,000 us.
    const double fraction = std::isfinite(ts) ? (ts - static_cast<double>(seconds)) * 1000000.0 : 0.0;
    const ByteBuffer& bytes = rawData();

    MutableByteBuffer entry(16 + bytes.size());
    entry.resize(16);
    std::uint8_t* out = entry.data();
    put<std::uint32_t>(out, static_cast<std::uint32_t>(seconds));
    put<std::uint32_t>(out, static_cast<std::uint32_t>(std::llround(fraction)));
    put<std::uint32_t>(out, static_cast<std::uint32_t>(bytes.size()));
    put<std::uint32_t>(out, lengthOnWire());
    entry.append(bytes);
    return entry.take();
}

std::shared_ptr<PXReportAnalyzerEntry> PXPacket::reportAnalyzerEntry() const {
    auto entry = PXReportAnalyzerEntry::entry();
    entry->setProtocolLayerName("Raw Capture");
    entry->setValue(timestamp(), "Timestamp", 6);
    entry->setValue(rawData(), "Captured Data", 8);
    entry->setValue(lengthOnWire(), "Length on Wire", 0);
    return entry;
}

}  // namespace wireloom
