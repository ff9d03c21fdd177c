#include <Wireloom/flows/PXTCPFlowTable.hpp>

namespace wireloom {

PXTCPFlowTable::PXTCPFlowTable(PXNetworkCapture::Ptr capture)
    : networkCapture_(std::move(capture)),
      directory_(kPXTCPFlowDetectedNotificationName, kPXTCPFlowEndedNotificationName) {}

PXTCPFlowTable::Ptr PXTCPFlowTable::self() { return std::static_pointer_cast<PXTCPFlowTable>(shared_from_this()); }

PXTCPFlowTable::Ptr PXTCPFlowTable::initWithCapture(PXNetworkCapture::Ptr capture) {
    WL_ASSERT(capture != nullptr, "A flow table needs a capture");
    auto table = std::make_shared<PXTCPFlowTable>(std::move(capture));
    table->timer_ = detail::attachToCapture(table, *table->networkCapture_, kPXNetworkCapturePacketNotificationName);
    return table;
}

PXTCPFlowTable::~PXTCPFlowTable() {
    NotificationCenter::defaultCenter().removeObserver(this);
    if (timer_) timer_->invalidate();
}

void PXTCPFlowTable::invalidate() {
    NotificationCenter::defaultCenter().removeObserver(this);
    if (timer_) timer_->invalidate();
    timer_.reset();
    directory_.removeAll(shared_from_this());
}

void PXTCPFlowTable::observePacketNotification(const Notification& notification) {
    auto found = notification.userInfo.find("packet");
    if (found == notification.userInfo.end()) return;
    // The notification holds the packet while it is observed.
    if (const auto* tcp = found->second.borrowedObject<PXTCPPacket>()) observeTCPPacket(*tcp);
}

void PXTCPFlowTable::observeTCPPacket(const PXTCPPacket& packet) {
    detail::PacketPath path;
    if (!detail::packetPathOf(packet, packet.sourcePort(), packet.destPort(), &path)) return;
    bool sourceIsZero = true;
    std::optional<detail::FlowSides> sides;
    PXTCPFlow::Ptr flow = directory_.route(packet, path, packet.sourcePort(), packet.destPort(), &sourceIsZero, &sides);
    if (!flow) {
        // Only an opening connection starts a flow; a SYN+ACK alone will do.
        if (!packet.synFlag() || packet.finFlag()) return;
        if (!sides) sides = detail::flowSidesOf(packet, packet.sourcePort(), packet.destPort());
        if (!sides) return;
        flow = PXTCPFlow::initWithEndpoint(sides->endpoint[0], sides->endpoint[1], self());
        flow->setEndpoint0Address(std::move(sides->address[0]));
        flow->setEndpoint0Port(sides->port[0]);
        flow->setEndpoint1Address(std::move(sides->address[1]));
        flow->setEndpoint1Port(sides->port[1]);
        addFlow(flow, sides->key);
    }
    std::string error;
    flow->processPacket(packet, sourceIsZero, &error);
    if (!flow->isAlive()) removeFlowWithKey(flow->key(), error.empty() ? nullptr : &error);
}

void PXTCPFlowTable::addFlow(const PXTCPFlow::Ptr& flow, const std::string& key) {
    directory_.addFlow(shared_from_this(), flow, key);
}

void PXTCPFlowTable::removeFlowWithKey(std::string_view key, const std::string* error) {
    directory_.removeFlowWithKey(shared_from_this(), key, error);
}

void PXTCPFlowTable::pollFlows() { directory_.pollFlows(shared_from_this()); }

}  // namespace wireloom
