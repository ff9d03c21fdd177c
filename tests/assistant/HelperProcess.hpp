#pragma once
// What the assistant tests share: a helper process started the way systemd's
// socket activation starts it, the library's client, and a fake system.
#include <gtest/gtest.h>
#include "support/Paths.hpp"

#include <WLCaptureAssistant/GatewardenInternal.h>
#include <WLCaptureAssistant/WLCaptureAssistantCommon.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

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

inline std::filesystem::path realHelperPath() { return binaryDir() / "cli" / WLCaptureAssistantLabel; }
inline std::filesystem::path testHelperPath() { return binaryDir() / "WLCaptureAssistant" / "wl_test_helper"; }

inline std::filesystem::path makeTemporaryFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "wl-assistant-XXXXXX").string();
    return mkdtemp(pattern.data());
}

// An identifier whose socket, "/var/run/<identifier>.socket", is this
// process's own.
inline std::string testIdentifier() { return "org.wireloom.test" + std::to_string(getpid()) + ".WLCaptureAssistant"; }
inline std::string socketPathFor(const std::string& identifier) { return "/var/run/" + identifier + ".socket"; }

// A local stream socket bound to path (and then listening, if asked), or
// else connected to it; -1 when that fails.
inline int localSocket(const std::string& path, bool bound, bool listening = false) {
    sockaddr_un address{.sun_family = AF_UNIX};
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    auto* name = reinterpret_cast<sockaddr*>(&address);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bound) unlink(path.c_str());
    if (bound ? bind(fd, name, sizeof(address)) != 0 || chmod(path.c_str(), 0666) != 0 ||
                    (listening && listen(fd, 16) != 0)
              : connect(fd, name, sizeof(address)) != 0)
        return close(fd), -1;
    return fd;
}

struct PlistDeleter {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using Plist = std::unique_ptr<void, PlistDeleter>;

inline Plist dictionaryWith(const char* key, plist_t value) {
    Plist dictionary(plist_new_dict());
    plist_dict_set_item(dictionary.get(), key, value);
    return dictionary;
}
inline std::string stringAt(const Plist& dictionary, const char* key) {
    plist_t node = dictionary ? plist_dict_get_item(dictionary.get(), key) : nullptr;
    return node && plist_get_node_type(node) == PLIST_STRING ? plist_get_string_ptr(node, nullptr) : "";
}

// The client's table: it knows commands the helpers do not, so that their
// own answer to them can be seen.
inline const GWDCommandSpec kClientTable[] = {{"VerifyPrivs"},
                                              {"SetBPFAccess"},
                                              {"ShutdownHelper"},
                                              {"OpenPipes"},
                                              {"NoSuchCommand"},
                                              {"NeedsRight", "test.right", "auth_admin"},
                                              {}};

// One request through the library's client: its status, and the response
// when there is one.
inline std::pair<int32_t, Plist> sendRequest(const std::string& identifier, const char* command,
                                             const char* key = nullptr, plist_t value = nullptr) {
    GWDAuthorizationRef authorization = nullptr;
    GWDAuthorizationCreate(&authorization);
    Plist request = dictionaryWith(kGWDCommandKey, plist_new_string(command));
    if (key) plist_dict_set_item(request.get(), key, value);
    plist_t response = nullptr;
    int32_t status = GWDExecuteRequestInHelperTool(authorization, kClientTable, identifier.c_str(), request.get(),
                                                   &response, nullptr);
    GWDAuthorizationFree(authorization, kGWDAuthorizationFlagDestroyRights);
    return {status, Plist(response)};
}

// A process ("self" or a pid) closes a connection just after its response,
// so a count taken at once may still see it: the least of a few counts is
// the settled one.
inline std::size_t settledDescriptorCount(const std::string& process = "self") {
    std::size_t least = SIZE_MAX;
    for (int i = 0; i < 10; i++, std::this_thread::sleep_for(std::chrono::milliseconds(20)))
        least = std::min<std::size_t>(
            least, std::distance(std::filesystem::directory_iterator("/proc/" + process + "/fd"), {}));
    return least;
}

// The helper with this process's environment plus LISTEN_FDS=1,
// LISTEN_FDNAMES=MasterSocket, LISTEN_PID = its own pid and the setting
// given ("NAME=value"), which wins; the listening socket is descriptor 3 and
// its log is kept. Without a socket path it listens in a folder of its own.
class HelperProcess {
public:
    explicit HelperProcess(const std::filesystem::path& program, const std::string& socketPath = "",
                           std::string setting = "LISTEN_FDS=1")
        : folder_(makeTemporaryFolder()),
          socketPath_(socketPath.empty() ? (folder_ / "helper.socket").string() : socketPath) {
        int listener = localSocket(socketPath_, true, true);
        if (listener < 0) throw std::runtime_error("cannot listen on " + socketPath_);
        std::string script = "export LISTEN_PID=$$; exec env LISTEN_FDS=1 LISTEN_FDNAMES=MasterSocket \"$@\" \"$0\"";
        std::string programText = program.string();
        char* argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"), script.data(),
                        programText.data(),      setting.data(),          nullptr};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, listener, 3);
        posix_spawn_file_actions_addopen(&actions, 2, (folder_ / "helper.log").c_str(), O_WRONLY | O_CREAT, 0644);
        int err = posix_spawn(&pid_, "/bin/sh", &actions, nullptr, argv, environ);
        posix_spawn_file_actions_destroy(&actions);
        close(listener);
        if (err != 0) throw std::runtime_error("cannot start " + programText);
    }
    ~HelperProcess() {
        if (!exited_) kill(pid_, SIGKILL), waitpid(pid_, nullptr, 0);
        unlink(socketPath_.c_str());
        std::filesystem::remove_all(folder_);
    }
    HelperProcess(const HelperProcess&) = delete;
    HelperProcess& operator=(const HelperProcess&) = delete;

    pid_t pid() const { return pid_; }
    std::string log() const { return slurp(folder_ / "helper.log"); }
    // The wait status, if the helper ends within the time given.
    std::optional<int> waitForExit(std::chrono::milliseconds limit) {
        for (auto deadline = std::chrono::steady_clock::now() + limit; std::chrono::steady_clock::now() < deadline;) {
            int status;
            if (waitpid(pid_, &status, WNOHANG) == pid_) return exited_ = true, status;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return std::nullopt;
    }
    int connectClient() const { return localSocket(socketPath_, false); }

private:
    std::filesystem::path folder_;
    std::string socketPath_;
    pid_t pid_ = -1;
    bool exited_ = false;
};

// While the object lives, for the test and the helpers it starts: a system
// root (WIRELOOM_SYSTEM_ROOT) whose dev folder holds the named files, and a
// folder first on PATH for shell scripts standing in for system tools.
class FakeSystem {
public:
    explicit FakeSystem(std::initializer_list<const char*> devices = {})
        : root_(makeTemporaryFolder()), savedPath_(getenv("PATH")) {
        std::filesystem::create_directories(root_ / "dev");
        std::filesystem::create_directories(root_ / "tools");
        for (const char* name : devices) std::ofstream(root_ / "dev" / name) << "";
        setenv(kGWDSystemRootVariable, root_.c_str(), 1);
        setenv("PATH", ((root_ / "tools").string() + ":" + savedPath_).c_str(), 1);
    }
    ~FakeSystem() {
        unsetenv(kGWDSystemRootVariable);
        setenv("PATH", savedPath_.c_str(), 1);
        std::filesystem::remove_all(root_);
    }
    std::filesystem::path path(const std::string& relative) const { return root_ / relative; }
    void setTool(const std::string& name, const std::string& script) const {
        std::ofstream(root_ / "tools" / name) << "#!/bin/sh\n" << script << "\n";
        std::filesystem::permissions(root_ / "tools" / name, std::filesystem::perms::owner_all);
    }

private:
    std::filesystem::path root_;
    std::string savedPath_;
};

// The bytes a client sends: the external form, the length prefix, the body.
inline const std::string kVerifyPrivsXml =
    "<plist version=\"1.0\"><dict><key>" kGWDCommandKey "</key><string>VerifyPrivs</string></dict></plist>";
inline std::string framed(const std::string& body, std::optional<std::uint32_t> length = std::nullopt) {
    std::uint32_t wire = htonl(length.value_or(static_cast<std::uint32_t>(body.size())));
    return "GWDAUTH1" + std::string(24, 'x') + std::string(reinterpret_cast<const char*>(&wire), 4) + body;
}

}  // namespace wireloom::testing
