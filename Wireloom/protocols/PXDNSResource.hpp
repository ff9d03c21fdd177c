#pragma once
// PXDNSResource: the decoded data of a DNS record of a type the library
// reads (SRV, TXT, PTR, AAAA; see the subclasses). A PXMDNSRecord makes one
// from its resource data; records of other types keep only their bytes.

#include <Wireloom/core/Object.hpp>
#include <Wireloom/report/PXReportAnalyzerEntry.hpp>

#include <memory>

namespace wireloom {

class PXDNSResource : public Object {
public:
    using Ptr = std::shared_ptr<PXDNSResource>;
    std::string className() const override { return "PXDNSResource"; }

    // A "Parsed Resource" section; subclasses add their lines to it.
    virtual std::shared_ptr<PXReportAnalyzerEntry> reportAnalyzerEntry() const;
};

}  // namespace wireloom
