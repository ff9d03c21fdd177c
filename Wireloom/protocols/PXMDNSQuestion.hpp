#pragma once
// PXMDNSQuestion: one entry of an mDNS message's question section.

#include <cstdint>
#include <string>

namespace wireloom {

class PXMDNSQuestion {
public:
    const std::string& recordName() const noexcept { return recordName_; }
    void setRecordName(std::string name) { recordName_ = std::move(name); }
    std::uint16_t questionType() const noexcept { return questionType_; }
    void setQuestionType(std::uint16_t type) noexcept { questionType_ = type; }
    // The whole field: the unicast-response bit (0x8000) is kept.
    std::uint16_t questionClass() const noexcept { return questionClass_; }
    void setQuestionClass(std::uint16_t questionClass) noexcept { questionClass_ = questionClass; }

private:
    std::string recordName_;
    std::uint16_t questionType_ = 0;
    std::uint16_t questionClass_ = 0;
};

}  // namespace wireloom
