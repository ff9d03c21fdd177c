#include <Wireloom/core/Assert.hpp>
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

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <thread>

namespace wireloom {

namespace detail {

// Builds a chain whose layers are owned as one (see LayerChain): the layers
// are linked by their raw outer pointers, and the only reference count made
// is the innermost layer's, when the chain is done.
class LayerChainBuilder {
public:
    explicit LayerChainBuilder(FrameArena* arena)
        : chain_(::new (arena->allocateUnreferenced(sizeof(LayerChain), alignof(LayerChain))) LayerChain(arena)),
          previous_(tCurrentLayerChain) {
        tCurrentLayerChain = chain_;
    }
    ~LayerChainBuilder() {
        tCurrentLayerChain = previous_;
        if (finished_) return;
        // A decoder threw: nothing owns the layers made so far.
        discardUnlinked();
        for (PXPacket* layer = current_; layer;) {
            PXPacket* outer = layer->parentLayer_;
            PXPacket::destroyLayer(chain_->arena, layer, false);
            layer = outer;
        }
    }
    LayerChainBuilder(const LayerChainBuilder&) = delete;
    LayerChainBuilder& operator=(const LayerChainBuilder&) = delete;

    template <class... Args>
    PXPacket& makeRoot(Args&&... args) {
        auto* root = ::new (chain_->storageFor(sizeof(PXPacket), alignof(PXPacket))) PXPacket(args...);
        root->chain_ = chain_;
        root->builtIn_ = true;
        current_ = root;
        return *root;
    }
    const PXPacket& currentLayer() const noexcept { return *current_; }
    // The new layer, not linked yet, or null. The built-in classes are read
    // straight into the chain's storage; any other class goes through its
    // public decoder, which makes its layer in the chain too (newLayer).
    // index is cls's registry index, which the caller has at hand.
    [[gnu::always_inline]] PXPacket* decode(int index, const PacketClass& cls, const ByteBuffer& data,
                                            std::uint32_t* consumed) {
        switch (index) {
        case kPXEthernetPacketIndex: return decodeBuiltIn<PXEthernetPacket>(data, consumed, true);
        case kPXBSDLoopbackPacketIndex: return decodeBuiltIn<PXBSDLoopbackPacket>(data, consumed, true);
        case kPXIPv4PacketIndex: return decodeBuiltIn<PXIPv4Packet>(data, consumed, true);
        case kPXIPv6PacketIndex: return decodeBuiltIn<PXIPv6Packet>(data, consumed, true);
        case kPXTCPPacketIndex: return decodeBuiltIn<PXTCPPacket>(data, consumed, false);
        case kPXUDPPacketIndex: return decodeBuiltIn<PXUDPPacket>(data, consumed, false);
        default: return decodeOther(cls, data, consumed);
        }
    }
    void link(PXPacket* child) noexcept {
        child->parentLayer_ = current_;
        child->chain_ = chain_;
        current_ = child;
    }
    PXPacketPtr finish() {
        chain_->innermost = current_;
        finished_ = true;
        // Should this throw, the deleter has already dropped the chain.
        return PXPacketPtr(current_, PXPacket::LayerRelease{}, FrameArenaAllocator<PXPacket>(chain_->arena));
    }

private:
    template <class T>
    PXPacket* decodeBuiltIn(const ByteBuffer& data, std::uint32_t* consumed, bool ownsNothing) {
        T* layer = ::new (chain_->storageFor(sizeof(T), alignof(T))) T;
        layer->builtIn_ = true;
        layer->ownsNothing_ = ownsNothing;
        if (T::readHeader(*layer, data, current_, consumed)) return layer;
        PXPacket::destroyLayer(chain_->arena, layer, false);
        return nullptr;
    }
    PXPacket* decodeOther(const PacketClass& cls, const ByteBuffer& data, std::uint32_t* consumed) {
        // The parent handed over takes no share: decoders only read it.
        PXPacketPtr child = cls.decode(data, PXPacketPtr(PXPacketPtr(), current_), consumed);
        if (chain_->unlinked != child.get()) discardUnlinked();
        chain_->unlinked = nullptr;
        WL_ASSERT(child.use_count() == 0, "A built-in decoder made its layer outside the chain");
        return child.get();
    }
    void discardUnlinked() noexcept {
        if (chain_->unlinked) PXPacket::destroyLayer(chain_->arena, chain_->unlinked, false);
        chain_->unlinked = nullptr;
    }

    LayerChain* chain_;
    LayerChain* previous_;
    PXPacket* current_ = nullptr;
    bool finished_ = false;
};

}  // namespace detail

using detail::PacketRegistry;

namespace {

// Builds a chain the way a host's own decoders may expect: every layer its
// own shared_ptr, each linked to the next as it comes.
class SeparateLayersBuilder {
public:
    explicit SeparateLayersBuilder(detail::FrameArena* arena) noexcept : arena_(arena) {}
    template <class... Args>
    PXPacket& makeRoot(Args&&... args) {
        current_ = std::allocate_shared<PXPacket>(detail::FrameArenaAllocator<PXPacket>(arena_), args...);
        return *current_;
    }
    const PXPacket& currentLayer() const noexcept { return *current_; }
    PXPacketPtr decode(int, const PacketClass& cls, const ByteBuffer& data, std::uint32_t* consumed) {
        return cls.decode(data, current_, consumed);
    }
    // The reference current held moves into the child rather than being copied.
    void link(PXPacketPtr&& child) noexcept {
        current_->setEncapsulatedPacket(child);
        child->setEncapsulatingPacket(std::move(current_));
        current_ = std::move(child);
    }
    PXPacketPtr finish() noexcept { return std::move(current_); }

private:
    detail::FrameArena* arena_;
    PXPacketPtr current_;
};

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
// Inlined into the chain loop, whose every layer takes it.
[[gnu::always_inline]] inline LayerRules rulesBelow(const PXPacket& layer, int decodedBy) {
    using namespace detail;
    switch (decodedBy) {
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
    case kPXUDPPacketIndex: return {kPXUDPPacketIndex, static_cast<const PXUDPPacket&>(layer).childRestriction()};
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

double PXPacket::timestamp() const noexcept { return parentLayer_ ? parentLayer_->timestamp() : timestamp_; }

const ByteBuffer& PXPacket::rawData() const noexcept { return parentLayer_ ? parentLayer_->rawData() : rawData_; }

std::uint32_t PXPacket::lengthOnWire() const noexcept {
    return parentLayer_ ? parentLayer_->lengthOnWire() : lengthOnWire_;
}

PXPacketPtr PXPacket::packetFromData(const ByteBuffer&, const PXPacketPtr&, std::uint32_t*) { return nullptr; }

const PacketClassSet& PXPacket::packetClasses() { return PacketRegistry::shared().allClasses(); }

void PXPacket::registerPacketClass(const PacketClass& cls) { PacketRegistry::addPendingClass(cls); }

const PacketClass* PXPacket::packetClassNamed(std::string_view name) {
    return PacketRegistry::shared().classNamed(name);
}

namespace {

// An Ethernet frame of the largest ordinary size, with room to spare.
constexpr std::uint32_t kPrefetchedFrameBytes = 2048;

// Steps 3 to 5 of the automatic chain, over the root the builder made.
template <class Builder>
PXPacketPtr decodeAutomatically(Builder& chain, const PacketRegistry& registry, int linkLayerType) {
    const ByteBuffer& frame = chain.currentLayer().rawData();
    // The root is a plain PXPacket, so its rules need no asking.
    LayerRules rules{detail::kPXPacketIndex, linkLayerRestriction(linkLayerType)};
    std::size_t offset = 0;
    for (int depth = 0; depth < PXPacket::kMaxDecodeDepth; ++depth) {
        PacketClassSet candidates = registry.classesAcceptingParent(rules.index);
        if (rules.restriction) candidates &= *rules.restriction;
        if (candidates.empty()) break;

        // Each layer sees the rest of the frame as a view that costs no
        // reference counting; what a layer keeps of it owns its bytes.
        const ByteBuffer remaining = frame.borrowedView(offset, frame.size() - offset);
        // A raw layer from the chain owned as one, a share from the other.
        decltype(chain.decode(0, PXPacket::staticClass(), remaining, nullptr)) child{};
        std::uint32_t consumed = 0;
        int decodedBy = -1;
        // The set's bit positions are the registry indices: switching on them
        // rather than on the class's own copy spares every layer two
        // dependent loads before its decoder is even chosen.
        for (auto it = candidates.begin(); it != candidates.end(); ++it) {
            consumed = 0;
            child = chain.decode(it.index(), *it, remaining, &consumed);
            if (child) {
                decodedBy = it.index();
                break;
            }
        }
        if (!child) break;
        rules = rulesBelow(*child, decodedBy);
        chain.link(std::move(child));
        if (consumed >= remaining.size()) break;
        offset += consumed;
    }
    return chain.finish();
}

// Step 3 of the directed decoder: the classes innermost first, so walked
// from the last.
template <class Builder>
PXPacketPtr decodeClasses(Builder& chain, std::span<const PacketClass* const> classes) {
    const ByteBuffer& frame = chain.currentLayer().rawData();
    std::size_t offset = 0;
    for (auto it = classes.rbegin(); it != classes.rend(); ++it) {
        const ByteBuffer remaining = frame.borrowedView(offset, frame.size() - offset);
        std::uint32_t consumed = 0;
        auto child = chain.decode((*it)->registryIndex(), **it, remaining, &consumed);
        if (!child) break;
        chain.link(std::move(child));
        if (consumed >= remaining.size()) break;
        offset += consumed;
    }
    return chain.finish();
}

bool isBuiltIn(const PacketClass& cls) noexcept {
    const int index = cls.registryIndex();
    return index >= 0 && index < detail::kBuiltInPacketClassCount;
}

}  // namespace

PXPacketPtr PXPacket::packetWithHeader(const pcap_pkthdr& header, const std::uint8_t* data, int linkLayerType) {
    const PacketRegistry& registry = PacketRegistry::shared();
    // One block for the frame: its bytes, then every layer decoded from them.
    // The layers decode from this copy, so their payloads are sub-ranges of
    // it rather than copies of their own.
    // Ask for every cache line of an ordinary frame before copying it. The
    // copy's own loads, when the frame is not in the cache (a large capture
    // buffer walked once), left its lines arriving little by little: asked
    // for together they arrive together, and such a frame decoded in two
    // thirds of the time. Longer frames are copied as a stream, which the
    // hardware fetches ahead well enough by itself.
    const std::uint32_t ahead = std::min<std::uint32_t>(header.caplen, kPrefetchedFrameBytes);
    for (std::uint32_t at = 0; at < ahead; at += 64) __builtin_prefetch(data + at);
    detail::FrameArena* arena = detail::FrameArena::create(header.caplen);
    if (header.caplen) std::memcpy(arena->frameData(), data, header.caplen);
    detail::FrameArenaScope scope(arena);

    auto owner = std::allocate_shared<FrameBytesOwner>(detail::FrameArenaAllocator<FrameBytesOwner>(arena));
    ByteBuffer bytes = ByteBuffer::withSharedStorage(
        std::shared_ptr<const std::uint8_t>(std::move(owner), arena->frameData()), header.caplen);
    auto decode = [&](auto& chain) {
        PXPacket& root = chain.makeRoot(header);
        root.rawData_ = std::move(bytes);
        root.lengthOnWire_ = header.len;
        return decodeAutomatically(chain, registry, linkLayerType);
    };
    // A host's own decoders are handed real shares of their parents, which
    // they may keep.
    if (registry.hasOnlyBuiltInClasses()) {
        detail::LayerChainBuilder chain(arena);
        return decode(chain);
    }
    SeparateLayersBuilder chain(arena);
    return decode(chain);
}

PXPacketPtr PXPacket::packetWithRawData(const ByteBuffer& data, std::span<const PacketClass* const> classes,
                                        double timestamp, std::uint32_t lengthOnWire) {
    bool builtIn = true;
    for (const PacketClass* cls : classes) {
        // Only direct subclasses are accepted, deliberately, like the class
        // lists callers have always passed.
        if (cls != &staticClass() && cls->base() != &staticClass()) {
            std::string name(cls->name());
            Log::error("Error: Class %s is not a subclass of PXPacket", name.c_str());
            return nullptr;
        }
        builtIn = builtIn && isBuiltIn(*cls);
    }

    detail::FrameArena* arena = detail::FrameArena::create(0);
    detail::FrameArenaScope scope(arena);
    auto decode = [&](auto& chain) {
        PXPacket& root = chain.makeRoot();
        root.timestamp_ = timestamp;
        root.rawData_ = data;
        root.lengthOnWire_ = lengthOnWire;
        return decodeClasses(chain, classes);
    };
    if (builtIn) {
        detail::LayerChainBuilder chain(arena);
        return decode(chain);
    }
    SeparateLayersBuilder chain(arena);
    return decode(chain);
}

void PXPacket::LayerRelease::operator()(PXPacket* layer) const noexcept {
    detail::FrameArena* arena = layer->chain_->arena;
    // Owned layer by layer, each goes alone and lets go of its outer layer
    // as it does.
    if (!layer->chain_->whole()) return destroyLayer(arena, layer, true);
    // Owned as one, the chain goes with its innermost layer; the root and
    // the innermost layer may own something, the layers between seldom do.
    PXPacket* outer = layer->parentLayer_;
    destroyLayer(arena, layer, false);
    for (layer = outer; layer; layer = outer) {
        outer = layer->parentLayer_;
        if (outer && layer->ownsNothing_) {
            if (!arena->owns(layer)) ::operator delete(layer);  // a built-in layer starts its storage
        } else if (!outer && layer->builtIn_) {
            // The root the chain made is a plain PXPacket: no virtual call.
            layer->PXPacket::~PXPacket();
            if (!arena->owns(layer)) ::operator delete(layer);
        } else {
            destroyLayer(arena, layer, false);
        }
    }
}

void PXPacket::destroyLayer(detail::FrameArena* arena, PXPacket* layer, bool counted) noexcept {
    void* storage = layer->builtIn_ ? static_cast<void*>(layer) : dynamic_cast<void*>(layer);
    layer->~PXPacket();
    if (!arena->owns(storage))
        ::operator delete(storage);
    else if (counted)
        arena->release();
}

void PXPacket::separateLayers(detail::LayerChain& chain) noexcept {
    int ownership = detail::LayerChain::kWhole;
    if (!chain.ownership.compare_exchange_strong(ownership, detail::LayerChain::kSeparating,
                                                 std::memory_order_acquire)) {
        // Another thread is giving the layers their counts.
        while (chain.ownership.load(std::memory_order_acquire) != detail::LayerChain::kPerLayer)
            std::this_thread::yield();
        return;
    }
    // Whoever asks holds the chain, through its innermost layer, so no layer
    // goes while this runs. Each layer gets the count its inner layer holds;
    // the innermost already has the one the chain was handed out with.
    PXPacket* inner = chain.innermost;
    PXPacketPtr innerShare = std::static_pointer_cast<PXPacket>(inner->ownedShare());
    // From now on each layer may outlive the others, so each holds the block.
    for (PXPacket* layer = inner; layer; layer = layer->parentLayer_)
        if (chain.arena->owns(dynamic_cast<void*>(layer))) chain.arena->retain();
    while (PXPacket* outer = inner->parentLayer_) {
        // noexcept: running out of memory here ends the process.
        PXPacketPtr outerShare(outer, LayerRelease{}, detail::FrameArenaAllocator<PXPacket>(chain.arena));
        outer->encapsulatedPacket_ = innerShare;
        inner->encapsulatingPacket_ = outerShare;
        innerShare = std::move(outerShare);
        inner = outer;
    }
    chain.ownership.store(detail::LayerChain::kPerLayer, std::memory_order_release);
}

PXPacketPtr PXPacket::shareOf(const PXPacket* layer) {
    if (layer->chain_ && layer != layer->chain_->innermost) layer->separateFromChain();
    return std::static_pointer_cast<PXPacket>(const_cast<PXPacket*>(layer)->ownedShare());
}

void PXPacket::stopInnerLayersBorrowing() noexcept {
    if (chain_ && chain_->whole()) {
        // Only the innermost layer is known, and the caller holds it.
        for (PXPacket* layer = chain_->innermost; layer; layer = layer->parentLayer_) {
            layer->stopBorrowingBytes();
            if (layer == this) return;
        }
        return;
    }
    stopBorrowingBytes();
    for (PXPacketPtr layer = encapsulatedPacket_.lock(); layer; layer = layer->encapsulatedPacket_.lock())
        layer->stopBorrowingBytes();
}

void PXPacket::setEncapsulatingPacket(PXPacketPtr parent) noexcept {
    separateFromChain();
    // Leaving the root whose bytes the layers from here inward may borrow.
    if (parentLayer_ && parentLayer_ != parent.get()) stopInnerLayersBorrowing();
    parentLayer_ = parent.get();
    encapsulatingPacket_ = std::move(parent);
}

void PXPacket::setEncapsulatedPacket(const PXPacketPtr& child) noexcept {
    separateFromChain();
    encapsulatedPacket_ = child;
}

PXPacketPtr PXPacket::rootPacket() const {
    const PXPacket* p = this;
    while (p->parentLayer_) p = p->parentLayer_;
    return shareOf(p);
}

PXPacketPtr PXPacket::packetWithProtocol(const PacketClass& cls) const {
    const PXPacket* p = layerWithProtocol(cls);
    if (!p) return nullptr;
    return shareOf(p);
}

const PXPacket* PXPacket::layerWithProtocol(const PacketClass& cls) const noexcept {
    for (const PXPacket* p = this; p; p = p->parentLayer_)
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
