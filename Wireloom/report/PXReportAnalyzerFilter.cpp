#include <Wireloom/report/PXReportAnalyzerFilter.hpp>

#include <Wireloom/core/Assert.hpp>
#include <Wireloom/core/NotificationCenter.hpp>
#include <Wireloom/core/detail/ConcurrentEnumeration.hpp>
#include <Wireloom/report/PXReportAnalyzerEntry.hpp>

#include <algorithm>
#include <unordered_set>

namespace wireloom {

namespace {

// Pieces of work handed to another thread at a time. Building a source's
// text costs microseconds (an entry tree), so a few dozen pay for the
// hand-off; renumbering costs a store, so only very long lists gain.
constexpr std::size_t kTextGrain = 64;
constexpr std::size_t kRenumberGrain = 1 << 15;

// The length of the white-space or line-break character at text[i], or 0:
// ASCII's, and the Unicode spaces and separators in UTF-8.
std::size_t whiteSpaceLength(std::string_view text, std::size_t i) {
    const auto byte = [&](std::size_t k) { return k < text.size() ? static_cast<std::uint8_t>(text[k]) : 0; };
    const std::uint8_t b0 = byte(i);
    if (b0 == ' ' || (b0 >= '\t' && b0 <= '\r')) return 1;
    const std::uint8_t b1 = byte(i + 1), b2 = byte(i + 2);
    if (b0 == 0xC2 && (b1 == 0x85 || b1 == 0xA0)) return 2;
    if (b0 == 0xE1 && b1 == 0x9A && b2 == 0x80) return 3;
    if (b0 == 0xE2 && b1 == 0x80 && (b2 <= 0x8A || b2 == 0xA8 || b2 == 0xA9 || b2 == 0xAF) && b2 >= 0x80) return 3;
    if (b0 == 0xE2 && b1 == 0x81 && b2 == 0x9F) return 3;
    if (b0 == 0xE3 && b1 == 0x80 && b2 == 0x80) return 3;
    return 0;
}

bool containsWord(std::string_view text, const std::string& word) { return text.find(word) != std::string_view::npos; }

}  // namespace

PXReportAnalyzerFilter::PXReportAnalyzerFilter(Key) : indexer_(WLFilterIndexer::init()) {}

PXReportAnalyzerFilter::Ptr PXReportAnalyzerFilter::init() { return std::make_shared<PXReportAnalyzerFilter>(Key{}); }

std::vector<std::string> PXReportAnalyzerFilter::wordsOfFilterString(std::string_view text) {
    std::vector<std::string> words;
    std::size_t start = 0;
    for (std::size_t i = 0; i <= text.size();) {
        const std::size_t space = i < text.size() ? whiteSpaceLength(text, i) : 1;
        if (space == 0) {
            ++i;
            continue;
        }
        if (i > start) words.push_back(filterTextOf(text.substr(start, i - start)));
        i += space;
        start = i;
    }
    return words;
}

std::string PXReportAnalyzerFilter::filterTextOf(std::string_view text) {
    std::string lower;
    lower.reserve(text.size());
    for (char c : text) {
        // The index finds a record's end by its zero bytes.
        if (c == '\0') continue;
        lower.push_back(c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c);
    }
    return lower;
}

bool PXReportAnalyzerFilter::includeSource(PXReportAnalyzerEntrySource& source, const PXFilterState& state) {
    if (state.isEmpty()) return true;
    return source.filterShouldIncludeEntryUsingInclusiveWords(state.filterStringComponents,
                                                              state.excludedFilterStringComponents);
}

void PXReportAnalyzerFilter::enumerate(std::size_t count, std::size_t grain,
                                       const std::function<void(std::size_t, std::size_t)>& body) const {
    if (runsConcurrently_)
        detail::enumerateConcurrently(count, grain, body);
    else if (count > 0)
        body(0, count);
}

bool PXReportAnalyzerFilter::admit(PXReportAnalyzerEntrySource& source, const PXFilterState& state,
                                   std::uint32_t indexerIndex, bool& indexed) const {
    const std::string text = filterTextOf(source.representativeFilterText());
    indexed = !text.empty() && indexer_ != nullptr;
    if (!indexed) return includeSource(source, state);
    indexer_->writeFilterText(text, indexerIndex);
    const auto has = [&](const std::string& word) { return containsWord(text, word); };
    return std::all_of(state.filterStringComponents.begin(), state.filterStringComponents.end(), has) &&
           std::none_of(state.excludedFilterStringComponents.begin(), state.excludedFilterStringComponents.end(), has);
}

void PXReportAnalyzerFilter::appendEntrySources(std::span<const SourcePtr> newSources) {
    const std::size_t before = sources_.size();
    const std::size_t count = newSources.size();
    for (const SourcePtr& source : newSources) WL_ASSERT(source != nullptr, "Entry sources must not be null");
    // Bytes, not bools: each is written by one thread while others write
    // their neighbours.
    std::vector<std::uint8_t> passes(count), indexed(count);
    const std::uint32_t firstIndex = nextIndexerIndex_;
    enumerate(count, kTextGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            bool wasIndexed = false;
            passes[i] = admit(*newSources[i], state_, firstIndex + static_cast<std::uint32_t>(i), wasIndexed);
            indexed[i] = wasIndexed;
        }
    });
    nextIndexerIndex_ += static_cast<std::uint32_t>(count);

    sources_.insert(sources_.end(), newSources.begin(), newSources.end());
    const std::size_t shownBefore = filteredSources_.size();
    for (std::size_t i = 0; i < count; ++i) {
        indexerIndexes_.push_back(indexed[i] ? firstIndex + static_cast<std::uint32_t>(i) : kNotIndexed);
        if (passes[i]) {
            newSources[i]->setDisplayedFilterIndex(static_cast<std::int64_t>(filteredSources_.size()));
            filteredSources_.push_back(newSources[i]);
        }
        if (!indexed[i]) sourcesExcludedFromIndexer_.addIndex(before + i);
    }
    post({{"newIndexes", IndexSet::withRange(shownBefore, filteredSources_.size() - shownBefore)}});
}

void PXReportAnalyzerFilter::insertEntrySource(const SourcePtr& source, std::size_t index) {
    WL_ASSERT(source != nullptr, "Entry sources must not be null");
    index = std::min(index, sources_.size());
    bool indexed = false;
    const bool passes = admit(*source, state_, nextIndexerIndex_, indexed);
    // The displayed sources before the new one keep their places.
    const std::unordered_set<const PXReportAnalyzerEntrySource*> shown = [&] {
        std::unordered_set<const PXReportAnalyzerEntrySource*> set;
        for (const SourcePtr& s : filteredSources_) set.insert(s.get());
        return set;
    }();
    const auto displayedBefore =
        static_cast<std::size_t>(std::count_if(sources_.begin(), sources_.begin() + static_cast<std::ptrdiff_t>(index),
                                               [&](const SourcePtr& s) { return shown.count(s.get()) > 0; }));

    sources_.insert(sources_.begin() + static_cast<std::ptrdiff_t>(index), source);
    indexerIndexes_.insert(indexerIndexes_.begin() + static_cast<std::ptrdiff_t>(index),
                           indexed ? nextIndexerIndex_ : kNotIndexed);
    ++nextIndexerIndex_;
    positionsAreIndexes_ = false;
    sourcesExcludedFromIndexer_.shiftIndexesStartingAtIndex(index, 1);
    if (!indexed) sourcesExcludedFromIndexer_.addIndex(index);
    if (!passes) return;
    filteredSources_.insert(filteredSources_.begin() + static_cast<std::ptrdiff_t>(displayedBefore), source);
    renumber(displayedBefore);
    post();
}

void PXReportAnalyzerFilter::removeEntrySource(const SourcePtr& source) {
    auto found = std::find(sources_.begin(), sources_.end(), source);
    if (found == sources_.end()) return;
    const auto position = static_cast<std::size_t>(found - sources_.begin());
    if (source->hasCachedReportAnalyzerEntry())
        if (const auto& controller = source->reportAnalyzerEntryUsingCache()->viewController())
            controller->removeViewFromScreen();
    auto shown = std::find(filteredSources_.begin(), filteredSources_.end(), source);
    const auto shownAt = static_cast<std::size_t>(shown - filteredSources_.begin());
    if (shown != filteredSources_.end()) filteredSources_.erase(shown);
    sources_.erase(found);
    indexerIndexes_.erase(indexerIndexes_.begin() + static_cast<std::ptrdiff_t>(position));
    positionsAreIndexes_ = false;
    // Later positions move down into the one removed.
    sourcesExcludedFromIndexer_.shiftIndexesStartingAtIndex(position + 1, -1);
    renumber(std::min(shownAt, filteredSources_.size()));
    post();
}

void PXReportAnalyzerFilter::removeAllEntrySources() {
    for (const SourcePtr& source : sources_)
        if (source->hasCachedReportAnalyzerEntry())
            if (const auto& controller = source->reportAnalyzerEntryUsingCache()->viewController())
                controller->removeViewFromScreen();
    sources_.clear();
    filteredSources_.clear();
    sourcesExcludedFromIndexer_.removeAllIndexes();
    // The old records name sources that are gone: a fresh file forgets them
    // and gives their disk space back.
    indexer_.reset();
    indexer_ = WLFilterIndexer::init();
    indexerIndexes_.clear();
    nextIndexerIndex_ = 0;
    positionsAreIndexes_ = true;
    post();
}

bool PXReportAnalyzerFilter::applyWords(std::vector<std::string>& current, std::string_view text, RunFilter runFilter) {
    std::vector<std::string> words = wordsOfFilterString(text);
    if (words == current) return false;
    current = std::move(words);
    if (runFilter == RunFilter::Yes) runCompleteFilter();
    return true;
}

bool PXReportAnalyzerFilter::applyInclusiveFilterString(std::string_view text, RunFilter runFilter) {
    return applyWords(state_.filterStringComponents, text, runFilter);
}

bool PXReportAnalyzerFilter::applyExclusiveFilterString(std::string_view text, RunFilter runFilter) {
    return applyWords(state_.excludedFilterStringComponents, text, runFilter);
}

bool PXReportAnalyzerFilter::applyInclusiveFilterString(std::string_view inclusive, std::string_view exclusive) {
    const bool changedInclusive = applyInclusiveFilterString(inclusive, RunFilter::No);
    const bool changedExclusive = applyExclusiveFilterString(exclusive, RunFilter::No);
    if (!changedInclusive && !changedExclusive) return false;
    runCompleteFilter();
    return true;
}

IndexSet PXReportAnalyzerFilter::positionsOfIndexes(const IndexSet& indexes) const {
    if (positionsAreIndexes_) {
        IndexSet positions = indexes;
        if (!positions.empty() && positions.lastIndex() >= sources_.size())
            positions.removeIndexes(IndexSet::withRange(sources_.size(), positions.lastIndex() - sources_.size() + 1));
        return positions;
    }
    std::vector<std::uint32_t> positionOf(nextIndexerIndex_, kNotIndexed);
    for (std::size_t position = 0; position < indexerIndexes_.size(); ++position)
        if (indexerIndexes_[position] != kNotIndexed)
            positionOf[indexerIndexes_[position]] = static_cast<std::uint32_t>(position);
    std::vector<std::uint64_t> found;
    indexes.forEachIndex([&](std::uint64_t index) {
        if (index < positionOf.size() && positionOf[index] != kNotIndexed) found.push_back(positionOf[index]);
    });
    std::sort(found.begin(), found.end());
    IndexSet positions;
    for (std::uint64_t position : found) positions.addIndex(position);
    return positions;
}

void PXReportAnalyzerFilter::runCompleteFilter() {
    const PXFilterState state = state_;
    if (state.isEmpty()) {
        filteredSources_ = sources_;
    } else {
        const std::size_t inclusiveCount = state.filterStringComponents.size();
        std::vector<std::string> words = state.filterStringComponents;
        words.insert(words.end(), state.excludedFilterStringComponents.begin(),
                     state.excludedFilterStringComponents.end());
        const std::vector<IndexSet> found =
            indexer_ ? indexer_->indexesContainingText(words) : std::vector<IndexSet>(words.size());
        // The fold of no sets is the empty set.
        IndexSet passing = inclusiveCount > 0 ? found[0] : IndexSet();
        for (std::size_t i = 1; i < inclusiveCount; ++i) passing = passing.intersection(found[i]);
        for (std::size_t i = inclusiveCount; i < found.size(); ++i) passing.removeIndexes(found[i]);
        IndexSet positions = positionsOfIndexes(passing);

        const std::vector<std::uint64_t> unindexed = sourcesExcludedFromIndexer_.indexes();
        std::vector<std::uint8_t> include(unindexed.size());
        enumerate(unindexed.size(), kTextGrain, [&](std::size_t begin, std::size_t end) {
            for (std::size_t i = begin; i < end; ++i) include[i] = includeSource(*sources_[unindexed[i]], state);
        });
        for (std::size_t i = 0; i < unindexed.size(); ++i)
            if (include[i]) positions.addIndex(unindexed[i]);

        filteredSources_.clear();
        filteredSources_.reserve(positions.count());
        positions.forEachIndex([&](std::uint64_t position) { filteredSources_.push_back(sources_[position]); });
    }
    renumber(0);
    post();
}

void PXReportAnalyzerFilter::renumber(std::size_t from) {
    enumerate(filteredSources_.size() - from, kRenumberGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = from + begin; i < from + end; ++i)
            filteredSources_[i]->setDisplayedFilterIndex(static_cast<std::int64_t>(i));
    });
}

void PXReportAnalyzerFilter::post(UserInfo userInfo) {
    NotificationCenter::defaultCenter().postNotification(kPXReportAnalyzerFilterDisplayedEntriesChangedNotificationName,
                                                         shared_from_this(), std::move(userInfo));
}

}  // namespace wireloom
