// The real helper executables, started as systemd would start them, with
// real clients: the library's own, and raw ones that misbehave on purpose.
#include "HelperProcess.hpp"

#include <poll.h>

using namespace wireloom::testing;
using namespace std::chrono_literals;

namespace {

// Sends raw bytes on a new connection; true if the helper then hung up
// within three seconds without sending anything.
bool helperHangsUpSilently(const HelperProcess& helper, const std::string& bytes) {
    int fd = helper.connectClient();
    ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    pollfd watch{fd, POLLIN, 0};
    char byte;
    bool silent = poll(&watch, 1, 3000) == 1 && recv(fd, &byte, 1, 0) == 0;
    close(fd);
    return silent;
}

class RealHelper : public ::testing::Test {
protected:
    void SetUp() override {
        SKIP_UNLESS_ROOT("the helper's socket lives in /var/run and its commands change groups");
        helper_.emplace(realHelperPath(), socketPathFor(testIdentifier()));
    }
    bool servesNextRequest() const {
        auto [status, response] = sendRequest(testIdentifier(), "VerifyPrivs");
        return status == 0 && stringAt(response, kWLResponseKey) == kWLVerifiedAnswer;
    }
    FakeSystem system_{"bpf0", "bpf1", "bpf2", "bpf3", "null0"};
    std::optional<HelperProcess> helper_;
};

}  // namespace

TEST_F(RealHelper, ServesItsCommandsToTheLibrarysClient) {
    ASSERT_TRUE(servesNextRequest()) << helper_->log();
    auto [unknownStatus, unknown] = sendRequest(testIdentifier(), "NoSuchCommand");
    ASSERT_EQ(unknownStatus, 0);
    EXPECT_EQ(GWDGetErrorFromResponse(unknown.get()), 100002);

    auto [accessStatus, access] =
        sendRequest(testIdentifier(), "SetBPFAccess", kWLUserKey, plist_new_string(getpwuid(geteuid())->pw_name));
    ASSERT_EQ(accessStatus, 0);
    EXPECT_EQ(GWDGetErrorFromResponse(access.get()), 0);
    EXPECT_EQ(stringAt(access, kWLErrorKey), "") << helper_->log();
    group* bpfGroup = getgrnam(kWLAccessBPFGroup);
    ASSERT_NE(bpfGroup, nullptr);
    for (const char* name : {"bpf0", "bpf1", "bpf2", "bpf3", "null0"}) {
        struct stat info;
        ASSERT_EQ(stat(system_.path("dev/" + std::string(name)).c_str(), &info), 0);
        bool isDevice = std::string(name).starts_with("bpf");
        EXPECT_EQ(info.st_gid == bpfGroup->gr_gid, isDevice) << name;
        EXPECT_EQ((info.st_mode & 060) == 060, isDevice) << name;
    }

    EXPECT_EQ(sendRequest(testIdentifier(), "ShutdownHelper").first, 0);
    auto exit = helper_->waitForExit(5s);
    ASSERT_TRUE(exit.has_value());
    EXPECT_TRUE(WIFEXITED(*exit) && WEXITSTATUS(*exit) == 0);
    for (const char* line : {"Starting up", "Request from pid", "Command callback succeeded", "Shutting down"})
        EXPECT_NE(helper_->log().find(line), std::string::npos) << line;
}

TEST_F(RealHelper, RefusesToGrantAccessToAnotherUserUnlessAskedByRoot) {
    std::string identifier = testIdentifier();  // the parent's pid names it
    pid_t child = fork();
    if (child == 0) {  // not root, asking for root's access: exits 0 when refused
        if (setgid(65534) != 0 || setuid(65534) != 0) _exit(2);
        auto [status, response] = sendRequest(identifier, "SetBPFAccess", kWLUserKey, plist_new_string("root"));
        _exit(status == 0 && !stringAt(response, kWLErrorKey).empty() ? 0 : 1);
    }
    int exit = -1;
    waitpid(child, &exit, 0);
    EXPECT_TRUE(WIFEXITED(exit) && WEXITSTATUS(exit) == 0) << helper_->log();
    EXPECT_NE(helper_->log().find("may not grant capture access to root"), std::string::npos);
}

TEST_F(RealHelper, OutlivesHostileClients) {
    ASSERT_TRUE(servesNextRequest()) << helper_->log();
    std::size_t descriptorsAtStart = settledDescriptorCount(std::to_string(helper_->pid()));

    // A length refused before the body is awaited, a binary list that is
    // never parsed, and nesting deep enough to exhaust the stack: no response.
    std::string deep;
    for (int i = 0; i < 60000; i++) deep += "<array>";
    for (int i = 0; i < 60000; i++) deep += "</array>";
    for (const std::string& bytes : {framed("", 0xFFFFFFFFu), framed(std::string("bplist00\xd0\x08")),
                                     framed("<plist><dict><key>k</key>" + deep + "</dict></plist>")})
        EXPECT_TRUE(helperHangsUpSilently(*helper_, bytes)) << bytes.substr(0, 60);
    // A client that hangs up halfway.
    int fd = helper_->connectClient();
    std::string partial = framed(kVerifyPrivsXml, 500).substr(0, 60);
    ::send(fd, partial.data(), partial.size(), MSG_NOSIGNAL);
    close(fd);
    ASSERT_TRUE(servesNextRequest()) << helper_->log();

    // A thousand malformed requests leave no descriptor behind.
    for (int i = 0; i < 1000; i++)
        helperHangsUpSilently(*helper_,
                              framed(i % 2 ? "<plist><dict>" : "bplist", i % 3 ? std::nullopt : std::optional(3u)));
    ASSERT_TRUE(servesNextRequest());
    EXPECT_EQ(settledDescriptorCount(std::to_string(helper_->pid())), descriptorsAtStart);
    EXPECT_NE(helper_->log().find("Request failed: Invalid argument"), std::string::npos);
}

TEST(HelperWatchdog, CutsOffAClientThatTricklesBytes) {
    HelperProcess helper(testHelperPath(), "", "GWDWatchdogSeconds=2");
    int fd = helper.connectClient();
    ASSERT_GE(fd, 0);
    std::string bytes = framed(kVerifyPrivsXml);
    std::optional<int> exit;
    for (std::size_t i = 0; i < bytes.size() && !exit; i++) {
        ::send(fd, &bytes[i], 1, MSG_NOSIGNAL);
        exit = helper.waitForExit(700ms);
    }
    close(fd);
    ASSERT_TRUE(exit.has_value()) << "the helper served a request that took " << bytes.size() * 0.7 << " s";
    EXPECT_TRUE(WIFSIGNALED(*exit) && WTERMSIG(*exit) == SIGALRM);
}

TEST(HelperCheckIn, FailsWithoutAMasterSocket) {
    HelperProcess helper(testHelperPath(), "", "LISTEN_FDNAMES=Other");
    auto exit = helper.waitForExit(5s);
    ASSERT_TRUE(exit.has_value());
    EXPECT_TRUE(WIFEXITED(*exit) && WEXITSTATUS(*exit) == 1);
    EXPECT_NE(helper.log().find("Could not get file descriptor array: No such file or directory"), std::string::npos)
        << helper.log();
}

TEST(TestHelper, SendsWorkingDescriptorsAndChecksNamedRights) {
    SKIP_UNLESS_ROOT("the client's socket lives in /var/run");
    FakeSystem system;
    HelperProcess helper(testHelperPath(), socketPathFor(testIdentifier()));

    for (std::uint32_t count : {0u, 3u}) {
        auto [status, response] = sendRequest(testIdentifier(), "OpenPipes", "count", plist_new_uint(count));
        ASSERT_EQ(status, 0) << helper.log();
        plist_t descriptors = plist_dict_get_item(response.get(), kGWDDescriptorsKey);
        ASSERT_EQ(plist_get_node_type(descriptors), PLIST_ARRAY);
        ASSERT_EQ(plist_array_get_size(descriptors), count);
        for (std::uint32_t i = 0; i < count; i++) {
            std::uint64_t fd = 0;
            plist_get_uint_val(plist_array_get_item(descriptors, i), &fd);
            char text[16] = {};
            EXPECT_GT(read(static_cast<int>(fd), text, sizeof(text) - 1), 0);
            EXPECT_EQ(std::string(text), "pipe " + std::to_string(i));
        }
        GWDCloseDescriptorArray(descriptors);
    }

    // Granted to the client but refused by the helper, which asks for its peer.
    system.setTool("pkcheck", "[ $PPID = " + std::to_string(helper.pid()) + " ] && exit 1; exit 0");
    auto [helperStatus, refused] = sendRequest(testIdentifier(), "NeedsRight");
    ASSERT_EQ(helperStatus, 0);
    EXPECT_EQ(GWDGetErrorFromResponse(refused.get()), -60005);

    // polkit's answer, as pkcheck's exit status, on both sides of the
    // connection; a challenge is a refusal where the user may be asked.
    for (auto [answer, expected] : {std::pair{0, 0}, {1, -60005}, {2, -60005}, {3, -128}}) {
        system.setTool("pkcheck", "exit " + std::to_string(answer));
        auto [status, response] = sendRequest(testIdentifier(), "NeedsRight");
        EXPECT_EQ(status, expected) << answer;
        EXPECT_EQ(stringAt(response, kWLResponseKey).empty(), expected != 0) << answer;
    }
}
