#pragma once
// How the command filters what it shows by words. Everything it would print
// (a frame, a flow, an HTTP exchange) becomes an entry source for one
// PXReportAnalyzerFilter, found by the plain text of its entry tree (hex
// dumps left out) followed by the printable text of its payload:
//
//   auto filter = SourceFilter::live({"get host", "404"});   // null without words
//   printer.setFilter(filter.get());   // the printer offers, the filter prints
//
// A live filter (read, capture) decides each source as it is offered and
// prints it at once if it passes. A search filter (search) indexes what is
// offered a batch at a time, keeps each frame as its record rather than its
// decoded layers, and prints the sources each set of words lets through.

#include "FramePrinter.hpp"

#include <Wireloom/Wireloom.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace wireloom::cli {

// --filter (all must occur) and --exclude (none may).
struct FilterWords {
    std::string inclusive;
    std::string exclusive;
    bool any() const { return !inclusive.empty() || !exclusive.empty(); }
};

// --filter or --exclude at args[i], with its value taken; false when args[i]
// is neither. *failed is set, with a message, when the value is missing.
bool parseFilterOption(const std::vector<std::string>& args, std::size_t& i, FilterWords& words, bool* failed,
                       std::FILE* err);

// The plain titles of the entry and its descendants, a line each, without
// the lines of hex dumps.
void appendEntryFilterText(std::string& text, PXReportAnalyzerEntry& entry);

// One thing the command may print, as the filter sees it.
class ShownSource final : public Object, public PXReportAnalyzerEntrySource {
public:
    struct Parts {
        std::function<std::shared_ptr<PXReportAnalyzerEntry>()> entry;  // the tree it is shown as
        std::function<ByteBuffer()> payload;                            // the bytes it carries, if any
        std::function<void()> show;                                     // prints it
        double timestamp = 0;
    };
    explicit ShownSource(Parts parts) : parts_(std::move(parts)) {}
    void show() {
        if (parts_.show) parts_.show();
    }

    std::shared_ptr<PXReportAnalyzerEntry> reportAnalyzerEntryUsingCache() override;
    bool hasCachedReportAnalyzerEntry() const override { return entry_ != nullptr; }
    double reportAnalyzerTimestamp() const override { return parts_.timestamp; }
    std::string pasteboardString() override;
    // A plain search of the same text the index holds.
    bool filterShouldIncludeEntryUsingInclusiveWords(const std::vector<std::string>& inclusiveWords,
                                                     const std::vector<std::string>& exclusiveWords) override;
    std::string representativeFilterText() override;
    bool hasResourcesLoaded() const override { return parts_.show != nullptr; }
    // Lets the frame, flow or exchange go: a live filter has decided.
    void swapResourcesOut() override {
        parts_ = {};
        entry_.reset();
    }
    void swapResourcesInWhenAvailable() override {}
    void ensureResourcesSwappedIn() override {}

private:
    Parts parts_;
    std::shared_ptr<PXReportAnalyzerEntry> entry_;
};

// A frame's innermost layer, whenever a source asks for it.
using FrameProvider = std::function<std::shared_ptr<const PXPacket>()>;

// A frame as a source: its layers' entries under one titled "Frame N", and
// the bytes its innermost layer carries (all of them when nothing decoded).
std::shared_ptr<ShownSource> frameSource(FrameProvider innermost, std::uint64_t number,
                                         std::function<void(const PXPacket& innermost)> show);

class SourceFilter {
public:
    static std::unique_ptr<SourceFilter> live(const FilterWords& words);
    // Frames come from a capture of this link-layer type.
    static std::unique_ptr<SourceFilter> search(int linkLayerType);
    ~SourceFilter();
    SourceFilter(const SourceFilter&) = delete;
    SourceFilter& operator=(const SourceFilter&) = delete;

    void offer(std::shared_ptr<ShownSource> source);
    // The frame, for a source of it: a live filter holds the decoded layers
    // for the moment it decides; a search, which may show the frame long
    // after, keeps only its record and decodes it again when asked.
    FrameProvider keep(const PXPacket& innermost) const;
    // Printers write out what they gathered after each round of showing.
    void addFlush(std::function<void()> flush) { flushes_.push_back(std::move(flush)); }

    // Search: indexes every source offered so far.
    void indexOffered();
    // Search: shows the sources these words let through; how many.
    std::size_t showMatching(const FilterWords& words);

    // Search: the sources indexed.
    std::size_t sourceCount() const noexcept { return filter_->sources().size(); }
    std::uint64_t shownCount() const noexcept { return shown_; }

private:
    enum class Mode { Live, Search };
    SourceFilter(Mode mode, int linkLayerType);
    void displayed(const Notification& notification);
    void flush();

    Mode mode_;
    int linkLayerType_;
    PXReportAnalyzerFilter::Ptr filter_;
    std::vector<PXReportAnalyzerFilter::SourcePtr> pending_;
    std::vector<std::function<void()>> flushes_;
    std::uint64_t shown_ = 0;
};

struct ReplayPrinters;

// A live filter for the words, set on each printer; null, and the printers
// left printing everything, when there are no words.
std::unique_ptr<SourceFilter> filterPrinters(const FilterWords& words, ReplayPrinters& printers);

}  // namespace wireloom::cli
