// The real helper executables, started as systemd would start them, with
// real clients: the library's own, and raw ones that misbehave on purpose.
#include <gtest/gtest.h>
#include "HelperProcess.hpp"

#include <WLCaptureAssistant/WLCaptureAssistantCommon.h>

#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/stat.h>

using namespace wireloom::testing;
using namespace std::chrono_literals;

namespace {

struct PlistDeleter {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using Plist = std::unique_ptr<void, PlistDeleter>;

#define SKIP_UNLESS_ROOT(why) \
    if (geteuid() != 0) GTEST_SKIP() << "needs root: " << why

// The client's table: it knows commands the real helper does not, so that
// the helper's own answer to them can be seen.
const GWDCommandSpec kClientTable[] = {{"VerifyPrivs", nullptr, nullptr, nullptr, nullptr},
                                       {"SetBPFAccess", nullptr, nullptr, nullptr, nullptr},
                                       {"ShutdownHelper", nullptr, nullptr, nullptr, nullptr},
                                       {"OpenPipes", nullptr, nullptr, nullptr, nullptr},
                                       {"NoSuchCommand", nullptr, nullptr, nullptr, nullptr},
                                       {"NeedsRight", "org.wireloom.test.needs-right", "auth_admin", "Key", nullptr},
                                       {nullptr, nullptr, nullptr, nullptr, nullptr}};

class Client {
public:
    explicit Client(std::string identifier) : identifier_(std::move(identifier)) {
        GWDAuthorizationCreate(&authorization_);
    }
    ~Client() { GWDAuthorizationFree(authorization_, kGWDAuthorizationFlagDestroyRights); }
    // The status, and the response when there is one.
    std::pair<int32_t, Plist> send(const char* command, plist_t arguments = nullptr) {
        Plist request(arguments ? arguments : plist_new_dict());
        plist_dict_set_item(request.get(), kGWDCommandKey, plist_new_string(command));
        plist_t response = nullptr;
        int32_t status = GWDExecuteRequestInHelperTool(authorization_, kClientTable, identifier_.c_str(), request.get(),
                                                       &response, nullptr);
        return {status, Plist(response)};
    }

private:
    std::string identifier_;
    GWDAuthorizationRef authorization_ = nullptr;
};

std::string stringAt(const Plist& dictionary, const char* key) {
    plist_t node = dictionary ? plist_dict_get_item(dictionary.get(), key) : nullptr;
    return node && plist_get_node_type(node) == PLIST_STRING ? plist_get_string_ptr(node, nullptr) : "";
}

// Sends raw bytes and waits for the helper to hang up; true if it did so
// within the time given without sending anything.
bool helperHangsUpSilently(int fd, const std::string& bytes, std::chrono::milliseconds limit = 3s) {
    ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    pollfd watch{fd, POLLIN, 0};
    if (poll(&watch, 1, static_cast<int>(limit.count())) != 1) return false;
    char byte;
    return recv(fd, &byte, 1, 0) == 0;
}

std::size_t descriptorCountOf(pid_t pid) {
    std::string folder = "/proc/" + std::to_string(pid) + "/fd";
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

class RealHelper : public ::testing::Test {
protected:
    void SetUp() override {
        SKIP_UNLESS_ROOT("the helper's socket lives in /var/run and its commands change groups");
        root_ = makeTemporaryFolder();
        std::filesystem::create_directories(root_ / "dev");
        for (const char* name : {"bpf0", "bpf1", "bpf2", "bpf3", "null0"}) std::ofstream(root_ / "dev" / name) << "";
        helper_ =
            std::make_unique<HelperProcess>(realHelperPath(), socketPathFor(testIdentifier()),
                                            std::vector<std::string>{kGWDSystemRootVariable "=" + root_.string()});
    }
    void TearDown() override {
        helper_.reset();
        if (!root_.empty()) std::filesystem::remove_all(root_);
    }
    std::filesystem::path root_;
    std::unique_ptr<HelperProcess> helper_;
};

}  // namespace

TEST_F(RealHelper, ServesItsCommandsToTheLibrarysClient) {
    Client client(testIdentifier());
    auto [status, verified] = client.send("VerifyPrivs");
    ASSERT_EQ(status, 0) << helper_->log();
    EXPECT_EQ(stringAt(verified, kWLResponseKey), kWLVerifiedAnswer);
    EXPECT_EQ(GWDGetErrorFromResponse(verified.get()), 0);

    auto [unknownStatus, unknown] = client.send("NoSuchCommand");
    ASSERT_EQ(unknownStatus, 0);
    EXPECT_EQ(GWDGetErrorFromResponse(unknown.get()), 100002);

    plist_t arguments = plist_new_dict();
    plist_dict_set_item(arguments, kWLUserKey, plist_new_string(getpwuid(geteuid())->pw_name));
    auto [accessStatus, access] = client.send("SetBPFAccess", arguments);
    ASSERT_EQ(accessStatus, 0);
    EXPECT_EQ(stringAt(access, kWLErrorKey), "") << helper_->log();
    group* bpfGroup = getgrnam(kWLAccessBPFGroup);
    ASSERT_NE(bpfGroup, nullptr);
    for (const char* name : {"bpf0", "bpf1", "bpf2", "bpf3", "null0"}) {
        struct stat info;
        ASSERT_EQ(stat((root_ / "dev" / name).c_str(), &info), 0);
        bool isDevice = std::string(name).starts_with("bpf");
        EXPECT_EQ(info.st_gid == bpfGroup->gr_gid, isDevice) << name;
        EXPECT_EQ((info.st_mode & 060) == 060, isDevice) << name;
    }

    auto [shutdownStatus, shutdown] = client.send("ShutdownHelper");
    EXPECT_EQ(shutdownStatus, 0);
    auto exit = helper_->waitForExit(5s);
    ASSERT_TRUE(exit.has_value());
    EXPECT_TRUE(WIFEXITED(*exit) && WEXITSTATUS(*exit) == 0);
    std::string log = helper_->log();
    for (const char* line : {"Starting up", "Request from pid", "Command callback succeeded", "Shutting down"})
        EXPECT_NE(log.find(line), std::string::npos) << line;
}

TEST_F(RealHelper, RefusesToGrantAccessToAnotherUserUnlessAskedByRoot) {
    // A child that is not root asks for root's access.
    int result[2];
    ASSERT_EQ(pipe(result), 0);
    std::string identifier = testIdentifier();  // the parent's pid names it
    pid_t child = fork();
    if (child == 0) {
        char answer = 'x';
        if (setgid(65534) == 0 && setuid(65534) == 0) {
            Client client(identifier);
            plist_t arguments = plist_new_dict();
            plist_dict_set_item(arguments, kWLUserKey, plist_new_string("root"));
            auto [status, response] = client.send("SetBPFAccess", arguments);
            answer = status != 0 ? 's' : stringAt(response, kWLErrorKey).empty() ? 'g' : 'r';
        }
        (void)!write(result[1], &answer, 1);
        _exit(0);
    }
    char answer = 0;
    close(result[1]);
    ASSERT_EQ(read(result[0], &answer, 1), 1);
    close(result[0]);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(answer, 'r') << helper_->log();
    EXPECT_NE(helper_->log().find("may not grant capture access to root"), std::string::npos);
}

TEST_F(RealHelper, OutlivesHostileClients) {
    auto servesNextRequest = [&] {
        Client client(testIdentifier());
        auto [status, response] = client.send("VerifyPrivs");
        return status == 0 && stringAt(response, kWLResponseKey) == kWLVerifiedAnswer;
    };
    std::size_t descriptorsAtStart = 0;
    ASSERT_TRUE(servesNextRequest()) << helper_->log();
    descriptorsAtStart = descriptorCountOf(helper_->pid());

    // Lengths refused before any body is read or allocated: the helper hangs
    // up although the body never comes.
    for (std::uint32_t length : {0u, 1048577u, 0xFFFFFFFFu}) {
        int fd = helper_->connectClient();
        EXPECT_TRUE(helperHangsUpSilently(fd, framed("", length))) << length;
        close(fd);
    }
    // A binary list is never parsed, and nesting too deep for the stack is
    // refused: no response either way.
    std::string deep;
    for (int i = 0; i < 60000; i++) deep += "<array>";
    for (int i = 0; i < 60000; i++) deep += "</array>";
    for (const std::string& body :
         {std::string("bplist00\xd0\x08"), "<plist><dict><key>k</key>" + deep + "</dict></plist>"}) {
        int fd = helper_->connectClient();
        EXPECT_TRUE(helperHangsUpSilently(fd, framed(body)));
        close(fd);
    }
    // A client that hangs up halfway.
    int fd = helper_->connectClient();
    std::string partial = framed(requestXml("VerifyPrivs"), 500).substr(0, 60);
    ::send(fd, partial.data(), partial.size(), MSG_NOSIGNAL);
    close(fd);
    ASSERT_TRUE(servesNextRequest()) << helper_->log();

    // A thousand malformed requests leave no descriptor behind.
    for (int i = 0; i < 1000; i++) {
        int client = helper_->connectClient();
        std::string garbage = framed(i % 2 ? "<plist><dict>" : "bplist", i % 3 ? std::nullopt : std::optional(3u));
        helperHangsUpSilently(client, garbage);
        close(client);
    }
    ASSERT_TRUE(servesNextRequest());
    EXPECT_EQ(descriptorCountOf(helper_->pid()), descriptorsAtStart);
    EXPECT_NE(helper_->log().find("Request failed: Invalid argument"), std::string::npos);
}

TEST(HelperWatchdog, CutsOffAClientThatTricklesBytes) {
    auto folder = makeTemporaryFolder();
    HelperProcess helper(testHelperPath(), (folder / "helper.socket").string(), {"GWDWatchdogSeconds=2"});
    int fd = helper.connectClient();
    ASSERT_GE(fd, 0);
    std::string bytes = framed(requestXml("VerifyPrivs"));
    std::optional<int> exit;
    for (std::size_t i = 0; i < bytes.size() && !exit; i++) {
        ::send(fd, &bytes[i], 1, MSG_NOSIGNAL);
        exit = helper.waitForExit(700ms);
    }
    close(fd);
    ASSERT_TRUE(exit.has_value()) << "the helper served a request that took " << bytes.size() * 0.7 << " s";
    EXPECT_TRUE(WIFSIGNALED(*exit) && WTERMSIG(*exit) == SIGALRM);
    std::filesystem::remove_all(folder);
}

TEST(HelperCheckIn, FailsWithoutAMasterSocket) {
    auto folder = makeTemporaryFolder();
    HelperProcess helper(testHelperPath(), (folder / "helper.socket").string(), {"LISTEN_FDNAMES=Other"});
    auto exit = helper.waitForExit(5s);
    ASSERT_TRUE(exit.has_value());
    EXPECT_TRUE(WIFEXITED(*exit) && WEXITSTATUS(*exit) == 1);
    EXPECT_NE(helper.log().find("Could not get file descriptor array: No such file or directory"), std::string::npos)
        << helper.log();
    std::filesystem::remove_all(folder);
}

TEST(TestHelper, SendsWorkingDescriptorsAndChecksNamedRights) {
    SKIP_UNLESS_ROOT("the client's socket lives in /var/run");
    // pkcheck stands in for polkit: it answers what the file "answer" holds.
    auto folder = makeTemporaryFolder();
    std::ofstream(folder / "pkcheck") << "#!/bin/sh\nexit $(cat " << (folder / "answer").string() << ")\n";
    std::filesystem::permissions(folder / "pkcheck", std::filesystem::perms::owner_all);
    std::string path = folder.string() + ":" + getenv("PATH");
    std::string savedPath = getenv("PATH");
    setenv("PATH", path.c_str(), 1);
    {
        HelperProcess helper(testHelperPath(), socketPathFor(testIdentifier()));
        Client client(testIdentifier());

        plist_t arguments = plist_new_dict();
        plist_dict_set_item(arguments, "count", plist_new_uint(3));
        auto [status, response] = client.send("OpenPipes", arguments);
        ASSERT_EQ(status, 0) << helper.log();
        plist_t descriptors = plist_dict_get_item(response.get(), kGWDDescriptorsKey);
        ASSERT_EQ(plist_array_get_size(descriptors), 3u);
        for (std::uint32_t i = 0; i < 3; i++) {
            std::uint64_t fd = 0;
            plist_get_uint_val(plist_array_get_item(descriptors, i), &fd);
            char text[16] = {};
            EXPECT_GT(read(static_cast<int>(fd), text, sizeof(text) - 1), 0);
            EXPECT_EQ(std::string(text), "pipe " + std::to_string(i));
        }
        GWDCloseDescriptorArray(descriptors);

        // Asked on both sides of the connection: the client and the helper.
        const std::pair<const char*, int32_t> answers[] = {{"0", 0}, {"1", -60005}, {"3", -128}};
        for (auto [answer, expected] : answers) {
            std::ofstream(folder / "answer") << answer;
            auto [rightStatus, rightResponse] = client.send("NeedsRight");
            EXPECT_EQ(rightStatus, expected) << answer;
            if (expected == 0) {
                EXPECT_EQ(stringAt(rightResponse, kWLResponseKey), "granted");
            }
        }
    }
    setenv("PATH", savedPath.c_str(), 1);
    std::filesystem::remove_all(folder);
}

TEST(HelperInstaller, InstallsItselfAndItsUnitsBelowTheSystemRoot) {
    auto root = makeTemporaryFolder();
    std::string command =
        "WIRELOOM_SYSTEM_ROOT=" + root.string() + " " + realHelperPath().string() + " install 2>/dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0);
    auto read = [](const std::filesystem::path& path) {
        std::ifstream in(path);
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    std::string label = WLCaptureAssistantLabel;
    auto tool = root / ("." kGWDHelperToolDirectory) / label;
    EXPECT_EQ(read(tool), read(realHelperPath()));
    EXPECT_TRUE((std::filesystem::status(tool).permissions() & std::filesystem::perms::others_exec) !=
                std::filesystem::perms::none);
    std::string socketUnit = read(root / ("." kGWDUnitDirectory) / (label + ".socket"));
    EXPECT_NE(socketUnit.find("ListenStream=/var/run/" + label + ".socket\n"), std::string::npos);
    EXPECT_NE(socketUnit.find("FileDescriptorName=MasterSocket\n"), std::string::npos);
    std::string serviceUnit = read(root / ("." kGWDUnitDirectory) / (label + ".service"));
    EXPECT_NE(serviceUnit.find("ExecStart=" kGWDHelperToolDirectory "/" + label + "\n"), std::string::npos);
    std::filesystem::remove_all(root);
}
