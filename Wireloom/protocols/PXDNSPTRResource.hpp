#pragma once
// PXDNSPTRResource: a PTR record's data (type 12), the name it points to;
// in DNS-SD, a service instance of the browsed service type.

#include <Wireloom/protocols/PXDNSResource.hpp>

#include <optional>
#include <string>

namespace wireloom {

class PXDNSPTRResource : public PXDNSResource {
public:
    std::string className() const override { return "PXDNSPTRResource"; }

    // Nothing when the name could not be read.
    const std::optional<std::string>& canonicalName() const noexcept { return canonicalName_; }
    void setCanonicalName(std::optional<std::string> name) { canonicalName_ = std::move(name); }

    std::shared_ptr<PXReportAnalyzerEntry> reportAnalyzerEntry() const override;

private:
    std::optional<std::string> canonicalName_;
};

}  // namespace wireloom
