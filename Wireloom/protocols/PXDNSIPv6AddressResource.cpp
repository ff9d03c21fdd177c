#include <Wireloom/protocols/PXDNSIPv6AddressResource.hpp>

namespace wireloom {

std::shared_ptr<PXReportAnalyzerEntry> PXDNSIPv6AddressResource::reportAnalyzerEntry() const {
    auto entry = PXDNSResource::reportAnalyzerEntry();
    entry->addLineWithKey("Address", ipv6Address_);
    return entry;
}

}  // namespace wireloom
