#pragma once
// PXDNSSRVResource: an SRV record's data (type 33), where a service instance
// is reached: priority, weight, port and target host.

#include <Wireloom/protocols/DNSText.hpp>
#include <Wireloom/protocols/PXDNSResource.hpp>

#include <cstdint>
#include <optional>
#include <string_view>

namespace wireloom {

class PXDNSSRVResource : public PXDNSResource {
public:
    std::string className() const override { return "PXDNSSRVResource"; }

    std::uint16_t priority() const noexcept { return priority_; }
    void setPriority(std::uint16_t priority) noexcept { priority_ = priority; }
    std::uint16_t weight() const noexcept { return weight_; }
    void setWeight(std::uint16_t weight) noexcept { weight_ = weight; }
    std::uint16_t port() const noexcept { return port_; }
    void setPort(std::uint16_t port) noexcept { port_ = port; }
    // Nothing when the target name could not be read.
    std::optional<std::string_view> target() const noexcept { return target_.optional(); }
    void setTarget(std::optional<std::string_view> target) { target_ = DNSText(target); }
    void setTarget(DNSText target) noexcept { target_ = std::move(target); }

    std::shared_ptr<PXReportAnalyzerEntry> reportAnalyzerEntry() const override;

private:
    friend class PXMDNSRecord;  // decodes the name in place
    DNSText target_;
    std::uint16_t priority_ = 0;
    std::uint16_t weight_ = 0;
    std::uint16_t port_ = 0;
};

}  // namespace wireloom
