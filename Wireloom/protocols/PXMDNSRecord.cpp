#include <Wireloom/core/detail/ByteReader.hpp>
#include <Wireloom/packets/PXIPv6Packet.hpp>
#include <Wireloom/packets/detail/FrameArena.hpp>
#include <Wireloom/protocols/DNSNameReader.hpp>
#include <Wireloom/protocols/PXDNSIPv6AddressResource.hpp>
#include <Wireloom/protocols/PXDNSPTRResource.hpp>
#include <Wireloom/protocols/PXDNSSRVResource.hpp>
#include <Wireloom/protocols/PXDNSTXTResource.hpp>
#include <Wireloom/protocols/PXMDNSPacket.hpp>
#include <Wireloom/protocols/PXMDNSRecord.hpp>

#include <memory>
#include <utility>

namespace wireloom {

namespace {

// The name at a message offset, into the resource that holds it; its
// consumed count is of no interest.
void readNameAt(DNSText& name, std::span<const std::uint8_t> message, std::size_t offset, const void* holder,
                DNSNameCache* names) {
    if (offset > message.size()) return;
    detail::ByteReader cursor(message.data() + offset, message.size() - offset);
    std::uint32_t consumed = 0;
    detail::readDecodedName(name, holder, message, cursor, consumed, names);
}

// Room for a resource in the frame's block, when its message lies there.
template <class T>
void* roomInBlock(const PXMDNSPacket* holder) noexcept {
    if (detail::FrameArena* arena = detail::arenaHolding(holder))
        return arena->allocateUnreferenced(sizeof(T), alignof(T));
    return nullptr;
}

}  // namespace

PXMDNSRecord::PXMDNSRecord(const PXMDNSRecord& other)
    : recordName_(other.recordName_),
      resourceData_(other.resourceData_),
      resource_(other.resource()),
      resourceDataOffsetInMessage_(other.resourceDataOffsetInMessage_),
      ttl_(other.ttl_),
      recordType_(other.recordType_),
      recordClass_(other.recordClass_),
      resourceDataLength_(other.resourceDataLength_) {}

// A record in the block moves only inside its message (a list outgrowing its
// room there), so its resource can go with it.
PXMDNSRecord::PXMDNSRecord(PXMDNSRecord&& other) noexcept
    : recordName_(std::move(other.recordName_)),
      resourceData_(std::move(other.resourceData_)),
      resource_(std::move(other.resource_)),
      keptResource_(std::exchange(other.keptResource_, nullptr)),
      holder_(std::exchange(other.holder_, nullptr)),
      resourceDataOffsetInMessage_(other.resourceDataOffsetInMessage_),
      ttl_(other.ttl_),
      recordType_(other.recordType_),
      recordClass_(other.recordClass_),
      resourceDataLength_(other.resourceDataLength_) {}

PXMDNSRecord& PXMDNSRecord::operator=(const PXMDNSRecord& other) {
    if (this != &other) *this = PXMDNSRecord(other);
    return *this;
}

PXMDNSRecord& PXMDNSRecord::operator=(PXMDNSRecord&& other) noexcept {
    if (this != &other) {
        dropKeptResource();
        recordName_ = std::move(other.recordName_);
        resourceData_ = std::move(other.resourceData_);
        resource_ = std::move(other.resource_);
        keptResource_ = std::exchange(other.keptResource_, nullptr);
        holder_ = std::exchange(other.holder_, nullptr);
        resourceDataOffsetInMessage_ = other.resourceDataOffsetInMessage_;
        ttl_ = other.ttl_;
        recordType_ = other.recordType_;
        recordClass_ = other.recordClass_;
        resourceDataLength_ = other.resourceDataLength_;
    }
    return *this;
}

PXDNSResource::Ptr PXMDNSRecord::resource() const {
    if (keptResource_) return PXDNSResource::Ptr(holder_->shared_from_this(), keptResource_);
    return resource_;
}

// In the frame's block when the message lies there: no allocation and no
// count of its own, the message's standing for it (see resource()). Null
// when there is no room.
template <class T, class... Args>
T* PXMDNSRecord::keepInBlock(const PXMDNSPacket* holder, Args&&... args) {
    void* room = roomInBlock<T>(holder);
    if (!room) return nullptr;
    T* kept = ::new (room) T(std::forward<Args>(args)...);
    keptResource_ = kept;
    holder_ = holder;
    return kept;
}

// In the block when it can be, else on the heap with a count of its own.
template <class T, class... Args>
T* PXMDNSRecord::newResource(const PXMDNSPacket* holder, Args&&... args) {
    if (T* kept = keepInBlock<T>(holder, args...)) return kept;
    auto owned = std::make_shared<T>(std::forward<Args>(args)...);
    T* resource = owned.get();
    resource_ = std::move(owned);
    return resource;
}

void PXMDNSRecord::parseResourceDataWithMessageBody(std::span<const std::uint8_t> message) {
    dropKeptResource();
    decodeResource(message, nullptr, nullptr, nullptr);
}

// `kept` is the message buffer the holder keeps, which a resource in the
// block may borrow from; null with no holder.
void PXMDNSRecord::decodeSRV(std::span<const std::uint8_t> message, const PXMDNSPacket* holder, DNSNameCache* names) {
    // Seven bytes at the least: the three words and one byte of target.
    if (resourceData_.size() < 7) return;
    detail::ByteReader r(resourceData_.span());
    auto* srv = newResource<PXDNSSRVResource>(holder);
    srv->setPriority(r.readBE<std::uint16_t>());
    srv->setWeight(r.readBE<std::uint16_t>());
    srv->setPort(r.readBE<std::uint16_t>());
    // The target may point anywhere in the message, and is read through it
    // rather than within the record's data.
    readNameAt(srv->target_, message, static_cast<std::size_t>(resourceDataOffsetInMessage_) + 6, srv, names);
}

void PXMDNSRecord::decodePTR(std::span<const std::uint8_t> message, const PXMDNSPacket* holder, DNSNameCache* names) {
    auto* ptr = newResource<PXDNSPTRResource>(holder);
    readNameAt(ptr->canonicalName_, message, static_cast<std::size_t>(resourceDataOffsetInMessage_), ptr, names);
}

void PXMDNSRecord::decodeTXT(const PXMDNSPacket* holder, const ByteBuffer* kept) {
    // In the block, the data can stay a view of the message: the resource
    // lives no longer than the message does.
    const auto offset = static_cast<std::size_t>(resourceDataOffsetInMessage_);
    if (!kept || !keepInBlock<PXDNSTXTResource>(holder, *kept, offset, resourceData_.size()))
        newResource<PXDNSTXTResource>(holder, resourceData_);
}

void PXMDNSRecord::decodeAAAA(const PXMDNSPacket* holder) {
    if (resourceData_.size() < 16) return;
    auto* aaaa = newResource<PXDNSIPv6AddressResource>(holder);
    char ownRoom[PXIPv6Packet::kIPv6AddressTextSize];
    const std::span<char> room = detail::frameTextRoom(aaaa);
    char* text = room.size() >= sizeof ownRoom ? room.data() : ownRoom;
    const std::size_t length = PXIPv6Packet::writeIPv6Address(resourceData_.data(), text);
    aaaa->setIpv6Address(detail::keepDecodedText(aaaa, {text, length}));
}

}  // namespace wireloom
