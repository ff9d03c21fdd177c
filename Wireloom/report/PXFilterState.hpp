#pragma once
// PXFilterState: the words of a report filter, as the filter splits them
// from what the user typed: those that must all occur in a source's text
// and those none of which may. A plain value; the filter keeps the current
// one and runs on a copy.

#include <string>
#include <vector>

namespace wireloom {

struct PXFilterState {
    std::vector<std::string> filterStringComponents;          // inclusive
    std::vector<std::string> excludedFilterStringComponents;  // exclusive

    bool isEmpty() const noexcept { return filterStringComponents.empty() && excludedFilterStringComponents.empty(); }
    friend bool operator==(const PXFilterState&, const PXFilterState&) = default;
};

}  // namespace wireloom
