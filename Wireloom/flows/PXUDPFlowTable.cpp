#include <Wireloom/flows/PXUDPFlowTable.hpp>

namespace wireloom {

PXUDPFlowTable::PXUDPFlowTable(PXNetworkCapture::Ptr capture)
    : capture_(std::move(capture)), directory_(kPXUDPFlowDetectedNotificationName, kPXUDPFlowEndedNotificationName) {}

PXUDPFlowTable::Ptr PXUDPFlowTable::self() { return std::static_pointer_cast<PXUDPFlowTable>(shared_from_this()); }

PXUDPFlowTable::Ptr PXUDPFlowTable::initWithCapture(PXNetworkCapture::Ptr capture) {
    WL_ASSERT(capture != nullptr, "A flow table needs a capture");
    auto table = std::make_shared<PXUDPFlowTable>(std::move(capture));
    // Not the packet notification: datagrams are taken where the capture
    // invites deeper decoding, so a flow sees them as decoded then.
    table->timer_ =
        detail::attachToCapture(table, *table->capture_, kPXNetworkCapturePacketDecodeOpportunityNotificationName);
    return table;
}

PXUDPFlowTable::~PXUDPFlowTable() {
    NotificationCenter::defaultCenter().removeObserver(this);
    if (timer_) timer_->invalidate();
}

void PXUDPFlowTable::invalidate() {
    NotificationCenter::defaultCenter().removeObserver(this);
    if (timer_) timer_->invalidate();
    timer_.reset();
    directory_.removeAll(shared_from_this());
}

void PXUDPFlowTable::observePacketNotification(const Notification& notification) {
    auto found = notification.userInfo.find("packet");
    if (found == notification.userInfo.end()) return;
    PXPacketPtr packet = found->second.object<PXPacket>();
    if (packet && packet->packetWithProtocol<PXUDPPacket>()) observeUDPPacket(packet);
}

void PXUDPFlowTable::observeUDPPacket(const PXPacketPtr& packet) {
    auto udp = packet->packetWithProtocol<PXUDPPacket>();
    if (!udp) return;
    detail::PacketPath path;
    if (!detail::packetPathOf(*packet, udp->sourcePort(), udp->destPort(), &path)) return;
    bool sourceIsZero = true;
    std::optional<detail::FlowSides> sides;
    PXUDPFlow::Ptr flow = directory_.route(*packet, path, udp->sourcePort(), udp->destPort(), &sourceIsZero, &sides);
    if (!flow) {
        if (!sides) sides = detail::flowSidesOf(*packet, udp->sourcePort(), udp->destPort());
        if (!sides) return;
        flow = PXUDPFlow::initWithEndpoint(sides->endpoint[0], sides->endpoint[1], self());
        // The kind of its first datagram, as decoded at this moment.
        flow->setPacketClass(&packet->packetClass());
        flow->setEndpoint0Address(std::move(sides->address[0]));
        flow->setEndpoint0Port(sides->port[0]);
        flow->setEndpoint1Address(std::move(sides->address[1]));
        flow->setEndpoint1Port(sides->port[1]);
        addFlow(flow, sides->key);
    }
    flow->processPacket(packet, sourceIsZero, nullptr);
    if (!flow->isAlive()) removeFlowWithKey(flow->key(), nullptr);
}

void PXUDPFlowTable::addFlow(const PXUDPFlow::Ptr& flow, const std::string& key) {
    directory_.addFlow(shared_from_this(), flow, key);
}

void PXUDPFlowTable::removeFlowWithKey(std::string_view key, const std::string* error) {
    directory_.removeFlowWithKey(shared_from_this(), key, error);
}

void PXUDPFlowTable::pollFlows() { directory_.pollFlows(shared_from_this()); }

void PXUDPFlowTable::removeFlow(const PXUDPFlow::Ptr& flow, const std::string& reason) {
    // The flow itself, not merely one filed under its key.
    if (flow && directory_.flowForKey(flow->key()) == flow) removeFlowWithKey(flow->key(), &reason);
}

}  // namespace wireloom
