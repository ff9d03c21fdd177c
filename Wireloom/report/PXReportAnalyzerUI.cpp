#include <Wireloom/report/PXReportAnalyzerUI.hpp>

namespace wireloom {

namespace {
class PlainCell final : public PXCell {};
class PlainCellClass final : public PXCellClass {
public:
    std::shared_ptr<PXCell> makeCell() const override { return std::make_shared<PlainCell>(); }
};
}  // namespace

const std::shared_ptr<const PXCellClass>& PXCellClass::plainCell() {
    static const std::shared_ptr<const PXCellClass> plain = std::make_shared<PlainCellClass>();
    return plain;
}

}  // namespace wireloom
