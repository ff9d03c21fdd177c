#pragma once
// Other programs for the tests that drive real traffic: whether one is
// installed, its output, and servers or capturers left running in the
// background until the test kills them.
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

namespace wireloom::testing {

inline bool have(const char* program) {
    return std::system((std::string("command -v ") + program + " >/dev/null 2>&1").c_str()) == 0;
}

// What a shell command writes to its standard output and, when asked, its
// exit status (-1 when it did not exit by itself).
inline std::string output(const std::string& command, int* status = nullptr) {
    std::string text;
    if (status) *status = -1;
    if (std::FILE* pipe = popen(command.c_str(), "r")) {
        char chunk[4096];
        while (std::size_t n = std::fread(chunk, 1, sizeof chunk, pipe)) text.append(chunk, n);
        const int result = pclose(pipe);
        if (status && WIFEXITED(result)) *status = WEXITSTATUS(result);
    }
    return text;
}

// Starts a command in the background, its output going to log, and returns
// its process id.
inline std::string spawn(const std::string& command, const std::filesystem::path& log) {
    std::string pid = output("exec " + command + " >" + log.string() + " 2>&1 & echo $!");
    while (!pid.empty() && (pid.back() == '\n' || pid.back() == ' ')) pid.pop_back();
    return pid;
}

// Until `done` holds, or 10 seconds however long it takes to ask; whether
// it came to hold.
template <class Condition>
bool waitUntil(Condition done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
}

// Until the log says `text`, or 10 seconds; whether it did.
inline bool waitFor(const std::filesystem::path& log, const std::string& text) {
    return waitUntil([&] { return output("cat " + log.string()).find(text) != std::string::npos; });
}

}  // namespace wireloom::testing
