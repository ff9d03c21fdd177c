#include <Wireloom/capture/PXCaptureDevice.hpp>
#include <Wireloom/capture/PXCaptureUtilities.hpp>
#include <Wireloom/capture/WLNetworkCaptureAssistant.hpp>
#include <Wireloom/core/Log.hpp>

#include <WLCaptureAssistant/GatewardenLib.h>

#include <pcap/pcap.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace wireloom {

namespace {

// Where the kernel lists network interfaces; below the system root that
// tests may move.
std::filesystem::path interfaceDirectory() {
    const char* root = std::getenv(kGWDSystemRootVariable);
    return std::filesystem::path(root ? root : "/") / "sys/class/net";
}

// The word for an interface's hardware type (ARPHRD_* in `type`).
std::string interfaceTypeName(const std::filesystem::path& interface) {
    std::error_code error;
    if (std::filesystem::exists(interface / "wireless", error) ||
        std::filesystem::exists(interface / "phy80211", error))
        return "IEEE80211";
    std::ifstream file(interface / "type");
    int hardwareType = -1;
    file >> hardwareType;
    switch (hardwareType) {
    case 1: return "Ethernet";     // ARPHRD_ETHER
    case 801: return "IEEE80211";  // ARPHRD_IEEE80211
    case 24: return "Wirebus";     // ARPHRD_IEEE1394
    default: return "Other";
    }
}

std::int32_t typeCode(const std::string& name) {
    const auto& interfaces = PXCaptureDevice::networkInterfaces();
    if (!interfaces) return PXCaptureDevice::kTypeUnknown;
    for (const UserInfo& entry : *interfaces) {
        auto bsdName = entry.find("BSD Name");
        if (bsdName == entry.end() || !bsdName->second.string() || *bsdName->second.string() != name) continue;
        auto type = entry.find("Type");
        const std::string* word = type == entry.end() ? nullptr : type->second.string();
        if (!word) return PXCaptureDevice::kTypeUnknown;
        if (*word == "Ethernet") return PXCaptureDevice::kTypeEthernet;
        if (*word == "IEEE80211") return PXCaptureDevice::kTypeIEEE80211;
        if (*word == "Wirebus") return PXCaptureDevice::kTypeWirebus;
        return PXCaptureDevice::kTypeUnknown;
    }
    return PXCaptureDevice::kTypeUnknown;
}

}  // namespace

std::optional<std::vector<PXCaptureDevice::Ptr>> PXCaptureDevice::allDevices() {
    // Whatever the assistant manages, listing goes on: libpcap says what it can see.
    WLNetworkCaptureAssistant::sharedInstance()->grantBPFAccess();
    char error[PCAP_ERRBUF_SIZE] = "";
    pcap_if_t* list = nullptr;
    if (pcap_findalldevs(&list, error) != 0) {
        Log::error("Failed to get device list: %s", error);
        return std::nullopt;
    }
    std::vector<Ptr> devices;
    for (pcap_if_t* record = list; record; record = record->next) devices.push_back(initWithInterface(record));
    pcap_freealldevs(list);
    return devices;
}

PXCaptureDevice::Ptr PXCaptureDevice::initWithInterface(const pcap_if* record) {
    if (!record) return nullptr;
    Ptr device(new PXCaptureDevice());
    if (record->name) device->interface_ = record->name;
    if (record->description) device->info_ = record->description;
    for (const pcap_addr_t* address = record->addresses; address; address = address->next)
        device->addresses_.push_back(PXCaptureUtilities::stringFromSockaddr(address->addr));
    device->type_ = typeCode(device->interface_);
    return device;
}

const std::optional<std::vector<UserInfo>>& PXCaptureDevice::networkInterfaces() {
    static const std::optional<std::vector<UserInfo>> interfaces = []() -> std::optional<std::vector<UserInfo>> {
        std::error_code error;
        std::filesystem::directory_iterator entries(interfaceDirectory(), error);
        if (error) {
            Log::error("PXCaptureDevice: Failed to load network interfaces");
            return std::nullopt;
        }
        std::vector<UserInfo> list;
        for (const auto& entry : entries) {
            const std::string name = entry.path().filename().string();
            list.push_back(UserInfo{{"BSD Name", Value(name)}, {"Type", Value(interfaceTypeName(entry.path()))}});
        }
        std::sort(list.begin(), list.end(), [](const UserInfo& a, const UserInfo& b) {
            return *a.at("BSD Name").string() < *b.at("BSD Name").string();
        });
        return list;
    }();
    return interfaces;
}

PXCaptureDevice::Ptr PXCaptureDevice::defaultDevice() {
    // The first device libpcap lists is what its old default-device call
    // returned.
    char error[PCAP_ERRBUF_SIZE] = "";
    pcap_if_t* list = nullptr;
    std::string name;
    if (pcap_findalldevs(&list, error) == 0) {
        if (list && list->name)
            name = list->name;
        else
            std::snprintf(error, sizeof error, "no suitable device found");
        pcap_freealldevs(list);
    }
    if (name.empty()) {
        Log::error("Failed to lookup default device: %s", error);
        return nullptr;
    }
    return deviceWithInterface(name);
}

PXCaptureDevice::Ptr PXCaptureDevice::deviceWithInterface(const std::string& interface) {
    for (const Ptr& device : allDevices().value_or(std::vector<Ptr>{}))
        if (device->interface() == interface) return device;
    return nullptr;
}

PXCaptureDevice::Ptr PXCaptureDevice::deviceWithInterfaceType(std::int32_t type) {
    for (const Ptr& device : allDevices().value_or(std::vector<Ptr>{}))
        if (device->type() == type) return device;
    return nullptr;
}

std::vector<std::string> PXCaptureDevice::allAddresses() {
    std::vector<std::string> addresses;
    for (const Ptr& device : allDevices().value_or(std::vector<Ptr>{}))
        addresses.insert(addresses.end(), device->addresses().begin(), device->addresses().end());
    return addresses;
}

std::string PXCaptureDevice::description() const {
    std::string addresses;
    for (const std::string& address : addresses_) {
        if (!addresses.empty()) addresses += ", ";
        addresses += address;
    }
    return interface_ + " - " + info_.value_or("<no description>") + " - " + addresses + " - " + genericDescription();
}

}  // namespace wireloom
