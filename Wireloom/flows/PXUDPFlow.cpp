#include <Wireloom/flows/PXUDPFlow.hpp>
#include <Wireloom/flows/PXUDPFlowTable.hpp>
#include <Wireloom/packets/PXUDPPacket.hpp>

namespace wireloom {

namespace {
double clockOf(const std::shared_ptr<PXUDPFlowTable>& table) {
    if (!table || !table->capture()) return 0;
    return table->capture()->timeManager()->currentTime();
}
}  // namespace

PXUDPFlow::PXUDPFlow(std::string endpoint0, std::string endpoint1, const std::shared_ptr<PXUDPFlowTable>& table,
                     double now)
    : FlowEndpoints(std::move(endpoint0), std::move(endpoint1), now), table_(table) {}

PXUDPFlow::Ptr PXUDPFlow::initWithEndpoint(std::string endpoint0, std::string endpoint1,
                                           const std::shared_ptr<PXUDPFlowTable>& table) {
    return std::make_shared<PXUDPFlow>(std::move(endpoint0), std::move(endpoint1), table, clockOf(table));
}

void PXUDPFlow::processPacket(const PXPacketPtr& packet, bool sourceIsZero, std::string*) {
    if (packetClass_ && !packet->isKindOf(*packetClass_)) return;
    const int from = sourceIsZero ? 0 : 1;
    if (sourceIsZero)
        setEndpoint0ActivityTime(clockOf(table_.lock()));
    else
        setEndpoint1ActivityTime(clockOf(table_.lock()));
    ++datagrams_[from];
    if (auto udp = packet->packetWithProtocol<PXUDPPacket>()) bytes_[from] += udp->payload().size();
    // One answer per thread serves every flow, as for TCP flows' chunks.
    static thread_local ObserverProbe packetProbe(kPXUDPFlowPacketNotificationName);
    if (packetProbe.isObserved()) {
        Notification notification{packetProbe.name(), shared_from_this(), {}};
        notification.userInfo.emplace("packet", packet);
        notification.userInfo.emplace("identifier", sourceIsZero ? sharedEndpoint0() : sharedEndpoint1());
        packetProbe.post(notification);
    }
}

bool PXUDPFlow::isAlive() const {
    const std::shared_ptr<PXUDPFlowTable> table = table_.lock();
    if (!table || !table->udpFlowsUseTimeouts()) return true;
    const double now = clockOf(table);
    const double interval = table->idleFlowTimeoutInterval();
    return !(now - endpoint0ActivityTime() > interval) && !(now - endpoint1ActivityTime() > interval);
}

void PXUDPFlow::removeFlowWithReason(const std::string& reason) {
    if (auto table = table_.lock()) table->removeFlow(std::static_pointer_cast<PXUDPFlow>(shared_from_this()), reason);
}

bool PXUDPFlow::isPacketMemberOfFlow(const PXPacket& packet) const {
    auto udp = packet.packetWithProtocol<PXUDPPacket>();
    return udp && carriesEndpoints(packet, udp->sourcePort(), udp->destPort());
}

}  // namespace wireloom
