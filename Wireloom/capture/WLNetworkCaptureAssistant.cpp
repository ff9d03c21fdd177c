#include <Wireloom/capture/WLNetworkCaptureAssistant.hpp>
#include <Wireloom/core/Log.hpp>
#include <Wireloom/core/detail/Format.hpp>

#include <WLCaptureAssistant/GatewardenLib.h>
#include <WLCaptureAssistant/WLCaptureAssistantCommon.h>

#include <dirent.h>
#include <fcntl.h>
#include <gelf.h>
#include <grp.h>
#include <libelf.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <mutex>

extern char** environ;

namespace wireloom {
namespace {

// pkexec's own action: whoever may run a program as root through it may
// install the helper.
constexpr const char* kInstallHelperRight = "org.freedesktop.policykit.exec";

std::mutex& sharedMutex() {
    static std::mutex mutex;
    return mutex;
}

std::shared_ptr<WLNetworkCaptureAssistant>& sharedSlot() {
    static std::shared_ptr<WLNetworkCaptureAssistant> instance;
    return instance;
}

struct PlistDeleter {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

plist_t plistFromValue(const Value& value) {
    if (auto s = value.string()) return plist_new_string(s->c_str());
    if (auto i = value.integer()) return plist_new_uint(static_cast<std::uint64_t>(*i));
    if (auto b = value.boolean()) return plist_new_bool(*b);
    if (auto d = value.number()) return plist_new_real(*d);
    if (auto bytes = value.bytes()) return plist_new_data(reinterpret_cast<const char*>(bytes->data()), bytes->size());
    return nullptr;
}

// Scalars only: the assistant's commands answer nothing deeper.
Value valueFromPlist(plist_t node) {
    switch (plist_get_node_type(node)) {
    case PLIST_STRING: return Value(std::string(plist_get_string_ptr(node, nullptr)));
    case PLIST_UINT: {
        std::uint64_t number = 0;
        plist_get_uint_val(node, &number);
        return Value(static_cast<std::int64_t>(number));
    }
    case PLIST_BOOLEAN: {
        std::uint8_t flag = 0;
        plist_get_bool_val(node, &flag);
        return Value(flag != 0);
    }
    case PLIST_REAL: {
        double number = 0;
        plist_get_real_val(node, &number);
        return Value(number);
    }
    case PLIST_DATA: {
        std::uint64_t length = 0;
        const char* bytes = plist_get_data_ptr(node, &length);
        return Value(ByteBuffer::copy(bytes, length));
    }
    default: return Value();
    }
}

std::optional<std::string> currentUserName() {
    struct passwd* user = getpwuid(geteuid());
    if (user == nullptr) return std::nullopt;
    return std::string(user->pw_name);
}

}  // namespace

const char* const WLNetworkCaptureAssistant::kHelperIdentifier = WLCaptureAssistantLabel;

std::shared_ptr<WLNetworkCaptureAssistant> WLNetworkCaptureAssistant::sharedInstance() {
    std::lock_guard lock(sharedMutex());
    auto& instance = sharedSlot();
    if (!instance) instance = std::make_shared<WLNetworkCaptureAssistant>();
    return instance;
}

void WLNetworkCaptureAssistant::setSharedInstance(std::shared_ptr<WLNetworkCaptureAssistant> instance) {
    std::lock_guard lock(sharedMutex());
    sharedSlot() = std::move(instance);
}

WLNetworkCaptureAssistant::WLNetworkCaptureAssistant(std::string helperIdentifier)
    : helperIdentifier_(std::move(helperIdentifier)) {}

WLNetworkCaptureAssistant::~WLNetworkCaptureAssistant() {
    relinquishExecuteAuthorization();
    relinquishAuthorization();
}

void WLNetworkCaptureAssistant::grantBPFAccess() {
    if (!acquireExecuteAuthorization()) return;

    char devices[1100];
    if (!GWDSystemPath(devices, sizeof(devices), "/dev/")) return;
    bool accessMissing = false;
    if (DIR* directory = opendir(devices)) {
        while (struct dirent* entry = readdir(directory)) {
            if (std::strncmp(entry->d_name, "bpf", 3) != 0) continue;
            struct stat info;
            if (stat((std::string(devices) + entry->d_name).c_str(), &info) != 0) continue;
            struct group* group = getgrgid(info.st_gid);
            if (group == nullptr || std::strcmp(group->gr_name, kWLAccessBPFGroup) != 0) {
                accessMissing = true;
                break;
            }
        }
        closedir(directory);
    }
    if (!accessMissing) return;

    auto user = currentUserName();
    if (!user) {
        Log::error("Failed to grant access to /dev/bpf* with error: %s", "no login name for the current user");
        return;
    }
    auto response = executeRequest(kWLSetBPFAccessCommand, {{kWLUserKey, *user}});
    if (!response) return;
    auto error = response->find(kWLErrorKey);
    if (error != response->end())
        Log::error("Failed to grant access to /dev/bpf* with error: %s", error->second.description().c_str());
}

bool WLNetworkCaptureAssistant::installAndVerifyTool() {
    if (!acquireExecuteAuthorization()) return false;
    return helperAnswersVerified();
}

bool WLNetworkCaptureAssistant::helperAnswersVerified() {
    auto response = executeRequest(kWLVerifyPrivsCommand, {});
    if (!response) return false;
    auto answer = response->find(kWLResponseKey);
    return answer != response->end() && answer->second.string() && *answer->second.string() == kWLVerifiedAnswer;
}

std::optional<UserInfo> WLNetworkCaptureAssistant::executeRequest(const std::string& command, const UserInfo& args) {
    if (executeAuthorizationRef_ == nullptr) return std::nullopt;
    PlistPtr request(plist_new_dict());
    plist_dict_set_item(request.get(), kGWDCommandKey, plist_new_string(command.c_str()));
    for (const auto& [key, value] : args) {
        if (plist_t node = plistFromValue(value)) plist_dict_set_item(request.get(), key.c_str(), node);
    }
    plist_t rawResponse = nullptr;
    std::int32_t status =
        GWDExecuteRequestInHelperTool(executeAuthorizationRef_, kWLUpdateHelperCommandSet, helperIdentifier_.c_str(),
                                      request.get(), &rawResponse, nullptr);
    if (status != 0) return std::nullopt;
    PlistPtr response(rawResponse);

    UserInfo result;
    plist_dict_iter iterator = nullptr;
    plist_dict_new_iter(response.get(), &iterator);
    for (;;) {
        char* key = nullptr;
        plist_t node = nullptr;
        plist_dict_next_item(response.get(), iterator, &key, &node);
        if (key == nullptr) break;
        result.emplace(key, valueFromPlist(node));
        std::free(key);
    }
    std::free(iterator);
    return result;
}

bool WLNetworkCaptureAssistant::acquireExecuteAuthorization() {
    if (executeAuthorizationFailed_) return false;
    if (executeAuthorizationRef_ == nullptr && GWDAuthorizationCreate(&executeAuthorizationRef_) != 0) {
        Log::error("Failed to create execute auth");
        executeAuthorizationRef_ = nullptr;
        executeAuthorizationFailed_ = true;
        return false;
    }
    GWDSetDefaultRules(executeAuthorizationRef_, kWLUpdateHelperCommandSet, helperIdentifier_.c_str(), nullptr);
    if (needToInstallHelperTool()) {
        std::string error;
        if (!blessHelperWithError(&error)) {
            Log::error("Bless error: %s", error.c_str());
            executeAuthorizationFailed_ = true;
            return false;
        }
    }
    return true;
}

void WLNetworkCaptureAssistant::relinquishExecuteAuthorization() {
    if (executeAuthorizationRef_ != nullptr)
        GWDAuthorizationFree(executeAuthorizationRef_, kGWDAuthorizationFlagDestroyRights);
    executeAuthorizationRef_ = nullptr;
    executeAuthorizationFailed_ = false;
}

bool WLNetworkCaptureAssistant::acquireAuthorization() {
    if (authorizationFailed_) return false;
    if (authorizationRef_ == nullptr && GWDAuthorizationCreate(&authorizationRef_) != 0) {
        Log::error("Error: Could not create authorization service");
        authorizationRef_ = nullptr;
        authorizationFailed_ = true;
        return false;
    }
    // Pre-authorising only: pkexec itself asks the administrator, once.
    if (GWDAuthorizationCopyRights(authorizationRef_, kInstallHelperRight, nullptr,
                                   kGWDAuthorizationFlagInteractionAllowed | kGWDAuthorizationFlagPreAuthorize) != 0) {
        Log::error("Error: Could not setup authorization rights");
        authorizationFailed_ = true;
        return false;
    }
    return true;
}

void WLNetworkCaptureAssistant::relinquishAuthorization() {
    if (authorizationRef_ != nullptr) GWDAuthorizationFree(authorizationRef_, kGWDAuthorizationFlagDestroyRights);
    authorizationRef_ = nullptr;
    authorizationFailed_ = false;
}

bool WLNetworkCaptureAssistant::blessHelperWithError(std::string* error) {
    auto fail = [error](std::string text) {
        if (error) *error = std::move(text);
        return false;
    };
    if (!acquireAuthorization()) return fail("Failed to acquire authorization");

    // The helper installs itself as root: it copies its executable, writes its
    // units and enables its socket. pkexec's password prompt is the dialog.
    std::string tool = helperToolPath();
    char* argv[] = {const_cast<char*>("pkexec"), tool.data(), const_cast<char*>("install"), nullptr};
    pid_t child;
    int err = posix_spawnp(&child, "pkexec", nullptr, nullptr, argv, environ);
    if (err != 0)
        return fail(detail::stringWithFormat("Failed to bless helper tool with error: %s", std::strerror(err)));
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        // pkexec exits with 126 or 127 when the administrator did not authorize it.
        std::string reason = WIFEXITED(status)
                                 ? detail::stringWithFormat("installer exited with status %d", WEXITSTATUS(status))
                                 : std::string("installer was killed");
        return fail("Failed to bless helper tool with error: " + reason);
    }
    return true;
}

bool WLNetworkCaptureAssistant::needToInstallHelperTool() {
    auto installed = installedHelperProgram();
    if (!installed) return true;
    auto installedVersion = bundleVersionOfExecutable(*installed);
    auto shippedVersion = bundleVersionOfExecutable(helperToolPath());
    if (!installedVersion || !shippedVersion || *installedVersion != *shippedVersion) return true;
    // Same version, but a helper that cannot act as root is as good as none.
    return !helperAnswersVerified();
}

std::string WLNetworkCaptureAssistant::helperToolPath() const {
    std::error_code error;
    auto program = std::filesystem::read_symlink("/proc/self/exe", error);
    return (program.parent_path() / helperIdentifier_).string();
}

std::optional<std::int64_t> WLNetworkCaptureAssistant::bundleVersionOfExecutable(const std::string& path) {
    if (elf_version(EV_CURRENT) == EV_NONE) return std::nullopt;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::unique_ptr<Elf, int (*)(Elf*)> elf(elf_begin(fd, ELF_C_READ, nullptr), elf_end);
    std::string infoPlist;
    std::size_t names = 0;
    if (elf && elf_getshdrstrndx(elf.get(), &names) == 0) {
        for (Elf_Scn* section = elf_nextscn(elf.get(), nullptr); section != nullptr;
             section = elf_nextscn(elf.get(), section)) {
            GElf_Shdr header;
            if (gelf_getshdr(section, &header) == nullptr) continue;
            const char* name = elf_strptr(elf.get(), names, header.sh_name);
            if (name == nullptr || std::strcmp(name, kWLInfoPlistSection) != 0) continue;
            if (Elf_Data* data = elf_getdata(section, nullptr); data != nullptr && data->d_buf != nullptr) {
                const char* bytes = static_cast<const char*>(data->d_buf);
                // The section holds a C string; its terminator is not XML.
                infoPlist.assign(bytes, strnlen(bytes, data->d_size));
            }
            break;
        }
    }
    elf.reset();
    close(fd);
    if (infoPlist.empty()) return std::nullopt;

    plist_t raw = nullptr;
    plist_from_xml(infoPlist.data(), static_cast<std::uint32_t>(infoPlist.size()), &raw);
    PlistPtr info(raw);
    if (!info || plist_get_node_type(raw) != PLIST_DICT) return std::nullopt;
    plist_t version = plist_dict_get_item(raw, kWLBundleVersionKey);
    if (version == nullptr || plist_get_node_type(version) != PLIST_UINT) return std::nullopt;
    std::uint64_t number = 0;
    plist_get_uint_val(version, &number);
    return static_cast<std::int64_t>(number);
}

std::optional<std::string> WLNetworkCaptureAssistant::installedHelperProgram() {
    sd_bus* rawBus = nullptr;
    if (sd_bus_open_system(&rawBus) < 0) return std::nullopt;
    std::unique_ptr<sd_bus, sd_bus* (*)(sd_bus*)> bus(rawBus, sd_bus_flush_close_unref);
    constexpr const char* kDestination = "org.freedesktop.systemd1";
    std::string unit = helperIdentifier_ + ".service";

    // LoadUnit reads a unit from disk if systemd has not yet; one that does
    // not exist comes back with the load state "not-found".
    sd_bus_error error{};  // SD_BUS_ERROR_NULL, without the C compound literal
    sd_bus_message* reply = nullptr;
    const char* objectPath = nullptr;
    std::string unitPath;
    if (sd_bus_call_method(bus.get(), kDestination, "/org/freedesktop/systemd1", "org.freedesktop.systemd1.Manager",
                           "LoadUnit", &error, &reply, "s", unit.c_str()) >= 0 &&
        sd_bus_message_read(reply, "o", &objectPath) >= 0)
        unitPath = objectPath;
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
    if (unitPath.empty()) return std::nullopt;

    char* loadState = nullptr;
    bool loaded = sd_bus_get_property_string(bus.get(), kDestination, unitPath.c_str(), "org.freedesktop.systemd1.Unit",
                                             "LoadState", &error, &loadState) >= 0 &&
                  std::strcmp(loadState, "loaded") == 0;
    std::free(loadState);
    sd_bus_error_free(&error);
    if (!loaded) return std::nullopt;

    // ExecStart is a(sasbttttuii): per command, its path, arguments and state.
    reply = nullptr;
    std::optional<std::string> program;
    const char* executable = nullptr;
    if (sd_bus_get_property(bus.get(), kDestination, unitPath.c_str(), "org.freedesktop.systemd1.Service", "ExecStart",
                            &error, &reply, "a(sasbttttuii)") >= 0 &&
        sd_bus_message_enter_container(reply, 'a', "(sasbttttuii)") > 0 &&
        sd_bus_message_enter_container(reply, 'r', "sasbttttuii") > 0 &&
        sd_bus_message_read(reply, "s", &executable) > 0)
        program = executable;
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
    return program;
}

}  // namespace wireloom
