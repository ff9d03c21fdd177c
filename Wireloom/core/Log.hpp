#pragma once
// Diagnostics go to the system log (syslog) and, when mirroring is on, to
// stderr as well. Messages are printf-style:
//
//   Log::setMirrorToStderr(true);
//   Log::error("Error: Class %s is not a subclass of PXPacket", name);
//
// Tests can replace the destination with setSink to see what was logged.

#include <cstdarg>
#include <functional>
#include <string>

namespace wireloom {

class Log {
public:
    enum class Level { Error, Warning, Info, Debug };
    using Sink = std::function<void(Level, const std::string&)>;

    // Opens the system log under this identity (default "wireloom").
    static void open(const std::string& ident, bool mirrorToStderr = false);
    static void setMirrorToStderr(bool mirror);
    static bool mirrorsToStderr();

    // Replaces syslog and stderr with a sink; an empty sink restores them.
    static void setSink(Sink sink);

    static void error(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void warning(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void info(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void debug(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void message(Level level, const char* format, va_list args) __attribute__((format(printf, 2, 0)));
};

}  // namespace wireloom
