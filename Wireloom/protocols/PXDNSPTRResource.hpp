#pragma once
// PXDNSPTRResource: a PTR record's data (type 12), the name it points to;
// in DNS-SD, a service instance of the browsed service type.

#include <Wireloom/protocols/DNSText.hpp>
#include <Wireloom/protocols/PXDNSResource.hpp>

#include <optional>
#include <string_view>

namespace wireloom {

class PXDNSPTRResource : public PXDNSResource {
public:
    std::string className() const override { return "PXDNSPTRResource"; }

    // Nothing when the name could not be read.
    std::optional<std::string_view> canonicalName() const noexcept { return canonicalName_.optional(); }
    void setCanonicalName(std::optional<std::string_view> name) { canonicalName_ = DNSText(name); }
    void setCanonicalName(DNSText name) noexcept { canonicalName_ = std::move(name); }

    std::shared_ptr<PXReportAnalyzerEntry> reportAnalyzerEntry() const override;

private:
    friend class PXMDNSRecord;  // decodes the name in place
    DNSText canonicalName_;
};

}  // namespace wireloom
