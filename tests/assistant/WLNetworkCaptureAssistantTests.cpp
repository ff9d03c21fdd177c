#include "HelperProcess.hpp"

#include <Wireloom/capture/WLNetworkCaptureAssistant.hpp>
#include <Wireloom/core/Log.hpp>

using namespace wireloom;
using namespace wireloom::testing;

namespace {

// Replaces what would ask an administrator or systemd; each optional left
// empty lets the real code decide.
class AssistantDouble : public WLNetworkCaptureAssistant {
public:
    using WLNetworkCaptureAssistant::WLNetworkCaptureAssistant;
    std::optional<bool> needsInstall = false;
    std::optional<bool> blessSucceeds = true;
    int blessCalls = 0;
    std::optional<UserInfo> answer = UserInfo();  // to every request, which is recorded
    std::vector<std::pair<std::string, UserInfo>> requests;
    std::optional<std::string> installedProgram;
    std::string shippedProgram;

    bool needToInstallHelperTool() override {
        return needsInstall ? *needsInstall : WLNetworkCaptureAssistant::needToInstallHelperTool();
    }
    bool blessHelperWithError(std::string* error) override {
        blessCalls++;
        if (!blessSucceeds) return WLNetworkCaptureAssistant::blessHelperWithError(error);
        if (!*blessSucceeds) *error = "Failed to acquire authorization";
        return *blessSucceeds;
    }
    std::optional<UserInfo> executeRequest(const std::string& command, const UserInfo& args) override {
        if (!answer) return WLNetworkCaptureAssistant::executeRequest(command, args);
        requests.emplace_back(command, args);
        return answer;
    }
    std::string helperToolPath() const override { return shippedProgram; }

protected:
    std::optional<std::string> installedHelperProgram() override { return installedProgram; }
};

struct LogCapture {
    std::vector<std::string> lines;
    LogCapture() {
        Log::setSink([this](Log::Level, const std::string& text) { lines.push_back(text); });
    }
    ~LogCapture() { Log::setSink(nullptr); }
    bool contains(const std::string& text) const { return std::find(lines.begin(), lines.end(), text) != lines.end(); }
};

}  // namespace

TEST(CaptureAssistantGrant, AsksOnlyWhenSomeDeviceLacksTheGroup) {
    LogCapture log;
    AssistantDouble assistant;
    {
        FakeSystem system({"null", "tty0"});
        assistant.grantBPFAccess();
        EXPECT_TRUE(assistant.requests.empty());
    }
    {
        FakeSystem system({"bpf0"});
        assistant.answer = UserInfo{{kWLErrorKey, "No such user: x"}};
        assistant.grantBPFAccess();
        ASSERT_EQ(assistant.requests.size(), 1u);
        EXPECT_EQ(assistant.requests[0].first, kWLSetBPFAccessCommand);
        EXPECT_EQ(*assistant.requests[0].second.at(kWLUserKey).string(), getpwuid(geteuid())->pw_name);
        EXPECT_TRUE(log.contains("Failed to grant access to /dev/bpf* with error: No such user: x"));
    }
    SKIP_UNLESS_ROOT("giving devices to the group " kWLAccessBPFGroup);
    if (getgrnam(kWLAccessBPFGroup) == nullptr) std::system("groupadd --system " kWLAccessBPFGroup);
    ASSERT_NE(getgrnam(kWLAccessBPFGroup), nullptr);
    gid_t group = getgrnam(kWLAccessBPFGroup)->gr_gid;
    FakeSystem system({"bpf0", "bpf1", "bpf2", "bpf3"});
    for (std::string name : {"bpf0", "bpf1", "bpf2", "bpf3"})
        ASSERT_EQ(chown(system.path("dev/" + name).c_str(), -1, group), 0);
    assistant.requests.clear();
    assistant.grantBPFAccess();
    EXPECT_TRUE(assistant.requests.empty());
    ASSERT_EQ(chown(system.path("dev/bpf2").c_str(), -1, 0), 0);
    assistant.grantBPFAccess();
    EXPECT_EQ(assistant.requests.size(), 1u);
}

TEST(CaptureAssistantGrant, AFailedInstallGivesUpUntilRelinquished) {
    LogCapture log;
    FakeSystem system({"bpf0"});
    AssistantDouble assistant;
    assistant.needsInstall = true;
    assistant.blessSucceeds = false;
    assistant.grantBPFAccess();
    assistant.grantBPFAccess();
    EXPECT_EQ(assistant.blessCalls, 1);
    EXPECT_TRUE(assistant.requests.empty());
    EXPECT_TRUE(log.contains("Bless error: Failed to acquire authorization"));

    assistant.relinquishExecuteAuthorization();
    EXPECT_EQ(assistant.executeAuthorizationRef(), nullptr);
    assistant.blessSucceeds = true;
    assistant.grantBPFAccess();
    EXPECT_EQ(assistant.blessCalls, 2);
    EXPECT_EQ(assistant.requests.size(), 1u);
}

TEST(CaptureAssistantInstall, ReadsVersionsFromTheExecutables) {
    EXPECT_EQ(WLNetworkCaptureAssistant::bundleVersionOfExecutable(realHelperPath()), 1);
    EXPECT_EQ(WLNetworkCaptureAssistant::bundleVersionOfExecutable(testHelperPath()), 9999);
    // An executable without the section, a file that is no executable, none.
    for (std::string path : {std::string("/bin/sh"), (sourceDir() / "README.md").string(), std::string("/nonexistent")})
        EXPECT_EQ(WLNetworkCaptureAssistant::bundleVersionOfExecutable(path), std::nullopt) << path;
}

TEST(CaptureAssistantInstall, ReinstallsUnlessTheSameVersionAnswersVerified) {
    SKIP_UNLESS_ROOT("the helper's socket lives in /var/run");
    AssistantDouble assistant(testIdentifier());
    assistant.needsInstall.reset();
    assistant.answer.reset();
    assistant.shippedProgram = testHelperPath();
    ASSERT_TRUE(assistant.acquireExecuteAuthorization());  // installs (a double) first: nothing is installed

    EXPECT_EQ(assistant.blessCalls, 1);
    assistant.installedProgram = realHelperPath();  // another version
    EXPECT_TRUE(assistant.needToInstallHelperTool());
    // Without such a service (or without systemd), systemd knows no program.
    EXPECT_TRUE(WLNetworkCaptureAssistant("org.wireloom.absent.WLCaptureAssistant").needToInstallHelperTool());

    assistant.installedProgram = testHelperPath();
    for (auto [answer, install] : {std::pair{"Verified", false}, std::pair{"Not verified", true}}) {
        HelperProcess helper(testHelperPath(), socketPathFor(testIdentifier()),
                             std::string("WL_TEST_VERIFY_ANSWER=") + answer);
        EXPECT_EQ(assistant.needToInstallHelperTool(), install) << answer << helper.log();
        EXPECT_EQ(assistant.installAndVerifyTool(), !install) << answer;
    }
}

TEST(CaptureAssistantInstall, BlessingRunsTheHelpersInstallerThroughPkexec) {
    LogCapture log;
    FakeSystem system;
    system.setTool("pkexec", "exec \"$@\" 2>/dev/null");
    AssistantDouble assistant;
    assistant.blessSucceeds.reset();
    assistant.shippedProgram = realHelperPath();

    system.setTool("pkcheck", "exit 1");  // not even by authenticating
    std::string error;
    EXPECT_FALSE(assistant.blessHelperWithError(&error));
    EXPECT_EQ(error, "Failed to acquire authorization");
    EXPECT_TRUE(log.contains("Error: Could not setup authorization rights"));
    system.setTool("pkcheck", "exit 2");  // an administrator could authorize it
    EXPECT_FALSE(assistant.blessHelperWithError(&error));
    assistant.relinquishAuthorization();
    ASSERT_TRUE(assistant.blessHelperWithError(&error)) << error;

    std::string label = WLCaptureAssistantLabel;
    auto tool = system.path("." kGWDHelperToolDirectory "/" + label);
    EXPECT_EQ(slurp(tool), slurp(realHelperPath()));
    EXPECT_EQ(WLNetworkCaptureAssistant::bundleVersionOfExecutable(tool), 1);
    std::string socketUnit = slurp(system.path("." kGWDUnitDirectory "/" + label + ".socket"));
    EXPECT_NE(socketUnit.find("ListenStream=/var/run/" + label + ".socket\n"), std::string::npos);
    EXPECT_NE(socketUnit.find("FileDescriptorName=MasterSocket\n"), std::string::npos);
    std::string serviceUnit = slurp(system.path("." kGWDUnitDirectory "/" + label + ".service"));
    EXPECT_NE(serviceUnit.find("ExecStart=" kGWDHelperToolDirectory "/" + label + "\n"), std::string::npos);
}
