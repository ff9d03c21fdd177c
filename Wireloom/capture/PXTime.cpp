#include <Wireloom/capture/PXTime.hpp>

#include <Wireloom/core/Assert.hpp>

#include <algorithm>
#include <chrono>

namespace wireloom {

double PXTime::wallClockTime() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

double PXTime::currentTime() const {
    return isDrivenByRealTime() ? wallClockTime() : storedTime_.load(std::memory_order_acquire);
}

void PXTime::updateCurrentTime(double time) {
    storedTime_.store(time, std::memory_order_release);
    std::lock_guard lock(timersLock_);
    // By index, with the size read afresh each turn: targets may append
    // timers (examined in this same walk) or invalidate them.
    for (std::size_t index = 0; index < timers_.size();) {
        // A replay updates the clock for every record, and most timers are
        // not due: only one that fires is held, alive through its own call.
        if (const PXTimer& waiting = *timers_[index]; !(time - waiting.lastFireTime_ > waiting.interval_)) {
            ++index;
            continue;
        }
        PXTimerPtr timer = timers_[index];
        timer->fire();
        timer->lastFireTime_ = time;
        if (timer->repeats_) {
            // Even when the target invalidated this timer, so that the timer
            // that slid into its place waits for the next update.
            ++index;
            continue;
        }
        // The index stays: the next timer has moved into it. The timer is
        // spent, so its target goes too.
        PXTimer::Target spent;
        spent.swap(timer->target_);
        if (auto it = std::find(timers_.begin(), timers_.end(), timer); it != timers_.end()) timers_.erase(it);
    }
}

void PXTime::driveTimeUsingRealTimeWithTick(double tick) {
    WL_ASSERT(tick > 0, "Real-time tick must be positive");
    std::lock_guard lock(timersLock_);
    if (realTimeDriver_) return;
    // Weak, so the tick neither keeps the clock alive nor outlives it.
    std::weak_ptr<PXTime> weak = std::static_pointer_cast<PXTime>(shared_from_this());
    realTimeDriver_ = RunLoop::current().addRepeatingTimer(
        std::chrono::duration_cast<RunLoop::Clock::duration>(std::chrono::duration<double>(tick)), [weak] {
            if (auto self = weak.lock()) self->driveTimerTick();
        });
    driven_.store(true, std::memory_order_release);
}

void PXTime::driveTimerTick() { updateCurrentTime(wallClockTime()); }

void PXTime::reset() {
    std::lock_guard lock(timersLock_);
    if (!realTimeDriver_) return;
    realTimeDriver_->invalidate();
    realTimeDriver_.reset();
    driven_.store(false, std::memory_order_release);
}

PXTimerPtr PXTime::scheduledTimerWithTimeInterval(double interval, PXTimer::Target target, bool repeats) {
    std::weak_ptr<Object> self = weak_from_this();
    WL_ASSERT(!self.expired(), "PXTime must be owned by a shared_ptr");
    PXTimerPtr timer(new PXTimer(std::static_pointer_cast<PXTime>(self.lock()), currentTime(), interval,
                                 std::move(target), repeats));
    std::lock_guard lock(timersLock_);
    timers_.push_back(timer);
    return timer;
}

std::vector<PXTimerPtr> PXTime::timers() const {
    std::lock_guard lock(timersLock_);
    return timers_;
}

}  // namespace wireloom
