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
    std::pair<int32_t, Plist> send(const char* command, const char* key = nullptr, plist_t value = nullptr) {
        Plist request(plist_new_dict());
        plist_dict_set_item(request.get(), kGWDCommandKey, plist_new_string(command));
        if (key) plist_dict_set_item(request.get(), key, value);
        plist_t response = nullptr;
        int32_t status = GWDExecuteRequestInHelperTool(authorization_, kClientTable, identifier_.c_str(), request.get(),
                                                       &response, nullptr);
        return {status, Plist(response)};
    }

private:
    std::string identifier_;
    GWDAuthorizationRef authorization_ = nullptr;
};

// Sends raw bytes and waits for the helper to hang up; true if it did so
// within the time given without sending anything.
bool helperHangsUpSilently(int fd, const std::string& bytes, std::chrono::milliseconds limit = 3s) {
    ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    pollfd watch{fd, POLLIN, 0};
    if (poll(&watch, 1, static_cast<int>(limit.count())) != 1) return false;
    char byte;
    return recv(fd, &byte, 1, 0) == 0;
}

// The helper closes a connection just after its response, so a count taken
// at once may still see it: the least of a few counts is the settled one.
std::size_t settledDescriptorCountOf(pid_t pid) {
    std::string folder = "/proc/" + std::to_string(pid) + "/fd";
    std::size_t least = SIZE_MAX;
    for (int i = 0; i < 10; i++, std::this_thread::sleep_for(20ms))
        least =
            std::min(least, static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder), {})));
    return least;
}

class RealHelper : public ::testing::Test {
protected:
    void SetUp() override {
        SKIP_UNLESS_ROOT("the helper's socket lives in /var/run and its commands change groups");
        root_ =
            std::make_unique<SystemRoot>(std::initializer_list<const char*>{"bpf0", "bpf1", "bpf2", "bpf3", "null0"});
        helper_ = std::make_unique<HelperProcess>(realHelperPath(), socketPathFor(testIdentifier()),
                                                  std::vector{kGWDSystemRootVariable "=" + root_->path().string()});
    }
    std::unique_ptr<SystemRoot> root_;
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

    auto [accessStatus, access] =
        client.send("SetBPFAccess", kWLUserKey, plist_new_string(getpwuid(geteuid())->pw_name));
    ASSERT_EQ(accessStatus, 0);
    EXPECT_EQ(stringAt(access, kWLErrorKey), "") << helper_->log();
    group* bpfGroup = getgrnam(kWLAccessBPFGroup);
    ASSERT_NE(bpfGroup, nullptr);
    for (const char* name : {"bpf0", "bpf1", "bpf2", "bpf3", "null0"}) {
        struct stat info;
        ASSERT_EQ(stat((root_->path() / "dev" / name).c_str(), &info), 0);
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
    std::string identifier = testIdentifier();  // the parent's pid names it
    pid_t child = fork();
    if (child == 0) {  // not root, asking for root's access: exits 0 when refused
        if (setgid(65534) != 0 || setuid(65534) != 0) _exit(2);
        auto [status, response] = Client(identifier).send("SetBPFAccess", kWLUserKey, plist_new_string("root"));
        _exit(status == 0 && !stringAt(response, kWLErrorKey).empty() ? 0 : 1);
    }
    int exit = -1;
    waitpid(child, &exit, 0);
    EXPECT_TRUE(WIFEXITED(exit) && WEXITSTATUS(exit) == 0) << helper_->log();
    EXPECT_NE(helper_->log().find("may not grant capture access to root"), std::string::npos);
}

TEST_F(RealHelper, OutlivesHostileClients) {
    auto servesNextRequest = [&] {
        Client client(testIdentifier());
        auto [status, response] = client.send("VerifyPrivs");
        return status == 0 && stringAt(response, kWLResponseKey) == kWLVerifiedAnswer;
    };
    ASSERT_TRUE(servesNextRequest()) << helper_->log();
    std::size_t descriptorsAtStart = settledDescriptorCountOf(helper_->pid());

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
    EXPECT_EQ(settledDescriptorCountOf(helper_->pid()), descriptorsAtStart);
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
    FakeTools tools;
    HelperProcess helper(testHelperPath(), socketPathFor(testIdentifier()));
    Client client(testIdentifier());

    auto [status, response] = client.send("OpenPipes", "count", plist_new_uint(3));
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

    // Granted to the client but refused by the helper, which asks for its peer.
    tools.set("pkcheck", "[ $PPID = " + std::to_string(helper.pid()) + " ] && exit 1; exit 0");
    auto [helperStatus, refused] = client.send("NeedsRight");
    ASSERT_EQ(helperStatus, 0);
    EXPECT_EQ(GWDGetErrorFromResponse(refused.get()), -60005);

    // polkit's answer, as pkcheck's exit status, on both sides of the connection.
    for (auto [answer, expected] : {std::pair{0, 0}, {1, -60005}, {3, -128}}) {
        tools.set("pkcheck", "exit " + std::to_string(answer));
        auto [rightStatus, rightResponse] = client.send("NeedsRight");
        EXPECT_EQ(rightStatus, expected) << answer;
        EXPECT_EQ(stringAt(rightResponse, kWLResponseKey), expected == 0 ? "granted" : "");
    }
}
