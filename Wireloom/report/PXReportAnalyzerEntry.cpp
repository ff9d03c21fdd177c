#include <Wireloom/core/Assert.hpp>
#include <Wireloom/report/PXReportAnalyzerEntry.hpp>

#include <algorithm>
#include <cstdio>

namespace wireloom {

std::shared_ptr<PXReportAnalyzerEntrySource> PXReportAnalyzerEntry::source() const {
    if (auto source = source_.lock()) return source;
    if (auto parent = parent_.lock()) return parent->source();
    return nullptr;
}

// --- Tree building -------------------------------------------------------------

void PXReportAnalyzerEntry::addEntry(const Ptr& child) {
    if (!entries_) entries_.emplace();
    child->parent_ = self();
    entries_->push_back(child);
}

PXReportAnalyzerEntry::Ptr PXReportAnalyzerEntry::addNestedEntry() {
    Ptr child = entry();
    addEntry(child);
    return child;
}

PXReportAnalyzerEntry::Ptr PXReportAnalyzerEntry::addNestedEntryToTop() {
    Ptr child = entry();
    if (!entries_) entries_.emplace();
    child->parent_ = self();
    entries_->insert(entries_->begin(), child);
    return child;
}

PXReportAnalyzerEntry::Ptr PXReportAnalyzerEntry::addEntryLine(std::shared_ptr<WLAttributedString> line) {
    Ptr child = addNestedEntry();
    child->title_ = std::move(line);
    return child;
}

PXReportAnalyzerEntry::Ptr PXReportAnalyzerEntry::addFixedPitchEntryLine(std::shared_ptr<WLAttributedString> line) {
    Ptr child = addEntryLine(std::move(line));
    child->displayUsingFixedPitchFont_ = true;
    return child;
}

namespace {

// One line of a hex dump: the offset in grey, two groups of four bytes, and
// the bytes as characters (printable ones blue, the others a grey dot).
std::shared_ptr<WLAttributedString> hexDumpLine(const std::uint8_t* bytes, std::size_t count, std::size_t offset) {
    static constexpr char kHex[] = "0123456789abcdef";
    char offsetText[24];
    std::snprintf(offsetText, sizeof offsetText, "%04zx", offset);
    std::string groups;
    groups.reserve(2 + 16 + 4);
    for (std::size_t i = 0; i < 8; ++i) {
        if (i % 4 == 0) groups.push_back(' ');
        if (i < count) {
            groups.push_back(kHex[bytes[i] >> 4]);
            groups.push_back(kHex[bytes[i] & 0x0f]);
        } else {
            groups.append("  ");
        }
    }
    groups.append("    ");
    auto line = WLAttributedString::stringWithFormat(WLTokenColor, Color::gray(), WLTokenText, offsetText, WLTokenPop,
                                                     WLTokenText, groups, WLTokenEnd);
    if (!line) return nullptr;
    // Characters of one colour go in one run.
    for (std::size_t i = 0; i < count;) {
        const bool printable = bytes[i] >= 32 && bytes[i] <= 126;
        std::string run;
        for (; i < count && (bytes[i] >= 32 && bytes[i] <= 126) == printable; ++i)
            run.push_back(printable ? static_cast<char>(bytes[i]) : '.');
        line->appendFormat(WLTokenColor, printable ? Color::blue() : Color::gray(), WLTokenText, run, WLTokenPop,
                           WLTokenEnd);
    }
    return line;
}

}  // namespace

PXReportAnalyzerEntry::Ptr PXReportAnalyzerEntry::addEntryWithData(const ByteBuffer& data) {
    Ptr dump = addNestedEntry();
    // The lines are made when first read: most dumps of a large trace are
    // never opened. Being lazy, they are also given back when the row is
    // collapsed and memory is reclaimed.
    dump->childLoaderBlock_ = [data](PXReportAnalyzerEntry& entry) {
        for (std::size_t offset = 0; offset < data.size(); offset += 8) {
            const std::size_t count = std::min<std::size_t>(8, data.size() - offset);
            entry.addFixedPitchEntryLine(hexDumpLine(data.data() + offset, count, offset));
        }
    };
    return dump;
}

void PXReportAnalyzerEntry::addEntriesToTopFromOther(PXReportAnalyzerEntry& other) {
    if (!other.entries_) return;
    const Ptr me = self();
    for (const Ptr& child : *other.entries_) child->parent_ = me;
    if (entries_) {
        other.entries_->insert(other.entries_->end(), entries_->begin(), entries_->end());
    }
    entries_ = std::move(other.entries_);
    other.entries_.reset();
}

// --- Queries ---------------------------------------------------------------------

void PXReportAnalyzerEntry::loadChildrenIfNeeded() {
    if (hasLoadedChildren_) return;
    // Set first, so a loader that reads this entry's children does not run again.
    hasLoadedChildren_ = true;
    if (auto owner = source()) owner->ensureResourcesSwappedIn();
    if (childLoaderBlock_) childLoaderBlock_(*this);
}

std::size_t PXReportAnalyzerEntry::numChildren() {
    loadChildrenIfNeeded();
    return entries_ ? entries_->size() : 0;
}

const std::vector<PXReportAnalyzerEntry::Ptr>* PXReportAnalyzerEntry::children() {
    loadChildrenIfNeeded();
    return entries();
}

bool PXReportAnalyzerEntry::hasChild(const PXReportAnalyzerEntry& entry) {
    loadChildrenIfNeeded();
    if (!entries_) return false;
    for (const Ptr& child : *entries_) {
        if (child.get() == &entry || child->hasChild(entry)) return true;
    }
    return false;
}

std::string PXReportAnalyzerEntry::plainTitle() const { return title_ ? title_->string() : std::string(); }

std::string PXReportAnalyzerEntry::pasteboardStringWithIdentation(const std::string& indent) {
    loadChildrenIfNeeded();
    std::string text = indent + plainTitle() + "\n";
    if (entries_) {
        const std::string deeper = indent + "    ";
        for (const Ptr& child : *entries_) text += child->pasteboardStringWithIdentation(deeper);
    }
    return text;
}

const std::string& PXReportAnalyzerEntry::visualTypeIdentifier() {
    if (cachedVisualTypeIdentifier_) return *cachedVisualTypeIdentifier_;
    // Without their coloured runs, titles keep their labels and lose their
    // values, so rows of one kind share an identifier across packets.
    std::string identifier = title_ ? title_->stringWithoutColorizedText() : std::string();
    if (auto parent = parent_.lock()) identifier = parent->visualTypeIdentifier() + identifier;
    cachedVisualTypeIdentifier_ = std::move(identifier);
    return *cachedVisualTypeIdentifier_;
}

int PXReportAnalyzerEntry::reportAnalyzerEntryTitleMode() const noexcept {
    if (displayUsingFixedPitchFont_) return 1;
    if (cellClass_) return 2;
    return 0;
}

// --- Rows and cells -----------------------------------------------------------

void PXReportAnalyzerEntry::updateCache() {
    if (!title_ && (viewController_ || viewControllerBlock_)) {
        if (!viewController_) viewController_ = viewControllerBlock_(*this);
        if (viewController_) rowHeight_ = viewController_->viewHeight();
    } else if (!title_) {
        rowHeight_ = preferredCellHeight_;
    }
    if (isExpanded_ || isExpandedInPane_) {
        loadChildrenIfNeeded();
        if (entries_) {
            for (const Ptr& child : *entries_) child->updateCache();
        }
    }
}

std::shared_ptr<PXCell> PXReportAnalyzerEntry::dataCell() {
    if (title_) return nullptr;
    if (initializedCell_) return initializedCell_;
    if (viewController_ || viewControllerBlock_) {
        if (!viewController_) updateCache();
        initializedCell_ = std::make_shared<PXCellWithView>(viewController_);
        return initializedCell_;
    }
    if (!cellClass_) cellClass_ = PXCellClass::plainCell();
    std::shared_ptr<PXCell> cell = cellClass_->makeCell();
    if (cell && cellInitializer_) cellInitializer_(*cell);
    initializedCell_ = std::move(cell);
    return initializedCell_;
}

void PXReportAnalyzerEntry::unloadRecoverableResources() {
    // Only children a loader can build again are dropped, and never those of
    // an expanded row: what the user sees stays.
    if (childLoaderBlock_ && hasLoadedChildren_ && !isExpanded_) {
        hasLoadedChildren_ = false;
        entries_.reset();
    }
    if (entries_) {
        for (const Ptr& child : *entries_) child->unloadRecoverableResources();
    }
    if (title_) title_->clearCache();
}

// --- Expansion memory ---------------------------------------------------------

bool PXReportAnalyzerEntry::*PXReportAnalyzerEntry::expansionProperty(std::string_view key) {
    if (key == "isExpanded") return &PXReportAnalyzerEntry::isExpanded_;
    WL_ASSERT(key == "isExpandedInPane", "Expansion key must be isExpanded or isExpandedInPane");
    return &PXReportAnalyzerEntry::isExpandedInPane_;
}

void PXReportAnalyzerEntry::expandEntryWithCache(const std::set<std::string>& collapsed, PXOutlineView& outlineView,
                                                 std::string_view key) {
    bool PXReportAnalyzerEntry::*expanded = expansionProperty(key);
    const std::string& identifier = visualTypeIdentifier();
    if (!identifier.empty()) {
        // Rows are expanded unless the user collapsed a row of their kind.
        const bool wasCollapsed = collapsed.count(identifier) != 0;
        if (wasCollapsed)
            outlineView.collapseItem(self());
        else
            outlineView.expandItem(self());
        this->*expanded = !wasCollapsed;
    }
    if (entries_) {
        for (const Ptr& child : *entries_) child->expandEntryWithCache(collapsed, outlineView, key);
    }
}

void PXReportAnalyzerEntry::storeExpansionsUsingCache(std::set<std::string>& collapsed, std::string_view key) {
    bool PXReportAnalyzerEntry::*expanded = expansionProperty(key);
    const std::string& identifier = visualTypeIdentifier();
    if (!identifier.empty()) {
        if (this->*expanded)
            collapsed.erase(identifier);
        else
            collapsed.insert(identifier);
    }
    if (entries_) {
        for (const Ptr& child : *entries_) child->storeExpansionsUsingCache(collapsed, key);
    }
}

}  // namespace wireloom
