#pragma once
// PXPacket: one protocol layer of a captured frame, and the root of every
// decoded frame. Layers form a chain from the root (which owns the captured
// bytes) inward: Ethernet or loopback, IPv4 or IPv6, TCP or UDP, and so on.
//
// Ownership is inverted on purpose: each layer holds its outer layer
// (encapsulatingPacket) strongly and its inner layer weakly, so whoever keeps
// the innermost packet keeps the whole frame, and dropping it frees the frame.
//
//   PXPacketPtr innermost = PXPacket::packetWithHeader(header, bytes, DLT_EN10MB);
//   if (auto tcp = innermost->packetWithProtocol<PXTCPPacket>())
//       std::printf("%u -> %u\n", tcp->sourcePort(), tcp->destPort());
//
// timestamp, rawData and lengthOnWire always answer from the root, so every
// layer reports the frame's values. A decoded chain is immutable by
// convention; the setters exist for decoders and for code that builds frames.

#include <Wireloom/core/ByteBuffer.hpp>
#include <Wireloom/core/Object.hpp>
#include <Wireloom/packets/PacketClass.hpp>
#include <Wireloom/packets/detail/FrameArena.hpp>
#include <Wireloom/packets/detail/LayerChain.hpp>
#include <Wireloom/report/PXReportAnalyzerEntry.hpp>

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>

struct pcap_pkthdr;

namespace wireloom {

namespace detail {
class LayerChainBuilder;
}

class PXPacket : public Object {
public:
    // The automatic decode chain stops after this many layers. No real frame
    // comes near it; it exists because some layers can consume nothing (an
    // IPv4 header with IHL 0 under protocol 4 would decode itself forever).
    static constexpr int kMaxDecodeDepth = 64;
    // Snap length written into pcap file headers; live captures use the same.
    static constexpr std::uint32_t kSnapLength = 65535;

    PXPacket() = default;
    // Takes the timestamp from a libpcap record header (seconds plus
    // microseconds); sets nothing else.
    explicit PXPacket(const pcap_pkthdr& header);

    static constexpr const PacketClass& staticClass() noexcept { return kClass; }
    virtual const PacketClass& packetClass() const { return staticClass(); }
    std::string className() const override { return std::string(packetClass().name()); }
    void appendClassName(std::string& out) const override { out += packetClass().name(); }

    // --- Properties -------------------------------------------------------

    double timestamp() const noexcept;
    void setTimestamp(double timestamp) noexcept { timestamp_ = timestamp; }
    const ByteBuffer& rawData() const noexcept;
    void setRawData(ByteBuffer data) noexcept {
        leaveChainBeforeOwning();
        if (!parentLayer_) stopInnerLayersBorrowing();
        rawData_ = std::move(data);
    }
    std::uint32_t lengthOnWire() const noexcept;
    void setLengthOnWire(std::uint32_t length) noexcept { lengthOnWire_ = length; }
    const std::string& interface() const noexcept { return interface_; }
    void setInterface(std::string name) {
        leaveChainBeforeOwning();
        interface_ = std::move(name);
    }

    PXPacketPtr encapsulatingPacket() const noexcept {
        separateFromChain();
        return encapsulatingPacket_;
    }
    void setEncapsulatingPacket(PXPacketPtr parent) noexcept;
    PXPacketPtr encapsulatedPacket() const noexcept {
        separateFromChain();
        return encapsulatedPacket_.lock();
    }
    void setEncapsulatedPacket(const PXPacketPtr& child) noexcept;
    // The outer layer without taking a share of it: for a caller that holds
    // the chain, on a path run for every frame.
    const PXPacket* encapsulatingLayer() const noexcept { return parentLayer_; }

    // --- Per-class behaviour ----------------------------------------------

    // The classes this class may be decoded under; nothing: any parent.
    static std::optional<PacketClassSet> allowedParentProtocols() { return std::nullopt; }
    // The classes allowed as this packet's child; nothing: no restriction,
    // an empty set: no child at all.
    virtual std::optional<PacketClassSet> restrictedChildProtocols() const { return std::nullopt; }
    // A plain packet recognises no bytes.
    static PXPacketPtr packetFromData(const ByteBuffer& data, const PXPacketPtr& parent, std::uint32_t* consumed);
    virtual std::string name() const { return "Generic Packet"; }
    // The layer as one report entry: a title and its labelled values. Every
    // call builds a new entry.
    virtual std::shared_ptr<PXReportAnalyzerEntry> reportAnalyzerEntry() const;

    // Decoders of the host's own classes create their packets with this:
    // while a frame is decoded, the packet lands in the frame's one heap
    // block with the captured bytes.
    template <class T>
    static std::shared_ptr<T> newPacket() {
        if (detail::FrameArena* arena = detail::tCurrentFrameArena)
            return std::allocate_shared<T>(detail::FrameArenaAllocator<T>(arena));
        return std::make_shared<T>();
    }
    std::string description() const override {
        std::string text;
        appendDescription(text);
        return text;
    }
    // The description appended to `out`: what layers override, so that a
    // frame's summary line is written without a string per layer.
    virtual void appendDescription(std::string& out) const { appendGenericDescription(out); }

    // The payload size of layers that have one (IP, TCP, UDP); nothing for
    // the others. Decoders of inner layers size their payload from it.
    virtual std::optional<std::uint32_t> layerPayloadSize() const noexcept { return std::nullopt; }
    // The payload bytes of layers that keep them (TCP, UDP, RTP), else null.
    virtual const ByteBuffer* layerPayload() const noexcept { return nullptr; }

    // --- Construction and decoding ----------------------------------------

    // Every registered packet class (PXPacket itself excluded), fixed at the
    // first use.
    static const PacketClassSet& packetClasses();
    // Adds a class of the host's own; only before the first decode.
    static void registerPacketClass(const PacketClass& cls);
    // The registered class of that name, or null.
    static const PacketClass* packetClassNamed(std::string_view name);

    // Copies the captured bytes into a new root and decodes as many layers as
    // the registered classes recognise, choosing each by the allowed-parent
    // and restricted-child rules. Returns the innermost packet (the root when
    // nothing was recognised).
    static PXPacketPtr packetWithHeader(const pcap_pkthdr& header, const std::uint8_t* data, int linkLayerType);
    // Decodes exactly the given classes, listed innermost first (the last one
    // is decoded first), over the buffer, which is kept, not copied. Returns
    // the innermost packet decoded, or null when a class is neither PXPacket
    // nor a direct subclass of it.
    static PXPacketPtr packetWithRawData(const ByteBuffer& data, std::span<const PacketClass* const> classes,
                                         double timestamp, std::uint32_t lengthOnWire);
    static PXPacketPtr packetWithRawData(const ByteBuffer& data, std::initializer_list<const PacketClass*> classes,
                                         double timestamp, std::uint32_t lengthOnWire) {
        return packetWithRawData(data, std::span<const PacketClass* const>(classes.begin(), classes.size()), timestamp,
                                 lengthOnWire);
    }

    // --- Navigation ---------------------------------------------------------

    PXPacketPtr rootPacket() const;
    // The first layer, from this one outward, of the class or a subclass.
    PXPacketPtr packetWithProtocol(const PacketClass& cls) const;
    template <class T>
    std::shared_ptr<T> packetWithProtocol() const {
        return std::static_pointer_cast<T>(packetWithProtocol(T::staticClass()));
    }
    // The same layer, without taking a share of it: for a caller that holds
    // the chain, on a path run for every frame.
    const PXPacket* layerWithProtocol(const PacketClass& cls) const noexcept;
    template <class T>
    const T* layerWithProtocol() const noexcept {
        return static_cast<const T*>(layerWithProtocol(T::staticClass()));
    }
    bool isKindOf(const PacketClass& cls) const noexcept { return packetClass().isSubclassOf(cls); }
    // 1 for an Ethernet frame, 0 for BSD loopback, -1 otherwise.
    int linkLayerType() const;
    // For a root: the link layer the capture's type calls for (nothing for an
    // unknown type). For any other layer: restrictedChildProtocols().
    std::optional<PacketClassSet> restrictedChildProtocolsWithLinkLayerType(int linkLayerType) const;

    // --- pcap files ----------------------------------------------------------

    // The 24-byte pcap file header in host byte order.
    static ByteBuffer pcapHeaderForLinkLayerType(std::int32_t linkLayerType);
    static ByteBuffer pcapHeaderForRepresentativePacket(const PXPacket& packet);
    // One pcap record (16-byte header in host order, then the frame's bytes).
    ByteBuffer pcapFileEntry() const;

protected:
    // newPacket for the built-in decoders, whose classes give every member an
    // initializer: it skips the zero-filling of the whole object that
    // newPacket's value-initialisation does first (a rep stos per layer).
    // While the decode chain runs, the layer is owned by the chain being
    // built, not by the pointer returned, which takes no share; a decoder
    // makes at most one layer per call.
    template <class T>
    static std::shared_ptr<T> newLayer() {
        if (detail::LayerChain* chain = detail::tCurrentLayerChain) {
            T* layer = ::new (chain->storageFor(sizeof(T), alignof(T))) T;
            chain->unlinked = layer;
            return std::shared_ptr<T>(std::shared_ptr<T>(), layer);
        }
        if (detail::FrameArena* arena = detail::tCurrentFrameArena)
            return std::allocate_shared_for_overwrite<T>(detail::FrameArenaAllocator<T>(arena));
        return std::make_shared_for_overwrite<T>();
    }

protected:
    // A share of this layer, however it is reached. The chain's layers are
    // owned as one until the first share of an outer layer is taken (see
    // detail/LayerChain.hpp); before that, only the innermost layer has a
    // count of its own.
    std::shared_ptr<Object> shareOfSelf() override { return shareOf(this); }
    std::weak_ptr<Object> weakOfSelf() noexcept override {
        separateFromChain();
        return Object::weakOfSelf();
    }

    // The public decoder of a built-in class: a new layer, filled by the
    // class's readHeader, or null when the bytes are not of the class.
    // The bytes handed to it are the caller's, so the layer keeps its own
    // share of whatever it borrowed from them.
    template <class T>
    static PXPacketPtr decodeLayer(const ByteBuffer& data, const PXPacketPtr& parent, std::uint32_t* consumed) {
        std::shared_ptr<T> layer = newLayer<T>();
        if (!T::readHeader(*layer, data, parent.get(), consumed)) return nullptr;
        layer->T::stopBorrowingBytes();
        return layer;
    }
    // A layer the chain made may keep borrowed views of the root's bytes (a
    // payload), which the root outlives as long as the layers stay linked.
    // Before the root's bytes change, or a layer leaves its chain, each layer
    // from there inward takes its own share.
    virtual void stopBorrowingBytes() noexcept {}

private:
    friend class detail::LayerChainBuilder;
    // The deleter of the counts a chain's layers get: see LayerChain.
    struct LayerRelease {
        void operator()(PXPacket* layer) const noexcept;
    };
    // `counted`: the layer holds a reference to the frame's block of its own.
    static void destroyLayer(detail::FrameArena* arena, PXPacket* layer, bool counted) noexcept;
    void separateFromChain() const noexcept {
        if (chain_ && chain_->whole()) separateLayers(*chain_);
    }
    static void separateLayers(detail::LayerChain& chain) noexcept;
    void stopInnerLayersBorrowing() noexcept;
    // A chain owned as one drops its middle link and network layers without
    // destroying them, since they own nothing (see LayerRelease); one given
    // something to own gets a count of its own first.
    void leaveChainBeforeOwning() const noexcept {
        if (chain_ && chain_->innermost && this != chain_->innermost && parentLayer_ && chain_->whole())
            separateLayers(*chain_);
    }
    static PXPacketPtr shareOf(const PXPacket* layer);

    static PacketClass kClass;

    // The outer layer, which encapsulatingPacket_ owns once the layers are
    // owned one by one; walking outward reads this, which never changes.
    PXPacket* parentLayer_ = nullptr;
    detail::LayerChain* chain_ = nullptr;  // set for layers the decode chain made
    double timestamp_ = 0;
    ByteBuffer rawData_;
    PXPacketPtr encapsulatingPacket_;
    std::weak_ptr<PXPacket> encapsulatedPacket_;
    std::uint32_t lengthOnWire_ = 0;
    // Set by the chain for a layer it made of exactly a built-in class: the
    // layer starts its storage, and a link or network layer owns nothing, so
    // a chain owned as one can let it go without destroying it.
    bool builtIn_ = false;
    bool ownsNothing_ = false;
    std::string interface_;
};

}  // namespace wireloom
