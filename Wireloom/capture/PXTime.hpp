#pragma once
// PXTime: a capture's clock, in seconds since the Unix epoch, and the timers
// that fire against it. Flows and flow tables measure ages and time-outs on
// it, never on the platform's clocks, so one piece of time-out logic serves a
// live capture and a replay alike.
//
// The clock is either held, answering whatever updateCurrentTime() stored
// last (a replay sets each record's timestamp there), or driven by real time:
// then currentTime() is the wall clock, and a repeating tick on the driving
// thread's run loop stores the wall clock and runs the due timers.
//
//   auto clock = std::make_shared<PXTime>();
//   auto timer = clock->scheduledTimerWithTimeInterval(5, [] { poll(); }, true);
//   clock->updateCurrentTime(100);   // timer scheduled at 0: fires
//   clock->driveTimeUsingRealTimeWithTick(0.1);
//   ...
//   clock->reset();                  // held again at the last tick's time
//
// A timer is due when strictly more than its interval has passed since it
// last fired; it fires at most once per update however far the clock jumped,
// and its next period counts from that update. A target may invalidate its
// own timer or schedule new ones from inside its call: a timer scheduled then
// is examined in the same update. The clock must be owned by a shared_ptr.

#include <Wireloom/capture/PXTimer.hpp>
#include <Wireloom/core/Object.hpp>
#include <Wireloom/core/RunLoop.hpp>

#include <atomic>
#include <limits>
#include <memory>
#include <mutex>
#include <vector>

namespace wireloom {

class PXTime : public Object {
public:
    PXTime() = default;

    // The wall clock while driven, else the stored time (0 at first).
    double currentTime() const;
    // Stores the time and fires the timers due at it.
    void updateCurrentTime(double time);
    bool isDrivenByRealTime() const noexcept { return driven_.load(std::memory_order_acquire); }
    // Starts ticking every `tick` seconds on the calling thread's run loop;
    // does nothing while already driven.
    void driveTimeUsingRealTimeWithTick(double tick);
    // Stops the real-time tick. The stored time and the timers stay: flows
    // keep their timers across a capture's stop and start.
    void reset();

    // A new timer, last fired now by this clock, appended to timers().
    PXTimerPtr scheduledTimerWithTimeInterval(double interval, PXTimer::Target target, bool repeats);
    // The scheduled timers, in the order they were scheduled.
    std::vector<PXTimerPtr> timers() const;

    static double wallClockTime();

private:
    friend class PXTimer;
    void driveTimerTick();
    // The clock's timers lock, or none once the clock is gone (no walk can
    // then be looking at a timer).
    static std::unique_lock<std::recursive_mutex> lockTimers(PXTime* clock) {
        return clock ? std::unique_lock(clock->timersLock_) : std::unique_lock<std::recursive_mutex>();
    }

    // A time before which no scheduled timer can be due: an update earlier
    // than it stores the time and is done, without the lock a replay would
    // otherwise take for every record. Lowered when a timer is scheduled,
    // held at minus infinity while a walk may move firing times, and worked
    // out afresh once the outermost walk ends. It may lag below the truth
    // (an invalidated timer leaves it), never above.
    void recomputeQuietUntil();
    static double firstDueTime(double lastFireTime, double interval) noexcept;

    std::atomic<double> storedTime_{0};
    std::atomic<double> quietUntil_{std::numeric_limits<double>::infinity()};
    std::atomic<bool> driven_{false};
    // Recursive because targets run under it and may invalidate or schedule
    // timers on this clock. Guards timers_, realTimeDriver_ and every timer's
    // target and last firing.
    mutable std::recursive_mutex timersLock_;
    std::vector<PXTimerPtr> timers_;
    int walks_ = 0;  // updates walking the timers, nested ones included
    std::shared_ptr<RunLoop::Timer> realTimeDriver_;
};

using PXTimePtr = std::shared_ptr<PXTime>;

}  // namespace wireloom
