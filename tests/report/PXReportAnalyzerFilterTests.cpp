// The report filter: words, the incremental filter on append, the complete
// filter with its intersection fold, editing the lists, and concurrent runs
// (sources without text among them) against a serial one and a plain
// reference.
#include <Wireloom/core/NotificationCenter.hpp>
#include <Wireloom/report/PXReportAnalyzerEntry.hpp>
#include <Wireloom/report/PXReportAnalyzerFilter.hpp>
#include "support/StubEntrySource.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

using namespace wireloom;

namespace {

// A source with a fixed text; one without text answers `decision` itself.
// Its entry is made when asked, so that a test can give it a view.
struct TextSource : wireloom::testing::StubEntrySource {
    using StubEntrySource::StubEntrySource;

    std::shared_ptr<PXReportAnalyzerEntry> reportAnalyzerEntryUsingCache() override {
        if (!entry) entry = PXReportAnalyzerEntry::entry();
        return entry;
    }
    bool hasCachedReportAnalyzerEntry() const override { return entry != nullptr; }

    std::shared_ptr<PXReportAnalyzerEntry> entry;
};

using SourcePtr = PXReportAnalyzerFilter::SourcePtr;
using Texts = std::vector<std::string>;

// The displayed sources' texts as indexed, checking that each knows its place.
Texts shown(const PXReportAnalyzerFilter& filter) {
    Texts texts;
    for (const SourcePtr& source : filter.displayedEntrySources()) {
        EXPECT_EQ(source->displayedFilterIndex(), static_cast<std::int64_t>(texts.size()));
        texts.push_back(PXReportAnalyzerFilter::filterTextOf(static_cast<TextSource&>(*source).text()));
    }
    return texts;
}

class ReportFilter : public ::testing::Test {
protected:
    void SetUp() override {
        filter = PXReportAnalyzerFilter::init();
        ASSERT_TRUE(filter->indexer());
        NotificationCenter::defaultCenter().addObserver(
            this, kPXReportAnalyzerFilterDisplayedEntriesChangedNotificationName,
            [this](const Notification& n) { posted.push_back(n.userInfo); }, filter.get());
    }
    void TearDown() override { NotificationCenter::defaultCenter().removeObserver(this); }

    std::shared_ptr<TextSource> add(std::string text, bool decision = false) {
        auto source = std::make_shared<TextSource>(std::move(text), decision);
        filter->appendEntrySources({source});
        return source;
    }

    PXReportAnalyzerFilter::Ptr filter;
    std::vector<UserInfo> posted;
};

}  // namespace

TEST_F(ReportFilter, WordsAreSplitLowerCasedAndOnlyAChangeRuns) {
    EXPECT_EQ(PXReportAnalyzerFilter::wordsOfFilterString(" GET\t/Index.HTML\n\nhost\xC2\xA0x\xE3\x80\x80\xC3\x84Y "),
              (Texts{"get", "/index.html", "host", "x", "\xC3\x84y"}));
    EXPECT_TRUE(PXReportAnalyzerFilter::wordsOfFilterString(" \r\n ").empty());
    // The index ends its records at zero bytes.
    EXPECT_EQ(PXReportAnalyzerFilter::filterTextOf(std::string("GET\0/x", 6)), "get/x");

    add("GET /index.html");
    posted.clear();
    EXPECT_TRUE(filter->applyInclusiveFilterString("get  /INDEX.html"));
    EXPECT_EQ(posted.size(), 1u);
    EXPECT_FALSE(filter->applyInclusiveFilterString("\tGet /index.HTML "));
    EXPECT_FALSE(filter->applyExclusiveFilterString("   "));
    EXPECT_FALSE(filter->applyInclusiveFilterString("GET /index.html", ""));
    EXPECT_EQ(posted.size(), 1u);
    EXPECT_EQ(filter->state().filterStringComponents, (Texts{"get", "/index.html"}));
    EXPECT_TRUE(filter->applyInclusiveFilterString("get", "post"));
    EXPECT_EQ(posted.size(), 2u);  // both strings, one run
}

TEST_F(ReportFilter, AppendsAreFilteredAsTheyComeAndCompleteRunsIntersectAndExclude) {
    add("tcp a:80 get");
    filter->applyInclusiveFilterString("TCP");
    posted.clear();
    filter->appendEntrySources({std::make_shared<TextSource>("UDP a:53"), std::make_shared<TextSource>("TCP b:80 post"),
                                std::make_shared<TextSource>("tcp a:443 get")});
    EXPECT_EQ(shown(*filter), (Texts{"tcp a:80 get", "tcp b:80 post", "tcp a:443 get"}));
    ASSERT_EQ(posted.size(), 1u);
    EXPECT_EQ(*posted[0].at("newIndexes").indexSet(), IndexSet::withRange(1, 2));
    add("udp again");
    EXPECT_TRUE(posted.back().at("newIndexes").indexSet()->empty());

    filter->applyInclusiveFilterString("tcp a:", "443");
    EXPECT_EQ(shown(*filter), (Texts{"tcp a:80 get"}));
    EXPECT_TRUE(posted.back().empty());  // a complete run says nothing of new indexes
    // Exclusive words alone choose nothing among the indexed sources.
    filter->applyInclusiveFilterString("", "post");
    EXPECT_TRUE(shown(*filter).empty());
    filter->applyExclusiveFilterString("");
    EXPECT_EQ(shown(*filter).size(), 5u);
    filter->applyInclusiveFilterString("udp");
    EXPECT_EQ(shown(*filter), (Texts{"udp a:53", "udp again"}));
}

TEST_F(ReportFilter, RemovingRenumbersAndKeepsTheIndexRight) {
    struct RecordingView : PXViewController {
        double viewHeight() const override { return 10; }
        void removeViewFromScreen() override { removed = true; }
        bool removed = false;
    };
    std::vector<std::shared_ptr<TextSource>> all;
    for (const char* text : {"get one", "", "get two", "post number three", "get four"}) all.push_back(add(text, true));
    filter->applyInclusiveFilterString("get");
    EXPECT_EQ(shown(*filter), (Texts{"get one", "", "get two", "get four"}));
    auto view = std::make_shared<RecordingView>();
    all[2]->reportAnalyzerEntryUsingCache()->setViewController(view);
    posted.clear();

    filter->removeEntrySource(all[2]);
    EXPECT_TRUE(view->removed);
    EXPECT_EQ(shown(*filter), (Texts{"get one", "", "get four"}));
    EXPECT_EQ(posted.size(), 1u);
    filter->removeEntrySource(all[0]);
    EXPECT_EQ(filter->sourcesExcludedFromIndexer(), IndexSet({0}));  // "" moved to the front
    // The texts written before the removals still find their sources.
    filter->applyInclusiveFilterString("four");
    EXPECT_EQ(shown(*filter), (Texts{"", "get four"}));
    filter->applyInclusiveFilterString("t");
    // One byte: only "three" has a t past the first 12 bytes of its text.
    EXPECT_EQ(shown(*filter), (Texts{"", "post number three"}));

    filter->insertEntrySource(std::make_shared<TextSource>("post zero"), 0);
    filter->insertEntrySource(std::make_shared<TextSource>("", false), 2);
    EXPECT_EQ(shown(*filter), (Texts{"post zero", "", "post number three"}));
    filter->applyInclusiveFilterString("post");
    EXPECT_EQ(shown(*filter), (Texts{"post zero", "", "post number three"}));
    EXPECT_EQ(filter->sourcesExcludedFromIndexer(), IndexSet({1, 2}));

    filter->removeAllEntrySources();
    EXPECT_TRUE(filter->sources().empty() && shown(*filter).empty() && filter->sourcesExcludedFromIndexer().empty());
    add("post again");
    EXPECT_EQ(shown(*filter), (Texts{"post again"}));
    filter->applyInclusiveFilterString("one");  // the old records went with the old file
    EXPECT_TRUE(shown(*filter).empty());
}

// Random sources appended in batches under changing words, in a concurrent
// filter and a serial one, both checked against the rules applied plainly:
// appended sources by substring search, complete runs through the index
// (where a one-byte word does not see a text's first 12 bytes).
TEST(ReportFilterConcurrency, ParallelAndSerialRunsEqualAPlainReference) {
    std::mt19937 random(5);
    const Texts vocabulary{"tcp", "udp", "get", "post", "10.0.0.", ":80", "host", "a", "mdns", "x"};
    struct Twin {
        std::string text;  // as indexed
        bool decision;
    };
    std::vector<Twin> twins;
    std::size_t firstIndexed = ~std::size_t{0};
    auto parallel = PXReportAnalyzerFilter::init();
    auto serial = PXReportAnalyzerFilter::init();
    serial->setRunsConcurrently(false);

    const auto passes = [&](const Twin& twin, const PXFilterState& state, bool throughIndex) {
        if (twin.text.empty()) return state.isEmpty() || twin.decision;
        if (throughIndex && state.isEmpty()) return true;
        const auto has = [&](const std::string& w) {
            const std::size_t from = !throughIndex || w.size() > 1 ? 0 : &twin == &twins[firstIndexed] ? 16 : 12;
            return twin.text.find(w, from) != std::string::npos;
        };
        const auto& in = state.filterStringComponents;
        const auto& out = state.excludedFilterStringComponents;
        return (!throughIndex || !in.empty()) && std::all_of(in.begin(), in.end(), has) &&
               std::none_of(out.begin(), out.end(), has);
    };
    const auto words = [&](std::size_t most) {
        std::string text;
        for (std::size_t n = random() % (most + 1); n > 0; --n) text += vocabulary[random() % vocabulary.size()] + " ";
        return text;
    };

    Texts expected;
    for (int round = 0; round < 6; ++round) {
        std::vector<SourcePtr> forParallel, forSerial;
        for (int i = 0; i < 1500; ++i) {
            std::string text;
            if (random() % 10 != 0) {
                text = "frame " + std::to_string(twins.size()) + " ";
                for (int w = 0; w < 6; ++w)
                    text += vocabulary[random() % vocabulary.size()] + (random() % 2 ? " " : "");
                if (random() % 2) text[random() % text.size()] = static_cast<char>('A' + random() % 26);
            }
            const bool decision = random() % 2 == 0;
            forParallel.push_back(std::make_shared<TextSource>(text, decision));
            forSerial.push_back(std::make_shared<TextSource>(text, decision));
            twins.push_back({PXReportAnalyzerFilter::filterTextOf(text), decision});
        }
        for (std::size_t i = 0; i < twins.size() && firstIndexed > twins.size(); ++i)
            if (!twins[i].text.empty()) firstIndexed = i;
        parallel->appendEntrySources(forParallel);
        serial->appendEntrySources(forSerial);
        for (std::size_t i = twins.size() - forParallel.size(); i < twins.size(); ++i)
            if (passes(twins[i], parallel->state(), false)) expected.push_back(twins[i].text);
        ASSERT_EQ(shown(*parallel), expected) << "append, round " << round;
        ASSERT_EQ(shown(*serial), expected);

        const std::string inclusive = words(2), exclusive = words(1);
        const bool ran = parallel->applyInclusiveFilterString(inclusive, exclusive);
        EXPECT_EQ(serial->applyInclusiveFilterString(inclusive, exclusive), ran);
        if (!ran) continue;
        expected.clear();
        for (const Twin& twin : twins)
            if (passes(twin, parallel->state(), true)) expected.push_back(twin.text);
        ASSERT_EQ(shown(*parallel), expected) << inclusive << " / " << exclusive;
        ASSERT_EQ(shown(*serial), expected);
    }
}
