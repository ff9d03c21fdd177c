#include <gtest/gtest.h>
#include "HelperProcess.hpp"

#include <Wireloom/capture/WLNetworkCaptureAssistant.hpp>
#include <Wireloom/core/Log.hpp>

#include <WLCaptureAssistant/WLCaptureAssistantCommon.h>

#include <grp.h>
#include <pwd.h>

using namespace wireloom;
using namespace wireloom::testing;
using namespace std::chrono_literals;

namespace {

// Replaces what would ask an administrator or systemd; requests are recorded
// and answered unless realRequests is set.
class AssistantDouble : public WLNetworkCaptureAssistant {
public:
    using WLNetworkCaptureAssistant::WLNetworkCaptureAssistant;
    std::optional<bool> needsInstall = false;  // nothing: decide for real
    std::optional<bool> blessSucceeds = true;  // nothing: bless for real
    int blessCalls = 0;
    bool realRequests = false;
    UserInfo answer;
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
        if (realRequests) return WLNetworkCaptureAssistant::executeRequest(command, args);
        requests.emplace_back(command, args);
        return answer;
    }
    std::string helperToolPath() const override { return shippedProgram; }

protected:
    std::optional<std::string> installedHelperProgram() override { return installedProgram; }
};

gid_t accessGroup() {
    if (getgrnam(kWLAccessBPFGroup) == nullptr) std::system("groupadd --system " kWLAccessBPFGroup);
    group* found = getgrnam(kWLAccessBPFGroup);
    return found ? found->gr_gid : static_cast<gid_t>(-1);
}

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
    AssistantDouble assistant;
    {
        SystemRoot devices({"null", "tty0"});
        assistant.grantBPFAccess();
        EXPECT_TRUE(assistant.requests.empty());
    }
    {
        SystemRoot devices({"bpf0"});
        assistant.grantBPFAccess();
        ASSERT_EQ(assistant.requests.size(), 1u);
        EXPECT_EQ(assistant.requests[0].first, kWLSetBPFAccessCommand);
        EXPECT_EQ(*assistant.requests[0].second.at(kWLUserKey).string(), getpwuid(geteuid())->pw_name);
    }
    if (geteuid() != 0) GTEST_SKIP() << "needs root: giving devices to the group " kWLAccessBPFGroup;
    gid_t group = accessGroup();
    ASSERT_NE(group, static_cast<gid_t>(-1));
    SystemRoot devices({"bpf0", "bpf1", "bpf2", "bpf3"});
    for (const char* name : {"bpf0", "bpf1", "bpf2", "bpf3"}) devices.setGroup(name, group);
    assistant.requests.clear();
    assistant.grantBPFAccess();
    EXPECT_TRUE(assistant.requests.empty());
    devices.setGroup("bpf2", 0);
    assistant.grantBPFAccess();
    EXPECT_EQ(assistant.requests.size(), 1u);
}

TEST(CaptureAssistantGrant, LogsTheHelpersError) {
    LogCapture log;
    SystemRoot devices({"bpf0"});
    AssistantDouble assistant;
    assistant.answer = {{kWLErrorKey, "No such user: x"}};
    assistant.grantBPFAccess();
    EXPECT_TRUE(log.contains("Failed to grant access to /dev/bpf* with error: No such user: x"));
}

TEST(CaptureAssistantGrant, AFailedInstallGivesUpUntilRelinquished) {
    LogCapture log;
    SystemRoot devices({"bpf0"});
    AssistantDouble assistant;
    assistant.needsInstall = true;
    assistant.blessSucceeds = false;
    assistant.grantBPFAccess();
    assistant.grantBPFAccess();
    EXPECT_EQ(assistant.blessCalls, 1);
    EXPECT_TRUE(assistant.requests.empty());
    EXPECT_TRUE(assistant.executeAuthorizationFailed());
    EXPECT_TRUE(log.contains("Bless error: Failed to acquire authorization"));

    assistant.relinquishExecuteAuthorization();
    EXPECT_FALSE(assistant.executeAuthorizationFailed());
    EXPECT_EQ(assistant.executeAuthorizationRef(), nullptr);
    assistant.blessSucceeds = true;
    assistant.grantBPFAccess();
    EXPECT_EQ(assistant.blessCalls, 2);
    EXPECT_EQ(assistant.requests.size(), 1u);
}

TEST(CaptureAssistantInstall, ReadsVersionsFromTheExecutables) {
    EXPECT_EQ(WLNetworkCaptureAssistant::bundleVersionOfExecutable(realHelperPath()), 1);
    EXPECT_EQ(WLNetworkCaptureAssistant::bundleVersionOfExecutable(testHelperPath()), 9999);
    EXPECT_EQ(WLNetworkCaptureAssistant::bundleVersionOfExecutable("/bin/sh"), std::nullopt);
    EXPECT_EQ(WLNetworkCaptureAssistant::bundleVersionOfExecutable((sourceDir() / "README.md").string()), std::nullopt);
    EXPECT_EQ(WLNetworkCaptureAssistant::bundleVersionOfExecutable("/nonexistent"), std::nullopt);
}

TEST(CaptureAssistantInstall, ReinstallsUnlessTheSameVersionAnswersVerified) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: the helper's socket lives in /var/run";
    AssistantDouble assistant(testIdentifier());
    assistant.needsInstall.reset();
    assistant.realRequests = true;
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
                             {std::string("WL_TEST_VERIFY_ANSWER=") + answer});
        EXPECT_EQ(assistant.needToInstallHelperTool(), install) << answer << helper.log();
        EXPECT_EQ(assistant.installAndVerifyTool(), !install) << answer;
    }
}

TEST(CaptureAssistantInstall, BlessingRunsTheHelpersInstallerThroughPkexec) {
    LogCapture log;
    SystemRoot root({});
    FakeTools tools;
    tools.set("pkexec", "exec \"$@\" 2>/dev/null");
    AssistantDouble assistant;
    assistant.blessSucceeds.reset();
    assistant.shippedProgram = realHelperPath();

    tools.set("pkcheck", "exit 1");  // not even by authenticating
    std::string error;
    EXPECT_FALSE(assistant.blessHelperWithError(&error));
    EXPECT_EQ(error, "Failed to acquire authorization");
    EXPECT_TRUE(log.contains("Error: Could not setup authorization rights"));
    tools.set("pkcheck", "exit 2");  // an administrator could authorize it
    EXPECT_FALSE(assistant.blessHelperWithError(&error));
    assistant.relinquishAuthorization();
    ASSERT_TRUE(assistant.blessHelperWithError(&error)) << error;

    std::string label = WLCaptureAssistantLabel;
    auto tool = root.path() / ("." kGWDHelperToolDirectory) / label;
    EXPECT_EQ(readFile(tool), readFile(realHelperPath()));
    EXPECT_EQ(WLNetworkCaptureAssistant::bundleVersionOfExecutable(tool), 1);
    std::string socketUnit = readFile(root.path() / ("." kGWDUnitDirectory) / (label + ".socket"));
    EXPECT_NE(socketUnit.find("ListenStream=/var/run/" + label + ".socket\n"), std::string::npos);
    EXPECT_NE(socketUnit.find("FileDescriptorName=MasterSocket\n"), std::string::npos);
    std::string serviceUnit = readFile(root.path() / ("." kGWDUnitDirectory) / (label + ".service"));
    EXPECT_NE(serviceUnit.find("ExecStart=" kGWDHelperToolDirectory "/" + label + "\n"), std::string::npos);
}
