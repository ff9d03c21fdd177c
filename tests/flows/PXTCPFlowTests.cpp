// TCP flows through a null-device capture: which packets start a flow and
// how it is keyed, the stream chunks each direction delivers, and the ways a
// flow ends (FIN from both sides, missing bytes, idleness, invalidate).
#include "FlowHarness.hpp"

#include <algorithm>

using namespace wireloom;
using namespace wireloom::testing;

namespace {

// 10.0.0.10 sorts before 10.0.0.9, so the server is endpoint 0.
constexpr const char* kClient = "10.0.0.9";
constexpr const char* kServer = "10.0.0.10";
constexpr const char* kKey = "10.0.0.10:80-10.0.0.9:5000";

Bytes fromClient(std::uint32_t seq, std::uint8_t flags, std::string_view payload = {}) {
    return tcp4Frame(kClient, kServer,
                     {.sourcePort = 5000, .destPort = 80, .seq = seq, .flags = flags, .payload = bytesOf(payload)});
}
Bytes fromServer(std::uint32_t seq, std::uint8_t flags, std::string_view payload = {}) {
    return tcp4Frame(kServer, kClient,
                     {.sourcePort = 80, .destPort = 5000, .seq = seq, .flags = flags, .payload = bytesOf(payload)});
}

class PXTCPFlowTest : public FlowHarness {
protected:
    void SetUp() override {
        FlowHarness::SetUp();
        table = PXTCPFlowTable::initWithCapture(capture);
        listen({kPXTCPFlowDetectedNotificationName, kPXTCPFlowEndedNotificationName,
                kPXTCPFlowStreamChunkNotificationName});
    }

    // The client's SYN (ISN 100) and the server's SYN+ACK (ISN 500).
    PXTCPFlow::Ptr open(double time = kStart) {
        send(time, fromClient(100, kTcpSyn));
        send(time, fromServer(500, kTcpSyn | kTcpAck));
        return table->flowForKey(kKey);
    }
    // "SENDER BYTES" for each chunk, checking it came from `flow`.
    std::vector<std::string> chunks(const PXTCPFlow::Ptr& flow) const {
        std::vector<std::string> found;
        for (const Heard& h : named(kPXTCPFlowStreamChunkNotificationName)) {
            EXPECT_EQ(h.sender, flow);
            const ByteBuffer& bytes = *h.info.at("chunk").bytes();
            found.push_back(h.text("identifier") + " " + std::string(bytes.begin(), bytes.end()));
        }
        return found;
    }
    void expectEnded(const PXTCPFlow::Ptr& flow, const std::string& reason) {
        auto ended = named(kPXTCPFlowEndedNotificationName);
        ASSERT_EQ(ended.size(), 1u);
        EXPECT_EQ(ended[0].name, "kPXTCPFlowEndedNotificationName");
        EXPECT_EQ(ended[0].sender, table);
        EXPECT_EQ(ended[0].flow<PXTCPFlow>(), flow);
        EXPECT_EQ(ended[0].text("reason"), reason);
        EXPECT_TRUE(table->flows().empty());
    }

    PXTCPFlowTable::Ptr table;
};

}  // namespace

TEST_F(PXTCPFlowTest, SynNamesTheFlowServerFirstAndLaterPacketsJoinIt) {
    send(kStart, fromClient(100, kTcpSyn));
    auto detected = named("kPXTCPFlowDetectedNotification");
    ASSERT_EQ(detected.size(), 1u);
    EXPECT_EQ(detected[0].sender, table);
    auto flow = detected[0].flow<PXTCPFlow>();
    ASSERT_TRUE(flow);
    EXPECT_EQ(table->flowForKey(kKey), flow);
    EXPECT_EQ(flow->endpoint0(), "10.0.0.10:80");
    EXPECT_EQ(flow->endpoint1(), "10.0.0.9:5000");
    EXPECT_EQ(flow->endpoint0Address(), kServer);
    EXPECT_EQ(flow->endpoint0Port(), 80);
    EXPECT_EQ(flow->endpoint1Address(), kClient);
    EXPECT_EQ(flow->endpoint1Port(), 5000);

    send(kStart + 1, fromServer(500, kTcpSyn | kTcpAck));
    send(kStart + 2, fromClient(101, kTcpAck));
    EXPECT_EQ(named(kPXTCPFlowDetectedNotificationName).size(), 1u);
    EXPECT_EQ(flow->endpoint0ActivityTime(), kStart + 1);
    EXPECT_EQ(flow->endpoint1ActivityTime(), kStart + 2);
}

TEST_F(PXTCPFlowTest, OnlyASynWithoutFinStartsAFlow) {
    send(kStart, fromClient(100, kTcpAck | kTcpPsh, "GET /"));  // opened before the capture
    send(kStart, fromClient(100, kTcpSyn | kTcpFin));
    send(kStart, udp4Frame(kClient, 5000, kServer, 80, bytesOf("GET /")));
    EXPECT_TRUE(heard.empty());
    EXPECT_TRUE(table->flows().empty());

    // The answer to a SYN the capture missed will do; the client's packets
    // that were ignored before now join it.
    send(kStart, fromServer(500, kTcpSyn | kTcpAck));
    auto flow = table->flowForKey(kKey);
    ASSERT_TRUE(flow);
    send(kStart, fromClient(101, kTcpAck, "GET"));
    EXPECT_EQ(chunks(flow), std::vector<std::string>{"10.0.0.9:5000 GET"});
}

TEST_F(PXTCPFlowTest, EachDirectionDeliversItsBytesInStreamOrderOnce) {
    auto flow = open();
    send(kStart, fromClient(101, kTcpAck, "GET "));
    send(kStart, fromClient(109, kTcpAck, "HTTP"));  // behind a hole
    send(kStart, fromClient(105, kTcpAck, "/ x "));  // fills it
    send(kStart, fromClient(101, kTcpAck, "GET "));  // retransmitted
    send(kStart, fromServer(501, kTcpAck, "200"));
    EXPECT_EQ(chunks(flow),
              (std::vector<std::string>{"10.0.0.9:5000 GET ", "10.0.0.9:5000 / x HTTP", "10.0.0.10:80 200"}));
}

// Without time-outs, hours of silence change nothing: only FINs (or missing
// bytes) end a flow.
TEST_F(PXTCPFlowTest, FinClosesItsOwnDirectionAndTheSecondFinEndsTheFlow) {
    table->setTcpFlowsUseTimeouts(false);
    auto flow = open();
    send(kStart, fromClient(101, kTcpAck | kTcpFin, "bye"));
    EXPECT_EQ(chunks(flow), std::vector<std::string>{"10.0.0.9:5000 bye"});
    EXPECT_EQ(flow->endpoint0Incoming(), nullptr);
    EXPECT_NE(flow->endpoint0Outgoing(), nullptr);

    // Data on the closed direction is dropped; an ACK there is still activity.
    send(kStart + 10'000, fromClient(104, kTcpAck, "more"));
    send(kStart + 20'000, fromClient(105, kTcpAck));
    EXPECT_EQ(chunks(flow).size(), 1u);
    EXPECT_EQ(flow->endpoint1ActivityTime(), kStart + 20'000);
    ASSERT_EQ(table->flowForKey(kKey), flow);

    bool filedWhileEnding = false;
    NotificationCenter::defaultCenter().addObserver(this, kPXTCPFlowEndedNotificationName, [&](const Notification&) {
        filedWhileEnding = table->flowForKey(kKey) == flow;
    });
    send(kStart + 30'000, fromServer(501, kTcpAck | kTcpFin, "ok"));
    EXPECT_EQ(chunks(flow), (std::vector<std::string>{"10.0.0.9:5000 bye", "10.0.0.10:80 ok"}));
    expectEnded(flow, "Flow is no longer active");
    EXPECT_TRUE(filedWhileEnding);
}

TEST_F(PXTCPFlowTest, MissingBytesEndBothDirectionsAndTheFlow) {
    auto flow = open();
    send(kStart, fromClient(101, kTcpAck, "abc"));
    // Ends one byte past the 10 MiB kept beyond the next expected byte.
    send(kStart, fromClient(104 + 10 * 1024 * 1024, kTcpAck, "x"));
    expectEnded(flow, "Encountered missing bytes in stream");
    EXPECT_EQ(flow->endpoint0Incoming(), nullptr);
    EXPECT_EQ(flow->endpoint0Outgoing(), nullptr);
}

TEST_F(PXTCPFlowTest, AnIdleFlowEndsAtThePollBetween180And185SecondsAfterItsLastPacket) {
    auto flow = open();
    send(kStart + 50, fromClient(101, kTcpAck, "a"));
    send(kStart + 50, fromServer(501, kTcpAck, "b"));
    tickUntil(kStart + 240);
    expectEnded(flow, "Flow is no longer active");
    const double silence = named(kPXTCPFlowEndedNotificationName).at(0).clock - (kStart + 50);
    EXPECT_GT(silence, 180);
    // A poll runs on the first tick more than five seconds after the last.
    EXPECT_LE(silence, 185.1 + 1e-9);
}

// Both activity times start when the flow is made, so an endpoint that never
// sends ends the flow however busy the other is.
TEST_F(PXTCPFlowTest, ASilentEndpointOneEndsTheFlowWhileEndpointZeroSends) {
    const auto ack = [](std::uint8_t flags) {
        return tcp4Frame("10.0.0.1", "10.0.0.2", {.sourcePort = 5000, .destPort = 80, .seq = 100, .flags = flags});
    };
    send(kStart, ack(kTcpSyn));
    auto flow = table->flowForKey("10.0.0.1:5000-10.0.0.2:80");
    ASSERT_TRUE(flow);
    for (int second = 20; second <= 180; second += 20) send(kStart + second, ack(kTcpAck));
    EXPECT_EQ(table->flows().size(), 1u);  // exactly the interval is not too long
    send(kStart + 180.1, ack(kTcpAck));
    expectEnded(flow, "Flow is no longer active");
    EXPECT_EQ(flow->endpoint1ActivityTime(), kStart);
}

TEST_F(PXTCPFlowTest, InvalidateEndsEveryLiveFlowAndStopsListening) {
    open();
    send(kStart, tcp4Frame("10.0.0.1", "10.0.0.2", {.sourcePort = 5000, .destPort = 80, .seq = 1, .flags = kTcpSyn}));
    table->invalidate();
    std::vector<std::string> ended;
    for (const Heard& h : named(kPXTCPFlowEndedNotificationName)) {
        EXPECT_EQ(h.text("reason"), "Flow is no longer active");
        ended.push_back(h.flow<PXTCPFlow>()->key());
    }
    std::sort(ended.begin(), ended.end());
    EXPECT_EQ(ended, (std::vector<std::string>{kKey, "10.0.0.1:5000-10.0.0.2:80"}));
    EXPECT_TRUE(table->table().empty());
    EXPECT_EQ(table->timer(), nullptr);

    heard.clear();
    send(kStart + 1, fromClient(100, kTcpSyn));
    EXPECT_TRUE(heard.empty());
}

// IPv6 addresses are keyed in the library's own text form.
TEST_F(PXTCPFlowTest, IPv6FlowsAndWhichPacketsBelongToAFlow) {
    const auto frame6 = [](const char* source, const char* dest, std::uint16_t sourcePort, std::uint16_t destPort) {
        return ethernet(kMacB, kMacA, kEtherTypeIPv6,
                        ipv6(ip6(source), ip6(dest), kProtoTCP,
                             tcp({.sourcePort = sourcePort, .destPort = destPort, .flags = kTcpSyn})));
    };
    const Bytes syn = frame6("2001:db8::9", "2001:db8::10", 5000, 80);
    send(kStart, syn);
    auto flow = table->flowForKey("201:db8::10:80-201:db8::9:5000");
    ASSERT_TRUE(flow);
    EXPECT_EQ(flow->endpoint0Address(), "201:db8::10");
    EXPECT_EQ(flow->endpoint1Address(), "201:db8::9");

    EXPECT_TRUE(flow->isPacketMemberOfFlow(*decoded(syn)));
    EXPECT_TRUE(flow->isPacketMemberOfFlow(*decoded(frame6("2001:db8::10", "2001:db8::9", 80, 5000))));
    EXPECT_FALSE(flow->isPacketMemberOfFlow(*decoded(frame6("2001:db8::9", "2001:db8::10", 5001, 80))));
    EXPECT_FALSE(flow->isPacketMemberOfFlow(*decoded(frame6("2001:db8::10", "2001:db8::10", 80, 5000))));

    auto flow4 = open();
    EXPECT_TRUE(flow4->isPacketMemberOfFlow(*decoded(fromServer(1, kTcpAck))));
    // Same addresses and ports, but not TCP.
    EXPECT_FALSE(flow4->isPacketMemberOfFlow(*decoded(udp4Frame(kClient, 5000, kServer, 80, bytesOf("x")))));
}
