#pragma once
// PXMDNSQuestion: one entry of an mDNS message's question section.

#include <Wireloom/protocols/DNSText.hpp>

#include <cstdint>
#include <string_view>

namespace wireloom {

class PXMDNSQuestion {
public:
    // As PXMDNSRecord's: no zeroing before the member initializers.
    PXMDNSQuestion() noexcept {}

    // Valid while the question or a copy of it lives.
    std::string_view recordName() const noexcept { return recordName_.view(); }
    void setRecordName(std::string_view name) { recordName_ = DNSText(name); }
    void setRecordName(DNSText name) noexcept { recordName_ = std::move(name); }
    std::uint16_t questionType() const noexcept { return questionType_; }
    void setQuestionType(std::uint16_t type) noexcept { questionType_ = type; }
    // The whole field: the unicast-response bit (0x8000) is kept.
    std::uint16_t questionClass() const noexcept { return questionClass_; }
    void setQuestionClass(std::uint16_t questionClass) noexcept { questionClass_ = questionClass; }

private:
    DNSText recordName_;
    std::uint16_t questionType_ = 0;
    std::uint16_t questionClass_ = 0;
};

}  // namespace wireloom
