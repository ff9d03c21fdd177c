#include "SourceFilter.hpp"
#include "EntryOutput.hpp"
#include "FlowReport.hpp"
#include "HttpReport.hpp"
#include "MdnsReport.hpp"

#include <algorithm>

namespace wireloom::cli {

bool parseFilterOption(const std::vector<std::string>& args, std::size_t& i, FilterWords& words, bool* failed,
                       std::FILE* err) {
    const bool inclusive = args[i] == "--filter";
    if (!inclusive && args[i] != "--exclude") return false;
    const std::string* value = optionValue(args, i, err);
    *failed = value == nullptr;
    if (value) (inclusive ? words.inclusive : words.exclusive) = *value;
    return true;
}

void appendEntryFilterText(std::string& text, PXReportAnalyzerEntry& entry) {
    text.append(entry.plainTitle());
    text.push_back('\n');
    // A dump's lines repeat its bytes as hex; the payload's printable text
    // stands for them.
    if (entry.isHexDump()) return;
    if (const auto* children = entry.children())
        for (const auto& child : *children) appendEntryFilterText(text, *child);
}

std::shared_ptr<PXReportAnalyzerEntry> ShownSource::reportAnalyzerEntryUsingCache() {
    if (!entry_ && parts_.entry) {
        entry_ = parts_.entry();
        entry_->setSource(std::static_pointer_cast<ShownSource>(shared_from_this()));
    }
    return entry_;
}

std::string ShownSource::pasteboardString() {
    auto entry = reportAnalyzerEntryUsingCache();
    return entry ? entry->pasteboardStringWithIdentation("") : std::string();
}

std::string ShownSource::representativeFilterText() {
    std::string text;
    // Built for the text alone, not kept: a report of a large file would
    // otherwise hold every tree.
    if (auto entry = entry_ ? entry_ : parts_.entry ? parts_.entry() : nullptr) appendEntryFilterText(text, *entry);
    if (parts_.payload) text += parts_.payload().bestEffortASCIIStringDiscardingInvalidBytes();
    return text;
}

bool ShownSource::filterShouldIncludeEntryUsingInclusiveWords(const std::vector<std::string>& inclusiveWords,
                                                              const std::vector<std::string>& exclusiveWords) {
    const std::string text = PXReportAnalyzerFilter::filterTextOf(representativeFilterText());
    const auto has = [&](const std::string& word) { return text.find(word) != std::string::npos; };
    return std::all_of(inclusiveWords.begin(), inclusiveWords.end(), has) &&
           std::none_of(exclusiveWords.begin(), exclusiveWords.end(), has);
}

std::shared_ptr<ShownSource> frameSource(std::shared_ptr<const PXPacket> innermost, std::uint64_t number,
                                         std::function<void()> show) {
    const double timestamp = innermost->timestamp();
    return std::make_shared<ShownSource>(
        ShownSource::Parts{[innermost, number] {
                               auto frame = PXReportAnalyzerEntry::entry();
                               frame->setProtocolLayerName("Frame " + std::to_string(number));
                               for (const auto& layer : layerEntries(*innermost)) frame->addEntry(layer);
                               return frame;
                           },
                           [innermost] {
                               if (const ByteBuffer* payload = innermost->layerPayload()) return *payload;
                               return innermost->encapsulatingPacket() ? ByteBuffer() : innermost->rawData();
                           },
                           std::move(show), timestamp});
}

SourceFilter::SourceFilter(Mode mode) : mode_(mode), filter_(PXReportAnalyzerFilter::init()) {
    NotificationCenter::defaultCenter().addObserver(
        this, kPXReportAnalyzerFilterDisplayedEntriesChangedNotificationName,
        [this](const Notification& notification) { displayed(notification); }, filter_.get());
}

SourceFilter::~SourceFilter() { NotificationCenter::defaultCenter().removeObserver(this); }

std::unique_ptr<SourceFilter> SourceFilter::live(const FilterWords& words) {
    if (!words.any()) return nullptr;
    std::unique_ptr<SourceFilter> filter(new SourceFilter(Mode::Live));
    // Set before any source arrives, so each is decided as it is appended.
    filter->filter_->applyInclusiveFilterString(words.inclusive, PXReportAnalyzerFilter::RunFilter::No);
    filter->filter_->applyExclusiveFilterString(words.exclusive, PXReportAnalyzerFilter::RunFilter::No);
    return filter;
}

std::unique_ptr<SourceFilter> SourceFilter::search() {
    return std::unique_ptr<SourceFilter>(new SourceFilter(Mode::Search));
}

void SourceFilter::offer(std::shared_ptr<ShownSource> source) {
    if (mode_ == Mode::Search) {
        pending_.push_back(std::move(source));
        return;
    }
    filter_->appendEntrySources({source});
    source->swapResourcesOut();
}

void SourceFilter::displayed(const Notification& notification) {
    // A live filter prints what each append adds; a search prints whole
    // lists when asked.
    const auto added = notification.userInfo.find("newIndexes");
    if (mode_ != Mode::Live || added == notification.userInfo.end() || !added->second.indexSet()) return;
    added->second.indexSet()->forEachIndex([&](std::uint64_t i) {
        ++shown_;
        static_cast<ShownSource&>(*filter_->filteredSources()[i]).show();
    });
}

void SourceFilter::indexOffered() {
    filter_->appendEntrySources(pending_);
    pending_.clear();
}

std::size_t SourceFilter::showMatching(const FilterWords& words) {
    filter_->applyInclusiveFilterString(words.inclusive, words.exclusive);
    for (const auto& source : filter_->displayedEntrySources()) static_cast<ShownSource&>(*source).show();
    flush();
    return filter_->displayedEntrySources().size();
}

void SourceFilter::flush() {
    for (const auto& write : flushes_) write();
}

std::unique_ptr<SourceFilter> filterPrinters(const FilterWords& words, FramePrinter& frames, MdnsPrinter& mdns,
                                             FlowPrinter& flows, HttpPrinter& http) {
    std::unique_ptr<SourceFilter> filter = SourceFilter::live(words);
    frames.setFilter(filter.get());
    mdns.setFilter(filter.get());
    flows.setFilter(filter.get());
    http.setFilter(filter.get());
    return filter;
}

}  // namespace wireloom::cli
