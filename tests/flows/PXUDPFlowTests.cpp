// UDP flows through a null-device capture: any datagram starts one, each is
// republished by its flow, and flows end by idleness, on request or when the
// table is invalidated. A flow keeps the decoded kind of its first datagram.
#include "FlowHarness.hpp"

using namespace wireloom;
using namespace wireloom::testing;

namespace {

class PXUDPFlowTest : public FlowHarness {
protected:
    void SetUp() override {
        FlowHarness::SetUp();
        table = PXUDPFlowTable::initWithCapture(capture);
        listen({kPXUDPFlowDetectedNotificationName, kPXUDPFlowEndedNotificationName, kPXUDPFlowPacketNotificationName});
    }
    std::vector<std::string> endedReasons() const {
        std::vector<std::string> reasons;
        for (const Heard& h : named("kPXUDPFlowEndedNotificationName")) {
            EXPECT_EQ(h.sender, table);
            reasons.push_back(h.flow<PXUDPFlow>()->key() + " " + h.text("reason"));
        }
        return reasons;
    }

    PXUDPFlowTable::Ptr table;
};

// From 10.0.0.1 to 10.0.0.2, both on port 5004: the sender is endpoint 0.
Bytes oneWay(const Bytes& payload) { return udp4Frame("10.0.0.1", 5004, "10.0.0.2", 5004, payload); }
constexpr const char* kOneWayKey = "10.0.0.1:5004-10.0.0.2:5004";

}  // namespace

TEST_F(PXUDPFlowTest, AnyDatagramStartsAFlowThatRepublishesEachOfItsDatagrams) {
    const Bytes query = udp4Frame("10.0.0.9", 5000, "10.0.0.10", 53, bytesOf("query"));
    send(kStart, query);
    send(kStart + 1, udp4Frame("10.0.0.10", 53, "10.0.0.9", 5000, bytesOf("answer")));

    auto detected = named("kPXUDPFlowDetectedNotification");
    ASSERT_EQ(detected.size(), 1u);
    EXPECT_EQ(detected[0].sender, table);
    auto flow = detected[0].flow<PXUDPFlow>();
    ASSERT_TRUE(flow);
    EXPECT_EQ(flow->key(), "10.0.0.10:53-10.0.0.9:5000");
    EXPECT_EQ(flow->endpoint0(), "10.0.0.10:53");
    EXPECT_EQ(flow->endpoint0Address(), "10.0.0.10");
    EXPECT_EQ(flow->endpoint1Port(), 5000);
    EXPECT_EQ(flow->packetClass(), &PXUDPPacket::staticClass());

    std::vector<std::string> published;
    for (const Heard& h : named("kPXUDPFlowPacketNotification")) {
        EXPECT_EQ(h.sender, flow);
        const ByteBuffer& payload =
            h.info.at("packet").object<PXPacket>()->packetWithProtocol<PXUDPPacket>()->payload();
        published.push_back(h.text("identifier") + " " + std::string(payload.begin(), payload.end()));
    }
    EXPECT_EQ(published, (std::vector<std::string>{"10.0.0.9:5000 query", "10.0.0.10:53 answer"}));

    EXPECT_TRUE(flow->isPacketMemberOfFlow(*decoded(query)));
    EXPECT_FALSE(flow->isPacketMemberOfFlow(*decoded(udp4Frame("10.0.0.9", 5000, "10.0.0.10", 54, {}))));
    EXPECT_FALSE(flow->isPacketMemberOfFlow(
        *decoded(tcp4Frame("10.0.0.9", "10.0.0.10", {.sourcePort = 5000, .destPort = 53, .flags = kTcpSyn}))));
}

// Endpoint 1 never answers, so the flow is over 20 seconds after it began
// however often endpoint 0 sends; the next poll finds that out.
TEST_F(PXUDPFlowTest, AOneWayFlowEndsAtThePollAfterMoreThan20Seconds) {
    for (int second = 0; second <= 20; ++second) {
        tickUntil(kStart + second);
        send(kStart + second, oneWay(bytesOf("tick")));
    }
    EXPECT_TRUE(endedReasons().empty());
    tickUntil(kStart + 30);
    EXPECT_EQ(endedReasons(), std::vector<std::string>{"10.0.0.1:5004-10.0.0.2:5004 Flow is no longer active"});
    const Heard ended = named(kPXUDPFlowEndedNotificationName).at(0);
    EXPECT_GT(ended.clock, kStart + 20);
    EXPECT_LE(ended.clock, kStart + 25.1 + 1e-9);
    EXPECT_EQ(ended.flow<PXUDPFlow>()->endpoint0ActivityTime(), kStart + 20);
    EXPECT_EQ(named(kPXUDPFlowPacketNotificationName).size(), 21u);
    EXPECT_TRUE(table->flows().empty());
}

TEST_F(PXUDPFlowTest, WithoutTimeoutsAFlowEndsOnlyOnRequestOrAtInvalidate) {
    table->setUdpFlowsUseTimeouts(false);
    send(kStart, oneWay(bytesOf("a")));
    send(kStart, udp4Frame("10.0.0.3", 68, "10.0.0.4", 67, bytesOf("b")));
    capture->timeManager()->updateCurrentTime(kStart + 100'000);
    ASSERT_EQ(table->flows().size(), 2u);

    auto flow = table->flowForKey(kOneWayKey);
    ASSERT_TRUE(flow);
    flow->removeFlowWithReason("Client hung up");
    flow->removeFlowWithReason("Once is enough");  // no longer filed
    EXPECT_EQ(endedReasons(), std::vector<std::string>{"10.0.0.1:5004-10.0.0.2:5004 Client hung up"});

    table->invalidate();
    EXPECT_EQ(endedReasons(), (std::vector<std::string>{"10.0.0.1:5004-10.0.0.2:5004 Client hung up",
                                                        "10.0.0.3:68-10.0.0.4:67 Flow is no longer active"}));
    EXPECT_TRUE(table->table().empty());
    EXPECT_EQ(table->timer(), nullptr);
}

// The capture decodes nothing beyond UDP on these ports; a client that knows
// the flow carries RTP decodes it and hands it over itself.
TEST_F(PXUDPFlowTest, AFlowIgnoresDatagramsThatDecodeToAnotherKindThanItsFirst) {
    const Bytes frame = oneWay(Bytes{0x80, 0, 0, 7, 0, 0, 0, 9, 0, 0, 1, 0, 'x'});
    const auto asRTP = [&](double time) {
        return PXPacket::packetWithRawData(ByteBuffer::copy(frame.data(), frame.size()),
                                           {&PXRTPPacket::staticClass(), &PXUDPPacket::staticClass(),
                                            &PXIPv4Packet::staticClass(), &PXEthernetPacket::staticClass()},
                                           time, static_cast<std::uint32_t>(frame.size()));
    };
    table->observeUDPPacket(asRTP(kStart));
    auto flow = table->flowForKey(kOneWayKey);
    ASSERT_TRUE(flow);
    EXPECT_EQ(flow->packetClass(), &PXRTPPacket::staticClass());

    send(kStart + 10, frame);  // plain UDP this time
    EXPECT_EQ(named(kPXUDPFlowPacketNotificationName).size(), 1u);
    EXPECT_EQ(flow->endpoint0ActivityTime(), kStart);
    EXPECT_EQ(table->flows().size(), 1u);

    table->observeUDPPacket(asRTP(kStart + 10));
    auto published = named(kPXUDPFlowPacketNotificationName);
    ASSERT_EQ(published.size(), 2u);
    EXPECT_TRUE(published[1].info.at("packet").object<PXPacket>()->isKindOf(PXRTPPacket::staticClass()));
    EXPECT_EQ(flow->endpoint0ActivityTime(), kStart + 10);
}
