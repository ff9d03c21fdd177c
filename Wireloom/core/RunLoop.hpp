#pragma once
// RunLoop: a thread's event loop. Work reaches a thread by being posted to its
// loop, which runs it in order on that thread; repeating timers fire there
// too. The host runs the main loop; a capture thread hands each frame over:
//
//   RunLoop::main().post([frame] { table.add(frame); });   // capture thread
//   RunLoop::main().run();                                 // main thread
//
// RunLoop::main() is the loop of the process's main thread. current() is the
// calling thread's loop: main() on the main thread, otherwise one created on
// demand that lives as long as its thread. A loop is run by one thread at a
// time, and not from inside one of its own handlers; post(), stop() and
// addRepeatingTimer() may be called from any thread. An exception thrown by a
// handler leaves the run call; the loop can be run again afterwards.

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

namespace wireloom {

class RunLoop {
public:
    using Clock = std::chrono::steady_clock;
    class Timer;

    // Never destroyed, so threads may still post to it while the process
    // exits.
    static RunLoop& main();
    static RunLoop& current();

    RunLoop();
    ~RunLoop();
    RunLoop(const RunLoop&) = delete;
    RunLoop& operator=(const RunLoop&) = delete;

    // Queues a handler; handlers run in the order they were posted.
    void post(std::function<void()> handler);

    // Runs handlers, waiting for more when idle, until stop().
    void run();
    // Ends the run in progress once its current handler returns. A stop
    // issued while the loop is not running ends the next run at once, so a
    // stop that races ahead of run() is not lost.
    void stop();
    // Runs handlers until the condition holds (it is checked first and after
    // each handler), the deadline passes or stop() is called; answers whether
    // the condition held.
    bool runUntil(const std::function<bool()>& condition, Clock::time_point deadline);
    void runFor(Clock::duration duration);
    // Runs the handlers that are ready, including those they post, without
    // waiting; answers how many ran.
    std::size_t runPending();

    // Calls `callback` on this loop every `interval`, counted from the
    // previous expiry so the ticks do not drift; ticks missed while the loop
    // was busy are skipped, not delivered in a burst. The timer runs while
    // someone holds the returned pointer: dropping the last one invalidates
    // it, so a callback cannot outlive the object that owns its timer.
    //
    //   clock_ = RunLoop::current().addRepeatingTimer(100ms, [this] { tick(); });
    [[nodiscard]] std::shared_ptr<Timer> addRepeatingTimer(Clock::duration interval, std::function<void()> callback);

    class Timer {
    public:
        ~Timer();
        Timer(const Timer&) = delete;
        Timer& operator=(const Timer&) = delete;

        // After it returns, the callback is never started again; a call in
        // progress (the caller's own, when invoked from the callback) runs to
        // its end. Called from one of the loop's handlers, it releases the
        // callback at once, or when its running call returns; called from
        // elsewhere, on the loop's next turn or when the timer goes. Safe
        // from any thread and more than once.
        void invalidate();
        bool isValid() const noexcept;

    private:
        friend class RunLoop;
        struct State;
        explicit Timer(std::shared_ptr<State> state) noexcept : state_(std::move(state)) {}

        // The loop's handlers hold the state only weakly, so this handle
        // alone keeps the timer alive.
        std::shared_ptr<State> state_;
    };

private:
    struct Impl;
    std::shared_ptr<Impl> impl_;  // shared with the timers, which must not outlive it
};

}  // namespace wireloom
