#pragma once
// PXTCPFlowTable: turns a capture's packets into TCP flows. It observes the
// capture's packet notification, files each TCP packet under its flow's key
// ("10.0.0.10:80-10.0.0.9:5000": the two endpoint identifiers, the lesser by
// plain byte-wise comparison first, that one being endpoint 0), and feeds it
// to the flow. A flow starts only at a SYN without FIN, so connections
// already open when the capture began are never followed.
//
//   auto table = PXTCPFlowTable::initWithCapture(capture);
//   center.addObserver(this, kPXTCPFlowDetectedNotificationName, [](const Notification& n) {
//       auto flow = n.userInfo.at("flow").object<PXTCPFlow>();
//   }, table.get());
//   ...
//   table->invalidate();   // every live flow ends, with its notification
//
// A flow is removed, with the ended notification, once it is no longer
// alive: after the packet that ended it, or at the poll that runs every five
// seconds of capture time, so an idle flow ends between 180 and 185 seconds
// after it fell silent, live or replayed. Everything runs on the thread that
// announces the capture's packets; the table takes no locks.

#include <Wireloom/capture/PXNetworkCapture.hpp>
#include <Wireloom/capture/PXTimer.hpp>
#include <Wireloom/core/Object.hpp>
#include <Wireloom/flows/PXTCPFlow.hpp>
#include <Wireloom/flows/detail/FlowDirectory.hpp>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace wireloom {

// Sender: the table; "flow": the new flow. (The two names differ in form:
// observers must use them as they are.)
inline constexpr const char* kPXTCPFlowDetectedNotificationName = "kPXTCPFlowDetectedNotification";
// Sender: the table; "flow": the flow, still in the table; "reason": why.
inline constexpr const char* kPXTCPFlowEndedNotificationName = "kPXTCPFlowEndedNotificationName";

class PXTCPFlowTable : public Object {
public:
    using Ptr = std::shared_ptr<PXTCPFlowTable>;
    using Table = detail::FlowDirectory<PXTCPFlow>::Table;

    static Ptr initWithCapture(PXNetworkCapture::Ptr capture);
    ~PXTCPFlowTable() override;
    std::string className() const override { return "PXTCPFlowTable"; }

    const PXNetworkCapture::Ptr& networkCapture() const noexcept { return networkCapture_; }
    bool tcpFlowsUseTimeouts() const noexcept { return tcpFlowsUseTimeouts_; }
    void setTcpFlowsUseTimeouts(bool use) noexcept { tcpFlowsUseTimeouts_ = use; }
    // Seconds either endpoint may stay silent; 180 by default.
    double idleFlowTimeoutInterval() const noexcept { return idleFlowTimeoutInterval_; }
    void setIdleFlowTimeoutInterval(double seconds) noexcept { idleFlowTimeoutInterval_ = seconds; }
    // The poll timer; null after invalidate().
    const PXTimerPtr& timer() const noexcept { return timer_; }
    // The live flows by key; empty after invalidate().
    const Table& table() const noexcept { return directory_.table(); }
    // A snapshot of the live flows, in no particular order.
    std::vector<PXTCPFlow::Ptr> flows() const { return directory_.flows(); }
    PXTCPFlow::Ptr flowForKey(std::string_view key) const { return directory_.flowForKey(key); }

    // Stops observing and polling, and ends every live flow with the reason
    // "Flow is no longer active".
    void invalidate();

    void observePacketNotification(const Notification& notification);
    void observeTCPPacket(const PXTCPPacket& packet);
    // Files the flow and announces it; no flow may be filed under the key yet.
    void addFlow(const PXTCPFlow::Ptr& flow, const std::string& key);
    // Announces the flow's end, with the error as its reason (or "Flow is no
    // longer active" without one), then removes it; it must be filed.
    void removeFlowWithKey(std::string_view key, const std::string* error);
    // Removes every flow that is no longer alive.
    void pollFlows();

    explicit PXTCPFlowTable(PXNetworkCapture::Ptr capture);

private:
    Ptr self();

    PXNetworkCapture::Ptr networkCapture_;
    bool tcpFlowsUseTimeouts_ = true;
    double idleFlowTimeoutInterval_ = 180;
    PXTimerPtr timer_;
    detail::FlowDirectory<PXTCPFlow> directory_;
};

}  // namespace wireloom
