#pragma once
// PXReportAnalyzerEntry: one node of a report tree, a line of styled text (or
// a row drawn by a custom cell or an embedded view) with child entries that
// may be built lazily, on first demand, by a loader:
//
//   auto entry = PXReportAnalyzerEntry::entry();
//   entry->setProtocolLayerName("Raw Capture");
//   entry->setValue(packet->timestamp(), "Timestamp", 6);
//   entry->setChildLoaderBlock([](PXReportAnalyzerEntry& e) { e.addLineWithKey("Late", "row"); });
//   std::string text = entry->pasteboardStringWithIdentation("");
//
// Entries are compared and used as keys by identity. A tree is owned from its
// top entry down (children strongly), while parent and source are weak; a
// child's source is its top entry's.
//
// The second group of operations are the builders with which packets, flows
// and messages fill their entries alike (titles, key-value lines formatted by
// kind, counted titles, error lines, hex dumps).

#include <Wireloom/core/ByteBuffer.hpp>
#include <Wireloom/core/Object.hpp>
#include <Wireloom/core/Value.hpp>
#include <Wireloom/core/detail/BlockCache.hpp>
#include <Wireloom/report/PXReportAnalyzerEntrySource.hpp>
#include <Wireloom/report/PXReportAnalyzerUI.hpp>
#include <Wireloom/text/WLAttributedString.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace wireloom {

// The drag type of entries dragged between rows.
inline constexpr const char* kPXReportEntryDragType = "net.wireloom.ReportAnalyzerEntry";

class PXReportAnalyzerEntry : public Object {
public:
    using Ptr = std::shared_ptr<PXReportAnalyzerEntry>;
    using ChildLoaderBlock = std::function<void(PXReportAnalyzerEntry&)>;
    using ViewControllerBlock = std::function<std::shared_ptr<PXViewController>(PXReportAnalyzerEntry&)>;
    using CellInitializer = std::function<void(PXCell&)>;

    // Entries always live in shared_ptrs (children are handed out as such).
    static Ptr entry() {
        return std::allocate_shared<PXReportAnalyzerEntry>(detail::CachedAllocator<PXReportAnalyzerEntry>(), Key{});
    }

    // --- Properties -------------------------------------------------------

    const std::shared_ptr<WLAttributedString>& title() const noexcept { return title_; }
    void setTitle(std::shared_ptr<WLAttributedString> title) noexcept { title_ = std::move(title); }
    bool displayUsingFixedPitchFont() const noexcept { return displayUsingFixedPitchFont_; }
    void setDisplayUsingFixedPitchFont(bool fixed) noexcept { displayUsingFixedPitchFont_ = fixed; }
    bool useGroupStyle() const noexcept { return useGroupStyle_; }
    void setUseGroupStyle(bool group) noexcept { useGroupStyle_ = group; }
    // The weakly held source if it is alive, else the parent's, recursively.
    std::shared_ptr<PXReportAnalyzerEntrySource> source() const;
    void setSource(const std::shared_ptr<PXReportAnalyzerEntrySource>& source) noexcept { source_ = source; }
    const ChildLoaderBlock& childLoaderBlock() const noexcept { return childLoaderBlock_; }
    void setChildLoaderBlock(ChildLoaderBlock block) { childLoaderBlock_ = std::move(block); }
    const std::set<std::uint64_t>& dependencies() const noexcept { return shown().dependencies; }
    void setDependencies(std::set<std::uint64_t> dependencies) {
        presentation().dependencies = std::move(dependencies);
    }
    std::uint64_t dependencyIdentifier() const noexcept { return shown().dependencyIdentifier; }
    void setDependencyIdentifier(std::uint64_t identifier) { presentation().dependencyIdentifier = identifier; }
    const ViewControllerBlock& viewControllerBlock() const noexcept { return shown().viewControllerBlock; }
    void setViewControllerBlock(ViewControllerBlock block) { presentation().viewControllerBlock = std::move(block); }
    const std::shared_ptr<const PXCellClass>& cellClass() const noexcept { return shown().cellClass; }
    void setCellClass(std::shared_ptr<const PXCellClass> cellClass) { presentation().cellClass = std::move(cellClass); }
    const CellInitializer& cellInitializer() const noexcept { return shown().cellInitializer; }
    void setCellInitializer(CellInitializer initializer) { presentation().cellInitializer = std::move(initializer); }
    const Value& cellObjectValue() const noexcept { return shown().cellObjectValue; }
    void setCellObjectValue(Value value) { presentation().cellObjectValue = std::move(value); }
    double preferredCellHeight() const noexcept { return shown().preferredCellHeight; }
    void setPreferredCellHeight(double height) { presentation().preferredCellHeight = height; }
    Ptr parent() const noexcept { return std::static_pointer_cast<PXReportAnalyzerEntry>(parent_.lock()); }
    void setParent(const Ptr& parent) noexcept { parent_ = parent; }
    bool isRootLevel() const noexcept { return isRootLevel_; }
    void setIsRootLevel(bool root) noexcept { isRootLevel_ = root; }
    bool isExpanded() const noexcept { return isExpanded_; }
    void setIsExpanded(bool expanded) noexcept { isExpanded_ = expanded; }
    bool isExpandedInPane() const noexcept { return isExpandedInPane_; }
    void setIsExpandedInPane(bool expanded) noexcept { isExpandedInPane_ = expanded; }
    bool isMouseOver() const noexcept { return isMouseOver_; }
    void setIsMouseOver(bool over) noexcept { isMouseOver_ = over; }
    double rowHeight() const noexcept { return shown().rowHeight; }
    void setRowHeight(double height) { presentation().rowHeight = height; }
    bool aboveExisting() const noexcept { return aboveExisting_; }
    void setAboveExisting(bool above) noexcept { aboveExisting_ = above; }
    bool movable() const noexcept { return movable_; }
    void setMovable(bool movable) noexcept { movable_ = movable; }
    const std::shared_ptr<PXViewController>& viewController() const noexcept { return shown().viewController; }
    void setViewController(std::shared_ptr<PXViewController> controller) {
        presentation().viewController = std::move(controller);
    }
    const std::shared_ptr<PXCell>& initializedCell() const noexcept { return shown().initializedCell; }
    void setInitializedCell(std::shared_ptr<PXCell> cell) { presentation().initializedCell = std::move(cell); }
    // The children as stored, without loading them; null until the first child is added.
    const std::vector<Ptr>* entries() const noexcept { return entries_ ? &*entries_ : nullptr; }
    const std::optional<std::string>& cachedVisualTypeIdentifier() const noexcept {
        return shown().cachedVisualTypeIdentifier;
    }
    bool hasLoadedChildren() const noexcept { return hasLoadedChildren_; }
    void setHasLoadedChildren(bool loaded) noexcept { hasLoadedChildren_ = loaded; }

    // --- Tree building ------------------------------------------------------

    void addEntry(const Ptr& child);
    Ptr addNestedEntry();
    Ptr addNestedEntryToTop();
    Ptr addEntryLine(std::shared_ptr<WLAttributedString> line);
    Ptr addFixedPitchEntryLine(std::shared_ptr<WLAttributedString> line);
    // A title-less entry holding a hex dump of the bytes, one fixed-pitch line
    // per 8 bytes: offset (grey), two groups of 4 bytes, the printable
    // characters (blue; others as a grey "."). The caller titles it.
    Ptr addEntryWithData(const ByteBuffer& data);
    // Moves the other entry's children in front of this one's.
    void addEntriesToTopFromOther(PXReportAnalyzerEntry& other);

    // --- Queries --------------------------------------------------------------

    // Both load the children first; children() is null when there are none.
    std::size_t numChildren();
    const std::vector<Ptr>* children();
    // Depth first, loading children on the way.
    bool hasChild(const PXReportAnalyzerEntry& entry);
    std::string_view plainTitle() const;
    // The entry's plain title after the indent, then each child's text
    // indented by four more spaces. (The spelling is the established one.)
    std::string pasteboardStringWithIdentation(const std::string& indent);
    // For a hex dump whose lines are not built yet, the lines' plain text
    // straight from its bytes, each after the indent and ending in a newline:
    // at most hexDumpTextBound() bytes, written by writeHexDumpText(), which
    // returns their end. The bound is 0 for any other entry.
    std::size_t hexDumpTextBound(std::string_view indent) const;
    // Whether addEntryWithData() made this entry: its children are the dump's
    // lines, whether built yet or not.
    bool isHexDump() const noexcept;
    char* writeHexDumpText(char* out, std::string_view indent) const;
    // The title without its coloured values, after the parent's identifier:
    // rows of one kind share it across packets. Memoised for good.
    const std::string& visualTypeIdentifier();
    // 1: fixed pitch; 2: drawn by a custom cell; 0: plain text.
    int reportAnalyzerEntryTitleMode() const noexcept;
    bool isGroupItem() const noexcept { return title_ ? false : useGroupStyle_; }

    std::shared_ptr<PXCell> dataCell();
    void updateCache();
    void loadChildrenIfNeeded();
    void unloadRecoverableResources();

    // Expansion memory; key names the bool property that records expansion:
    // "isExpanded" (the trace) or "isExpandedInPane" (the details pane). The
    // set holds the visual type identifiers of rows the user collapsed.
    void expandEntryWithCache(const std::set<std::string>& collapsed, PXOutlineView& outlineView, std::string_view key);
    void storeExpansionsUsingCache(std::set<std::string>& collapsed, std::string_view key);

    // --- Builders -----------------------------------------------------------

    void setProtocolLayerName(std::string_view name);
    void setProtocolLayerAttributedName(std::shared_ptr<WLAttributedString> name);
    void setSectionTitle(std::string_view title);
    // key (key colour), ": ", the value's description (value colour), or
    // "(null)" (null-value colour) for a null value.
    Ptr addLineWithKey(std::string_view key, const Value& value);
    // One line formatted by kind: 0 "%llu", 1-4 "0x%01x" to "0x%08x", 5 "0x%llx",
    // 6 "%f", 7 the description, 8 a hex dump titled with the byte count,
    // 9 "YES"/"NO". Null for an unknown kind.
    Ptr setValue(const Value& value, std::string_view key, unsigned type);
    Ptr addEntryWithData(const ByteBuffer& data, std::string_view label);
    // label " (" quantity " " unit-made-plural ")"; without a label the
    // quantity and unit alone. Units must be given singular.
    void setTitleWithLabel(std::optional<std::string_view> label, std::uint64_t quantity, std::string_view units);
    // The same with the label in a colour; the plural only appends "s".
    void setTitleWithLabel(std::string_view label, const ColorPtr& color, std::uint64_t quantity,
                           std::string_view units);
    void setTitleWithErrorLabel(std::string_view label, std::string_view error);
    Ptr addLineWithErrorLabel(std::string_view label, std::string_view error);
    // value, key, value, key... ; a trailing unpaired element is ignored.
    void addLinesWithValueKeyFields(const std::vector<Value>& fields);
    Ptr addLinesWithValueKeyFields(const std::vector<Value>& fields, std::string_view sectionTitle);

    // The plural the counted titles use: "entry" → "entries", "day" → "days".
    static std::string pluralOfUnit(std::string_view unit);

    // Only entry() makes these (make_shared needs the constructor).
    class Key {
        friend class PXReportAnalyzerEntry;
        Key() = default;
    };
    explicit PXReportAnalyzerEntry(Key) {}

private:
    // What only a report view uses: kept apart, so that the entries of a
    // large trace that nobody displays stay small.
    struct Presentation {
        std::set<std::uint64_t> dependencies;
        std::uint64_t dependencyIdentifier = 0;
        ViewControllerBlock viewControllerBlock;
        std::shared_ptr<const PXCellClass> cellClass;
        CellInitializer cellInitializer;
        Value cellObjectValue;
        double preferredCellHeight = 0;
        double rowHeight = 0;
        std::shared_ptr<PXViewController> viewController;
        std::shared_ptr<PXCell> initializedCell;
        std::optional<std::string> cachedVisualTypeIdentifier;
    };
    static const Presentation kNoPresentation;
    const Presentation& shown() const noexcept { return presentation_ ? *presentation_ : kNoPresentation; }
    Presentation& presentation() {
        if (!presentation_) presentation_ = std::make_unique<Presentation>();
        return *presentation_;
    }

    Ptr self() { return std::static_pointer_cast<PXReportAnalyzerEntry>(shared_from_this()); }
    static bool PXReportAnalyzerEntry::*expansionProperty(std::string_view key);

    std::shared_ptr<WLAttributedString> title_;
    std::weak_ptr<PXReportAnalyzerEntrySource> source_;
    // Held as the base type, which lets a child take its parent's own weak
    // reference without locking it.
    std::weak_ptr<Object> parent_;
    ChildLoaderBlock childLoaderBlock_;
    std::optional<std::vector<Ptr>> entries_;
    std::unique_ptr<Presentation> presentation_;
    bool displayUsingFixedPitchFont_ = false;
    bool useGroupStyle_ = false;
    bool isRootLevel_ = false;
    bool isExpanded_ = false;
    bool isExpandedInPane_ = false;
    bool isMouseOver_ = false;
    bool aboveExisting_ = false;
    bool movable_ = false;
    bool hasLoadedChildren_ = false;
};

}  // namespace wireloom
