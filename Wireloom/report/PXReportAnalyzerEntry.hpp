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
    static Ptr entry() { return std::make_shared<PXReportAnalyzerEntry>(Key{}); }

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
    const std::set<std::uint64_t>& dependencies() const noexcept { return dependencies_; }
    void setDependencies(std::set<std::uint64_t> dependencies) { dependencies_ = std::move(dependencies); }
    std::uint64_t dependencyIdentifier() const noexcept { return dependencyIdentifier_; }
    void setDependencyIdentifier(std::uint64_t identifier) noexcept { dependencyIdentifier_ = identifier; }
    const ViewControllerBlock& viewControllerBlock() const noexcept { return viewControllerBlock_; }
    void setViewControllerBlock(ViewControllerBlock block) { viewControllerBlock_ = std::move(block); }
    const std::shared_ptr<const PXCellClass>& cellClass() const noexcept { return cellClass_; }
    void setCellClass(std::shared_ptr<const PXCellClass> cellClass) noexcept { cellClass_ = std::move(cellClass); }
    const CellInitializer& cellInitializer() const noexcept { return cellInitializer_; }
    void setCellInitializer(CellInitializer initializer) { cellInitializer_ = std::move(initializer); }
    const Value& cellObjectValue() const noexcept { return cellObjectValue_; }
    void setCellObjectValue(Value value) { cellObjectValue_ = std::move(value); }
    double preferredCellHeight() const noexcept { return preferredCellHeight_; }
    void setPreferredCellHeight(double height) noexcept { preferredCellHeight_ = height; }
    Ptr parent() const noexcept { return parent_.lock(); }
    void setParent(const Ptr& parent) noexcept { parent_ = parent; }
    bool isRootLevel() const noexcept { return isRootLevel_; }
    void setIsRootLevel(bool root) noexcept { isRootLevel_ = root; }
    bool isExpanded() const noexcept { return isExpanded_; }
    void setIsExpanded(bool expanded) noexcept { isExpanded_ = expanded; }
    bool isExpandedInPane() const noexcept { return isExpandedInPane_; }
    void setIsExpandedInPane(bool expanded) noexcept { isExpandedInPane_ = expanded; }
    bool isMouseOver() const noexcept { return isMouseOver_; }
    void setIsMouseOver(bool over) noexcept { isMouseOver_ = over; }
    double rowHeight() const noexcept { return rowHeight_; }
    void setRowHeight(double height) noexcept { rowHeight_ = height; }
    bool aboveExisting() const noexcept { return aboveExisting_; }
    void setAboveExisting(bool above) noexcept { aboveExisting_ = above; }
    bool movable() const noexcept { return movable_; }
    void setMovable(bool movable) noexcept { movable_ = movable; }
    const std::shared_ptr<PXViewController>& viewController() const noexcept { return viewController_; }
    void setViewController(std::shared_ptr<PXViewController> controller) { viewController_ = std::move(controller); }
    const std::shared_ptr<PXCell>& initializedCell() const noexcept { return initializedCell_; }
    void setInitializedCell(std::shared_ptr<PXCell> cell) { initializedCell_ = std::move(cell); }
    // The children as stored, without loading them; null until the first child is added.
    const std::vector<Ptr>* entries() const noexcept { return entries_ ? &*entries_ : nullptr; }
    const std::optional<std::string>& cachedVisualTypeIdentifier() const noexcept {
        return cachedVisualTypeIdentifier_;
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
    // For a hex dump whose lines are not built yet: appends the lines' plain
    // text, each after the indent and ending in a newline, without building
    // them. False, appending nothing, for any other entry.
    bool appendHexDumpText(std::string& out, std::string_view indent) const;
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
    Ptr self() { return std::static_pointer_cast<PXReportAnalyzerEntry>(shared_from_this()); }
    static bool PXReportAnalyzerEntry::*expansionProperty(std::string_view key);

    std::shared_ptr<WLAttributedString> title_;
    bool displayUsingFixedPitchFont_ = false;
    bool useGroupStyle_ = false;
    std::weak_ptr<PXReportAnalyzerEntrySource> source_;
    ChildLoaderBlock childLoaderBlock_;
    std::set<std::uint64_t> dependencies_;
    std::uint64_t dependencyIdentifier_ = 0;
    ViewControllerBlock viewControllerBlock_;
    std::shared_ptr<const PXCellClass> cellClass_;
    CellInitializer cellInitializer_;
    Value cellObjectValue_;
    double preferredCellHeight_ = 0;
    std::weak_ptr<PXReportAnalyzerEntry> parent_;
    bool isRootLevel_ = false;
    bool isExpanded_ = false;
    bool isExpandedInPane_ = false;
    bool isMouseOver_ = false;
    double rowHeight_ = 0;
    bool aboveExisting_ = false;
    bool movable_ = false;
    std::shared_ptr<PXViewController> viewController_;
    std::shared_ptr<PXCell> initializedCell_;
    std::optional<std::vector<Ptr>> entries_;
    std::optional<std::string> cachedVisualTypeIdentifier_;
    bool hasLoadedChildren_ = false;
};

}  // namespace wireloom
