#pragma once
// Starts a helper executable the way systemd's socket activation does: a
// listening socket as descriptor 3, LISTEN_FDS=1, LISTEN_PID set to the
// helper's own pid and LISTEN_FDNAMES=MasterSocket. Its log (stderr) goes to
// a file the test can read.
#include "support/Paths.hpp"

#include <WLCaptureAssistant/GatewardenInternal.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace wireloom::testing {

inline std::filesystem::path realHelperPath() { return binaryDir() / "cli" / "org.wireloom.WLCaptureAssistant"; }
inline std::filesystem::path testHelperPath() { return binaryDir() / "WLCaptureAssistant" / "wl_test_helper"; }

// A fresh empty folder below the system's temporary folder.
inline std::filesystem::path makeTemporaryFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "wl-assistant-XXXXXX").string();
    return mkdtemp(pattern.data());
}

// The identifier whose socket "/var/run/<identifier>.socket" this test
// process may use.
inline std::string testIdentifier() { return "org.wireloom.test" + std::to_string(getpid()) + ".WLCaptureAssistant"; }
inline std::string socketPathFor(const std::string& identifier) { return "/var/run/" + identifier + ".socket"; }

class HelperProcess {
public:
    HelperProcess(const std::filesystem::path& program, std::string socketPath,
                  const std::vector<std::string>& extraEnvironment = {})
        : socketPath_(std::move(socketPath)), log_(makeTemporaryFolder() / "helper.log") {
        unlink(socketPath_.c_str());
        int listener = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, socketPath_.c_str(), sizeof(address.sun_path) - 1);
        if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || listen(listener, 16) != 0)
            throw std::runtime_error("cannot listen on " + socketPath_);
        chmod(socketPath_.c_str(), 0666);

        std::vector<std::string> environment = {"LISTEN_FDS=1", "LISTEN_FDNAMES=MasterSocket",
                                                std::string("PATH=") + (getenv("PATH") ? getenv("PATH") : "")};
        for (const auto& extra : extraEnvironment) {
            // An extra entry replaces the one of the same name.
            std::string name = extra.substr(0, extra.find('=') + 1);
            std::erase_if(environment, [&](const std::string& entry) { return entry.starts_with(name); });
            environment.push_back(extra);
        }
        std::vector<char*> envp;
        for (auto& entry : environment) envp.push_back(entry.data());
        envp.push_back(nullptr);
        std::string programText = program.string();
        std::string script = "export LISTEN_PID=$$; exec \"$0\"";
        char* argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"), script.data(), programText.data(), nullptr};

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, listener, 3);
        posix_spawn_file_actions_addopen(&actions, 2, log_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int err = posix_spawn(&pid_, "/bin/sh", &actions, nullptr, argv, envp.data());
        posix_spawn_file_actions_destroy(&actions);
        close(listener);
        if (err != 0) throw std::runtime_error("cannot start " + programText);
    }
    ~HelperProcess() {
        if (!exited_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        unlink(socketPath_.c_str());
        std::filesystem::remove_all(log_.parent_path());
    }
    HelperProcess(const HelperProcess&) = delete;
    HelperProcess& operator=(const HelperProcess&) = delete;

    pid_t pid() const { return pid_; }
    const std::string& socketPath() const { return socketPath_; }
    std::string log() const {
        std::ifstream in(log_);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    // The wait status, once the helper has ended within the time given.
    std::optional<int> waitForExit(std::chrono::milliseconds limit) {
        auto deadline = std::chrono::steady_clock::now() + limit;
        while (std::chrono::steady_clock::now() < deadline) {
            int status;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                exited_ = true;
                return status;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return std::nullopt;
    }
    // A raw connection to the helper's socket.
    int connectClient() const {
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, socketPath_.c_str(), sizeof(address.sun_path) - 1);
        if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
            close(fd);
            return -1;
        }
        return fd;
    }

private:
    std::string socketPath_;
    std::filesystem::path log_;
    pid_t pid_ = -1;
    bool exited_ = false;
};

// The bytes of one request as a client sends them: an external form, the
// length prefix, the XML body.
inline std::string requestXml(const std::string& command, const std::string& more = "") {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict><key>" kGWDCommandKey
           "</key><string>" +
           command + "</string>" + more + "</dict></plist>\n";
}
inline std::string framed(const std::string& body, std::optional<std::uint32_t> length = std::nullopt) {
    std::uint32_t wire = htonl(length.value_or(static_cast<std::uint32_t>(body.size())));
    std::string bytes = std::string("GWDAUTH1") + std::string(24, 'x');
    bytes.append(reinterpret_cast<const char*>(&wire), 4);
    return bytes + body;
}

}  // namespace wireloom::testing
