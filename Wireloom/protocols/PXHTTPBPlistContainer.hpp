#pragma once
// PXHTTPBPlistContainer: the base of the objects an HTTP delegate makes from
// a body that decoded to a property-list dictionary. A derived container
// reads the keys it knows, records what is wrong with them, and shows them
// in its report entry; this base keeps the error bookkeeping and shows one
// error line for each key the container did not know:
//
//   class Settings : public PXHTTPBPlistContainer {
//   public:
//       static std::vector<std::string> allKnownKeys() { return {"volume"}; }
//       bool initWithDictionary(plist_t dictionary, std::string* error, const ObjectPtr& source) override;
//       std::shared_ptr<PXReportAnalyzerEntry> reportAnalyzerEntryUsingDataSource(const ObjectPtr& source) override;
//   };

#include <Wireloom/core/Object.hpp>
#include <Wireloom/report/PXReportAnalyzerEntry.hpp>

#include <plist/plist.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace wireloom {

class PXHTTPBPlistContainer : public Object {
public:
    using ErrorTable = std::map<std::string, std::string, std::less<>>;
    PXHTTPBPlistContainer() = default;
    std::string className() const override { return "PXHTTPBPlistContainer"; }

    // The keys a container understands; none for this base.
    static std::vector<std::string> allKnownKeys() { return {}; }
    // Reads the dictionary (a libplist dictionary node), reporting problems
    // through the add operations; false, with a text, when it cannot be
    // used at all. This base only initialises.
    virtual bool initWithDictionary(plist_t dictionary, std::string* errorDescription, const ObjectPtr& dataSource);

    // Each made on first use; null before.
    const std::optional<ErrorTable>& keyErrorDescriptions() const noexcept { return keyErrorDescriptions_; }
    const std::optional<ErrorTable>& unknownKeyErrorDescriptions() const noexcept {
        return unknownKeyErrorDescriptions_;
    }
    // A second text for a key replaces the first.
    void addErrorDescription(std::string errorDescription, std::string key);
    void addErrorDescriptionForUnknownKey(std::string errorDescription, std::string key);
    // Null when the key has no error.
    const std::string* errorDescriptionForKey(std::string_view key) const;
    // The keys with errors, in plain string order.
    std::vector<std::string> keysWithErrors() const;

    // A new entry with an error line "Key 'KEY' Error" for each unknown key;
    // derived containers add the lines of the keys they know.
    virtual std::shared_ptr<PXReportAnalyzerEntry> reportAnalyzerEntryUsingDataSource(const ObjectPtr& dataSource);

private:
    std::optional<ErrorTable> keyErrorDescriptions_;
    std::optional<ErrorTable> unknownKeyErrorDescriptions_;
};

}  // namespace wireloom
