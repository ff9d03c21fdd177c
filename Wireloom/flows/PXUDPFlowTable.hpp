#pragma once
// PXUDPFlowTable: groups a capture's UDP datagrams into flows by endpoint
// pair, keyed exactly as TCP flows are ("ENDPOINT0-ENDPOINT1", the lesser
// identifier first). It observes the capture's decode-opportunity
// notification, so it sees each datagram as decoded at that point (plain
// UDP, or a payload packet such as multicast DNS); any datagram starts a
// flow, and each flow keeps the class of its first one.
//
//   auto udp = PXUDPFlowTable::initWithCapture(capture);
//   center.addObserver(this, kPXUDPFlowDetectedNotificationName, [](const Notification& n) {
//       auto flow = n.userInfo.at("flow").object<PXUDPFlow>();
//   }, udp.get());
//
// Idle flows are swept every five seconds of capture time. Everything runs
// on the thread that announces the capture's packets; no locks.

#include <Wireloom/capture/PXNetworkCapture.hpp>
#include <Wireloom/capture/PXTimer.hpp>
#include <Wireloom/core/Object.hpp>
#include <Wireloom/flows/PXUDPFlow.hpp>
#include <Wireloom/flows/detail/FlowDirectory.hpp>
#include <Wireloom/packets/PXUDPPacket.hpp>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace wireloom {

// Sender: the table; "flow": the new flow. (The two names differ in form:
// observers must use them as they are.)
inline constexpr const char* kPXUDPFlowDetectedNotificationName = "kPXUDPFlowDetectedNotification";
// Sender: the table; "flow": the flow, still in the table; "reason": why.
inline constexpr const char* kPXUDPFlowEndedNotificationName = "kPXUDPFlowEndedNotificationName";

class PXUDPFlowTable : public Object {
public:
    using Ptr = std::shared_ptr<PXUDPFlowTable>;
    using Table = detail::FlowDirectory<PXUDPFlow>::Table;

    static Ptr initWithCapture(PXNetworkCapture::Ptr capture);
    ~PXUDPFlowTable() override;
    std::string className() const override { return "PXUDPFlowTable"; }

    const PXNetworkCapture::Ptr& capture() const noexcept { return capture_; }
    bool udpFlowsUseTimeouts() const noexcept { return udpFlowsUseTimeouts_; }
    void setUdpFlowsUseTimeouts(bool use) noexcept { udpFlowsUseTimeouts_ = use; }
    // Seconds either endpoint may stay silent; 20 by default.
    double idleFlowTimeoutInterval() const noexcept { return idleFlowTimeoutInterval_; }
    void setIdleFlowTimeoutInterval(double seconds) noexcept { idleFlowTimeoutInterval_ = seconds; }
    // The poll timer; null after invalidate().
    const PXTimerPtr& timer() const noexcept { return timer_; }
    // The live flows by key; empty after invalidate().
    const Table& table() const noexcept { return directory_.table(); }
    // A snapshot of the live flows, in no particular order.
    std::vector<PXUDPFlow::Ptr> flows() const { return directory_.flows(); }
    PXUDPFlow::Ptr flowForKey(std::string_view key) const { return directory_.flowForKey(key); }

    // Stops observing and polling, and ends every live flow with the reason
    // "Flow is no longer active".
    void invalidate();

    void observePacketNotification(const Notification& notification);
    // A packet with a UDP layer, as decoded so far.
    void observeUDPPacket(const PXPacketPtr& packet);
    // Files the flow and announces it; no flow may be filed under the key yet.
    void addFlow(const PXUDPFlow::Ptr& flow, const std::string& key);
    // Announces the flow's end, with the error as its reason (or "Flow is no
    // longer active" without one), then removes it; it must be filed.
    void removeFlowWithKey(std::string_view key, const std::string* error);
    // Removes every flow that is no longer alive.
    void pollFlows();
    // Ends this very flow, if it is still filed, with the reason.
    void removeFlow(const PXUDPFlow::Ptr& flow, const std::string& reason);

    explicit PXUDPFlowTable(PXNetworkCapture::Ptr capture);

private:
    Ptr self();

    PXNetworkCapture::Ptr capture_;
    bool udpFlowsUseTimeouts_ = true;
    double idleFlowTimeoutInterval_ = 20;
    PXTimerPtr timer_;
    detail::FlowDirectory<PXUDPFlow> directory_;
};

}  // namespace wireloom
