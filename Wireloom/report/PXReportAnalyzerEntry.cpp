#include <Wireloom/core/Assert.hpp>
#include <Wireloom/report/PXReportAnalyzerEntry.hpp>

#include <algorithm>
#include <bit>
#include <cstring>

namespace wireloom {

std::shared_ptr<PXReportAnalyzerEntrySource> PXReportAnalyzerEntry::source() const {
    if (auto source = source_.lock()) return source;
    if (auto parent = this->parent()) return parent->source();
    return nullptr;
}

const PXReportAnalyzerEntry::Presentation PXReportAnalyzerEntry::kNoPresentation;

// --- Tree building -------------------------------------------------------------

void PXReportAnalyzerEntry::addEntry(const Ptr& child) {
    if (!entries_) {
        entries_.emplace();
        entries_->reserve(8);  // a layer's rows, mostly, without regrowing
    }
    child->parent_ = weak_from_this();
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
    child->parent_ = weak_from_this();
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

// A large trace has hundreds of dump lines per frame, so a line's eight
// bytes are turned into digits and characters a word at a time.
constexpr bool kWordsInMemoryOrder = std::endian::native == std::endian::little;
constexpr std::uint64_t kEachByte = 0x0101010101010101ull;

// The eight hex digits of the four bytes of `x` (the first in its low byte),
// in memory order.
std::uint64_t hexDigitsOfFour(std::uint32_t x) {
    std::uint64_t y = x;
    y = (y | (y << 16)) & 0x0000ffff0000ffffull;
    y = (y | (y << 8)) & 0x00ff00ff00ff00ffull;  // byte i now in byte 2i
    const std::uint64_t nibbles = ((y >> 4) & 0x000f000f000f000full) | ((y & 0x000f000f000f000full) << 8);
    const std::uint64_t letters = ((nibbles + 6 * kEachByte) >> 4) & kEachByte;  // nibbles above 9
    return nibbles + '0' * kEachByte + letters * ('a' - '0' - 10);
}

// The eight bytes of `x` with every one outside " " to "~" made a ".".
std::uint64_t printableCharacters(std::uint64_t x) {
    constexpr std::uint64_t kHigh = 0x80 * kEachByte;
    const std::uint64_t low = x & ~kHigh;
    const std::uint64_t atLeastSpace = (low + 0x60 * kEachByte) & kHigh;
    const std::uint64_t isDelete = (low + kEachByte) & kHigh;
    const std::uint64_t printable = atLeastSpace & ~isDelete & ~x;
    const std::uint64_t replaced = ((~printable & kHigh) >> 7) * 0xff;
    return (x & ~replaced) | ('.' * kEachByte & replaced);
}

bool isPrintable(std::uint8_t byte) { return byte >= 32 && byte <= 126; }

// The text of one line of a hex dump, in its three parts: the offset, two
// groups of four bytes padded to their full width, and the bytes as
// characters (a "." for each unprintable one).
struct HexDumpLineText {
    static constexpr std::size_t kGroupsLength = 2 + 16 + 4;
    static constexpr std::size_t kMaxLength = 16 + kGroupsLength + 8;
    char offset[16];
    std::size_t offsetLength = 0;
    char groups[kGroupsLength];
    char characters[8];

    HexDumpLineText(const std::uint8_t* bytes, std::size_t count, std::size_t offset) {
        offsetLength = writeOffset(this->offset, offset);
        writeGroups(groups, bytes, count);
        writeCharacters(characters, bytes, count);
    }
    std::string_view offsetText() const { return {offset, offsetLength}; }
    std::string_view groupsText() const { return {groups, kGroupsLength}; }

    // At least four digits, as "%04zx".
    static std::size_t writeOffset(char* out, std::size_t offset) {
        if (kWordsInMemoryOrder && offset <= 0xffff) {
            const std::uint64_t digits =
                hexDigitsOfFour(static_cast<std::uint32_t>((offset >> 8) | (offset & 0xff) << 8));
            std::memcpy(out, &digits, 4);
            return 4;
        }
        std::size_t digits = 4;
        while (digits < 16 && (offset >> (4 * digits)) != 0) ++digits;
        for (std::size_t i = 0; i < digits; ++i) out[i] = "0123456789abcdef"[(offset >> (4 * (digits - 1 - i))) & 0x0f];
        return digits;
    }
    static void writeGroups(char* out, const std::uint8_t* bytes, std::size_t count) {
        std::memset(out, ' ', kGroupsLength);
        if (kWordsInMemoryOrder && count == 8) {
            std::uint32_t halves[2];
            std::memcpy(halves, bytes, 8);
            const std::uint64_t first = hexDigitsOfFour(halves[0]), second = hexDigitsOfFour(halves[1]);
            std::memcpy(out + 1, &first, 8);
            std::memcpy(out + 10, &second, 8);
            return;
        }
        for (std::size_t i = 0; i < count; ++i) {
            char* digits = out + 1 + i * 2 + (i >= 4 ? 1 : 0);
            digits[0] = "0123456789abcdef"[bytes[i] >> 4];
            digits[1] = "0123456789abcdef"[bytes[i] & 0x0f];
        }
    }
    static void writeCharacters(char* out, const std::uint8_t* bytes, std::size_t count) {
        if (kWordsInMemoryOrder && count == 8) {
            std::uint64_t word;
            std::memcpy(&word, bytes, 8);
            word = printableCharacters(word);
            std::memcpy(out, &word, 8);
            return;
        }
        for (std::size_t i = 0; i < count; ++i) out[i] = isPrintable(bytes[i]) ? static_cast<char>(bytes[i]) : '.';
    }
    // The whole plain line, with its indent and line feed; returns its end.
    static char* write(char* out, std::string_view indent, const std::uint8_t* bytes, std::size_t count,
                       std::size_t offset) {
        // An empty indent may have no data at all, which memcpy must not see.
        if (!indent.empty()) std::memcpy(out, indent.data(), indent.size());
        out += indent.size();
        out += writeOffset(out, offset);
        writeGroups(out, bytes, count);
        out += kGroupsLength;
        writeCharacters(out, bytes, count);
        out += count;
        *out++ = '\n';
        return out;
    }
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
        const bool printable = isPrintable(bytes[i]);
        const std::size_t first = i;
        while (i < count && isPrintable(bytes[i]) == printable) ++i;
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

bool PXReportAnalyzerEntry::isHexDump() const noexcept { return childLoaderBlock_.target<HexDumpLoader>() != nullptr; }

std::size_t PXReportAnalyzerEntry::hexDumpTextBound(std::string_view indent) const {
    if (hasLoadedChildren_) return 0;
    const HexDumpLoader* loader = childLoaderBlock_.target<HexDumpLoader>();
    if (!loader) return 0;
    return (loader->data.size() + 7) / 8 * (indent.size() + HexDumpLineText::kMaxLength + 1);
}

char* PXReportAnalyzerEntry::writeHexDumpText(char* out, std::string_view indent) const {
    if (hexDumpTextBound(indent) == 0) return out;
    const ByteBuffer& data = childLoaderBlock_.target<HexDumpLoader>()->data;
    for (std::size_t offset = 0; offset < data.size(); offset += 8)
        out = HexDumpLineText::write(out, indent, data.data() + offset, std::min<std::size_t>(8, data.size() - offset),
                                     offset);
    return out;
}

void PXReportAnalyzerEntry::addEntriesToTopFromOther(PXReportAnalyzerEntry& other) {
    if (!other.entries_) return;
    for (const Ptr& child : *other.entries_) child->parent_ = weak_from_this();
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
    std::optional<std::string>& cached = presentation().cachedVisualTypeIdentifier;
    if (cached) return *cached;
    // Without their coloured runs, titles keep their labels and lose their
    // values, so rows of one kind share an identifier across packets.
    std::string identifier = title_ ? title_->stringWithoutColorizedText() : std::string();
    if (auto parent = this->parent()) identifier = parent->visualTypeIdentifier() + identifier;
    cached = std::move(identifier);
    return *cached;
}

int PXReportAnalyzerEntry::reportAnalyzerEntryTitleMode() const noexcept {
    if (displayUsingFixedPitchFont_) return 1;
    if (shown().cellClass) return 2;
    return 0;
}

// --- Rows and cells -----------------------------------------------------------

void PXReportAnalyzerEntry::updateCache() {
    if (!title_) {
        Presentation& shown = presentation();
        if (shown.viewController || shown.viewControllerBlock) {
            if (!shown.viewController) shown.viewController = shown.viewControllerBlock(*this);
            if (shown.viewController) shown.rowHeight = shown.viewController->viewHeight();
        } else {
            shown.rowHeight = shown.preferredCellHeight;
        }
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
    Presentation& shown = presentation();
    if (shown.initializedCell) return shown.initializedCell;
    if (shown.viewController || shown.viewControllerBlock) {
        if (!shown.viewController) updateCache();
        shown.initializedCell = std::make_shared<PXCellWithView>(shown.viewController);
        return shown.initializedCell;
    }
    if (!shown.cellClass) shown.cellClass = PXCellClass::plainCell();
    std::shared_ptr<PXCell> cell = shown.cellClass->makeCell();
    if (cell && shown.cellInitializer) shown.cellInitializer(*cell);
    shown.initializedCell = std::move(cell);
    return shown.initializedCell;
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
