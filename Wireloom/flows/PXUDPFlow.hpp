#pragma once
// PXUDPFlow: the datagrams between two endpoints, grouped by a
// PXUDPFlowTable. There is no stream to put together: the flow re-announces
// each datagram it accepts as a per-flow packet notification, with the flow
// as sender. It keeps the packet class of its first datagram (plain UDP, or
// whatever the capture had decoded it into by then, such as multicast DNS)
// and ignores datagrams of the same endpoints that decode to another kind:
// they are not announced and do not count as activity.
//
// A UDP flow has no start or end marker: it begins with its first datagram
// and ends when either endpoint has been silent longer than the table's
// interval (20 seconds by default: both times start at creation, so a
// one-way flow ends too), on request, or when the table is invalidated.

#include <Wireloom/core/NotificationCenter.hpp>
#include <Wireloom/core/Object.hpp>
#include <Wireloom/flows/detail/FlowEndpoints.hpp>
#include <Wireloom/packets/PXPacket.hpp>

#include <cstdint>
#include <memory>
#include <string>

namespace wireloom {

class PXUDPFlowTable;

// Sender: the flow. "packet": the datagram as decoded; "identifier": the
// endpoint that sent it.
inline constexpr const char* kPXUDPFlowPacketNotificationName = "kPXUDPFlowPacketNotification";

class PXUDPFlow : public Object, public detail::FlowEndpoints {
public:
    using Ptr = std::shared_ptr<PXUDPFlow>;

    static Ptr initWithEndpoint(std::string endpoint0, std::string endpoint1,
                                const std::shared_ptr<PXUDPFlowTable>& table);
    std::string className() const override { return "PXUDPFlow"; }

    // The kind of packet this flow carries; null until its table fixes it.
    const PacketClass* packetClass() const noexcept { return packetClass_; }
    void setPacketClass(const PacketClass* cls) noexcept { packetClass_ = cls; }
    std::shared_ptr<PXUDPFlowTable> table() const noexcept { return table_.lock(); }

    // Announces the datagram unless it is not of the flow's packet class.
    // Never sets *error; the parameter keeps the shape of the TCP flow's.
    void processPacket(const PXPacketPtr& packet, bool sourceIsZero, std::string* error);
    // Without time-outs, always; with them, while neither endpoint has been
    // silent for longer than the table's interval.
    bool isAlive() const;
    // Asks the table to end this flow with the reason.
    void removeFlowWithReason(const std::string& reason);
    bool isPacketMemberOfFlow(const PXPacket& packet) const;

    // Counts for reports: datagrams each endpoint sent that the flow
    // accepted, and their UDP payload bytes.
    std::uint64_t endpoint0Datagrams() const noexcept { return datagrams_[0]; }
    std::uint64_t endpoint1Datagrams() const noexcept { return datagrams_[1]; }
    std::uint64_t endpoint0Bytes() const noexcept { return bytes_[0]; }
    std::uint64_t endpoint1Bytes() const noexcept { return bytes_[1]; }

    PXUDPFlow(std::string endpoint0, std::string endpoint1, const std::shared_ptr<PXUDPFlowTable>& table, double now);

private:
    const PacketClass* packetClass_ = nullptr;
    std::weak_ptr<PXUDPFlowTable> table_;
    std::uint64_t datagrams_[2] = {};
    std::uint64_t bytes_[2] = {};
};

}  // namespace wireloom
