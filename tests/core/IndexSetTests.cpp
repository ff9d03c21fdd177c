// Index sets against a plain std::set driven by the same random edits, and
// the few operations whose meaning is a choice (shifting, the text form).
#include <Wireloom/core/IndexSet.hpp>
#include <Wireloom/core/Value.hpp>

#include <gtest/gtest.h>

#include <random>
#include <set>

using namespace wireloom;

namespace {

std::vector<std::uint64_t> sorted(const std::set<std::uint64_t>& set) { return {set.begin(), set.end()}; }

// Runs must stay sorted, disjoint and apart, or equal sets would compare unequal.
void expectNormalised(const IndexSet& set) {
    const auto& ranges = set.ranges();
    for (std::size_t i = 0; i < ranges.size(); ++i) {
        EXPECT_LE(ranges[i].first, ranges[i].last);
        if (i > 0) {
            EXPECT_GT(ranges[i].first, ranges[i - 1].last + 1) << set.description();
        }
    }
}

}  // namespace

TEST(IndexSet, RandomEditsAgreeWithAPlainSet) {
    std::mt19937 random(11);
    for (int round = 0; round < 200; ++round) {
        IndexSet set, other;
        std::set<std::uint64_t> reference, otherReference;
        for (int step = 0; step < 60; ++step) {
            const std::uint64_t first = random() % 80, count = random() % 6;
            switch (random() % 5) {
            case 0:
            case 1:
                set.addIndexesInRange(first, count);
                for (std::uint64_t i = first; i < first + count; ++i) reference.insert(i);
                break;
            case 2:
                set.removeIndex(first);
                reference.erase(first);
                break;
            default:
                other.addIndexesInRange(first, count);
                for (std::uint64_t i = first; i < first + count; ++i) otherReference.insert(i);
            }
        }
        expectNormalised(set);
        ASSERT_EQ(set.indexes(), sorted(reference));
        EXPECT_EQ(set.count(), reference.size());
        for (std::uint64_t i = 0; i < 90; ++i) EXPECT_EQ(set.containsIndex(i), reference.count(i) == 1);

        std::set<std::uint64_t> both, rest = reference;
        for (std::uint64_t i : reference)
            if (otherReference.count(i)) both.insert(i);
        for (std::uint64_t i : otherReference) rest.erase(i);
        const IndexSet intersection = set.intersection(other);
        expectNormalised(intersection);
        EXPECT_EQ(intersection.indexes(), sorted(both));
        IndexSet difference = set;
        difference.removeIndexes(other);
        expectNormalised(difference);
        EXPECT_EQ(difference.indexes(), sorted(rest));
        IndexSet merged = set;
        merged.addIndexes(other);
        expectNormalised(merged);
        EXPECT_EQ(merged.count(), reference.size() + otherReference.size() - both.size());
    }
}

TEST(IndexSet, ShiftingDownReplacesTheIndexesBelow) {
    IndexSet positions{0, 2, 3, 4, 7};
    positions.shiftIndexesStartingAtIndex(3, -1);  // position 2 taken out
    EXPECT_EQ(positions.indexes(), (std::vector<std::uint64_t>{0, 2, 3, 6}));
    expectNormalised(positions);
    positions.shiftIndexesStartingAtIndex(2, 3);
    EXPECT_EQ(positions.indexes(), (std::vector<std::uint64_t>{0, 5, 6, 9}));
    positions.shiftIndexesStartingAtIndex(6, -2);
    EXPECT_EQ(positions.indexes(), (std::vector<std::uint64_t>{0, 4, 7}));
    positions.shiftIndexesStartingAtIndex(1, -5);  // none may fall below 0
    EXPECT_EQ(positions.indexes(), (std::vector<std::uint64_t>{2}));
}

TEST(IndexSet, ExtremesAndTextForm) {
    const std::uint64_t max = ~std::uint64_t{0};
    IndexSet set = IndexSet::withRange(max - 1, 5);  // clipped at the largest index
    EXPECT_EQ(set.count(), 2u);
    set.addIndexesInRange(0, 4);
    set.addIndex(6);
    EXPECT_EQ(set.description(), "(0-3 6 18446744073709551614-18446744073709551615)");
    EXPECT_EQ(IndexSet::withRange(4, 0), IndexSet());
    EXPECT_EQ(IndexSet().description(), "()");

    const Value value(IndexSet::withRange(3, 2));
    ASSERT_TRUE(value.indexSet());
    EXPECT_EQ(*value.indexSet(), IndexSet({3, 4}));
    EXPECT_EQ(value.description(), "(3-4)");
    EXPECT_FALSE(Value(3).indexSet());
}
