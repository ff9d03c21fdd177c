#include <Wireloom/core/detail/ByteReader.hpp>
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

// The name at a message offset, into the resource that holds it, read into
// `arena` when the resource lies there; its consumed count is of no interest.
void readNameAt(DNSText& name, std::span<const std::uint8_t> message, std::size_t offset, detail::FrameArena* arena,
                DNSNameCache* names) {
    if (offset > message.size()) return;
    detail::ByteReader cursor(message.data() + offset, message.size() - offset);
    std::uint32_t consumed = 0;
    detail::readDecodedName(name, arena, message, cursor, consumed, names);
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

// In the frame's block (`arena`, where the message lies): no allocation and
// no count of its own, the message's standing for it (see resource()). Null
// when there is no block or no room.
template <class T, class... Args>
T* PXMDNSRecord::keepInBlock(const PXMDNSPacket* holder, detail::FrameArena* arena, Args&&... args) {
    if (!arena) return nullptr;
    void* room = arena->allocateUnreferenced(sizeof(T), alignof(T));
    if (!room) return nullptr;
    T* kept = ::new (room) T(std::forward<Args>(args)...);
    keptResource_ = kept;
    holder_ = holder;
    return kept;
}

// In the block when it can be, else on the heap with a count of its own.
// `arena` becomes the block the resource lies in, null for the heap: the
// text it reads goes where it can live as long as the resource.
template <class T, class... Args>
T* PXMDNSRecord::newResource(const PXMDNSPacket* holder, detail::FrameArena*& arena, Args&&... args) {
    if (T* kept = keepInBlock<T>(holder, arena, args...)) return kept;
    arena = nullptr;
    auto owned = std::make_shared<T>(std::forward<Args>(args)...);
    T* resource = owned.get();
    resource_ = std::move(owned);
    return resource;
}

void PXMDNSRecord::parseResourceDataWithMessageBody(std::span<const std::uint8_t> message) {
    dropKeptResource();
    decodeResource(message, nullptr, nullptr, nullptr);
}

void PXMDNSRecord::decodeSRV(std::span<const std::uint8_t> message, const PXMDNSPacket* holder,
                             detail::FrameArena* arena, DNSNameCache* names) {
    // Seven bytes at the least: the three words and one byte of target.
    if (resourceData_.size() < 7) return;
    detail::ByteReader r(resourceData_.span());
    auto* srv = newResource<PXDNSSRVResource>(holder, arena);
    srv->setPriority(r.readBE<std::uint16_t>());
    srv->setWeight(r.readBE<std::uint16_t>());
    srv->setPort(r.readBE<std::uint16_t>());
    // The target may point anywhere in the message, and is read through it
    // rather than within the record's data.
    readNameAt(srv->target_, message, static_cast<std::size_t>(resourceDataOffsetInMessage_) + 6, arena, names);
}

void PXMDNSRecord::decodePTR(std::span<const std::uint8_t> message, const PXMDNSPacket* holder,
                             detail::FrameArena* arena, DNSNameCache* names) {
    auto* ptr = newResource<PXDNSPTRResource>(holder, arena);
    readNameAt(ptr->canonicalName_, message, static_cast<std::size_t>(resourceDataOffsetInMessage_), arena, names);
}

void PXMDNSRecord::decodeTXT(const PXMDNSPacket* holder, detail::FrameArena* arena) {
    // In the block, the data can stay a view of the message: the resource
    // lives no longer than the message does.
    const auto offset = static_cast<std::size_t>(resourceDataOffsetInMessage_);
    if (!arena || !keepInBlock<PXDNSTXTResource>(holder, arena, holder->message_, offset, resourceData_.size()))
        newResource<PXDNSTXTResource>(holder, arena, resourceData_);
}

void PXMDNSRecord::decodeAAAA(const PXMDNSPacket* holder, detail::FrameArena* arena) {
    if (resourceData_.size() < 16) return;
    newResource<PXDNSIPv6AddressResource>(holder, arena, resourceData_.data());
}

}  // namespace wireloom
