#include <Wireloom/protocols/PXDNSSRVResource.hpp>

namespace wireloom {

std::shared_ptr<PXReportAnalyzerEntry> PXDNSSRVResource::reportAnalyzerEntry() const {
    auto entry = PXDNSResource::reportAnalyzerEntry();
    entry->addLineWithKey("Priority", priority_);
    entry->addLineWithKey("Weight", weight_);
    entry->addLineWithKey("Port", port_);
    entry->addLineWithKey("Target", target_.present() ? Value(std::string(target_.view())) : Value());
    return entry;
}

}  // namespace wireloom
