// Report entries: lazy children, sources, copy text, visual types and
// expansion memory, and the row metrics hooks.
#include <Wireloom/report/PXReportAnalyzerEntry.hpp>
#include "support/StubEntrySource.hpp"

#include <gtest/gtest.h>

using namespace wireloom;

namespace {

using Entry = PXReportAnalyzerEntry;

std::shared_ptr<WLAttributedString> text(const std::string& s) {
    return WLAttributedString::stringWithFormat(WLTokenText, s, WLTokenEnd);
}

// "label value" with the value coloured, as the builders make rows.
std::shared_ptr<WLAttributedString> labelled(const std::string& label, const std::string& value) {
    return WLAttributedString::stringWithFormat(WLTokenText, label, WLTokenColor, Color::blue(), WLTokenText, value,
                                                WLTokenPop, WLTokenEnd);
}

struct CountingSource : wireloom::testing::StubEntrySource {
    int swappedIn = 0;
    void ensureResourcesSwappedIn() override { ++swappedIn; }
};

class RecordingOutline : public PXOutlineView {
public:
    std::vector<std::string> calls;
    void expandItem(const Entry::Ptr& e) override { calls.push_back("expand " + std::string(e->plainTitle())); }
    void collapseItem(const Entry::Ptr& e) override { calls.push_back("collapse " + std::string(e->plainTitle())); }
};

}  // namespace

TEST(ReportEntry, LazyChildrenLoadOnceAndUnloadOnlyWhenCollapsed) {
    auto top = Entry::entry();
    EXPECT_EQ(top->children(), nullptr);  // never had a child

    auto lazy = top->addNestedEntry();
    int loads = 0;
    lazy->setChildLoaderBlock([&](Entry& e) {
        ++loads;
        e.addEntryLine(text("row " + std::to_string(loads)));
        e.numChildren();  // reading its own children from the loader must not recurse
    });
    EXPECT_EQ(lazy->numChildren(), 1u);
    EXPECT_EQ(lazy->numChildren(), 1u);
    EXPECT_EQ(loads, 1);

    auto eager = top->addEntryLine(text("eager"));
    eager->addEntryLine(text("kept"));
    top->unloadRecoverableResources();
    EXPECT_EQ(lazy->entries(), nullptr);
    EXPECT_EQ(eager->entries()->size(), 1u);  // eagerly built children are never dropped
    EXPECT_EQ(lazy->children()->front()->plainTitle(), "row 2");

    lazy->setIsExpanded(true);
    top->unloadRecoverableResources();
    EXPECT_EQ(loads, 2);
    EXPECT_EQ(lazy->entries()->size(), 1u);  // expanded: nothing dropped
}

TEST(ReportEntry, SourceIsWeakAndInheritedAndSwappedInBeforeLoading) {
    auto top = Entry::entry();
    auto child = top->addNestedEntry();
    auto grandchild = child->addNestedEntry();
    {
        auto source = std::make_shared<CountingSource>();
        top->setSource(source);
        EXPECT_EQ(grandchild->source(), source);
        grandchild->setChildLoaderBlock([](Entry&) {});
        grandchild->numChildren();
        EXPECT_EQ(source->swappedIn, 1);
    }
    EXPECT_EQ(grandchild->source(), nullptr);
}

TEST(ReportEntry, TreeEditingSearchAndPasteboardText) {
    auto a = Entry::entry();
    a->setProtocolLayerName("IPv4");
    auto first = a->addEntryLine(text("first"));
    auto top = a->addNestedEntryToTop();
    top->setSectionTitle("top");
    auto b = Entry::entry();
    b->addEntryLine(text("moved"));
    a->addEntriesToTopFromOther(*b);
    EXPECT_EQ(b->entries(), nullptr);
    ASSERT_EQ(a->entries()->size(), 3u);
    EXPECT_EQ((*a->entries())[0]->parent(), a);

    auto deep = first->addEntryLine(text("deep"));
    EXPECT_TRUE(a->hasChild(*deep));
    EXPECT_FALSE(a->hasChild(*a));  // only descendants count
    EXPECT_FALSE(first->hasChild(*top));
    EXPECT_EQ(a->pasteboardStringWithIdentation(""), "IPv4\n    moved\n    top\n    first\n        deep\n");
}

TEST(ReportEntry, VisualTypesIgnoreColouredValuesAndDriveExpansionMemory) {
    auto packet1 = Entry::entry();
    packet1->setTitle(labelled("TCP ", "10.0.0.1:80"));
    auto row1 = packet1->addEntryLine(labelled("Seq: ", "1"));
    auto packet2 = Entry::entry();
    packet2->setTitle(labelled("TCP ", "10.0.0.2:443"));
    auto row2 = packet2->addEntryLine(labelled("Seq: ", "99"));
    EXPECT_EQ(row1->visualTypeIdentifier(), "TCP Seq: ");
    EXPECT_EQ(row1->visualTypeIdentifier(), row2->visualTypeIdentifier());

    // The user collapses the Seq row of one packet; the other packet's Seq
    // row comes back collapsed, everything else expanded.
    packet1->setIsExpanded(true);
    row1->setIsExpanded(false);
    std::set<std::string> collapsed;
    packet1->storeExpansionsUsingCache(collapsed, "isExpanded");
    EXPECT_EQ(collapsed, std::set<std::string>{"TCP Seq: "});

    RecordingOutline outline;
    packet2->expandEntryWithCache(collapsed, outline, "isExpandedInPane");
    EXPECT_EQ(outline.calls, (std::vector<std::string>{"expand TCP 10.0.0.2:443", "collapse Seq: 99"}));
    EXPECT_TRUE(packet2->isExpandedInPane());
    EXPECT_FALSE(row2->isExpandedInPane());

    // The memo is kept even when the title changes.
    row2->setTitle(text("Other"));
    EXPECT_EQ(row2->visualTypeIdentifier(), "TCP Seq: ");
}

TEST(ReportEntry, CellsViewsAndRowMetrics) {
    struct Controller : PXViewController {
        double viewHeight() const override { return 42; }
    };
    auto top = Entry::entry();
    EXPECT_EQ(top->reportAnalyzerEntryTitleMode(), 0);
    auto viewRow = top->addNestedEntry();
    int made = 0;
    viewRow->setViewControllerBlock([&](Entry&) {
        ++made;
        return std::make_shared<Controller>();
    });
    auto cell = std::dynamic_pointer_cast<PXCellWithView>(viewRow->dataCell());
    ASSERT_TRUE(cell);
    EXPECT_EQ(viewRow->rowHeight(), 42);
    EXPECT_EQ(viewRow->dataCell(), cell);
    EXPECT_EQ(made, 1);

    auto cellRow = top->addNestedEntry();
    cellRow->setPreferredCellHeight(17);
    bool initialised = false;
    cellRow->setCellInitializer([&](PXCell&) { initialised = true; });
    EXPECT_TRUE(cellRow->dataCell());
    EXPECT_TRUE(initialised);
    EXPECT_EQ(cellRow->cellClass(), PXCellClass::plainCell());
    EXPECT_EQ(cellRow->reportAnalyzerEntryTitleMode(), 2);
    cellRow->updateCache();
    EXPECT_EQ(cellRow->rowHeight(), 17);

    auto group = top->addNestedEntry();
    group->setUseGroupStyle(true);
    EXPECT_TRUE(group->isGroupItem());
    group->setSectionTitle("titled");  // a title wins over the group style, and has no cell
    EXPECT_FALSE(group->isGroupItem());
    EXPECT_EQ(group->dataCell(), nullptr);
}
