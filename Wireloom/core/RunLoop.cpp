#include <Wireloom/core/Assert.hpp>
#include <Wireloom/core/RunLoop.hpp>

#include <unistd.h>

#include <asio.hpp>
#include <atomic>

namespace wireloom {

struct RunLoop::Impl {
    // The hint tells Asio a single thread runs the context.
    asio::io_context io{1};
    // Keeps run() waiting when there is nothing to do.
    asio::executor_work_guard<asio::io_context::executor_type> work = asio::make_work_guard(io);

    // True only inside one of this loop's handlers, on the thread running it.
    bool onLoopThread() const { return work.get_executor().running_in_this_thread(); }

    void checkNotNested() const {
        // Asio does not support running a context from inside its own handlers.
        WL_ASSERT(!onLoopThread(), "A run loop must not be run from one of its own handlers");
    }

    // A stop ends one run; the next run waits again.
    void consumeStop() {
        if (io.stopped()) io.restart();
    }
};

struct RunLoop::Timer::State {
    State(std::shared_ptr<RunLoop::Impl> owner, Clock::duration every, std::function<void()> call)
        : loop(std::move(owner)), timer(loop->io, every), interval(every), callback(std::move(call)) {}

    // Declared first so that the Asio timer goes before the context it uses.
    std::shared_ptr<RunLoop::Impl> loop;
    asio::steady_timer timer;
    Clock::duration interval;
    std::function<void()> callback;
    // Cleared from any thread; the rest belongs to the loop's thread.
    std::atomic<bool> valid{true};
    bool firing = false;

    static void arm(const std::shared_ptr<State>& self) {
        self->timer.async_wait([weak = std::weak_ptr(self)](const asio::error_code& error) {
            if (auto state = weak.lock(); state && !error) state->fire(state);
        });
    }

    void fire(const std::shared_ptr<State>& self) {
        // A completion can already be queued when the timer is invalidated.
        if (!valid) return;
        // The next expiry counts from this one, not from now, so lateness does
        // not accumulate; ticks already in the past are skipped.
        auto next = timer.expiry() + interval;
        if (auto now = Clock::now(); next < now) next += ((now - next) / interval + 1) * interval;
        // Armed before the call so that a callback that throws out of the loop
        // leaves a working timer behind.
        timer.expires_at(next);
        arm(self);

        struct Done {
            State& state;
            ~Done() {
                state.firing = false;
                if (!state.valid) state.callback = nullptr;
            }
        } done{*this};
        firing = true;
        callback();
    }

    // Loop thread only. A callback cannot be destroyed while it runs, so an
    // invalidation from inside it leaves the release to fire().
    void release() {
        timer.cancel();
        if (!firing) callback = nullptr;
    }
};

RunLoop& RunLoop::main() {
    static RunLoop* loop = new RunLoop;
    return *loop;
}

RunLoop& RunLoop::current() {
    if (gettid() == getpid()) return main();
    thread_local RunLoop loop;
    return loop;
}

RunLoop::RunLoop() : impl_(std::make_shared<Impl>()) {}
RunLoop::~RunLoop() = default;

void RunLoop::post(std::function<void()> handler) { asio::post(impl_->io, std::move(handler)); }

void RunLoop::run() {
    impl_->checkNotNested();
    impl_->io.run();
    impl_->consumeStop();
}

void RunLoop::stop() { impl_->io.stop(); }

bool RunLoop::runUntil(const std::function<bool()>& condition, Clock::time_point deadline) {
    impl_->checkNotNested();
    while (!condition()) {
        // Nothing ran: the deadline has passed or the loop was stopped.
        if (impl_->io.run_one_until(deadline) == 0) {
            impl_->consumeStop();
            return condition();
        }
    }
    return true;
}

void RunLoop::runFor(Clock::duration duration) {
    runUntil([] { return false; }, Clock::now() + duration);
}

std::size_t RunLoop::runPending() {
    impl_->checkNotNested();
    std::size_t count = impl_->io.poll();
    impl_->consumeStop();
    return count;
}

std::shared_ptr<RunLoop::Timer> RunLoop::addRepeatingTimer(Clock::duration interval, std::function<void()> callback) {
    WL_ASSERT(interval > Clock::duration::zero(), "Timer interval must be positive");
    WL_ASSERT(callback != nullptr, "A timer needs a callback");
    auto state = std::make_shared<Timer::State>(impl_, interval, std::move(callback));
    // Armed on the loop's thread, the only one that may touch the Asio timer
    // once the loop can see it.
    post([weak = std::weak_ptr(state)] {
        if (auto armed = weak.lock(); armed && armed->valid) Timer::State::arm(armed);
    });
    return std::shared_ptr<Timer>(new Timer(std::move(state)));
}

RunLoop::Timer::~Timer() { invalidate(); }

void RunLoop::Timer::invalidate() {
    if (!state_->valid.exchange(false)) return;
    if (state_->loop->onLoopThread()) {
        state_->release();
        return;
    }
    asio::post(state_->loop->io, [weak = std::weak_ptr(state_)] {
        if (auto state = weak.lock()) state->release();
    });
}

bool RunLoop::Timer::isValid() const noexcept { return state_->valid; }

}  // namespace wireloom
