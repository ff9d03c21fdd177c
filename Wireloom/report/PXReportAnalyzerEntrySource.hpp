#pragma once
// PXReportAnalyzerEntrySource: what every object listed in a report (a
// packet, a flow, an HTTP exchange, a multicast-DNS message) offers it. The
// source builds its entry tree on request and caches it, can drop and rebuild
// its heavy resources, and supplies the text the filter indexes.
//
//   class MyPacket : public PXPacket, public PXReportAnalyzerEntrySource { ... };
//
// Entries hold their source weakly; only a top-level entry stores it.

#include <Wireloom/core/Value.hpp>
#include <Wireloom/text/Color.hpp>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace wireloom {

class PXReportAnalyzerEntry;

class PXReportAnalyzerEntrySource {
public:
    virtual ~PXReportAnalyzerEntrySource() = default;

    // The top entry, built on the first call and cached.
    virtual std::shared_ptr<PXReportAnalyzerEntry> reportAnalyzerEntryUsingCache() = 0;
    virtual bool hasCachedReportAnalyzerEntry() const = 0;
    // Seconds; orders and labels the rows.
    virtual double reportAnalyzerTimestamp() const = 0;
    // The text copied for the row.
    virtual std::string pasteboardString() = 0;
    // The source's own decision for a filter of included and excluded words.
    virtual bool filterShouldIncludeEntryUsingInclusiveWords(const std::vector<std::string>& inclusiveWords,
                                                             const std::vector<std::string>& exclusiveWords) = 0;
    // The text written into the filter index for this source.
    virtual std::string representativeFilterText() = 0;
    virtual bool hasResourcesLoaded() const = 0;
    virtual void swapResourcesOut() = 0;
    virtual void swapResourcesInWhenAvailable() = 0;
    virtual void ensureResourcesSwappedIn() = 0;

    // The source's position among the filter's displayed sources.
    virtual std::int64_t displayedFilterIndex() const { return displayedFilterIndex_; }
    virtual void setDisplayedFilterIndex(std::int64_t index) { displayedFilterIndex_ = index; }

    // Optional: sources drawn by a custom cell.
    virtual void updateCellObjectValueTo(const Value&) {}
    virtual Value cellObjectValue() const { return {}; }
    // Optional: a colour for the whole row; null for the default.
    virtual ColorPtr rowTextColor() const { return nullptr; }

private:
    std::int64_t displayedFilterIndex_ = -1;
};

}  // namespace wireloom
