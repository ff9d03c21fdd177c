#include <Wireloom/flows/PXTCPFlow.hpp>
#include <Wireloom/flows/PXTCPFlowTable.hpp>

namespace wireloom {

namespace {
constexpr const char* kMissingBytes = "Encountered missing bytes in stream";

double clockOf(const std::shared_ptr<PXTCPFlowTable>& table) {
    if (!table || !table->networkCapture()) return 0;
    return table->networkCapture()->timeManager()->currentTime();
}
}  // namespace

PXTCPFlow::PXTCPFlow(std::string endpoint0, std::string endpoint1, const std::shared_ptr<PXTCPFlowTable>& table,
                     double now)
    : FlowEndpoints(std::move(endpoint0), std::move(endpoint1), now),
      endpoint0Outgoing_(std::make_unique<PXTCPBuffer>()),
      endpoint0Incoming_(std::make_unique<PXTCPBuffer>()),
      table_(table) {}

PXTCPFlow::Ptr PXTCPFlow::initWithEndpoint(std::string endpoint0, std::string endpoint1,
                                           const std::shared_ptr<PXTCPFlowTable>& table) {
    return std::make_shared<PXTCPFlow>(std::move(endpoint0), std::move(endpoint1), table, clockOf(table));
}

double PXTCPFlow::now() const { return clockOf(table_.lock()); }

void PXTCPFlow::processPacket(const PXTCPPacket& packet, bool sourceIsZero, std::string* error) {
    ++segments_[sourceIsZero ? 0 : 1];
    // A FIN closes only its own direction; missing bytes close both.
    std::unique_ptr<PXTCPBuffer>& own = sourceIsZero ? endpoint0Outgoing_ : endpoint0Incoming_;
    std::unique_ptr<PXTCPBuffer>& other = sourceIsZero ? endpoint0Incoming_ : endpoint0Outgoing_;
    if (sourceIsZero)
        setEndpoint0ActivityTime(now());
    else
        setEndpoint1ActivityTime(now());
    // Asked for whether or not the caller wants the text: it is what says
    // the other direction ends too.
    std::string stored;
    if (handlePacket(packet, own.get(), &stored)) return;
    own.reset();
    if (!stored.empty()) {
        other.reset();
        if (error) *error = std::move(stored);
    }
}

bool PXTCPFlow::handlePacket(const PXTCPPacket& packet, PXTCPBuffer* buffer, std::string* error) {
    const ByteBuffer& payload = packet.payload();
    if (!payload.empty()) {
        if (!buffer) return false;  // data after this direction ended
        bool missing = false;
        std::optional<ByteBuffer> chunk = buffer->pushData(payload.span(), packet.seqNumber(), &missing);
        if (chunk) {
            const bool fromZero = buffer == endpoint0Outgoing_.get();
            bytes_[fromZero ? 0 : 1] += chunk->size();
            // One answer per thread serves every flow: a probe of its own
            // would add its size to each of a table's idle flows.
            static thread_local ObserverProbe chunkProbe(kPXTCPFlowStreamChunkNotificationName);
            if (chunkProbe.isObserved()) {
                // Emplaced: a braced list would be copied into the user
                // info, the chunk's reference with it. The identifier is the
                // flow's own text, shared.
                Notification notification{chunkProbe.name(), shared_from_this(), {}};
                notification.userInfo.emplace("chunk", std::move(*chunk));
                notification.userInfo.emplace("identifier", fromZero ? sharedEndpoint0() : sharedEndpoint1());
                chunkProbe.post(notification);
            }
        } else if (missing) {
            if (error) *error = kMissingBytes;
            return false;
        }
    }
    return !packet.finFlag();
}

bool PXTCPFlow::isAlive() const {
    if (!endpoint0Incoming_ && !endpoint0Outgoing_) return false;
    const std::shared_ptr<PXTCPFlowTable> table = table_.lock();
    if (!table || !table->tcpFlowsUseTimeouts()) return true;
    const double now = clockOf(table);
    const double interval = table->idleFlowTimeoutInterval();
    return !(now - endpoint0ActivityTime() > interval) && !(now - endpoint1ActivityTime() > interval);
}

bool PXTCPFlow::isPacketMemberOfFlow(const PXPacket& packet) const {
    auto tcp = packet.packetWithProtocol<PXTCPPacket>();
    return tcp && carriesEndpoints(packet, tcp->sourcePort(), tcp->destPort());
}

}  // namespace wireloom
