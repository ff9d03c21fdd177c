// Capture devices from libpcap records and the kernel's interface list, and
// the address conversions beside them.
#include "packets/PacketTestSupport.hpp"

#include <Wireloom/Wireloom.hpp>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <pcap/pcap.h>
#include <sys/socket.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

using namespace wireloom;
namespace fs = std::filesystem;

TEST(PXCaptureDevice, TypesFromTheInterfaceListAndAddressesFromTheRecord) {
    // A kernel interface list of our own: the types are read from it once.
    const fs::path root = fs::path(::testing::TempDir()) / ("wireloom-sys-" + std::to_string(getpid()));
    const auto addInterface = [&](const char* name, const char* type, bool wireless = false) {
        fs::create_directories(root / "sys/class/net" / name);
        std::ofstream(root / "sys/class/net" / name / "type") << type << "\n";
        if (wireless) fs::create_directories(root / "sys/class/net" / name / "wireless");
    };
    addInterface("eth7", "1");
    addInterface("wlan7", "1", true);
    addInterface("fw7", "24");
    addInterface("lo", "772");
    setenv("WIRELOOM_SYSTEM_ROOT", root.c_str(), 1);
    ASSERT_TRUE(PXCaptureDevice::networkInterfaces());
    EXPECT_EQ(PXCaptureDevice::networkInterfaces()->size(), 4u);

    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    inet_pton(AF_INET, "192.0.2.7", &v4.sin_addr);
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    inet_pton(AF_INET6, "2001:db8::7", &v6.sin6_addr);
    sockaddr_ll link{};
    link.sll_family = AF_PACKET;
    pcap_addr_t third{nullptr, reinterpret_cast<sockaddr*>(&link), nullptr, nullptr, nullptr};
    pcap_addr_t second{&third, reinterpret_cast<sockaddr*>(&v6), nullptr, nullptr, nullptr};
    pcap_addr_t first{&second, reinterpret_cast<sockaddr*>(&v4), nullptr, nullptr, nullptr};

    const auto device = [](const char* name, const char* info = nullptr, pcap_addr_t* addresses = nullptr) {
        pcap_if_t record{};
        record.name = const_cast<char*>(name);
        record.description = const_cast<char*>(info);
        record.addresses = addresses;
        return PXCaptureDevice::initWithInterface(&record);
    };
    const auto eth = device("eth7", "Ethernet seven", &first);
    EXPECT_EQ(eth->type(), PXCaptureDevice::kTypeEthernet);
    EXPECT_EQ(eth->addresses(), (std::vector<std::string>{"192.0.2.7", "2001:db8::7", "<invalid>"}));
    EXPECT_EQ(eth->description().rfind("eth7 - Ethernet seven - 192.0.2.7, 2001:db8::7, <invalid> - ", 0), 0u);
    EXPECT_EQ(device("wlan7")->type(), PXCaptureDevice::kTypeIEEE80211);
    EXPECT_EQ(device("fw7")->type(), PXCaptureDevice::kTypeWirebus);
    EXPECT_EQ(device("lo")->type(), PXCaptureDevice::kTypeUnknown);
    EXPECT_EQ(device("absent0")->type(), PXCaptureDevice::kTypeUnknown);
    EXPECT_EQ(device("absent0")->description().rfind("absent0 - <no description> -  - ", 0), 0u);
    EXPECT_EQ(PXCaptureDevice::initWithInterface(nullptr), nullptr);
    EXPECT_EQ(PXCaptureUtilities::stringFromSockaddr(nullptr), "<invalid>");
    unsetenv("WIRELOOM_SYSTEM_ROOT");
    fs::remove_all(root);
}

TEST(PXCaptureDevice, ListingFindsLoopbackAndTheDefaultIsTheFirstListed) {
    const auto devices = PXCaptureDevice::allDevices();
    ASSERT_TRUE(devices);
    ASSERT_FALSE(devices->empty());
    EXPECT_EQ(PXCaptureDevice::defaultDevice()->interface(), devices->front()->interface());
    const auto lo = PXCaptureDevice::deviceWithInterface("lo");
    ASSERT_TRUE(lo);
    EXPECT_NE(std::find(lo->addresses().begin(), lo->addresses().end(), "127.0.0.1"), lo->addresses().end());
    EXPECT_EQ(PXCaptureDevice::deviceWithInterface("wlnosuch0"), nullptr);
    const auto all = PXCaptureDevice::allAddresses();
    EXPECT_NE(std::find(all.begin(), all.end(), "127.0.0.1"), all.end());
}

TEST(PXCaptureUtilities, InnerIPv6AddressesOfATunnelComeFirst) {
    using namespace wireloom::testing;
    // IPv6 carried in IPv4 (protocol 41).
    const Bytes inner = ipv6(ip6("2001:db8::1"), ip6("2001:db8::2"), kProtoUDP, udp(1, 2, bytesOf("x")));
    const auto tunnel =
        decode(ethernet(kMacB, kMacA, kEtherTypeIPv4, ipv4(ip4("10.0.0.1"), ip4("10.0.0.2"), kProtoIPv6, inner)));
    // In the IPv6 layer's own spelling, which writes each group's two bytes unpadded.
    EXPECT_EQ(PXCaptureUtilities::sourceAddressFromPacket(*tunnel), "201:db8::1");
    EXPECT_EQ(PXCaptureUtilities::destAddressFromPacket(*tunnel), "201:db8::2");
    const auto plain = decode(
        ethernet(kMacB, kMacA, kEtherTypeIPv4, ipv4(ip4("10.0.0.1"), ip4("10.0.0.2"), kProtoUDP, udp(1, 2, {}))));
    EXPECT_EQ(PXCaptureUtilities::sourceAddressFromPacket(*plain), "10.0.0.1");
    EXPECT_EQ(PXCaptureUtilities::destAddressFromPacket(*decode(arpRequest(kMacA, ip4("10.0.0.1"), ip4("10.0.0.2")))),
              std::nullopt);
}
