#pragma once
// PXMDNSRecord: one resource record of an mDNS message's answer, authority
// or additional section. The owner name may be missing: a message whose
// record names cannot be read still decodes. Records of type SRV, TXT, PTR
// and AAAA also carry their data decoded as a PXDNSResource.

#include <Wireloom/core/ByteBuffer.hpp>
#include <Wireloom/protocols/DNSText.hpp>
#include <Wireloom/protocols/PXDNSResource.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <utility>

namespace wireloom {

class PXMDNSPacket;

class PXMDNSRecord {
public:
    // Every member has its initializer: declared so that a new record is not
    // zeroed whole before they run.
    PXMDNSRecord() noexcept {}
    // A copy owns what it holds, or shares its message: it outlives the
    // message's frame safely.
    PXMDNSRecord(const PXMDNSRecord& other);
    PXMDNSRecord(PXMDNSRecord&& other) noexcept;
    PXMDNSRecord& operator=(const PXMDNSRecord& other);
    PXMDNSRecord& operator=(PXMDNSRecord&& other) noexcept;
    ~PXMDNSRecord() { dropKeptResource(); }

    // Valid while the record or a copy of it lives.
    std::optional<std::string_view> recordName() const noexcept { return recordName_.optional(); }
    void setRecordName(std::optional<std::string_view> name) { recordName_ = DNSText(name); }
    void setRecordName(DNSText name) noexcept { recordName_ = std::move(name); }
    std::uint16_t recordType() const noexcept { return recordType_; }
    void setRecordType(std::uint16_t type) noexcept { recordType_ = type; }
    // The whole field: the cache-flush bit (0x8000) is kept.
    std::uint16_t recordClass() const noexcept { return recordClass_; }
    void setRecordClass(std::uint16_t recordClass) noexcept { recordClass_ = recordClass; }
    std::uint32_t ttl() const noexcept { return ttl_; }
    void setTtl(std::uint32_t ttl) noexcept { ttl_ = ttl; }
    std::uint16_t resourceDataLength() const noexcept { return resourceDataLength_; }
    void setResourceDataLength(std::uint16_t length) noexcept { resourceDataLength_ = length; }
    // Valid while the record lives; a copy of the buffer owns its bytes.
    const ByteBuffer& resourceData() const noexcept { return resourceData_; }
    void setResourceData(ByteBuffer data) noexcept { resourceData_ = std::move(data); }
    // Where the resource data starts, counted from the message's first byte.
    std::int64_t resourceDataOffsetInMessage() const noexcept { return resourceDataOffsetInMessage_; }
    void setResourceDataOffsetInMessage(std::int64_t offset) noexcept { resourceDataOffsetInMessage_ = offset; }
    // Safe to keep on its own: a resource decoded into the frame's block
    // shares its message's count, which keeps the block. That costs a count
    // taken and given back; hasResource() only looks.
    PXDNSResource::Ptr resource() const;
    bool hasResource() const noexcept { return keptResource_ || resource_; }
    void setResource(PXDNSResource::Ptr resource) noexcept {
        dropKeptResource();
        resource_ = std::move(resource);
    }

    // Decodes resource() from resourceData() by the record type. The whole
    // message is needed because names in the data may point into it.
    void parseResourceDataWithMessageBody(std::span<const std::uint8_t> message);

private:
    friend class PXMDNSPacket;
    enum : std::uint16_t { kTypePTR = 12, kTypeTXT = 16, kTypeAAAA = 28, kTypeSRV = 33 };

    // What the decoder does for a record of `holder`, which keeps `message`
    // and lies in the frame's block: the data stays a view of the message,
    // and the resource goes into the block, this record destroying it.
    // Inline: it runs for every record, and the call cost more than its work.
    void keepDecodedData(const ByteBuffer& message, std::size_t offset, std::uint16_t length) noexcept {
        // A borrowed view: a share of the message's bytes would cost a count.
        // The message outlives the view, which lies inside it, and any copy
        // of the view owns its share.
        resourceData_.borrow(message, offset, length);
        resourceDataOffsetInMessage_ = static_cast<std::int64_t>(offset);
        resourceDataLength_ = length;
    }
    // Inline as far as the record type: a record without a resource (an A
    // record) then costs no call, and each type's call saves only the
    // registers its own work needs. `arena` is the block `holder` lies in,
    // null when it lies elsewhere or there is no holder.
    void decodeResource(std::span<const std::uint8_t> message, const PXMDNSPacket* holder, detail::FrameArena* arena,
                        DNSNameCache* names) {
        switch (recordType_) {
        case kTypeSRV: return decodeSRV(message, holder, arena, names);
        case kTypePTR: return decodePTR(message, holder, arena, names);
        case kTypeTXT: return decodeTXT(holder, arena);
        case kTypeAAAA: return decodeAAAA(holder, arena);
        default: return;
        }
    }
    void decodeSRV(std::span<const std::uint8_t> message, const PXMDNSPacket* holder, detail::FrameArena* arena,
                   DNSNameCache* names);
    void decodePTR(std::span<const std::uint8_t> message, const PXMDNSPacket* holder, detail::FrameArena* arena,
                   DNSNameCache* names);
    void decodeTXT(const PXMDNSPacket* holder, detail::FrameArena* arena);
    void decodeAAAA(const PXMDNSPacket* holder, detail::FrameArena* arena);
    template <class T, class... Args>
    T* keepInBlock(const PXMDNSPacket* holder, detail::FrameArena* arena, Args&&... args);
    template <class T, class... Args>
    T* newResource(const PXMDNSPacket* holder, detail::FrameArena*& arena, Args&&... args);
    // Inline: it runs for every record a message destroys.
    void dropKeptResource() noexcept {
        if (keptResource_) std::destroy_at(std::exchange(keptResource_, nullptr));
        holder_ = nullptr;
    }

    DNSText recordName_;
    ByteBuffer resourceData_;
    PXDNSResource::Ptr resource_;            // when not kept in the frame's block
    PXDNSResource* keptResource_ = nullptr;  // in the frame's block
    const PXMDNSPacket* holder_ = nullptr;   // the message that keeps the block, while keptResource_ is set
    std::int64_t resourceDataOffsetInMessage_ = 0;
    std::uint32_t ttl_ = 0;
    std::uint16_t recordType_ = 0;
    std::uint16_t recordClass_ = 0;
    std::uint16_t resourceDataLength_ = 0;
};

}  // namespace wireloom
