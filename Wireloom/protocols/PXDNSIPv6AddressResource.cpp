#include <Wireloom/protocols/PXDNSIPv6AddressResource.hpp>

namespace wireloom {

std::shared_ptr<PXReportAnalyzerEntry> PXDNSIPv6AddressResource::reportAnalyzerEntry() const {
    auto entry = PXDNSResource::reportAnalyzerEntry();
    entry->addLineWithKey("Address", std::string(ipv6Address()));
    return entry;
}

}  // namespace wireloom
