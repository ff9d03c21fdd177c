#pragma once
// Runs the independent steps of a loop on several cores when there are
// enough of them to pay for the hand-off:
//
//   detail::enumerateConcurrently(sources.size(), 256, [&](std::size_t begin, std::size_t end) {
//       for (std::size_t i = begin; i < end; ++i) texts[i] = sources[i]->representativeFilterText();
//   });
//
// The range is cut into pieces of `grain` steps that the calling thread and
// a process-wide pool of threads take in turn; the call returns when every
// piece has run. With fewer than two pieces, on a one-core machine, or when
// called from one of the pool's own pieces, everything runs on the calling
// thread. The body must tolerate running on disjoint ranges at once; an
// exception it throws is rethrown to the caller once every piece is done.

#include <cstddef>
#include <functional>

namespace wireloom::detail {

void enumerateConcurrently(std::size_t count, std::size_t grain,
                           const std::function<void(std::size_t begin, std::size_t end)>& body);

}  // namespace wireloom::detail
