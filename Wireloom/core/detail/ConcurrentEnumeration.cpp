#include <Wireloom/core/detail/ConcurrentEnumeration.hpp>

#include <asio/post.hpp>
#include <asio/thread_pool.hpp>

#include <algorithm>
#include <atomic>
#include <exception>
#include <latch>
#include <mutex>
#include <thread>

namespace wireloom::detail {

namespace {

// Pieces run on the pool must not wait for more pieces: every pool thread
// could be waiting at once.
thread_local bool tInsidePiece = false;

// One helper fewer than there are cores: the calling thread works too. Never
// destroyed, so that a piece still running at exit has its pool.
asio::thread_pool* pool(unsigned& helpers) {
    static const unsigned count = std::max(1u, std::thread::hardware_concurrency()) - 1;
    static asio::thread_pool* threads = count ? new asio::thread_pool(count) : nullptr;
    helpers = count;
    return threads;
}

}  // namespace

void enumerateConcurrently(std::size_t count, std::size_t grain,
                           const std::function<void(std::size_t begin, std::size_t end)>& body) {
    if (count == 0) return;
    grain = std::max<std::size_t>(grain, 1);
    const std::size_t pieces = (count + grain - 1) / grain;
    // Checked before the pool is made: a process that never starts a thread
    // keeps libstdc++'s cheaper single-threaded reference counts.
    if (pieces < 2 || tInsidePiece) return body(0, count);
    unsigned helpers = 0;
    asio::thread_pool* threads = pool(helpers);
    if (!threads) return body(0, count);

    std::atomic<std::size_t> next{0};
    std::exception_ptr failure;
    std::mutex failureMutex;
    const auto work = [&] {
        const bool outer = tInsidePiece;
        tInsidePiece = true;
        for (std::size_t begin; (begin = next.fetch_add(grain)) < count;) {
            try {
                body(begin, std::min(count, begin + grain));
            } catch (...) {
                std::lock_guard lock(failureMutex);
                if (!failure) failure = std::current_exception();
            }
        }
        tInsidePiece = outer;
    };
    const auto posted = static_cast<std::ptrdiff_t>(std::min<std::size_t>(helpers, pieces - 1));
    std::latch done(posted);
    for (std::ptrdiff_t i = 0; i < posted; ++i)
        asio::post(*threads, [&] {
            work();
            done.count_down();
        });
    work();
    done.wait();
    if (failure) std::rethrow_exception(failure);
}

}  // namespace wireloom::detail
