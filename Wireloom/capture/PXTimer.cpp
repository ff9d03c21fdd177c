#include <Wireloom/capture/PXTime.hpp>
#include <Wireloom/capture/PXTimer.hpp>

#include <algorithm>

namespace wireloom {

double PXTimer::lastFireTime() const {
    auto clock = time_.lock();
    auto lock = PXTime::lockTimers(clock.get());
    return lastFireTime_;
}

bool PXTimer::isValid() const {
    auto clock = time_.lock();
    auto lock = PXTime::lockTimers(clock.get());
    return static_cast<bool>(target_);
}

void PXTimer::fire() {
    // A copy: the target may invalidate this timer, which must not destroy
    // the callable while it runs.
    Target target;
    {
        auto clock = time_.lock();
        auto lock = PXTime::lockTimers(clock.get());
        target = target_;
    }
    if (target) target();
}

void PXTimer::invalidate() {
    // Declared before the lock, so whatever the target owned is released
    // after it.
    Target dropped;
    auto clock = time_.lock();
    auto lock = PXTime::lockTimers(clock.get());
    dropped.swap(target_);
    if (!clock) return;
    auto& timers = clock->timers_;
    auto it = std::find_if(timers.begin(), timers.end(), [this](const PXTimerPtr& t) { return t.get() == this; });
    if (it != timers.end()) timers.erase(it);
}

}  // namespace wireloom
