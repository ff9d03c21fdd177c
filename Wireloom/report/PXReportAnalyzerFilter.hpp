#pragma once
// PXReportAnalyzerFilter: the ordered list of every entry source of a report
// and the sublist the current words let through, which is what the report
// displays. The user types words that must all occur (inclusive) and words
// none of which may (exclusive); sources with filter text are matched
// through the full-text indexer, sources without decide for themselves.
//
//   auto filter = PXReportAnalyzerFilter::init();
//   center.addObserver(this, kPXReportAnalyzerFilterDisplayedEntriesChangedNotificationName,
//                      [&](const Notification& n) { refresh(n.userInfo); }, filter.get());
//   filter->appendEntrySources({packet, flow});        // filtered as they arrive
//   filter->applyInclusiveFilterString("GET  Host");   // the words "get" and "host"
//   for (const auto& shown : filter->displayedEntrySources()) show(shown);
//
// Words are split at white space and lower-cased (letters A to Z; other
// bytes, UTF-8 included, compare as they are), and so are the texts. There
// is no quoting: exclusion is the second string. A filter of exclusive words
// only lets no indexed source through, deliberately: the inclusive words
// choose, the exclusive ones take away.
//
// Every change of the displayed list posts the notification with the filter
// as sender; after an append its user info holds "newIndexes", the positions
// appended to the displayed list. Each displayed source's
// displayedFilterIndex() is its position in that list.
//
// The lists are changed only by the calling thread; the per-source work of
// an append (building the texts, writing them) and of a complete run may run
// on several threads, with the results of a serial run.

#include <Wireloom/core/IndexSet.hpp>
#include <Wireloom/core/Object.hpp>
#include <Wireloom/report/PXFilterState.hpp>
#include <Wireloom/report/PXReportAnalyzerEntrySource.hpp>
#include <Wireloom/report/WLFilterIndexer.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace wireloom {

inline constexpr const char* kPXReportAnalyzerFilterDisplayedEntriesChangedNotificationName =
    "PXReportAnalyzerFilterDisplayedEntriesChangedNotification";

class PXReportAnalyzerFilter : public Object {
public:
    using Ptr = std::shared_ptr<PXReportAnalyzerFilter>;
    using SourcePtr = std::shared_ptr<PXReportAnalyzerEntrySource>;

    // Without a temporary file for the index, sources with text are decided
    // by themselves, like those without.
    static Ptr init();

    // --- Properties -------------------------------------------------------

    // Every source, in arrival order.
    const std::vector<SourcePtr>& sources() const noexcept { return sources_; }
    // The displayed sources, in the order of sources().
    const std::vector<SourcePtr>& filteredSources() const noexcept { return filteredSources_; }
    const std::vector<SourcePtr>& displayedEntrySources() const noexcept { return filteredSources_; }
    const PXFilterState& state() const noexcept { return state_; }
    // Positions in sources() of the sources whose text was not indexed.
    const IndexSet& sourcesExcludedFromIndexer() const noexcept { return sourcesExcludedFromIndexer_; }
    // Null when no temporary file could be made.
    WLFilterIndexer* indexer() const noexcept { return indexer_.get(); }
    // Whether per-source work may use other threads (the default); off, every
    // step runs on the calling thread.
    bool runsConcurrently() const noexcept { return runsConcurrently_; }
    void setRunsConcurrently(bool concurrently) noexcept { runsConcurrently_ = concurrently; }

    // --- Editing the lists ------------------------------------------------

    // Filters the new sources incrementally under the current words.
    void appendEntrySources(std::span<const SourcePtr> newSources);
    void appendEntrySources(std::initializer_list<SourcePtr> newSources) {
        appendEntrySources(std::span<const SourcePtr>(newSources.begin(), newSources.size()));
    }
    // Places one source at `index` of sources() (clamped to the end), filtered
    // as an appended one would be.
    void insertEntrySource(const SourcePtr& source, std::size_t index);
    void removeEntrySource(const SourcePtr& source);
    void removeAllEntrySources();

    // --- Words --------------------------------------------------------------

    // An enumeration rather than a bool, so that a second string never
    // converts to it.
    enum class RunFilter : bool { No, Yes };

    // Each applies its string and, when the words changed, runs the complete
    // filter; the two-string form runs it once for both. False, and nothing
    // happens, when the words are the current ones.
    bool applyInclusiveFilterString(std::string_view text) { return applyInclusiveFilterString(text, RunFilter::Yes); }
    bool applyExclusiveFilterString(std::string_view text) { return applyExclusiveFilterString(text, RunFilter::Yes); }
    bool applyInclusiveFilterString(std::string_view inclusive, std::string_view exclusive);
    bool applyInclusiveFilterString(std::string_view text, RunFilter runFilter);
    bool applyExclusiveFilterString(std::string_view text, RunFilter runFilter);

    // True for empty words; otherwise the source's own decision.
    static bool includeSource(PXReportAnalyzerEntrySource& source, const PXFilterState& state);
    // Filters every source again under the current words.
    void runCompleteFilter();

    // Split at white space and line breaks, lower-cased, empty parts dropped.
    static std::vector<std::string> wordsOfFilterString(std::string_view text);
    // The text as the index stores it: lower-cased, zero bytes dropped.
    static std::string filterTextOf(std::string_view text);

    // Only init() makes these (make_shared needs the constructor).
    class Key {
        friend class PXReportAnalyzerFilter;
        Key() = default;
    };
    explicit PXReportAnalyzerFilter(Key);

private:
    static constexpr std::uint32_t kNotIndexed = ~std::uint32_t{0};

    // One of the state's word lists takes the words of `text`, if they differ.
    bool applyWords(std::vector<std::string>& current, std::string_view text, RunFilter runFilter);
    void enumerate(std::size_t count, std::size_t grain,
                   const std::function<void(std::size_t begin, std::size_t end)>& body) const;
    // Indexes the source's text, or notes that it has none; whether it
    // passes the current words.
    bool admit(PXReportAnalyzerEntrySource& source, const PXFilterState& state, std::uint32_t indexerIndex,
               bool& indexed) const;
    // The positions in sources() of the sources written under these indexes.
    IndexSet positionsOfIndexes(const IndexSet& indexes) const;
    void renumber(std::size_t from);
    void post(UserInfo userInfo = {});

    std::vector<SourcePtr> sources_;
    std::vector<SourcePtr> filteredSources_;
    PXFilterState state_;
    IndexSet sourcesExcludedFromIndexer_;
    std::unique_ptr<WLFilterIndexer> indexer_;
    // The index each source's text went under, by position. Positions and
    // indexes agree until a source is inserted or removed in the middle;
    // the records already written cannot change, so the index is kept.
    std::vector<std::uint32_t> indexerIndexes_;
    std::uint32_t nextIndexerIndex_ = 0;
    bool positionsAreIndexes_ = true;
    bool runsConcurrently_ = true;
};

}  // namespace wireloom
