#include <Wireloom/capture/PXTime.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <utility>

using namespace wireloom;
using namespace std::chrono_literals;

namespace {

class PXTimeTest : public ::testing::Test {
protected:
    PXTimePtr clock = std::make_shared<PXTime>();
    std::string fired;
    PXTimerPtr schedule(double interval, const std::string& name, bool repeats = true) {
        return clock->scheduledTimerWithTimeInterval(
            interval, [this, name] { fired += name; }, repeats);
    }
};

TEST_F(PXTimeTest, FiresOnlyWhenStrictlyMoreThanTheIntervalHasPassed) {
    clock->updateCurrentTime(100);
    auto repeating = schedule(5, "r");
    auto once = schedule(5, "o", false);
    clock->updateCurrentTime(105);
    EXPECT_EQ(fired, "");
    clock->updateCurrentTime(105.1);
    EXPECT_EQ(fired, "ro");
    EXPECT_EQ(repeating->lastFireTime(), 105.1);
    EXPECT_EQ(clock->timers(), std::vector<PXTimerPtr>{repeating});
    EXPECT_FALSE(once->isValid());
    // The next period counts from the update that fired it, not from 105.
    clock->updateCurrentTime(110.1);
    clock->updateCurrentTime(110.2);
    EXPECT_EQ(fired, "ror");
}

// Updates that find no timer due skip the walk; the skip must agree with
// the walk's own test to the last bit, however the sum rounds.
TEST(PXTimeBoundary, FirstUpdateToFireIsExactlyTheFirstDueOne) {
    const std::pair<double, double> cases[] = {{0.7, 0.1}, {1.7e9 + 0.3, 5}, {1e-300, 1e-310}, {1e16, 0.5}, {-3, 0.1}};
    for (auto [last, interval] : cases) {
        auto clock = std::make_shared<PXTime>();
        clock->updateCurrentTime(last);
        bool fired = false;
        clock->scheduledTimerWithTimeInterval(
            interval, [&] { fired = true; }, false);
        double time = last + interval;
        for (int i = 0; i < 4; ++i) time = std::nextafter(time, -INFINITY);
        for (int i = 0; i < 9 && !fired; ++i, time = std::nextafter(time, INFINITY)) {
            clock->updateCurrentTime(time);
            EXPECT_EQ(fired, time - last > interval) << last << " + " << interval << " at " << time;
        }
        EXPECT_TRUE(fired) << last << " + " << interval;
    }
}

TEST_F(PXTimeTest, ClockGoingBackFiresANegativeIntervalAgainstItsNewLastFiring) {
    clock->updateCurrentTime(100);
    auto timer = schedule(-10, "t");
    clock->updateCurrentTime(95);  // -5 > -10
    clock->updateCurrentTime(86);  // against 95, not 100: -9 > -10
    EXPECT_EQ(fired, "tt");
    clock->updateCurrentTime(75);
    EXPECT_EQ(fired, "tt");
}

TEST_F(PXTimeTest, JumpOfTenIntervalsFiresEachDueTimerOnce) {
    schedule(5, "a");
    schedule(2, "b");
    clock->updateCurrentTime(50);
    EXPECT_EQ(fired, "ab");
}

TEST_F(PXTimeTest, SelfInvalidationLeavesAtOnceAndStepsOverTheNextTimer) {
    PXTimerPtr self = clock->scheduledTimerWithTimeInterval(
        1,
        [&] {
            self->invalidate();
            fired += "s";
        },
        true);
    auto next = schedule(1, "n");
    clock->updateCurrentTime(2);
    EXPECT_EQ(fired, "s");
    EXPECT_EQ(clock->timers(), std::vector<PXTimerPtr>{next});
    clock->updateCurrentTime(2.5);
    EXPECT_EQ(fired, "sn");
}

TEST_F(PXTimeTest, TimerScheduledDuringTheWalkIsExaminedInIt) {
    clock->scheduledTimerWithTimeInterval(
        1,
        [&] {
            fired += "a";
            // Scheduled at the time being stored: due at once only with a
            // negative interval.
            schedule(-1, "c");
            schedule(0, "d");
        },
        false);
    clock->updateCurrentTime(7);
    EXPECT_EQ(fired, "ac");
    EXPECT_EQ(clock->timers().at(0)->lastFireTime(), 7);
}

TEST_F(PXTimeTest, RealTimeDriverTicksOnTheRunLoopUntilReset) {
    auto timer = schedule(0.02, "t");
    clock->driveTimeUsingRealTimeWithTick(0.005);
    clock->driveTimeUsingRealTimeWithTick(10);  // already driven: ignored
    EXPECT_TRUE(clock->isDrivenByRealTime());
    EXPECT_NEAR(clock->currentTime(), PXTime::wallClockTime(), 1);
    ASSERT_TRUE(RunLoop::current().runUntil([&] { return fired.size() >= 2; }, RunLoop::Clock::now() + 30s));

    clock->reset();
    const double held = clock->currentTime();
    EXPECT_NEAR(held, PXTime::wallClockTime(), 1);
    RunLoop::current().runFor(50ms);
    EXPECT_EQ(clock->currentTime(), held);
    EXPECT_EQ(fired.size(), 2u);
    EXPECT_EQ(clock->timers(), std::vector<PXTimerPtr>{timer});
    clock->updateCurrentTime(held + 1);
    EXPECT_EQ(fired.size(), 3u);
}

TEST_F(PXTimeTest, SpentOrInvalidatedTimersReleaseTheirTarget) {
    auto owned = std::make_shared<int>(0);
    auto once = clock->scheduledTimerWithTimeInterval(
        1, [owned] {}, false);
    auto repeating = clock->scheduledTimerWithTimeInterval(
        1, [owned] {}, true);
    clock->updateCurrentTime(2);
    repeating->invalidate();
    repeating->invalidate();
    EXPECT_EQ(owned.use_count(), 1);
    EXPECT_TRUE(clock->timers().empty());
}

}  // namespace
