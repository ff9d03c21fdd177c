#pragma once
// The few things a report entry asks of the user interface that shows it,
// as small interfaces: the view controller of an embedded view, the cells
// that draw custom rows, and the outline view whose rows are expanded. The
// command line and the HTML report implement what they need; the model only
// calls them.

#include <memory>

namespace wireloom {

class PXReportAnalyzerEntry;

// The controller of a view embedded in a row.
class PXViewController {
public:
    virtual ~PXViewController() = default;
    // The height of the controller's view frame; the row takes it.
    virtual double viewHeight() const = 0;
    // Takes the view off the screen, as when its row's source is removed
    // from the report.
    virtual void removeViewFromScreen() {}
};

// A cell that draws one row.
class PXCell {
public:
    virtual ~PXCell() = default;
};

// A kind of cell: what a row's cellClass names. plainCell() is the
// interface's ordinary text cell.
class PXCellClass {
public:
    virtual ~PXCellClass() = default;
    virtual std::shared_ptr<PXCell> makeCell() const = 0;
    static const std::shared_ptr<const PXCellClass>& plainCell();
};

// A cell that hosts the view of an embedded view controller.
class PXCellWithView : public PXCell {
public:
    explicit PXCellWithView(std::shared_ptr<PXViewController> controller) : controller_(std::move(controller)) {}
    const std::shared_ptr<PXViewController>& viewController() const noexcept { return controller_; }

private:
    std::shared_ptr<PXViewController> controller_;
};

// The outline view that shows a tree of entries.
class PXOutlineView {
public:
    virtual ~PXOutlineView() = default;
    virtual void expandItem(const std::shared_ptr<PXReportAnalyzerEntry>& entry) = 0;
    // Collapses the row alone, not its children.
    virtual void collapseItem(const std::shared_ptr<PXReportAnalyzerEntry>& entry) = 0;
};

}  // namespace wireloom
