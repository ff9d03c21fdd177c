#include <Wireloom/core/Assert.hpp>
#include <Wireloom/report/PXReportAnalyzerEntry.hpp>

#include <algorithm>
#include <cstring>

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

// The text of one line of a hex dump, in its three parts: the offset, two
// groups of four bytes padded to their full width, and the bytes as
// characters (a "." for each unprintable one). Written by hand rather than
// with printf: a large trace has hundreds of these lines per frame.
struct HexDumpLineText {
    static constexpr std::size_t kGroupsLength = 2 + 16 + 4;
    char offset[16];
    std::size_t offsetLength = 0;
    char groups[kGroupsLength];
    char characters[8];

    HexDumpLineText(const std::uint8_t* bytes, std::size_t count, std::size_t offset) {
        static constexpr char kHex[] = "0123456789abcdef";
        std::size_t digits = 4;  // at least four, as "%04zx"
        while (digits < 16 && (offset >> (4 * digits)) != 0) ++digits;
        offsetLength = digits;
        for (std::size_t i = 0; i < digits; ++i) this->offset[i] = kHex[(offset >> (4 * (digits - 1 - i))) & 0x0f];
        char* g = groups;
        for (std::size_t i = 0; i < 8; ++i) {
            if (i % 4 == 0) *g++ = ' ';
            *g++ = i < count ? kHex[bytes[i] >> 4] : ' ';
            *g++ = i < count ? kHex[bytes[i] & 0x0f] : ' ';
        }
        std::memset(g, ' ', 4);
        for (std::size_t i = 0; i < count; ++i)
            characters[i] = isPrintable(bytes[i]) ? static_cast<char>(bytes[i]) : '.';
    }
    static bool isPrintable(std::uint8_t byte) { return byte >= 32 && byte <= 126; }
    std::string_view offsetText() const { return {offset, offsetLength}; }
    std::string_view groupsText() const { return {groups, kGroupsLength}; }
};

// One line of a hex dump: the offset in grey, the groups, and the characters
// (printable ones blue, the others a grey dot).
std::shared_ptr<WLAttributedString> hexDumpLine(const std::uint8_t* bytes, std::size_t count, std::size_t offset) {
    const HexDumpLineText text(bytes, count, offset);
    auto line = WLAttributedString::stringWithFormat(WLTokenColor, Color::gray(), WLTokenText, text.offsetText(),
                                                     WLTokenPop, WLTokenText, text.groupsText(), WLTokenEnd);
    if (!line) return nullptr;
    // Characters of one colour go in one run.
    for (std::size_t i = 0; i < count;) {
        const bool printable = HexDumpLineText::isPrintable(bytes[i]);
        const std::size_t first = i;
        while (i < count && HexDumpLineText::isPrintable(bytes[i]) == printable) ++i;
        line->appendFormat(WLTokenColor, printable ? Color::blue() : Color::gray(), WLTokenText,
                           std::string_view(text.characters + first, i - first), WLTokenPop, WLTokenEnd);
    }
    return line;
}

// The loader of a dump's lines. A named type, so that the dump's plain text
// can be written from the bytes it holds without building its lines.
struct HexDumpLoader {
    ByteBuffer data;
    void operator()(PXReportAnalyzerEntry& entry) const {
        for (std::size_t offset = 0; offset < data.size(); offset += 8) {
            const std::size_t count = std::min<std::size_t>(8, data.size() - offset);
            entry.addFixedPitchEntryLine(hexDumpLine(data.data() + offset, count, offset));
        }
    }
};

}  // namespace

PXReportAnalyzerEntry::Ptr PXReportAnalyzerEntry::addEntryWithData(const ByteBuffer& data) {
    Ptr dump = addNestedEntry();
    // The lines are made when first read: most dumps of a large trace are
    // never opened. Being lazy, they are also given back when the row is
    // collapsed and memory is reclaimed.
    dump->childLoaderBlock_ = HexDumpLoader{data};
    return dump;
}

bool PXReportAnalyzerEntry::appendHexDumpText(std::string& out, std::string_view indent) const {
    if (hasLoadedChildren_) return false;
    const HexDumpLoader* loader = childLoaderBlock_.target<HexDumpLoader>();
    if (!loader) return false;
    const ByteBuffer& data = loader->data;
    // Sized once for the longest lines and cut back after: growing the string
    // line by line cost as much as making the text.
    const std::size_t lineBound =
        indent.size() + sizeof(HexDumpLineText::offset) + HexDumpLineText::kGroupsLength + 8 + 1;
    const std::size_t start = out.size();
    out.resize(start + (data.size() + 7) / 8 * lineBound);
    char* end = out.data() + start;
    const auto put = [&end](std::string_view text) {
        std::memcpy(end, text.data(), text.size());
        end += text.size();
    };
    for (std::size_t offset = 0; offset < data.size(); offset += 8) {
        const std::size_t count = std::min<std::size_t>(8, data.size() - offset);
        const HexDumpLineText text(data.data() + offset, count, offset);
        put(indent);
        put(text.offsetText());
        put(text.groupsText());
        put({text.characters, count});
        *end++ = '\n';
    }
    out.resize(static_cast<std::size_t>(end - out.data()));
    return true;
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

std::string_view PXReportAnalyzerEntry::plainTitle() const { return title_ ? title_->string() : std::string_view(); }

std::string PXReportAnalyzerEntry::pasteboardStringWithIdentation(const std::string& indent) {
    loadChildrenIfNeeded();
    std::string text = indent;
    text += plainTitle();
    text += '\n';
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
