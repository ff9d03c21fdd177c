#include <Wireloom/core/detail/ByteReader.hpp>
#include <Wireloom/packets/PXIPv6Packet.hpp>
#include <Wireloom/protocols/DNSNameReader.hpp>
#include <Wireloom/protocols/PXDNSIPv6AddressResource.hpp>
#include <Wireloom/protocols/PXDNSPTRResource.hpp>
#include <Wireloom/protocols/PXDNSSRVResource.hpp>
#include <Wireloom/protocols/PXDNSTXTResource.hpp>
#include <Wireloom/protocols/PXMDNSRecord.hpp>

namespace wireloom {

namespace {

enum : std::uint16_t { kTypePTR = 12, kTypeTXT = 16, kTypeAAAA = 28, kTypeSRV = 33 };

// The name at a message offset; its consumed count is of no interest.
std::optional<std::string> nameAt(std::span<const std::uint8_t> message, std::size_t offset) {
    if (offset > message.size()) return std::nullopt;
    detail::ByteReader cursor(message.data() + offset, message.size() - offset);
    std::uint32_t consumed = 0;
    return readFullyQualitifiedDomainName(message.data(), message.size(), cursor, consumed);
}

}  // namespace

void PXMDNSRecord::parseResourceDataWithMessageBody(std::span<const std::uint8_t> message) {
    const auto offset = static_cast<std::size_t>(resourceDataOffsetInMessage_);
    switch (recordType_) {
    case kTypeSRV: {
        // Seven bytes at the least: the three words and one byte of target.
        if (resourceData_.size() < 7) return;
        detail::ByteReader r(resourceData_.span());
        auto srv = std::make_shared<PXDNSSRVResource>();
        srv->setPriority(r.readBE<std::uint16_t>());
        srv->setWeight(r.readBE<std::uint16_t>());
        srv->setPort(r.readBE<std::uint16_t>());
        // The target may point anywhere in the message, and is read through
        // it rather than within the record's data.
        srv->setTarget(nameAt(message, offset + 6));
        resource_ = std::move(srv);
        return;
    }
    case kTypePTR: {
        auto ptr = std::make_shared<PXDNSPTRResource>();
        ptr->setCanonicalName(nameAt(message, offset));
        resource_ = std::move(ptr);
        return;
    }
    case kTypeTXT: {
        auto txt = std::make_shared<PXDNSTXTResource>();
        txt->setTxt(PXDNSTXTResource::dictionaryFromTXTRecordData(resourceData_.span()));
        resource_ = std::move(txt);
        return;
    }
    case kTypeAAAA: {
        if (resourceData_.size() < 16) return;
        auto aaaa = std::make_shared<PXDNSIPv6AddressResource>();
        aaaa->setIpv6Address(PXIPv6Packet::stringFromIPv6Address(resourceData_.data()));
        resource_ = std::move(aaaa);
        return;
    }
    default: return;
    }
}

}  // namespace wireloom
