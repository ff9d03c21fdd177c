#pragma once
// The one way a broken invariant stops the program: the quoted text goes to
// the system log and to stderr, then the process aborts. Programming errors
// only; run-time failures return false and an error text instead.
//
//   WL_ASSERT(interval > 0, "Timer interval must be positive");

namespace wireloom::detail {
[[noreturn]] void assertionFailed(const char* text, const char* file, int line) noexcept;
}

#define WL_ASSERT(condition, text)                                           \
    do {                                                                     \
        if (!(condition)) [[unlikely]]                                       \
            ::wireloom::detail::assertionFailed((text), __FILE__, __LINE__); \
    } while (false)
