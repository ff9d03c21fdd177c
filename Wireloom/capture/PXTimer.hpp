#pragma once
// PXTimer: a timer that fires against a capture clock (PXTime) rather than
// the platform's clocks, so the same time-out logic runs on a live capture
// and on a replay whose clock follows the file. Timers are made by
// PXTime::scheduledTimerWithTimeInterval, never directly.
//
// The timer holds its target, the callable it fires, strongly until it is
// invalidated or, when it does not repeat, until it has fired. An owner that
// keeps its own timer and wants to be freed before invalidating it captures
// itself weakly:
//
//   timer_ = clock->scheduledTimerWithTimeInterval(5, [weak = weak_from_this()] {
//       if (auto self = weak.lock()) self->pollFlows();
//   }, true);
//   ...
//   timer_->invalidate();

#include <Wireloom/core/Object.hpp>

#include <functional>
#include <memory>

namespace wireloom {

class PXTime;

class PXTimer : public Object {
public:
    using Target = std::function<void()>;

    // Null once the clock is gone.
    std::shared_ptr<PXTime> time() const noexcept { return time_.lock(); }
    // The clock's time when the timer was scheduled, then at each firing.
    double lastFireTime() const;
    double interval() const noexcept { return interval_; }
    bool repeats() const noexcept { return repeats_; }
    // True until invalidate() or, for a timer that does not repeat, its firing.
    bool isValid() const;

    // Calls the target, if it still has one.
    void fire();
    // Drops the target and takes the timer off its clock. Safe from inside
    // the target's own call, and more than once.
    void invalidate();

private:
    friend class PXTime;
    PXTimer(std::weak_ptr<PXTime> time, double lastFireTime, double interval, Target target, bool repeats)
        : time_(std::move(time)),
          lastFireTime_(lastFireTime),
          interval_(interval),
          target_(std::move(target)),
          repeats_(repeats) {}

    std::weak_ptr<PXTime> time_;
    // Both written only under the clock's timers lock.
    double lastFireTime_;
    const double interval_;
    Target target_;
    const bool repeats_;
};

using PXTimerPtr = std::shared_ptr<PXTimer>;

}  // namespace wireloom
