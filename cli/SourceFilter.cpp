#include "SourceFilter.hpp"
#include "EntryOutput.hpp"
#include "FlowReport.hpp"
#include "HttpReport.hpp"
#include "MdnsReport.hpp"
#include "ReplayPrinters.hpp"

#include <pcap/pcap.h>

#include <algorithm>
#include <cstring>

namespace wireloom::cli {

namespace {

constexpr std::size_t kLiveSourcesKept = 4096;
// A search indexes what arrives in batches of this many: enough for the
// texts to be built on every core, few enough that the trees and texts
// made for them never add up.
constexpr std::size_t kSearchBatch = 4096;

}  // namespace

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

std::shared_ptr<ShownSource> frameSource(FrameProvider innermost, std::uint64_t number,
                                         std::function<void(const PXPacket& innermost)> show) {
    const double timestamp = innermost()->timestamp();
    auto entry = [innermost, number] {
        auto frame = PXReportAnalyzerEntry::entry();
        frame->setProtocolLayerName("Frame " + std::to_string(number));
        for (const auto& layer : layerEntries(*innermost())) frame->addEntry(layer);
        return frame;
    };
    auto payload = [innermost] {
        const auto packet = innermost();
        if (const ByteBuffer* payload = packet->layerPayload()) return *payload;
        return packet->encapsulatingPacket() ? ByteBuffer() : packet->rawData();
    };
    return std::make_shared<ShownSource>(ShownSource::Parts{
        std::move(entry), std::move(payload), [innermost, show = std::move(show)] { show(*innermost()); }, timestamp});
}

FrameProvider SourceFilter::keep(const PXPacket& innermost) const {
    auto packet = std::static_pointer_cast<const PXPacket>(innermost.shared_from_this());
    if (mode_ == Mode::Live) return [packet] { return packet; };
    // Decoded layers take a block of 4 KiB a frame; the frame's pcap record
    // takes its own length.
    // Any layer writes the whole frame's record.
    const ByteBuffer record = packet->pcapFileEntry();
    return [record, linkLayerType = linkLayerType_]() -> std::shared_ptr<const PXPacket> {
        std::uint32_t fields[4];  // seconds, microseconds, captured and wire length, in host order
        std::memcpy(fields, record.data(), sizeof fields);
        pcap_pkthdr header{};
        header.ts.tv_sec = static_cast<time_t>(fields[0]);
        header.ts.tv_usec = static_cast<suseconds_t>(fields[1]);
        header.caplen = fields[2];
        header.len = fields[3];
        return PXPacket::packetWithHeader(header, record.data() + sizeof fields, linkLayerType);
    };
}

SourceFilter::SourceFilter(Mode mode, int linkLayerType)
    : mode_(mode), linkLayerType_(linkLayerType), filter_(PXReportAnalyzerFilter::init()) {
    NotificationCenter::defaultCenter().addObserver(
        this, kPXReportAnalyzerFilterDisplayedEntriesChangedNotificationName,
        [this](const Notification& notification) { displayed(notification); }, filter_.get());
}

SourceFilter::~SourceFilter() { NotificationCenter::defaultCenter().removeObserver(this); }

std::unique_ptr<SourceFilter> SourceFilter::live(const FilterWords& words) {
    if (!words.any()) return nullptr;
    std::unique_ptr<SourceFilter> filter(new SourceFilter(Mode::Live, 0));
    // Set before any source arrives, so each is decided as it is appended.
    filter->filter_->applyInclusiveFilterString(words.inclusive, PXReportAnalyzerFilter::RunFilter::No);
    filter->filter_->applyExclusiveFilterString(words.exclusive, PXReportAnalyzerFilter::RunFilter::No);
    return filter;
}

std::unique_ptr<SourceFilter> SourceFilter::search(int linkLayerType) {
    return std::unique_ptr<SourceFilter>(new SourceFilter(Mode::Search, linkLayerType));
}

void SourceFilter::offer(std::shared_ptr<ShownSource> source) {
    if (mode_ == Mode::Search) {
        pending_.push_back(std::move(source));
        if (pending_.size() >= kSearchBatch) indexOffered();
        return;
    }
    filter_->appendEntrySources({source});
    source->swapResourcesOut();
    // A live filter never runs again over what it has decided, so the
    // sources and their texts in the index can go: a long capture then
    // keeps neither a list of every frame nor an index file the size of its
    // text.
    if (filter_->sources().size() >= kLiveSourcesKept) filter_->removeAllEntrySources();
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

std::unique_ptr<SourceFilter> filterPrinters(const FilterWords& words, ReplayPrinters& printers) {
    std::unique_ptr<SourceFilter> filter = SourceFilter::live(words);
    printers.setFilter(filter.get());
    return filter;
}

}  // namespace wireloom::cli
