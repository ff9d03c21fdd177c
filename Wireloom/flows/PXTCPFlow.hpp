#pragma once
// PXTCPFlow: one TCP connection followed from its SYN. Each direction's
// segments are put back in order by a stream buffer of their own, and every
// run of bytes that becomes contiguous is announced at once, on the posting
// thread, as a stream-chunk notification with the flow as its sender:
//
//   center.addObserver(this, kPXTCPFlowStreamChunkNotificationName, [](const Notification& n) {
//       const ByteBuffer* chunk = n.userInfo.at("chunk").bytes();
//       const std::string* from = n.userInfo.at("identifier").string();  // the sender's endpoint
//   }, flow.get());
//
// Flows are made and fed by a PXTCPFlowTable, which learns of them from the
// capture. A FIN ends its own direction (after delivering its bytes); bytes
// that can never become contiguous end both. The table asks isAlive() after
// every packet and every five seconds of capture time, and removes the flow
// once it says no; the flow never removes itself.

#include <Wireloom/core/NotificationCenter.hpp>
#include <Wireloom/core/Object.hpp>
#include <Wireloom/flows/PXTCPBuffer.hpp>
#include <Wireloom/flows/detail/FlowEndpoints.hpp>
#include <Wireloom/packets/PXTCPPacket.hpp>

#include <cstdint>
#include <memory>
#include <string>

namespace wireloom {

class PXTCPFlowTable;

// Sender: the flow. "chunk": the bytes (at least one); "identifier": the
// endpoint that sent them.
inline constexpr const char* kPXTCPFlowStreamChunkNotificationName = "kPXTCPFlowStreamChunkNotification";

class PXTCPFlow : public Object, public detail::FlowEndpoints {
public:
    using Ptr = std::shared_ptr<PXTCPFlow>;

    // Endpoint identifiers of endpoint 0 and 1, and the table that owns the
    // flow (whose capture's clock starts both activity times). The address
    // and port properties are the table's to fill in.
    static Ptr initWithEndpoint(std::string endpoint0, std::string endpoint1,
                                const std::shared_ptr<PXTCPFlowTable>& table);
    std::string className() const override { return "PXTCPFlow"; }

    // The stream endpoint 0 sends, and the one it receives; null once that
    // direction has ended.
    PXTCPBuffer* endpoint0Outgoing() const noexcept { return endpoint0Outgoing_.get(); }
    void setEndpoint0Outgoing(std::unique_ptr<PXTCPBuffer> buffer) noexcept { endpoint0Outgoing_ = std::move(buffer); }
    PXTCPBuffer* endpoint0Incoming() const noexcept { return endpoint0Incoming_.get(); }
    void setEndpoint0Incoming(std::unique_ptr<PXTCPBuffer> buffer) noexcept { endpoint0Incoming_ = std::move(buffer); }
    std::shared_ptr<PXTCPFlowTable> table() const noexcept { return table_.lock(); }

    // One packet of this flow. *error (when given) receives "Encountered
    // missing bytes in stream" when the packet's direction can no longer be
    // put together; both directions have then ended.
    void processPacket(const PXTCPPacket& packet, bool sourceIsZero, std::string* error);
    // Whether the direction whose buffer this is stays open after the packet.
    bool handlePacket(const PXTCPPacket& packet, PXTCPBuffer* buffer, std::string* error);
    // At least one direction open and, when the table uses time-outs, neither
    // endpoint silent for longer than its interval.
    bool isAlive() const;
    // Whether the packet's addresses and ports are this flow's, either way.
    bool isPacketMemberOfFlow(const PXPacket& packet) const;

    // Counts for reports: segments each endpoint sent (any TCP packet of
    // the flow), and the stream bytes delivered from each.
    std::uint64_t endpoint0Segments() const noexcept { return segments_[0]; }
    std::uint64_t endpoint1Segments() const noexcept { return segments_[1]; }
    std::uint64_t endpoint0Bytes() const noexcept { return bytes_[0]; }
    std::uint64_t endpoint1Bytes() const noexcept { return bytes_[1]; }

    PXTCPFlow(std::string endpoint0, std::string endpoint1, const std::shared_ptr<PXTCPFlowTable>& table, double now);

private:
    double now() const;

    std::unique_ptr<PXTCPBuffer> endpoint0Outgoing_;
    std::unique_ptr<PXTCPBuffer> endpoint0Incoming_;
    std::weak_ptr<PXTCPFlowTable> table_;
    std::uint64_t segments_[2] = {};
    std::uint64_t bytes_[2] = {};
};

}  // namespace wireloom
