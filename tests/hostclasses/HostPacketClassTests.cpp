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
    std::string name() const override { return "Beacon"; }

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

Bytes udpFrame(const char* payload) {
    return ethernet(kMacB, kMacA, kEtherTypeIPv4,
                    ipv4(kClient4, kServer4, kProtoUDP, udp(4000, 4001, bytesOf(payload))));
}

}  // namespace

TEST(HostPacketClass, DecodesBelowItsParentAndLeavesOtherFramesAlone) {
    ASSERT_TRUE(kRegistered);
    ASSERT_TRUE(PXPacket::packetClasses().contains(PXTestBeaconPacket::staticClass()));

    PXPacketPtr beacon = decode(udpFrame("BEACON!"));
    EXPECT_EQ(layerNames(beacon),
              (std::vector<std::string>{"PXEthernetPacket", "PXIPv4Packet", "PXUDPPacket", "PXTestBeaconPacket"}));
    auto& typed = static_cast<PXTestBeaconPacket&>(*beacon);
    EXPECT_EQ(typed.parentSeenByDecoder.lock(), beacon->encapsulatingPacket());
    EXPECT_EQ(beacon->packetWithProtocol<PXUDPPacket>()->destPort(), 4001);
    EXPECT_EQ(beacon->timestamp(), 1700000000.25);

    PXPacketPtr plain = decode(udpFrame("hello"));
    EXPECT_EQ(layerNames(plain), (std::vector<std::string>{"PXEthernetPacket", "PXIPv4Packet", "PXUDPPacket"}));
    EXPECT_EQ(std::static_pointer_cast<PXUDPPacket>(plain)->payload().stringView(), "hello");
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

TEST(HostPacketClass, DirectedDecoderMixesItWithBuiltIns) {
    const Bytes frame = udpFrame("BEACON");
    PXPacketPtr beacon = PXPacket::packetWithRawData(ByteBuffer::copy(frame),
                                                     {&PXTestBeaconPacket::staticClass(), &PXUDPPacket::staticClass(),
                                                      &PXIPv4Packet::staticClass(), &PXEthernetPacket::staticClass()},
                                                     5.0, static_cast<std::uint32_t>(frame.size()));
    ASSERT_TRUE(beacon);
    EXPECT_EQ(&beacon->packetClass(), &PXTestBeaconPacket::staticClass());
    EXPECT_EQ(beacon->rootPacket()->timestamp(), 5.0);
}
