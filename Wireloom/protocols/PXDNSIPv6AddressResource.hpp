#pragma once
// PXDNSIPv6AddressResource: an AAAA record's data (type 28), the address as
// the network layer writes IPv6 addresses (PXIPv6Packet::stringFromIPv6Address),
// so that it reads the same as the addresses of the frames around it.

#include <Wireloom/protocols/DNSText.hpp>
#include <Wireloom/protocols/PXDNSResource.hpp>

#include <string_view>

namespace wireloom {

class PXDNSIPv6AddressResource : public PXDNSResource {
public:
    std::string className() const override { return "PXDNSIPv6AddressResource"; }

    std::string_view ipv6Address() const noexcept { return ipv6Address_.view(); }
    void setIpv6Address(std::string_view address) { ipv6Address_ = DNSText(address); }
    void setIpv6Address(DNSText address) noexcept { ipv6Address_ = std::move(address); }

    std::shared_ptr<PXReportAnalyzerEntry> reportAnalyzerEntry() const override;

private:
    DNSText ipv6Address_;
};

}  // namespace wireloom
