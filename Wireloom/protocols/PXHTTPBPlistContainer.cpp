#include <Wireloom/protocols/PXHTTPBPlistContainer.hpp>

namespace wireloom {

bool PXHTTPBPlistContainer::initWithDictionary(plist_t, std::string*, const ObjectPtr&) { return true; }

void PXHTTPBPlistContainer::addErrorDescription(std::string errorDescription, std::string key) {
    if (!keyErrorDescriptions_) keyErrorDescriptions_.emplace();
    (*keyErrorDescriptions_)[std::move(key)] = std::move(errorDescription);
}

void PXHTTPBPlistContainer::addErrorDescriptionForUnknownKey(std::string errorDescription, std::string key) {
    if (!unknownKeyErrorDescriptions_) unknownKeyErrorDescriptions_.emplace();
    (*unknownKeyErrorDescriptions_)[std::move(key)] = std::move(errorDescription);
}

const std::string* PXHTTPBPlistContainer::errorDescriptionForKey(std::string_view key) const {
    if (!keyErrorDescriptions_) return nullptr;
    auto found = keyErrorDescriptions_->find(key);
    return found == keyErrorDescriptions_->end() ? nullptr : &found->second;
}

std::vector<std::string> PXHTTPBPlistContainer::keysWithErrors() const {
    std::vector<std::string> keys;
    if (keyErrorDescriptions_)
        for (const auto& entry : *keyErrorDescriptions_) keys.push_back(entry.first);  // a std::map is sorted
    return keys;
}

std::shared_ptr<PXReportAnalyzerEntry> PXHTTPBPlistContainer::reportAnalyzerEntryUsingDataSource(const ObjectPtr&) {
    auto entry = PXReportAnalyzerEntry::entry();
    if (unknownKeyErrorDescriptions_)
        for (const auto& [key, error] : *unknownKeyErrorDescriptions_)
            entry->addLineWithErrorLabel("Key '" + key + "' Error", error);
    return entry;
}

}  // namespace wireloom
