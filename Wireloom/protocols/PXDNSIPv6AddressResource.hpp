#pragma once
// PXDNSIPv6AddressResource: an AAAA record's data (type 28), the address as
// the network layer writes IPv6 addresses (PXIPv6Packet::stringFromIPv6Address),
// so that it reads the same as the addresses of the frames around it.

#include <Wireloom/protocols/PXDNSResource.hpp>

#include <string>

namespace wireloom {

class PXDNSIPv6AddressResource : public PXDNSResource {
public:
    std::string className() const override { return "PXDNSIPv6AddressResource"; }

    const std::string& ipv6Address() const noexcept { return ipv6Address_; }
    void setIpv6Address(std::string address) { ipv6Address_ = std::move(address); }

    std::shared_ptr<PXReportAnalyzerEntry> reportAnalyzerEntry() const override;

private:
    std::string ipv6Address_;
};

}  // namespace wireloom
