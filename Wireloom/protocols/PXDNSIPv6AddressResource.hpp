#pragma once
// PXDNSIPv6AddressResource: an AAAA record's data (type 28), the address as
// the network layer writes IPv6 addresses (PXIPv6Packet::stringFromIPv6Address),
// so that it reads the same as the addresses of the frames around it.

#include <Wireloom/packets/PXIPv6Packet.hpp>
#include <Wireloom/protocols/PXDNSResource.hpp>

#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>

namespace wireloom {

class PXDNSIPv6AddressResource : public PXDNSResource {
public:
    std::string className() const override { return "PXDNSIPv6AddressResource"; }

    PXDNSIPv6AddressResource() = default;
    // The address's 16 bytes. Its text is written when first asked for: most
    // decoded messages are never looked into, and writing it costs more than
    // decoding the record.
    explicit PXDNSIPv6AddressResource(const std::uint8_t* address) noexcept : fromBytes_(true) {
        std::memcpy(address_, address, sizeof address_);
    }

    // Valid while the resource lives.
    std::string_view ipv6Address() const {
        std::call_once(written_, [this] {
            if (fromBytes_)
                writtenSize_ = static_cast<std::uint8_t>(PXIPv6Packet::writeIPv6Address(address_, writtenText_));
        });
        return fromBytes_ ? std::string_view(writtenText_, writtenSize_) : std::string_view(set_);
    }
    void setIpv6Address(std::string_view address) {
        std::call_once(written_, [] {});
        fromBytes_ = false;
        set_ = address;
    }

    std::shared_ptr<PXReportAnalyzerEntry> reportAnalyzerEntry() const override;

private:
    mutable std::once_flag written_;
    bool fromBytes_ = false;
    mutable std::uint8_t writtenSize_ = 0;
    std::uint8_t address_[16] = {};
    mutable char writtenText_[PXIPv6Packet::kIPv6AddressTextSize];
    std::string set_;  // an address set by hand
};

}  // namespace wireloom
