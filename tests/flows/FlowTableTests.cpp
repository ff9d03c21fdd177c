// TCP and UDP flow tables through a null-device capture, fed hand-built
// frames on a clock the test moves as a replay moves it, with every flow
// notification recorded along with the clock at that moment.
#include "packets/PacketTestSupport.hpp"

#include <Wireloom/Wireloom.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <string_view>
#include <vector>

using namespace wireloom;
using namespace wireloom::testing;

namespace {

struct Heard : Notification {
    double clock;

    template <class T>
    std::shared_ptr<T> flow() const {
        return userInfo.at("flow").object<T>();
    }
    std::string text(const char* key) const { return *userInfo.at(key).string(); }
};

class FlowHarness : public ::testing::Test {
protected:
    // Far from zero, so that no activity time can pass for "never".
    static constexpr double kStart = 1000;

    // Set before any table exists: its poll timer counts from here.
    static PXNetworkCapture::Ptr startedCapture() {
        auto capture = PXNetworkCapture::captureWithNullDevice();
        capture->timeManager()->updateCurrentTime(kStart);
        return capture;
    }
    void TearDown() override { NotificationCenter::defaultCenter().removeObserver(this); }

    void listen(std::initializer_list<const char*> names) {
        for (const char* name : names)
            NotificationCenter::defaultCenter().addObserver(this, name, [this](const Notification& n) {
                heard.push_back({n, now()});
            });
    }
    std::vector<Heard> named(std::string_view name) const {
        std::vector<Heard> found;
        std::copy_if(heard.begin(), heard.end(), std::back_inserter(found),
                     [&](const Heard& h) { return h.name == name; });
        return found;
    }
    double now() const { return capture->timeManager()->currentTime(); }
    // The clock first, then the frame, as a replay does.
    void send(double time, const Bytes& frame) {
        capture->timeManager()->updateCurrentTime(time);
        ASSERT_TRUE(capture->processRawPacketData(ByteBuffer::copy(frame.data(), frame.size()), time));
    }
    // A live capture's clock: a tick every tenth of a second. Whole tenths
    // keep the times exact.
    void tickUntil(double time) {
        for (long tenth = std::lround(now() * 10) + 1; tenth <= std::lround(time * 10); ++tenth)
            capture->timeManager()->updateCurrentTime(static_cast<double>(tenth) / 10.0);
    }

    PXNetworkCapture::Ptr capture = startedCapture();
    std::vector<Heard> heard;
};

Bytes udp4Frame(std::string_view source, std::uint16_t sourcePort, std::string_view dest, std::uint16_t destPort,
                const Bytes& payload) {
    return ethernet(kMacB, kMacA, kEtherTypeIPv4,
                    ipv4(ip4(source), ip4(dest), kProtoUDP, udp(sourcePort, destPort, payload)));
}

// 10.0.0.10 sorts before 10.0.0.9, so the server is endpoint 0.
constexpr const char* kClient = "10.0.0.9";
constexpr const char* kServer = "10.0.0.10";
constexpr const char* kKey = "10.0.0.10:80-10.0.0.9:5000";

Bytes tcp4Frame(std::string_view source, std::string_view dest, const TcpFields& fields) {
    return ethernet(kMacB, kMacA, kEtherTypeIPv4, ipv4(ip4(source), ip4(dest), kProtoTCP, tcp(fields)));
}
Bytes fromClient(std::uint32_t seq, std::uint8_t flags, std::string_view payload = {}, std::uint16_t port = 5000) {
    return tcp4Frame(kClient, kServer,
                     {.sourcePort = port, .destPort = 80, .seq = seq, .flags = flags, .payload = bytesOf(payload)});
}
Bytes fromServer(std::uint32_t seq, std::uint8_t flags, std::string_view payload = {}) {
    return tcp4Frame(kServer, kClient,
                     {.sourcePort = 80, .destPort = 5000, .seq = seq, .flags = flags, .payload = bytesOf(payload)});
}

class PXTCPFlowTest : public FlowHarness {
protected:
    void SetUp() override {
        listen({kPXTCPFlowDetectedNotificationName, kPXTCPFlowEndedNotificationName,
                kPXTCPFlowStreamChunkNotificationName});
    }

    // The client's SYN (ISN 100) and the server's SYN+ACK (ISN 500).
    PXTCPFlow::Ptr open() {
        send(kStart, fromClient(100, kTcpSyn));
        send(kStart, fromServer(500, kTcpSyn | kTcpAck));
        return table->flowForKey(kKey);
    }
    // "SENDER BYTES" for each chunk `flow` announced.
    std::vector<std::string> chunks(const PXTCPFlow::Ptr& flow) const {
        std::vector<std::string> found;
        for (const Heard& h : named(kPXTCPFlowStreamChunkNotificationName)) {
            const ByteBuffer& bytes = *h.userInfo.at("chunk").bytes();
            if (h.sender == flow) found.push_back(h.text("identifier") + " " + std::string(bytes.begin(), bytes.end()));
        }
        return found;
    }
    void expectEnded(const PXTCPFlow::Ptr& flow, const std::string& reason) {
        auto ended = named("kPXTCPFlowEndedNotificationName");
        ASSERT_EQ(ended.size(), 1u);
        EXPECT_EQ(ended[0].sender, table);
        EXPECT_EQ(ended[0].flow<PXTCPFlow>(), flow);
        EXPECT_EQ(ended[0].text("reason"), reason);
        EXPECT_TRUE(table->flows().empty());
    }

    PXTCPFlowTable::Ptr table = PXTCPFlowTable::initWithCapture(capture);
};

}  // namespace

TEST_F(PXTCPFlowTest, OnlyASynWithoutFinStartsAFlowNamedServerFirst) {
    send(kStart, fromClient(100, kTcpAck | kTcpPsh, "GET /"));  // opened before the capture
    send(kStart, fromClient(100, kTcpSyn | kTcpFin));
    send(kStart, udp4Frame(kClient, 5000, kServer, 80, bytesOf("GET /")));
    EXPECT_TRUE(heard.empty());

    // The answer to a SYN the capture missed will do; the client's packets
    // that were ignored before now join it.
    send(kStart + 1, fromServer(500, kTcpSyn | kTcpAck));
    auto detected = named("kPXTCPFlowDetectedNotification");
    ASSERT_EQ(detected.size(), 1u);
    EXPECT_EQ(detected[0].sender, table);
    auto flow = detected[0].flow<PXTCPFlow>();
    ASSERT_TRUE(flow);
    EXPECT_EQ(table->flowForKey(kKey), flow);
    EXPECT_EQ(flow->endpoint0() + " " + flow->endpoint1(), "10.0.0.10:80 10.0.0.9:5000");
    EXPECT_EQ(flow->endpoint0Address() + ":" + std::to_string(flow->endpoint0Port()), flow->endpoint0());
    EXPECT_EQ(flow->endpoint1Address() + ":" + std::to_string(flow->endpoint1Port()), flow->endpoint1());
    send(kStart + 2, fromClient(101, kTcpAck, "GET"));
    EXPECT_EQ(chunks(flow), std::vector<std::string>{"10.0.0.9:5000 GET"});
    EXPECT_EQ(flow->endpoint0ActivityTime(), kStart + 1);
    EXPECT_EQ(flow->endpoint1ActivityTime(), kStart + 2);
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
    EXPECT_EQ(named(kPXTCPFlowStreamChunkNotificationName).size(), 3u);
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

    // A caller that does not ask for the reason ends both directions too.
    auto other = open();
    send(kStart, fromClient(101, kTcpAck, "abc"));
    auto far = decode(fromClient(104 + 10 * 1024 * 1024, kTcpAck, "x"));
    other->processPacket(*far->packetWithProtocol<PXTCPPacket>(), false, nullptr);
    EXPECT_EQ(other->endpoint0Incoming(), nullptr);
    EXPECT_EQ(other->endpoint0Outgoing(), nullptr);
}

// Both activity times start when the flow is made, so an endpoint that never
// sends ends the flow however busy the other is: at the first poll (they run
// every five seconds) more than 180 seconds after it was last heard.
TEST_F(PXTCPFlowTest, AFlowEndsAtThePollAfterAnEndpointWasSilentFor180Seconds) {
    const auto ack = [](std::uint8_t flags) {
        return tcp4Frame("10.0.0.1", "10.0.0.2", {.sourcePort = 5000, .destPort = 80, .seq = 100, .flags = flags});
    };
    send(kStart, ack(kTcpSyn));
    auto flow = table->flowForKey("10.0.0.1:5000-10.0.0.2:80");
    ASSERT_TRUE(flow);
    for (int second = 20; second <= 180; second += 20) send(kStart + second, ack(kTcpAck));
    EXPECT_EQ(table->flows().size(), 1u);  // exactly the interval is not too long
    tickUntil(kStart + 200);
    expectEnded(flow, "Flow is no longer active");
    const double silence = named(kPXTCPFlowEndedNotificationName).at(0).clock - kStart;
    EXPECT_GT(silence, 180);
    EXPECT_LE(silence, 185.1 + 1e-9);
    EXPECT_EQ(flow->endpoint1ActivityTime(), kStart);
}

TEST_F(PXTCPFlowTest, InvalidateEndsEveryLiveFlowAndStopsListening) {
    open();
    send(kStart, tcp4Frame("10.0.0.1", "10.0.0.2", {.sourcePort = 5000, .destPort = 80, .seq = 1, .flags = kTcpSyn}));
    table->invalidate();
    // In key order, whatever the hashing.
    std::vector<std::string> ended;
    for (const Heard& h : named(kPXTCPFlowEndedNotificationName))
        ended.push_back(h.flow<PXTCPFlow>()->key() + " " + h.text("reason"));
    EXPECT_EQ(ended, (std::vector<std::string>{std::string(kKey) + " Flow is no longer active",
                                               "10.0.0.1:5000-10.0.0.2:80 Flow is no longer active"}));
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
    EXPECT_EQ(flow->endpoint0Address() + " " + flow->endpoint1Address(), "201:db8::10 201:db8::9");

    EXPECT_TRUE(flow->isPacketMemberOfFlow(*decode(syn)));
    EXPECT_TRUE(flow->isPacketMemberOfFlow(*decode(frame6("2001:db8::10", "2001:db8::9", 80, 5000))));
    EXPECT_FALSE(flow->isPacketMemberOfFlow(*decode(frame6("2001:db8::9", "2001:db8::10", 5001, 80))));
    EXPECT_FALSE(flow->isPacketMemberOfFlow(*decode(frame6("2001:db8::10", "2001:db8::10", 80, 5000))));

    auto flow4 = open();
    EXPECT_TRUE(flow4->isPacketMemberOfFlow(*decode(fromServer(1, kTcpAck))));
    // Same addresses and ports, but not TCP.
    EXPECT_FALSE(flow4->isPacketMemberOfFlow(*decode(udp4Frame(kClient, 5000, kServer, 80, bytesOf("x")))));
}

// The table remembers each address pair's flow between packets, and must
// forget it whenever a flow is filed or removed under the same addresses.
TEST_F(PXTCPFlowTest, AConnectionOpenedAgainOnTheSamePortsIsANewFlow) {
    auto first = open();
    send(kStart, fromClient(300, kTcpSyn, {}, 5001));
    auto other = table->flowForKey("10.0.0.10:80-10.0.0.9:5001");
    ASSERT_TRUE(other);
    send(kStart, fromClient(301, kTcpAck, "A", 5001));  // its route is remembered before the first flow goes
    send(kStart, fromClient(101, kTcpAck | kTcpFin, "one"));
    send(kStart, fromServer(501, kTcpAck | kTcpFin));
    ASSERT_TRUE(table->flowForKey(kKey) == nullptr);
    send(kStart, fromClient(302, kTcpAck, "B", 5001));

    // Data on the closed ports reaches no flow; a new SYN starts one.
    send(kStart, fromClient(104, kTcpAck, "stray"));
    send(kStart, fromClient(9000, kTcpSyn));
    auto second = table->flowForKey(kKey);
    ASSERT_TRUE(second);
    ASSERT_NE(second, first);
    send(kStart, fromClient(9001, kTcpAck, "two"));
    send(kStart, fromServer(7000, kTcpAck, "reply"));
    send(kStart, fromClient(303, kTcpAck, "C", 5001));

    EXPECT_EQ(chunks(first), std::vector<std::string>{"10.0.0.9:5000 one"});
    EXPECT_EQ(chunks(other), (std::vector<std::string>{"10.0.0.9:5001 A", "10.0.0.9:5001 B", "10.0.0.9:5001 C"}));
    EXPECT_EQ(chunks(second), (std::vector<std::string>{"10.0.0.9:5000 two", "10.0.0.10:80 reply"}));
    EXPECT_EQ(named(kPXTCPFlowStreamChunkNotificationName).size(), 6u);
    EXPECT_EQ(table->table().size(), 2u);
}

namespace {

class PXUDPFlowTest : public FlowHarness {
protected:
    void SetUp() override {
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

    PXUDPFlowTable::Ptr table = PXUDPFlowTable::initWithCapture(capture);
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
    EXPECT_EQ(flow->endpoint0Address() + ":" + std::to_string(flow->endpoint0Port()), "10.0.0.10:53");
    EXPECT_EQ(flow->endpoint1Address() + ":" + std::to_string(flow->endpoint1Port()), "10.0.0.9:5000");

    std::vector<std::string> published;
    for (const Heard& h : named("kPXUDPFlowPacketNotification")) {
        EXPECT_EQ(h.sender, flow);
        const ByteBuffer& payload =
            h.userInfo.at("packet").object<PXPacket>()->packetWithProtocol<PXUDPPacket>()->payload();
        published.push_back(h.text("identifier") + " " + std::string(payload.begin(), payload.end()));
    }
    EXPECT_EQ(published, (std::vector<std::string>{"10.0.0.9:5000 query", "10.0.0.10:53 answer"}));

    EXPECT_TRUE(flow->isPacketMemberOfFlow(*decode(query)));
    EXPECT_FALSE(flow->isPacketMemberOfFlow(*decode(udp4Frame("10.0.0.9", 5000, "10.0.0.10", 54, {}))));
    EXPECT_FALSE(flow->isPacketMemberOfFlow(
        *decode(tcp4Frame("10.0.0.9", "10.0.0.10", {.sourcePort = 5000, .destPort = 53, .flags = kTcpSyn}))));
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
    EXPECT_TRUE(published[1].userInfo.at("packet").object<PXPacket>()->isKindOf(PXRTPPacket::staticClass()));
    EXPECT_EQ(flow->endpoint0ActivityTime(), kStart + 10);
}
