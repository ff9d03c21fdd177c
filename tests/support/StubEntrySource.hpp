#pragma once
// An entry source with nothing behind it, for tests and benchmarks that need
// sources for a filter: it answers a fixed text (or whatever a subclass makes)
// and a fixed decision of its own, and has no entry or resources.
#include <Wireloom/core/Object.hpp>
#include <Wireloom/report/PXReportAnalyzerEntry.hpp>

#include <string>
#include <vector>

namespace wireloom::testing {

class StubEntrySource : public Object, public PXReportAnalyzerEntrySource {
public:
    explicit StubEntrySource(std::string text = {}, bool decision = false)
        : text_(std::move(text)), decision_(decision) {}

    std::shared_ptr<PXReportAnalyzerEntry> reportAnalyzerEntryUsingCache() override { return nullptr; }
    bool hasCachedReportAnalyzerEntry() const override { return false; }
    double reportAnalyzerTimestamp() const override { return 0; }
    std::string pasteboardString() override { return text_; }
    bool filterShouldIncludeEntryUsingInclusiveWords(const std::vector<std::string>&,
                                                     const std::vector<std::string>&) override {
        return decision_;
    }
    std::string representativeFilterText() override { return text_; }
    bool hasResourcesLoaded() const override { return true; }
    void swapResourcesOut() override {}
    void swapResourcesInWhenAvailable() override {}
    void ensureResourcesSwappedIn() override {}

    const std::string& text() const noexcept { return text_; }

private:
    std::string text_;
    bool decision_;
};

}  // namespace wireloom::testing
