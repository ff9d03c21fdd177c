#pragma once
// What the TCP and UDP flow tests share: a null-device capture fed with
// hand-built frames on a clock the test moves, as a replay moves it, and a
// record of every flow notification heard, with the clock at that moment.
#include "support/FrameBuilder.hpp"

#include <Wireloom/Wireloom.hpp>

#include <gtest/gtest.h>
#include <pcap/pcap.h>

#include <cmath>
#include <string>
#include <string_view>
#include <vector>

namespace wireloom::testing {

struct Heard {
    std::string name;
    ObjectPtr sender;
    UserInfo info;
    double clock;

    template <class T>
    std::shared_ptr<T> flow() const {
        return info.at("flow").object<T>();
    }
    std::string text(const char* key) const { return *info.at(key).string(); }
};

class FlowHarness : public ::testing::Test {
protected:
    // Far from zero, so that no activity time can pass for "never".
    static constexpr double kStart = 1000;

    void SetUp() override {
        capture = PXNetworkCapture::captureWithNullDevice();
        // Before any table exists: its poll timer counts from here.
        capture->timeManager()->updateCurrentTime(kStart);
    }
    void TearDown() override { NotificationCenter::defaultCenter().removeObserver(this); }

    void listen(std::initializer_list<const char*> names) {
        for (const char* name : names)
            NotificationCenter::defaultCenter().addObserver(this, name, [this](const Notification& n) {
                heard.push_back({std::string(n.name), n.sender, n.userInfo, now()});
            });
    }
    std::vector<Heard> named(std::string_view name) const {
        std::vector<Heard> found;
        for (const Heard& h : heard)
            if (h.name == name) found.push_back(h);
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

    PXNetworkCapture::Ptr capture;
    std::vector<Heard> heard;
};

inline Bytes tcp4Frame(std::string_view source, std::string_view dest, const TcpFields& fields) {
    return ethernet(kMacB, kMacA, kEtherTypeIPv4, ipv4(ip4(source), ip4(dest), kProtoTCP, tcp(fields)));
}
inline Bytes udp4Frame(std::string_view source, std::uint16_t sourcePort, std::string_view dest, std::uint16_t destPort,
                       const Bytes& payload) {
    return ethernet(kMacB, kMacA, kEtherTypeIPv4,
                    ipv4(ip4(source), ip4(dest), kProtoUDP, udp(sourcePort, destPort, payload)));
}

// The frame decoded as a capture decodes it, for questions about one packet.
inline PXPacketPtr decoded(const Bytes& frame) {
    pcap_pkthdr header{};
    header.caplen = header.len = static_cast<bpf_u_int32>(frame.size());
    return PXPacket::packetWithHeader(header, frame.data(), DLT_EN10MB);
}

}  // namespace wireloom::testing
