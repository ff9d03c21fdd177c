// The capture session against real interfaces: start failures with a stand-in
// capture assistant, a live capture on lo of traffic this test sends, the
// order and content of its notifications, the filter delegate's veto,
// substitution, stop and restart, and replay of a capture file.
#include "support/Paths.hpp"

#include <Wireloom/Wireloom.hpp>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pcap/pcap.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

using namespace wireloom;

namespace {

// Counts the grants it is asked for, and may act on them.
class CountingAssistant : public WLNetworkCaptureAssistant {
public:
    void grantBPFAccess() override {
        ++grants;
        if (onGrant) onGrant();
    }
    int grants = 0;
    std::function<void()> onGrant;
};

class PXNetworkCaptureTest : public ::testing::Test {
protected:
    void SetUp() override {
        assistant = std::make_shared<CountingAssistant>();
        WLNetworkCaptureAssistant::setSharedInstance(assistant);
    }
    void TearDown() override { WLNetworkCaptureAssistant::setSharedInstance(nullptr); }

    static PXCaptureDevice::Ptr deviceNamed(const std::string& name) {
        pcap_if_t record{};
        record.name = const_cast<char*>(name.c_str());
        return PXCaptureDevice::initWithInterface(&record);
    }

    std::shared_ptr<CountingAssistant> assistant;
};

#define SKIP_UNLESS_ROOT() \
    if (geteuid() != 0) GTEST_SKIP() << "live capture needs root (CI runs as root)"

// Sends one UDP datagram to 127.0.0.1:port.
void sendDatagram(std::uint16_t port, const std::string& payload) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sendto(fd, payload.data(), payload.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    close(fd);
}

// Records every capture notification, in order, with the packet it carried.
struct Recorder {
    explicit Recorder(const PXNetworkCapture::Ptr& capture) {
        for (const char* name :
             {kPXNetworkCapturePacketDecodeOpportunityNotificationName, kPXNetworkCapturePrePacketNotificationName,
              kPXNetworkCapturePacketNotificationName, kPXNetworkCapturePostPacketNotificationName})
            NotificationCenter::defaultCenter().addObserver(
                this, name,
                [this](const Notification& n) {
                    names.emplace_back(n.name);
                    packets.push_back(n.userInfo.at("packet").object<PXPacket>());
                },
                capture.get());
    }
    ~Recorder() { NotificationCenter::defaultCenter().removeObserver(this); }
    // The UDP packets to `port` announced by the packet notification.
    std::vector<std::shared_ptr<PXUDPPacket>> udpTo(std::uint16_t port) const {
        std::vector<std::shared_ptr<PXUDPPacket>> found;
        for (std::size_t i = 0; i < names.size(); ++i) {
            if (names[i] != kPXNetworkCapturePacketNotificationName || !packets[i]) continue;
            auto udp = packets[i]->packetWithProtocol<PXUDPPacket>();
            if (udp && udp->destPort() == port) found.push_back(udp);
        }
        return found;
    }
    std::vector<std::string> names;
    std::vector<PXPacketPtr> packets;
};

bool runMainLoopUntil(const std::function<bool()>& done) {
    return RunLoop::main().runUntil(done, RunLoop::Clock::now() + std::chrono::seconds(5));
}

constexpr std::uint16_t kPort = 47811;

}  // namespace

TEST_F(PXNetworkCaptureTest, StartFailures) {
    std::string error;
    EXPECT_FALSE(PXNetworkCapture::captureWithNullDevice()->startWithError(&error));
    EXPECT_EQ(error, "Starting a capture requires a device to capture on");
    EXPECT_FALSE(PXNetworkCapture::captureWithNullDevice()->isRunning());

    // Both opens fail: access is asked for after each, and libpcap says why.
    auto missing = PXNetworkCapture::captureWithDevice(deviceNamed("wlnosuch0"));
    EXPECT_FALSE(missing->startWithError(&error));
    EXPECT_EQ(assistant->grants, 2);
    EXPECT_NE(error.find("wlnosuch0"), std::string::npos) << error;
    EXPECT_FALSE(missing->isRunning());

    SKIP_UNLESS_ROOT();
    auto running = PXNetworkCapture::captureWithDevice(deviceNamed("lo"));
    ASSERT_TRUE(running->startWithError(&error)) << error;
    EXPECT_FALSE(running->startWithError(&error));
    EXPECT_EQ(error, "Capture already in progress");
    running->stop();

    auto filtered = PXNetworkCapture::captureWithDevice(deviceNamed("lo"));
    filtered->setCaptureFilter("udp port nonsense");
    EXPECT_FALSE(filtered->startWithError(&error));
    EXPECT_FALSE(error.empty());
    EXPECT_FALSE(filtered->isRunning());
}

TEST_F(PXNetworkCaptureTest, FirstOpenFailingAndTheGrantMendingItAsksOnce) {
    SKIP_UNLESS_ROOT();
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizers' own checks need descriptors that this test takes away";
#endif
    // No descriptor left for the first open's socket; the grant gives them
    // back, as a real grant makes the packet-filter devices readable.
    rlimit saved{};
    getrlimit(RLIMIT_NOFILE, &saved);
    const int lowestFree = dup(0);
    close(lowestFree);
    rlimit exhausted = saved;
    exhausted.rlim_cur = static_cast<rlim_t>(lowestFree);
    setrlimit(RLIMIT_NOFILE, &exhausted);
    assistant->onGrant = [&] { setrlimit(RLIMIT_NOFILE, &saved); };
    auto capture = PXNetworkCapture::captureWithDevice(deviceNamed("lo"));
    std::string error;
    const bool started = capture->startWithError(&error);
    setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_TRUE(started) << error;
    EXPECT_EQ(assistant->grants, 1);
    capture->stop();
}

TEST_F(PXNetworkCaptureTest, LiveOnLoopbackAnnouncesInOrderVetoesSubstitutesAndRestarts) {
    SKIP_UNLESS_ROOT();
    auto capture = PXNetworkCapture::captureWithDevice(deviceNamed("lo"));
    capture->setCaptureFilter("port " + std::to_string(kPort));
    Recorder recorder(capture);
    std::string error;
    ASSERT_TRUE(capture->startWithError(&error)) << error;
    EXPECT_TRUE(capture->isRunning());
    EXPECT_EQ(capture->linkLayerType(), DLT_EN10MB);
    EXPECT_TRUE(capture->timeManager()->isDrivenByRealTime());

    sendDatagram(kPort, "hello");
    ASSERT_TRUE(runMainLoopUntil([&] { return recorder.udpTo(kPort).size() == 1; }));
    const auto udp = recorder.udpTo(kPort).front();
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(udp->payload().data()), udp->payload().size()), "hello");
    EXPECT_EQ(udp->interface(), "lo");
    EXPECT_EQ(recorder.names,
              (std::vector<std::string>{
                  kPXNetworkCapturePacketDecodeOpportunityNotificationName, kPXNetworkCapturePrePacketNotificationName,
                  kPXNetworkCapturePacketNotificationName, kPXNetworkCapturePostPacketNotificationName}));

    // A TCP connection of our own: its SYN is announced, decoded.
    const int listener = socket(AF_INET, SOCK_STREAM, 0), client = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(kPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    listen(listener, 1);
    ASSERT_EQ(connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const auto synTo = [&] {
        for (const PXPacketPtr& packet : recorder.packets)
            if (auto tcp = packet ? packet->packetWithProtocol<PXTCPPacket>() : nullptr)
                if (tcp->destPort() == kPort && tcp->synFlag() && !tcp->ackFlag()) return true;
        return false;
    };
    EXPECT_TRUE(runMainLoopUntil(synTo));
    close(client);
    close(listener);
    RunLoop::main().runFor(std::chrono::milliseconds(50));

    // Substitution: an RTP layer decoded over the UDP payload is carried by
    // the three later notifications; a packet of another chain is refused.
    bool refused = false;
    NotificationCenter::defaultCenter().addObserver(
        this, kPXNetworkCapturePacketDecodeOpportunityNotificationName,
        [&](const Notification& n) {
            auto current = n.userInfo.at("packet").object<PXUDPPacket>();
            if (!current) return;
            auto other = PXPacket::packetWithRawData(ByteBuffer::fromString("x"), {&PXPacket::staticClass()}, 0, 1);
            refused = !capture->transformCurrentPacket(other);
            std::uint32_t consumed = 0;
            if (auto rtp = PXRTPPacket::packetFromData(current->payload(), current, &consumed)) {
                rtp->setEncapsulatingPacket(current);
                capture->transformCurrentPacket(rtp);
            }
        },
        capture.get());
    recorder.names.clear();
    recorder.packets.clear();
    sendDatagram(kPort, std::string("\x80\x08\x00\x01\x00\x00\x00\x10\x12\x34\x56\x78rtp", 15));
    // Late segments of the closed connection may be announced too: look for
    // the datagram's decode opportunity and the three notifications after it.
    const auto datagramAt = [&]() -> std::size_t {
        for (std::size_t i = 0; i + 3 < recorder.packets.size(); ++i)
            if (std::dynamic_pointer_cast<PXUDPPacket>(recorder.packets[i])) return i;
        return recorder.packets.size();
    };
    ASSERT_TRUE(runMainLoopUntil([&] { return datagramAt() < recorder.packets.size(); }));
    NotificationCenter::defaultCenter().removeObserver(this);
    EXPECT_TRUE(refused);
    const std::size_t first = datagramAt();
    EXPECT_EQ(recorder.names[first], kPXNetworkCapturePacketDecodeOpportunityNotificationName);
    for (std::size_t i = first + 1; i < first + 4; ++i)
        EXPECT_NE(std::dynamic_pointer_cast<PXRTPPacket>(recorder.packets[i]), nullptr);

    // A delegate's veto: nothing at all is posted.
    struct Veto : PXNetworkCaptureFilterDelegate {
        bool networkCapture(PXNetworkCapture&, const PXPacketPtr&) override { return ++asked, false; }
        int asked = 0;
    };
    auto veto = std::make_shared<Veto>();
    capture->setFilterDelegate(veto);
    recorder.names.clear();
    sendDatagram(kPort, "vetoed");
    ASSERT_TRUE(runMainLoopUntil([&] { return veto->asked >= 1; }));
    RunLoop::main().runFor(std::chrono::milliseconds(50));
    EXPECT_TRUE(recorder.names.empty());
    capture->setFilterDelegate(nullptr);

    // Stop, and start again.
    capture->stop();
    EXPECT_FALSE(capture->isRunning());
    EXPECT_FALSE(capture->timeManager()->isDrivenByRealTime());
    EXPECT_GE(capture->statistics().received, 3u);
    EXPECT_EQ(capture->statistics().dropped, 0u);
    ASSERT_TRUE(capture->startWithError(&error)) << error;
    recorder.packets.clear();
    recorder.names.clear();
    sendDatagram(kPort, "again");
    ASSERT_TRUE(runMainLoopUntil([&] { return recorder.udpTo(kPort).size() == 1; }));
    capture->stop();
}

TEST_F(PXNetworkCaptureTest, NullDeviceDecodesEthernetAndReplayAdvancesTheClockFirst) {
    auto capture = PXNetworkCapture::captureWithNullDevice();
    Recorder recorder(capture);
    const std::string path = (wireloom::testing::sourceDir() / "samples" / "demo.pcap").string();
    std::string error;
    auto file = PXCaptureFile::open(path, &error);
    ASSERT_TRUE(file) << error;

    std::vector<double> clockAtAnnouncement, timestamps;
    NotificationCenter::defaultCenter().addObserver(
        this, kPXNetworkCapturePacketNotificationName,
        [&](const Notification& n) {
            clockAtAnnouncement.push_back(capture->timeManager()->currentTime());
            timestamps.push_back(n.userInfo.at("packet").object<PXPacket>()->timestamp());
        },
        capture.get());
    std::uint64_t reported = 0;
    EXPECT_TRUE(
        capture->replayCaptureFile(*file, &error, [&](std::uint64_t records, std::uint64_t) { reported = records; }));
    NotificationCenter::defaultCenter().removeObserver(this);
    EXPECT_EQ(reported, 65u);
    ASSERT_EQ(timestamps.size(), 65u);
    EXPECT_EQ(clockAtAnnouncement, timestamps);
    EXPECT_FALSE(capture->isRunning());

    // processRawPacketData decodes as Ethernet, whatever the replayed file was.
    auto fresh = PXNetworkCapture::captureWithNullDevice();
    Recorder freshRecorder(fresh);
    const PXPacketPtr frame = recorder.packets.at(2);
    ASSERT_TRUE(fresh->processRawPacketData(frame->rawData(), 12.75));
    ASSERT_EQ(freshRecorder.packets.size(), 4u);
    EXPECT_EQ(freshRecorder.packets[2]->packetClass().name(), frame->packetClass().name());
    EXPECT_DOUBLE_EQ(freshRecorder.packets[2]->timestamp(), 12.75);
}
