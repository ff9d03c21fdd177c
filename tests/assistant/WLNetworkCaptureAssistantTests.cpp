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
    bool blessSucceeds = true;
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
        if (!blessSucceeds) *error = "Failed to acquire authorization";
        return blessSucceeds;
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

// A system root with a dev folder holding the named files.
class DeviceFolder {
public:
    explicit DeviceFolder(std::initializer_list<const char*> names) : root_(makeTemporaryFolder()) {
        std::filesystem::create_directories(root_ / "dev");
        for (const char* name : names) std::ofstream(root_ / "dev" / name) << "";
        setenv(kGWDSystemRootVariable, root_.c_str(), 1);
    }
    ~DeviceFolder() {
        unsetenv(kGWDSystemRootVariable);
        std::filesystem::remove_all(root_);
    }
    void setGroup(const char* name, gid_t gid) { ASSERT_EQ(chown((root_ / "dev" / name).c_str(), -1, gid), 0); }

private:
    std::filesystem::path root_;
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
        DeviceFolder devices({"null", "tty0"});
        assistant.grantBPFAccess();
        EXPECT_TRUE(assistant.requests.empty());
    }
    {
        DeviceFolder devices({"bpf0"});
        assistant.grantBPFAccess();
        ASSERT_EQ(assistant.requests.size(), 1u);
        EXPECT_EQ(assistant.requests[0].first, kWLSetBPFAccessCommand);
        EXPECT_EQ(*assistant.requests[0].second.at(kWLUserKey).string(), getpwuid(geteuid())->pw_name);
    }
    if (geteuid() != 0) GTEST_SKIP() << "needs root: giving devices to the group " kWLAccessBPFGroup;
    gid_t group = accessGroup();
    ASSERT_NE(group, static_cast<gid_t>(-1));
    DeviceFolder devices({"bpf0", "bpf1", "bpf2", "bpf3"});
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
    DeviceFolder devices({"bpf0"});
    AssistantDouble assistant;
    assistant.answer = {{kWLErrorKey, "No such user: x"}};
    assistant.grantBPFAccess();
    EXPECT_TRUE(log.contains("Failed to grant access to /dev/bpf* with error: No such user: x"));
}

TEST(CaptureAssistantGrant, AFailedInstallGivesUpUntilRelinquished) {
    LogCapture log;
    DeviceFolder devices({"bpf0"});
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

    assistant.installedProgram = testHelperPath();
    for (auto [answer, install] : {std::pair{"Verified", false}, std::pair{"Not verified", true}}) {
        HelperProcess helper(testHelperPath(), socketPathFor(testIdentifier()),
                             {std::string("WL_TEST_VERIFY_ANSWER=") + answer});
        EXPECT_EQ(assistant.needToInstallHelperTool(), install) << answer << helper.log();
        EXPECT_EQ(assistant.installAndVerifyTool(), !install) << answer;
    }
}

TEST(CaptureAssistantShared, TestsCanReplaceTheSharedInstance) {
    auto original = WLNetworkCaptureAssistant::sharedInstance();
    EXPECT_EQ(original, WLNetworkCaptureAssistant::sharedInstance());
    EXPECT_EQ(original->helperIdentifier(), WLCaptureAssistantLabel);
    auto replacement = std::make_shared<AssistantDouble>();
    WLNetworkCaptureAssistant::setSharedInstance(replacement);
    EXPECT_EQ(WLNetworkCaptureAssistant::sharedInstance(), replacement);
    WLNetworkCaptureAssistant::setSharedInstance(original);
}
