// Feeds a sequence of Ethernet frames through a capture with a TCP and a UDP
// flow table attached, the capture clock moving between frames, and checks
// that the tables account for every flow: each one detected is ended exactly
// once, chunks come only from flows still filed, and nothing is left after
// invalidate.
//
// Each frame is a time step byte (whole seconds, so that idle time-outs are
// reached), a big-endian 16-bit length and that many bytes.
#include "FuzzTarget.hpp"

#include <Wireloom/Wireloom.hpp>
#include <Wireloom/core/detail/ByteReader.hpp>

#include <cstdint>
#include <set>

namespace {

using namespace wireloom;

struct Ledger {
    std::set<const Object*> live;
    std::uint64_t detected = 0, ended = 0;
};

template <class Table>
void watch(NotificationCenter& center, Ledger& ledger, const Table& table, const char* detectedName,
           const char* endedName) {
    center.addObserver(
        &ledger, detectedName,
        [&ledger](const Notification& n) {
            ++ledger.detected;
            WL_ASSERT(ledger.live.insert(n.userInfo.at("flow").object().get()).second, "a flow was detected twice");
        },
        table.get());
    center.addObserver(
        &ledger, endedName,
        [&ledger](const Notification& n) {
            ++ledger.ended;
            const ObjectPtr flow = n.userInfo.at("flow").object();
            WL_ASSERT(ledger.live.erase(flow.get()) == 1, "a flow ended that was not live");
            WL_ASSERT(n.userInfo.at("reason").string() != nullptr, "an ended flow without a reason");
        },
        table.get());
}

}  // namespace

WIRELOOM_FUZZ_TARGET(flow_table) {
    detail::ByteReader in(data, size);
    NotificationCenter& center = NotificationCenter::defaultCenter();
    const PXNetworkCapture::Ptr capture = PXNetworkCapture::captureWithNullDevice();
    const PXTCPFlowTable::Ptr tcp = PXTCPFlowTable::initWithCapture(capture);
    const PXUDPFlowTable::Ptr udp = PXUDPFlowTable::initWithCapture(capture);
    Ledger ledger;
    watch(center, ledger, tcp, kPXTCPFlowDetectedNotificationName, kPXTCPFlowEndedNotificationName);
    watch(center, ledger, udp, kPXUDPFlowDetectedNotificationName, kPXUDPFlowEndedNotificationName);
    center.addObserver(&ledger, kPXTCPFlowStreamChunkNotificationName, [&](const Notification& n) {
        auto flow = std::dynamic_pointer_cast<PXTCPFlow>(n.sender);
        WL_ASSERT(flow && tcp->flowForKey(flow->key()) == flow, "a chunk from a flow that is not filed");
        WL_ASSERT(n.userInfo.at("chunk").bytes() && !n.userInfo.at("chunk").bytes()->empty(), "an empty chunk");
    });

    double clock = 1'700'000'000;
    while (in.remaining() >= 3) {
        clock += in.readByte();
        const std::size_t length = std::min<std::size_t>(in.readBE<std::uint16_t>(), in.remaining());
        const ByteBuffer frame = ByteBuffer::copy(in.readBytes(length), length);
        capture->timeManager()->updateCurrentTime(clock);
        capture->processRawPacketData(frame, clock);
    }
    tcp->invalidate();
    udp->invalidate();
    center.removeObserver(&ledger);
    WL_ASSERT(ledger.live.empty() && ledger.detected == ledger.ended, "flows outlived invalidate");
    WL_ASSERT(tcp->table().empty() && udp->table().empty(), "a table kept flows after invalidate");
    return 0;
}
