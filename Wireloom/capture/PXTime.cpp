#include <Wireloom/capture/PXTime.hpp>

#include <Wireloom/core/Assert.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>

namespace wireloom {

double PXTime::wallClockTime() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

double PXTime::currentTime() const {
    return isDrivenByRealTime() ? wallClockTime() : storedTime_.load(std::memory_order_acquire);
}

void PXTime::updateCurrentTime(double time) {
    storedTime_.store(time, std::memory_order_release);
    // A NaN is not below anything, so it walks as it always did.
    if (time < quietUntil_.load(std::memory_order_acquire)) return;
    std::lock_guard lock(timersLock_);
    // Targets may update the clock themselves, and a timer that fires takes
    // this time as its last, earlier than before when the clock went back:
    // no update may trust the bound until the outermost walk has ended.
    quietUntil_.store(-std::numeric_limits<double>::infinity(), std::memory_order_release);
    struct Walk {
        PXTime& clock;
        explicit Walk(PXTime& c) : clock(c) { ++clock.walks_; }
        ~Walk() {
            if (--clock.walks_ == 0) clock.recomputeQuietUntil();
        }
    } walk(*this);
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

double PXTime::firstDueTime(double lastFireTime, double interval) noexcept {
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    const auto due = [&](double time) { return time - lastFireTime > interval; };
    double time = lastFireTime + interval;
    if (!std::isfinite(time)) return -kInfinity;
    // The difference rounds monotonically in the time, so the first due time
    // is a few steps from the sum at most; the step count caps what is not
    // understood, at the cost of walking every time.
    for (int steps = 0; steps < 64; ++steps) {
        if (due(time)) {
            const double earlier = std::nextafter(time, -kInfinity);
            if (!due(earlier)) return time;
            time = earlier;
        } else {
            time = std::nextafter(time, kInfinity);
        }
    }
    return -kInfinity;
}

void PXTime::recomputeQuietUntil() {
    double quiet = std::numeric_limits<double>::infinity();
    for (const PXTimerPtr& timer : timers_)
        quiet = std::min(quiet, firstDueTime(timer->lastFireTime_, timer->interval_));
    quietUntil_.store(quiet, std::memory_order_release);
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
    const double due = firstDueTime(timer->lastFireTime_, timer->interval_);
    if (due < quietUntil_.load(std::memory_order_relaxed)) quietUntil_.store(due, std::memory_order_release);
    return timer;
}

std::vector<PXTimerPtr> PXTime::timers() const {
    std::lock_guard lock(timersLock_);
    return timers_;
}

}  // namespace wireloom
