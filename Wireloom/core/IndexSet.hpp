#pragma once
// IndexSet: an ordered set of unsigned integers, kept as sorted runs of
// consecutive indexes, so that "every position from 40,000 on" costs one
// run. The report filter answers with these (which sources a word finds,
// which positions were appended to the displayed list):
//
//   IndexSet shown = IndexSet::withRange(10, 5);   // 10 to 14
//   shown.addIndex(20);
//   shown.removeIndexes(excluded);
//   shown.forEachIndex([&](std::uint64_t i) { display(sources[i]); });
//
// Indexes are added in any order; adding them in ascending order, as the
// filter mostly does, only ever touches the last run.

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace wireloom {

class IndexSet {
public:
    // Inclusive at both ends, so that the largest index has a run too.
    struct Range {
        std::uint64_t first;
        std::uint64_t last;
        friend bool operator==(const Range&, const Range&) = default;
    };

    IndexSet() noexcept = default;
    IndexSet(std::initializer_list<std::uint64_t> indexes);
    // first, first + 1, ... first + count - 1; empty for a count of 0.
    static IndexSet withRange(std::uint64_t first, std::uint64_t count);

    void addIndex(std::uint64_t index);
    void addIndexesInRange(std::uint64_t first, std::uint64_t count);
    void addIndexes(const IndexSet& other);
    void removeIndex(std::uint64_t index);
    void removeIndexes(const IndexSet& other);
    void removeAllIndexes() noexcept { ranges_.clear(); }
    // Moves every index from `index` on by `delta`. Moving down by n first
    // removes the n indexes below `index`, which the moved ones replace, so
    // taking position p out of a list of positions is
    // shiftIndexesStartingAtIndex(p + 1, -1).
    void shiftIndexesStartingAtIndex(std::uint64_t index, std::int64_t delta);

    bool containsIndex(std::uint64_t index) const noexcept;
    std::uint64_t count() const noexcept;
    bool empty() const noexcept { return ranges_.empty(); }
    // The smallest and largest index; the set must not be empty.
    std::uint64_t firstIndex() const noexcept { return ranges_.front().first; }
    std::uint64_t lastIndex() const noexcept { return ranges_.back().last; }
    const std::vector<Range>& ranges() const noexcept { return ranges_; }
    std::vector<std::uint64_t> indexes() const;

    template <class Visit>
    void forEachIndex(Visit visit) const {
        for (const Range& range : ranges_)
            for (std::uint64_t i = range.first;; ++i) {
                visit(i);
                if (i == range.last) break;
            }
    }

    // The indexes in both sets.
    IndexSet intersection(const IndexSet& other) const;
    // "(0-3 5 7)": runs of two or more as first-last.
    std::string description() const;

    friend bool operator==(const IndexSet&, const IndexSet&) = default;

private:
    void addRun(std::uint64_t first, std::uint64_t last);

    // Sorted, disjoint and never adjacent: runs that touch are merged.
    std::vector<Range> ranges_;
};

}  // namespace wireloom
