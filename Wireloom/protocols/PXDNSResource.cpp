#include <Wireloom/protocols/PXDNSResource.hpp>

namespace wireloom {

std::shared_ptr<PXReportAnalyzerEntry> PXDNSResource::reportAnalyzerEntry() const {
    auto entry = PXReportAnalyzerEntry::entry();
    entry->setSectionTitle("Parsed Resource");
    return entry;
}

}  // namespace wireloom
