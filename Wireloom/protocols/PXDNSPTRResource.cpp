#include <Wireloom/protocols/PXDNSPTRResource.hpp>

namespace wireloom {

std::shared_ptr<PXReportAnalyzerEntry> PXDNSPTRResource::reportAnalyzerEntry() const {
    auto entry = PXDNSResource::reportAnalyzerEntry();
    entry->addLineWithKey("Canonical Name",
                          canonicalName_.present() ? Value(std::string(canonicalName_.view())) : Value());
    return entry;
}

}  // namespace wireloom
