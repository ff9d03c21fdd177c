#pragma once
// What the helper tests share: a helper process started the way systemd's
// socket activation starts it (the listening socket as descriptor 3,
// LISTEN_FDS=1, LISTEN_PID = the helper's own pid, LISTEN_FDNAMES=MasterSocket,
// its log in a file), stand-ins for system tools, and a client.
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
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#define SKIP_UNLESS_ROOT(why) \
    if (geteuid() != 0) GTEST_SKIP() << "needs root: " << why

namespace wireloom::testing {

inline std::filesystem::path realHelperPath() { return binaryDir() / "cli" / "org.wireloom.WLCaptureAssistant"; }
inline std::filesystem::path testHelperPath() { return binaryDir() / "WLCaptureAssistant" / "wl_test_helper"; }

inline std::filesystem::path makeTemporaryFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "wl-assistant-XXXXXX").string();
    return mkdtemp(pattern.data());
}
inline std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// An identifier whose socket, "/var/run/<identifier>.socket", is this
// process's own.
inline std::string testIdentifier() { return "org.wireloom.test" + std::to_string(getpid()) + ".WLCaptureAssistant"; }
inline std::string socketPathFor(const std::string& identifier) { return "/var/run/" + identifier + ".socket"; }

inline sockaddr_un localAddress(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    return address;
}

// A local stream socket bound to path (and listening, if asked); -1 on failure.
inline int boundSocket(const std::string& path, bool listening) {
    unlink(path.c_str());
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = localAddress(path);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || (listening && listen(fd, 16) != 0)) {
        close(fd);
        return -1;
    }
    chmod(path.c_str(), 0666);
    return fd;
}

struct PlistDeleter {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using Plist = std::unique_ptr<void, PlistDeleter>;

inline std::string stringAt(const Plist& dictionary, const char* key) {
    plist_t node = dictionary ? plist_dict_get_item(dictionary.get(), key) : nullptr;
    return node && plist_get_node_type(node) == PLIST_STRING ? plist_get_string_ptr(node, nullptr) : "";
}

class HelperProcess {
public:
    HelperProcess(const std::filesystem::path& program, std::string socketPath,
                  const std::vector<std::string>& extraEnvironment = {})
        : socketPath_(std::move(socketPath)), log_(makeTemporaryFolder() / "helper.log") {
        int listener = boundSocket(socketPath_, true);
        if (listener < 0) throw std::runtime_error("cannot listen on " + socketPath_);
        std::vector<std::string> environment = {"LISTEN_FDS=1", "LISTEN_FDNAMES=MasterSocket",
                                                std::string("PATH=") + getenv("PATH")};
        for (const auto& extra : extraEnvironment) {  // replaces the entry of the same name
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
    std::string log() const { return readFile(log_); }
    // The wait status, if the helper ends within the time given.
    std::optional<int> waitForExit(std::chrono::milliseconds limit) {
        for (auto deadline = std::chrono::steady_clock::now() + limit; std::chrono::steady_clock::now() < deadline;) {
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
        sockaddr_un address = localAddress(socketPath_);
        connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        return fd;
    }

private:
    std::string socketPath_;
    std::filesystem::path log_;
    pid_t pid_ = -1;
    bool exited_ = false;
};

// Shell scripts that stand in for system tools (pkcheck, pkexec) while the
// object lives: their folder goes first on PATH, for the test and the
// helpers it starts.
class FakeTools {
public:
    FakeTools() : folder_(makeTemporaryFolder()), savedPath_(getenv("PATH")) {
        setenv("PATH", (folder_.string() + ":" + savedPath_).c_str(), 1);
    }
    ~FakeTools() {
        setenv("PATH", savedPath_.c_str(), 1);
        std::filesystem::remove_all(folder_);
    }
    void set(const std::string& name, const std::string& script) {
        std::ofstream(folder_ / name) << "#!/bin/sh\n" << script << "\n";
        std::filesystem::permissions(folder_ / name, std::filesystem::perms::owner_all);
    }

private:
    std::filesystem::path folder_;
    std::string savedPath_;
};

// A system root for the helper and the assistant (WIRELOOM_SYSTEM_ROOT)
// while the object lives, with a dev folder holding the named files.
class SystemRoot {
public:
    explicit SystemRoot(std::initializer_list<const char*> names) : root_(makeTemporaryFolder()) {
        std::filesystem::create_directories(root_ / "dev");
        for (const char* name : names) std::ofstream(root_ / "dev" / name) << "";
        setenv(kGWDSystemRootVariable, root_.c_str(), 1);
    }
    ~SystemRoot() {
        unsetenv(kGWDSystemRootVariable);
        std::filesystem::remove_all(root_);
    }
    const std::filesystem::path& path() const { return root_; }
    void setGroup(const char* name, gid_t gid) { ASSERT_EQ(chown((root_ / "dev" / name).c_str(), -1, gid), 0); }

private:
    std::filesystem::path root_;
};

// The bytes a client sends: the external form, the length prefix, the body.
inline std::string requestXml(const std::string& command, const std::string& more = "") {
    return "<plist version=\"1.0\"><dict><key>" kGWDCommandKey "</key><string>" + command + "</string>" + more +
           "</dict></plist>";
}
inline std::string framed(const std::string& body, std::optional<std::uint32_t> length = std::nullopt) {
    std::uint32_t wire = htonl(length.value_or(static_cast<std::uint32_t>(body.size())));
    return "GWDAUTH1" + std::string(24, 'x') + std::string(reinterpret_cast<const char*>(&wire), 4) + body;
}

}  // namespace wireloom::testing
