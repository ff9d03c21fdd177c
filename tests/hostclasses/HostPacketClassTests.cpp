// A host's own packet class in the decode chain. Classes can only be added
// before the first decode, so this program registers one at start-up and
// every test in it decodes with it present.
#include "../packets/PacketTestSupport.hpp"

#include <gtest/gtest.h>

#include <cstring>

using namespace wireloom;
using namespace wireloom::testing;

namespace {

// A UDP payload that starts with "BEACON"; the decoder keeps the parent it
// is handed, which a host's decoder may.
class PXTestBeaconPacket : public PXPacket {
public:
    static const PacketClass& staticClass() {
        static const PacketClass cls("PXTestBeaconPacket", &PXPacket::staticClass(), &decodeBeacon, [] {
            return std::optional<PacketClassSet>(PacketClassSet{&PXUDPPacket::staticClass()});
        });
        return cls;
    }
    const PacketClass& packetClass() const override { return staticClass(); }

    std::weak_ptr<PXPacket> parentSeenByDecoder;

private:
    static PXPacketPtr decodeBeacon(const ByteBuffer& data, const PXPacketPtr& parent, std::uint32_t* consumed) {
        if (data.size() < 6 || std::memcmp(data.data(), "BEACON", 6) != 0) return nullptr;
        auto beacon = newPacket<PXTestBeaconPacket>();
        beacon->parentSeenByDecoder = parent;
        *consumed = 6;
        return beacon;
    }
};

const bool kRegistered = [] {
    PXPacket::registerPacketClass(PXTestBeaconPacket::staticClass());
    return true;
}();

Bytes udpFrame(const char* payload) { return ethernet4(kProtoUDP, udp(4000, 4001, bytesOf(payload))); }

}  // namespace

TEST(HostPacketClass, DecodesBelowItsParentInBothDecodersAndLeavesOtherFramesAlone) {
    ASSERT_TRUE(kRegistered);
    ASSERT_TRUE(PXPacket::packetClasses().contains(PXTestBeaconPacket::staticClass()));

    PXPacketPtr beacon = decode(udpFrame("BEACON!"));
    EXPECT_EQ(shape(beacon), "Ethernet IPv4 UDP TestBeacon");
    auto& typed = static_cast<PXTestBeaconPacket&>(*beacon);
    EXPECT_EQ(typed.parentSeenByDecoder.lock(), beacon->encapsulatingPacket());
    EXPECT_EQ(beacon->packetWithProtocol<PXUDPPacket>()->destPort(), 4001);
    EXPECT_EQ(beacon->timestamp(), 1700000000.25);

    PXPacketPtr plain = decode(udpFrame("hello"));
    EXPECT_EQ(shape(plain), "Ethernet IPv4 UDP");
    EXPECT_EQ(std::static_pointer_cast<PXUDPPacket>(plain)->payload().stringView(), "hello");

    // The directed decoder takes it among built-in classes.
    beacon = decodeAs(udpFrame("BEACON"),
                      {&PXTestBeaconPacket::staticClass(), &PXUDPPacket::staticClass(), &PXIPv4Packet::staticClass(),
                       &PXEthernetPacket::staticClass()},
                      5.0);
    ASSERT_TRUE(beacon);
    EXPECT_EQ(&beacon->packetClass(), &PXTestBeaconPacket::staticClass());
    EXPECT_EQ(beacon->rootPacket()->timestamp(), 5.0);
}

TEST(HostPacketClass, OwnershipRunsOutwardAsForBuiltInLayers) {
    std::weak_ptr<PXPacket> root, beaconLayer;
    PXPacketPtr udpLayer;
    {
        PXPacketPtr beacon = decode(udpFrame("BEACON"));
        root = beacon->rootPacket();
        beaconLayer = beacon;
        Object& udpObject = const_cast<PXUDPPacket&>(*beacon->layerWithProtocol<PXUDPPacket>());
        udpLayer = std::static_pointer_cast<PXPacket>(udpObject.shared_from_this());
        EXPECT_EQ(udpLayer->encapsulatedPacket(), beacon);
    }
    EXPECT_TRUE(beaconLayer.expired());
    EXPECT_FALSE(root.expired());
    EXPECT_FALSE(udpLayer->encapsulatedPacket());
    udpLayer.reset();
    EXPECT_TRUE(root.expired());
}
