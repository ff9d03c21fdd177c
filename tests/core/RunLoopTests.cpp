#include <Wireloom/core/RunLoop.hpp>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using namespace wireloom;
using namespace std::chrono_literals;

namespace {

// Generous: these deadlines only bound how long a broken loop hangs a test.
RunLoop::Clock::time_point soon() { return RunLoop::Clock::now() + 30s; }

class RunLoopTest : public ::testing::Test {
protected:
    RunLoop loop;
    std::vector<int> order;
};

TEST(RunLoopMain, RunsPostsFromOtherThreadsOnTheMainThreadInOrder) {
    ASSERT_EQ(&RunLoop::current(), &RunLoop::main());
    std::vector<int> order;
    bool wrongThread = false;
    auto mainThread = std::this_thread::get_id();
    std::thread producer([&] {
        for (int i = 0; i < 1000; ++i)
            RunLoop::main().post([&, i] {
                wrongThread |= std::this_thread::get_id() != mainThread;
                order.push_back(i);
            });
    });
    EXPECT_TRUE(RunLoop::main().runUntil([&] { return order.size() == 1000; }, soon()));
    producer.join();
    EXPECT_FALSE(wrongThread);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(order[i], i);
}

TEST_F(RunLoopTest, HandlersPostedByHandlersQueueBehindEarlierPosts) {
    loop.post([&] {
        order.push_back(1);
        loop.post([&] { order.push_back(3); });
    });
    loop.post([&] { order.push_back(2); });
    EXPECT_EQ(loop.runPending(), 3u);
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(loop.runPending(), 0u);
}

TEST_F(RunLoopTest, RunUntilChecksFirstAndAfterEachHandler) {
    loop.post([&] { order.push_back(1); });
    loop.post([&] { order.push_back(2); });
    EXPECT_TRUE(loop.runUntil([] { return true; }, soon()));
    EXPECT_TRUE(order.empty());
    EXPECT_TRUE(loop.runUntil([&] { return !order.empty(); }, soon()));
    EXPECT_EQ(order, (std::vector<int>{1}));

    auto deadline = RunLoop::Clock::now() + 20ms;
    EXPECT_FALSE(loop.runUntil([] { return false; }, deadline));
    EXPECT_GE(RunLoop::Clock::now(), deadline);
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST_F(RunLoopTest, StopEndsOneRunEvenWhenIssuedBeforeIt) {
    std::thread([&] { loop.post([&] { loop.stop(); }); }).join();
    loop.run();
    loop.stop();
    loop.run();  // would wait forever if the early stop were lost
    // ...and the loop works again afterwards.
    loop.post([&] { order.push_back(1); });
    EXPECT_TRUE(loop.runUntil([&] { return !order.empty(); }, soon()));
}

TEST_F(RunLoopTest, TimerRepeatsUntilInvalidatedFromItsCallback) {
    int ticks = 0;
    std::shared_ptr<RunLoop::Timer> timer;
    timer = loop.addRepeatingTimer(1ms, [&] {
        if (++ticks == 3) timer->invalidate();
    });
    EXPECT_TRUE(loop.runUntil([&] { return ticks == 3; }, soon()));
    EXPECT_FALSE(timer->isValid());
    loop.runFor(20ms);
    EXPECT_EQ(ticks, 3);
}

TEST_F(RunLoopTest, TimerStopsWhenDroppedOrInvalidatedElsewhere) {
    int dropped = 0, invalidated = 0;
    auto first = loop.addRepeatingTimer(1ms, [&] { ++dropped; });
    auto second = loop.addRepeatingTimer(1ms, [&] { ++invalidated; });
    EXPECT_TRUE(loop.runUntil([&] { return dropped > 0 && invalidated > 0; }, soon()));
    first.reset();
    std::thread([&] { second->invalidate(); }).join();
    int before = invalidated;
    dropped = 0;
    loop.runFor(20ms);
    EXPECT_EQ(dropped, 0);
    EXPECT_EQ(invalidated, before);
}

TEST(RunLoopThread, TimerRunsOnTheThreadsOwnLoop) {
    bool ownLoop = false;
    int ticks = 0;
    std::thread worker([&] {
        RunLoop& loop = RunLoop::current();
        ownLoop = &loop != &RunLoop::main() && &loop == &RunLoop::current();
        auto timer = loop.addRepeatingTimer(2ms, [&] { ++ticks; });
        loop.runUntil([&] { return ticks >= 3; }, soon());
    });
    worker.join();
    EXPECT_TRUE(ownLoop);
    EXPECT_GE(ticks, 3);
}

}  // namespace
