#include <Wireloom/core/IndexSet.hpp>

#include <algorithm>

namespace wireloom {

namespace {

constexpr std::uint64_t kMax = ~std::uint64_t{0};

// Whether `range` ends before `index` with at least one index between them.
bool endsWellBefore(const IndexSet::Range& range, std::uint64_t index) {
    return range.last < index && index - range.last > 1;
}

}  // namespace

IndexSet::IndexSet(std::initializer_list<std::uint64_t> indexes) {
    for (std::uint64_t index : indexes) addIndex(index);
}

IndexSet IndexSet::withRange(std::uint64_t first, std::uint64_t count) {
    IndexSet set;
    set.addIndexesInRange(first, count);
    return set;
}

void IndexSet::addIndex(std::uint64_t index) { addIndexesInRange(index, 1); }

void IndexSet::addIndexesInRange(std::uint64_t first, std::uint64_t count) {
    if (count > 0) addRun(first, count - 1 > kMax - first ? kMax : first + count - 1);
}

void IndexSet::addRun(std::uint64_t first, std::uint64_t last) {
    // In ascending order the new run extends or follows the last one.
    if (ranges_.empty() || endsWellBefore(ranges_.back(), first)) {
        ranges_.push_back({first, last});
        return;
    }
    if (ranges_.back().first <= first) {
        ranges_.back().last = std::max(ranges_.back().last, last);
        return;
    }
    // The runs that overlap or touch [first, last] merge with it.
    auto begin =
        std::partition_point(ranges_.begin(), ranges_.end(), [&](const Range& r) { return endsWellBefore(r, first); });
    auto end = std::partition_point(begin, ranges_.end(),
                                    [&](const Range& r) { return r.first <= last || r.first - last == 1; });
    if (begin == end) {
        ranges_.insert(begin, {first, last});
        return;
    }
    begin->first = std::min(begin->first, first);
    begin->last = std::max(std::prev(end)->last, last);
    ranges_.erase(std::next(begin), end);
}

void IndexSet::addIndexes(const IndexSet& other) {
    for (const Range& range : other.ranges_) addRun(range.first, range.last);
}

void IndexSet::removeIndex(std::uint64_t index) { removeIndexes(IndexSet{index}); }

void IndexSet::removeIndexes(const IndexSet& other) {
    if (empty() || other.empty()) return;
    std::vector<Range> kept;
    kept.reserve(ranges_.size());
    auto cut = other.ranges_.begin();
    for (Range range : ranges_) {
        // Cuts entirely below this run cannot touch the later ones either.
        while (cut != other.ranges_.end() && cut->last < range.first) ++cut;
        for (auto c = cut; c != other.ranges_.end() && c->first <= range.last; ++c) {
            if (c->first > range.first) kept.push_back({range.first, c->first - 1});
            if (c->last >= range.last) {
                range.first = 1, range.last = 0;  // nothing left of it
                break;
            }
            range.first = c->last + 1;
        }
        if (range.first <= range.last) kept.push_back(range);
    }
    ranges_ = std::move(kept);
}

void IndexSet::shiftIndexesStartingAtIndex(std::uint64_t index, std::int64_t delta) {
    if (delta == 0 || empty()) return;
    std::vector<Range> moved;
    moved.reserve(ranges_.size() + 1);
    if (delta < 0) {
        const std::uint64_t down = static_cast<std::uint64_t>(-(delta + 1)) + 1;
        const std::uint64_t from = index > down ? index - down : 0;
        removeIndexes(withRange(from, index - from));
        for (const Range& range : ranges_) {
            // Indexes that would fall below 0 are dropped.
            if (range.first >= index && range.last < down) continue;
            const Range shifted =
                range.first >= index ? Range{std::max(range.first, down) - down, range.last - down} : range;
            if (!moved.empty() && shifted.first - moved.back().last == 1)
                moved.back().last = shifted.last;
            else
                moved.push_back(shifted);
        }
    } else {
        const auto up = static_cast<std::uint64_t>(delta);
        for (const Range& range : ranges_) {
            if (range.last < index) {
                moved.push_back(range);
                continue;
            }
            if (range.first < index) moved.push_back({range.first, index - 1});
            const std::uint64_t first = std::max(range.first, index);
            if (first > kMax - up) break;  // moved past the largest index
            moved.push_back({first + up, range.last > kMax - up ? kMax : range.last + up});
        }
    }
    ranges_ = std::move(moved);
}

bool IndexSet::containsIndex(std::uint64_t index) const noexcept {
    auto it = std::partition_point(ranges_.begin(), ranges_.end(), [&](const Range& r) { return r.last < index; });
    return it != ranges_.end() && it->first <= index;
}

std::uint64_t IndexSet::count() const noexcept {
    std::uint64_t total = 0;
    for (const Range& range : ranges_) total += range.last - range.first + 1;
    return total;
}

std::vector<std::uint64_t> IndexSet::indexes() const {
    std::vector<std::uint64_t> all;
    forEachIndex([&](std::uint64_t i) { all.push_back(i); });
    return all;
}

IndexSet IndexSet::intersection(const IndexSet& other) const {
    // Both walked in ascending order, a run at a time: where two runs
    // overlap the overlap is kept, and the run that ends first is left.
    IndexSet both;
    auto a = ranges_.begin();
    auto b = other.ranges_.begin();
    while (a != ranges_.end() && b != other.ranges_.end()) {
        const std::uint64_t first = std::max(a->first, b->first);
        const std::uint64_t last = std::min(a->last, b->last);
        if (first <= last) both.ranges_.push_back({first, last});
        (a->last < b->last ? a : b)++;
    }
    return both;
}

std::string IndexSet::description() const {
    std::string text = "(";
    for (const Range& range : ranges_) {
        if (text.size() > 1) text += ' ';
        text += std::to_string(range.first);
        if (range.last != range.first) text += '-' + std::to_string(range.last);
    }
    return text + ")";
}

}  // namespace wireloom
