#include <Wireloom/core/Assert.hpp>
#include <Wireloom/core/Log.hpp>
#include <Wireloom/core/detail/Format.hpp>

#include <syslog.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace wireloom {
namespace {

struct LogState {
    std::mutex mutex;
    std::string ident = "wireloom";
    bool opened = false;
    std::atomic<bool> mirror{false};
    Log::Sink sink;
};

LogState& state() {
    static LogState* s = new LogState;  // never destroyed: logging may happen during exit
    return *s;
}

int syslogPriority(Log::Level level) {
    switch (level) {
    case Log::Level::Error: return LOG_ERR;
    case Log::Level::Warning: return LOG_WARNING;
    case Log::Level::Info: return LOG_INFO;
    case Log::Level::Debug: return LOG_DEBUG;
    }
    return LOG_NOTICE;
}

}  // namespace

void Log::open(const std::string& ident, bool mirrorToStderr) {
    auto& s = state();
    std::lock_guard lock(s.mutex);
    s.ident = ident;
    // openlog keeps the pointer, so the string must outlive every later call.
    openlog(s.ident.c_str(), LOG_PID, LOG_USER);
    s.opened = true;
    s.mirror = mirrorToStderr;
}

void Log::setMirrorToStderr(bool mirror) { state().mirror = mirror; }
bool Log::mirrorsToStderr() { return state().mirror; }

void Log::setSink(Sink sink) {
    auto& s = state();
    std::lock_guard lock(s.mutex);
    s.sink = std::move(sink);
}

void Log::message(Level level, const char* format, va_list args) {
    std::string text = detail::vstringWithFormat(format, args);

    auto& s = state();
    std::lock_guard lock(s.mutex);
    if (s.sink) {
        s.sink(level, text);
        return;
    }
    if (!s.opened) {
        openlog(s.ident.c_str(), LOG_PID, LOG_USER);
        s.opened = true;
    }
    syslog(syslogPriority(level), "%s", text.c_str());
    if (s.mirror) std::fprintf(stderr, "%s\n", text.c_str());
}

#define WL_LOG_LEVEL_FUNCTION(function, level)    \
    void Log::function(const char* format, ...) { \
        va_list args;                             \
        va_start(args, format);                   \
        message(level, format, args);             \
        va_end(args);                             \
    }
WL_LOG_LEVEL_FUNCTION(error, Level::Error)
WL_LOG_LEVEL_FUNCTION(warning, Level::Warning)
WL_LOG_LEVEL_FUNCTION(info, Level::Info)
WL_LOG_LEVEL_FUNCTION(debug, Level::Debug)
#undef WL_LOG_LEVEL_FUNCTION

namespace detail {
void assertionFailed(const char* text, const char* file, int line) noexcept {
    std::fprintf(stderr, "%s (%s:%d)\n", text, file, line);
    std::fflush(stderr);
    syslog(LOG_CRIT, "%s (%s:%d)", text, file, line);
    std::abort();
}
}  // namespace detail

}  // namespace wireloom
