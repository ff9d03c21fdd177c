#pragma once
// WLNetworkCaptureAssistant: the library's one way to privileged capture
// access. Before capture devices are listed or opened, grantBPFAccess makes
// sure that every packet-filter device ("/dev/bpf*") belongs to the group
// "access_bpf"; when one does not, it installs or updates the privileged
// helper (the administrator authorizes this through pkexec) and asks it to
// grant access to the current user. Failures are logged, never returned:
// capture itself fails later if access is still missing.
//
//   WLNetworkCaptureAssistant::sharedInstance()->grantBPFAccess();
//
// Tests replace the shared instance with a double through setSharedInstance.

#include <Wireloom/core/Value.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

struct GWDAuthorization;

namespace wireloom {

class WLNetworkCaptureAssistant {
public:
    // The helper's label, executable name and socket identifier.
    static const char* const kHelperIdentifier;

    static std::shared_ptr<WLNetworkCaptureAssistant> sharedInstance();
    static void setSharedInstance(std::shared_ptr<WLNetworkCaptureAssistant> instance);

    // helperIdentifier names the helper to talk to; tests start their own.
    explicit WLNetworkCaptureAssistant(std::string helperIdentifier = kHelperIdentifier);
    virtual ~WLNetworkCaptureAssistant();
    WLNetworkCaptureAssistant(const WLNetworkCaptureAssistant&) = delete;
    WLNetworkCaptureAssistant& operator=(const WLNetworkCaptureAssistant&) = delete;

    virtual void grantBPFAccess();
    // True when the execute authorization is there and the helper answers
    // "VerifyPrivs" with "Verified".
    bool installAndVerifyTool();
    // Sends a command with its arguments; the helper's response, or nothing
    // without execute authorization or when the request failed.
    virtual std::optional<UserInfo> executeRequest(const std::string& command, const UserInfo& args);

    bool acquireExecuteAuthorization();
    void relinquishExecuteAuthorization();
    bool acquireAuthorization();
    void relinquishAuthorization();
    virtual bool blessHelperWithError(std::string* error);
    virtual bool needToInstallHelperTool();
    // The helper shipped beside the running program.
    virtual std::string helperToolPath() const;

    GWDAuthorization* authorizationRef() const noexcept { return authorizationRef_; }
    bool authorizationFailed() const noexcept { return authorizationFailed_; }
    GWDAuthorization* executeAuthorizationRef() const noexcept { return executeAuthorizationRef_; }
    bool executeAuthorizationFailed() const noexcept { return executeAuthorizationFailed_; }
    const std::string& activeInstance() const noexcept { return activeInstance_; }
    void setActiveInstance(std::string instance) { activeInstance_ = std::move(instance); }
    std::int32_t linkLayerType() const noexcept { return linkLayerType_; }
    void setLinkLayerType(std::int32_t type) noexcept { linkLayerType_ = type; }
    const std::string& helperIdentifier() const noexcept { return helperIdentifier_; }

    // The integer version in an executable's embedded information property
    // list; nothing when the file has none.
    static std::optional<std::int64_t> bundleVersionOfExecutable(const std::string& path);

protected:
    // The program systemd runs for the helper's service, if it knows one.
    virtual std::optional<std::string> installedHelperProgram();

private:
    bool helperAnswersVerified();

    std::string helperIdentifier_;
    GWDAuthorization* authorizationRef_ = nullptr;
    bool authorizationFailed_ = false;
    GWDAuthorization* executeAuthorizationRef_ = nullptr;
    bool executeAuthorizationFailed_ = false;
    std::string activeInstance_;
    std::int32_t linkLayerType_ = 0;
};

}  // namespace wireloom
