#include <Wireloom/core/detail/ByteReader.hpp>
#include <Wireloom/packets/PXIPv6Packet.hpp>
#include <Wireloom/packets/detail/FrameArena.hpp>
#include <Wireloom/protocols/DNSNameReader.hpp>
#include <Wireloom/protocols/PXDNSIPv6AddressResource.hpp>
#include <Wireloom/protocols/PXDNSPTRResource.hpp>
#include <Wireloom/protocols/PXDNSSRVResource.hpp>
#include <Wireloom/protocols/PXDNSTXTResource.hpp>
#include <Wireloom/protocols/PXMDNSRecord.hpp>

namespace wireloom {

namespace {

enum : std::uint16_t { kTypePTR = 12, kTypeTXT = 16, kTypeAAAA = 28, kTypeSRV = 33 };

// While a frame is decoded, its resources go into the frame's block with the
// packets: a bump of a pointer instead of a malloc each.
template <class T, class... Args>
std::shared_ptr<T> newResource(Args&&... args) {
    if (detail::FrameArena* arena = detail::tCurrentFrameArena)
        return std::allocate_shared<T>(detail::FrameArenaAllocator<T>(arena), std::forward<Args>(args)...);
    return std::make_shared<T>(std::forward<Args>(args)...);
}

// The name at a message offset, for the resource that holds it; its
// consumed count is of no interest.
DNSText nameAt(std::span<const std::uint8_t> message, std::size_t offset, const void* holder) {
    if (offset > message.size()) return {};
    detail::ByteReader cursor(message.data() + offset, message.size() - offset);
    std::uint32_t consumed = 0;
    DNSNameText text(detail::frameTextRoom(holder));
    if (!readDomainNameText(message.data(), message.size(), cursor, consumed, text)) return {};
    return detail::keepDecodedText(holder, text.view());
}

}  // namespace

void PXMDNSRecord::parseResourceDataWithMessageBody(std::span<const std::uint8_t> message) {
    const auto offset = static_cast<std::size_t>(resourceDataOffsetInMessage_);
    switch (recordType_) {
    case kTypeSRV: {
        // Seven bytes at the least: the three words and one byte of target.
        if (resourceData_.size() < 7) return;
        detail::ByteReader r(resourceData_.span());
        auto srv = newResource<PXDNSSRVResource>();
        srv->setPriority(r.readBE<std::uint16_t>());
        srv->setWeight(r.readBE<std::uint16_t>());
        srv->setPort(r.readBE<std::uint16_t>());
        // The target may point anywhere in the message, and is read through
        // it rather than within the record's data.
        srv->setTarget(nameAt(message, offset + 6, srv.get()));
        resource_ = std::move(srv);
        return;
    }
    case kTypePTR: {
        auto ptr = newResource<PXDNSPTRResource>();
        ptr->setCanonicalName(nameAt(message, offset, ptr.get()));
        resource_ = std::move(ptr);
        return;
    }
    case kTypeTXT: {
        resource_ = newResource<PXDNSTXTResource>(resourceData_);
        return;
    }
    case kTypeAAAA: {
        if (resourceData_.size() < 16) return;
        auto aaaa = newResource<PXDNSIPv6AddressResource>();
        char ownRoom[PXIPv6Packet::kIPv6AddressTextSize];
        const std::span<char> room = detail::frameTextRoom(aaaa.get());
        char* text = room.size() >= sizeof ownRoom ? room.data() : ownRoom;
        const std::size_t length = PXIPv6Packet::writeIPv6Address(resourceData_.data(), text);
        aaaa->setIpv6Address(detail::keepDecodedText(aaaa.get(), {text, length}));
        resource_ = std::move(aaaa);
        return;
    }
    default: return;
    }
}

}  // namespace wireloom
