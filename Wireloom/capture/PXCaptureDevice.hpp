#pragma once
// PXCaptureDevice: one interface libpcap can capture on, with its
// description, its addresses and a coarse type used to pick a default.
//
//   for (const auto& device : PXCaptureDevice::allDevices().value_or({}))
//       std::printf("%s\n", device->description().c_str());
//
// Listing asks the capture assistant for packet-filter access first.
// Failures are logged and give no list (or no device), never an error.

#include <Wireloom/core/Object.hpp>
#include <Wireloom/core/Value.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct pcap_if;

namespace wireloom {

class PXCaptureDevice : public Object {
public:
    using Ptr = std::shared_ptr<PXCaptureDevice>;

    // Interface type codes.
    static constexpr std::int32_t kTypeUnknown = 0;
    static constexpr std::int32_t kTypeEthernet = 1;
    static constexpr std::int32_t kTypeIEEE80211 = 2;
    static constexpr std::int32_t kTypeWirebus = 3;

    // Every device, in libpcap's order; nothing (not an empty list) when
    // libpcap cannot list them.
    static std::optional<std::vector<Ptr>> allDevices();
    // A device from one of libpcap's interface records; null for none.
    static Ptr initWithInterface(const pcap_if* record);
    // One entry per known interface: "BSD Name" (the interface name) and
    // "Type" ("Ethernet", "IEEE80211", "Wirebus" or another word), read once
    // from the kernel's interface list; nothing when that cannot be read.
    static const std::optional<std::vector<UserInfo>>& networkInterfaces();
    // The first device libpcap lists, as its default.
    static Ptr defaultDevice();
    static Ptr deviceWithInterface(const std::string& interface);
    static Ptr deviceWithInterfaceType(std::int32_t type);
    // The addresses of every device, in device order.
    static std::vector<std::string> allAddresses();

    const std::string& interface() const noexcept { return interface_; }
    const std::optional<std::string>& info() const noexcept { return info_; }
    const std::vector<std::string>& addresses() const noexcept { return addresses_; }
    std::int32_t type() const noexcept { return type_; }

    // "name - info - addresses - object".
    std::string description() const override;

private:
    PXCaptureDevice() = default;

    std::string interface_;
    std::optional<std::string> info_;
    std::vector<std::string> addresses_;
    std::int32_t type_ = kTypeUnknown;
};

}  // namespace wireloom
