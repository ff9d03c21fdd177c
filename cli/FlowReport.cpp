#include "FlowReport.hpp"

#include "EntryOutput.hpp"
#include "SourceFilter.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cinttypes>

namespace wireloom::cli {

namespace {

constexpr const char* kProtocolWord[] = {"TCP", "UDP"};
// Of each direction of a flow, the bytes a filter searches.
constexpr std::size_t kCarriedBytesSearched = 1 << 20;

std::string sentText(const FlowSummary& flow, int side) {
    const char* unit = flow.tcp ? " segment" : " datagram";
    std::string text = std::to_string(flow.bytes[side]) + (flow.bytes[side] == 1 ? " byte in " : " bytes in ");
    text += std::to_string(flow.segments[side]) + unit + (flow.segments[side] == 1 ? "" : "s");
    return text;
}

std::string endpointText(const FlowSummary& flow, int side) {
    return flow.endpoint[side] + (flow.client == side ? " (client)" : flow.client == 1 - side ? " (server)" : "");
}

}  // namespace

std::shared_ptr<PXReportAnalyzerEntry> FlowRecord::reportAnalyzerEntryUsingCache() {
    if (entry_) return entry_;
    const FlowSummary& flow = summary_;
    auto entry = PXReportAnalyzerEntry::entry();
    const std::uint64_t total = flow.bytes[0] + flow.bytes[1];
    const std::string count = std::to_string(total);
    entry->setProtocolLayerAttributedName(WLAttributedString::stringWithFormat(
        WLTokenText, kProtocolWord[flow.tcp ? 0 : 1], WLTokenText, " Flow ", WLTokenColorPointer,
        WLColors::sourceAddressColorPointer(), WLTokenText, flow.endpoint[0], WLTokenPop, WLTokenText, " <=> ",
        WLTokenColorPointer, WLColors::destAddressColorPointer(), WLTokenText, flow.endpoint[1], WLTokenPop,
        WLTokenText, " (", WLTokenColorPointer, WLColors::valueColorPointer(), WLTokenText, count, WLTokenPop,
        WLTokenText, total == 1 ? " byte)" : " bytes)", WLTokenEnd));
    entry->addLineWithKey("Key", flow.key);
    entry->addLineWithKey("Endpoint 0", endpointText(flow, 0));
    entry->addLineWithKey("Endpoint 1", endpointText(flow, 1));
    entry->setValue(flow.startTime, "Start Time", 6);
    entry->setValue(flow.endTime, "End Time", 6);
    entry->setValue(flow.endTime - flow.startTime, "Duration", 6);
    entry->addLineWithKey("Endpoint 0 Sent", sentText(flow, 0));
    entry->addLineWithKey("Endpoint 1 Sent", sentText(flow, 1));
    if (flow.reason == "Flow is no longer active")
        entry->addLineWithKey("Reason", flow.reason);
    else
        entry->addLineWithErrorLabel("Reason", flow.reason);
    entry->setSource(std::dynamic_pointer_cast<PXReportAnalyzerEntrySource>(shared_from_this()));
    entry_ = entry;
    return entry_;
}

std::string FlowRecord::pasteboardString() {
    return reportAnalyzerEntryUsingCache()->pasteboardStringWithIdentation("");
}

std::string FlowRecord::representativeFilterText() {
    const FlowSummary& flow = summary_;
    return std::string(kProtocolWord[flow.tcp ? 0 : 1]) + " " + flow.key + " " + flow.reason;
}

bool FlowRecord::filterShouldIncludeEntryUsingInclusiveWords(const std::vector<std::string>& inclusiveWords,
                                                             const std::vector<std::string>& exclusiveWords) {
    const std::string text = representativeFilterText();
    const auto has = [&](const std::string& word) { return text.find(word) != std::string::npos; };
    return std::all_of(inclusiveWords.begin(), inclusiveWords.end(), has) &&
           std::none_of(exclusiveWords.begin(), exclusiveWords.end(), has);
}

int openingSide(const PXTCPFlow& flow, const PXPacket* creator) {
    auto tcp = creator ? creator->packetWithProtocol<PXTCPPacket>() : nullptr;
    if (!tcp || !tcp->synFlag()) return -1;
    const std::optional<std::string> source = PXCaptureUtilities::sourceAddressFromPacket(*tcp);
    if (!source) return -1;
    const int sender = PXTCPFlow::endpointWithAddress(*source, tcp->sourcePort()) == flow.endpoint0() ? 0 : 1;
    return tcp->ackFlag() ? 1 - sender : sender;
}

FlowPrinter::FlowPrinter(std::FILE* out, Format format, bool color) : out_(out), format_(format), color_(color) {}

FlowPrinter::~FlowPrinter() { NotificationCenter::defaultCenter().removeObserver(this); }

void FlowPrinter::setFilter(SourceFilter* filter) {
    filter_ = filter;
    if (filter) filter->addFlush([this] { buffer_.flush(out_), std::fflush(out_); });
}

void FlowPrinter::gather(const Object* flow, const ByteBuffer& bytes, bool fromEndpoint0) {
    std::string& carried = carried_[fromEndpoint0 ? 0 : 1][flow];
    carried.append(
        bytes.stringView().substr(0, kCarriedBytesSearched - std::min(kCarriedBytesSearched, carried.size())));
}

void FlowPrinter::attach(const PXNetworkCapture::Ptr& capture, const PXTCPFlowTable::Ptr& tcpTable) {
    capture_ = capture;
    tcpTable_ = tcpTable;
    udpTable_ = PXUDPFlowTable::initWithCapture(capture);
    NotificationCenter& center = NotificationCenter::defaultCenter();
    center.addObserver(
        this, kPXTCPFlowDetectedNotificationName, [this](const Notification& n) { detected(n); }, tcpTable_.get());
    center.addObserver(
        this, kPXTCPFlowEndedNotificationName, [this](const Notification& n) { ended(n, true); }, tcpTable_.get());
    center.addObserver(
        this, kPXUDPFlowEndedNotificationName, [this](const Notification& n) { ended(n, false); }, udpTable_.get());
    if (!filter_) return;
    center.addObserver(this, kPXTCPFlowStreamChunkNotificationName, [this](const Notification& n) {
        const auto* flow = dynamic_cast<const PXTCPFlow*>(n.sender.get());
        const ByteBuffer* chunk = n.userInfo.at("chunk").bytes();
        const std::string* from = n.userInfo.at("identifier").string();
        if (flow && chunk && from) gather(flow, *chunk, *from == flow->endpoint0());
    });
    center.addObserver(this, kPXUDPFlowPacketNotificationName, [this](const Notification& n) {
        const auto* flow = dynamic_cast<const PXUDPFlow*>(n.sender.get());
        const PXPacketPtr packet = n.userInfo.at("packet").object<PXPacket>();
        const std::string* from = n.userInfo.at("identifier").string();
        const ByteBuffer* payload = packet ? packet->layerPayload() : nullptr;
        if (flow && payload && from) gather(flow, *payload, *from == flow->endpoint0());
    });
}

void FlowPrinter::detected(const Notification& notification) {
    // The table announces a flow while the capture announces the packet
    // that made it.
    auto flow = notification.userInfo.at("flow").object<PXTCPFlow>();
    const PXPacketPtr creator = capture_->currentPacket();
    if (flow) clients_[flow.get()] = openingSide(*flow, creator.get());
}

void FlowPrinter::ended(const Notification& notification, bool tcp) {
    const ObjectPtr object = notification.userInfo.at("flow").object();
    const std::string* reason = notification.userInfo.at("reason").string();
    if (!object) return;
    FlowSummary summary;
    summary.tcp = tcp;
    summary.reason = reason ? *reason : std::string();
    summary.endTime = capture_->timeManager()->currentTime();
    const auto fill = [&](const auto& flow) {
        summary.key = flow.key();
        summary.endpoint[0] = flow.endpoint0();
        summary.endpoint[1] = flow.endpoint1();
        summary.startTime = flow.startTime();
        summary.bytes[0] = flow.endpoint0Bytes();
        summary.bytes[1] = flow.endpoint1Bytes();
    };
    if (auto flow = std::dynamic_pointer_cast<PXTCPFlow>(object)) {
        fill(*flow);
        summary.segments[0] = flow->endpoint0Segments();
        summary.segments[1] = flow->endpoint1Segments();
        if (auto found = clients_.find(flow.get()); found != clients_.end()) {
            summary.client = found->second;
            clients_.erase(found);
        }
    } else if (auto udp = std::dynamic_pointer_cast<PXUDPFlow>(object)) {
        fill(*udp);
        summary.segments[0] = udp->endpoint0Datagrams();
        summary.segments[1] = udp->endpoint1Datagrams();
    } else {
        return;
    }
    ++flows_[tcp ? 0 : 1];
    if (!tcp) {
        udpBytes_ += summary.bytes[0] + summary.bytes[1];
    } else if (summary.client < 0) {
        tcpUnknownBytes_ += summary.bytes[0] + summary.bytes[1];
    } else {
        tcpBytes_[0] += summary.bytes[summary.client];
        tcpBytes_[1] += summary.bytes[1 - summary.client];
    }
    if (filter_) {
        ByteBuffer carried;
        if (auto found = carried_[0].find(object.get()); found != carried_[0].end()) {
            found->second += carried_[1][object.get()];
            carried = ByteBuffer::fromString(found->second);
            carried_[0].erase(found);
        }
        carried_[1].erase(object.get());
        auto record = std::make_shared<FlowRecord>(std::move(summary));
        filter_->offer(std::make_shared<ShownSource>(ShownSource::Parts{
            [record] { return record->reportAnalyzerEntryUsingCache(); }, [carried] { return carried; },
            [this, record] { print(*record); }, record->summary().startTime}));
        return;
    }
    if (format_ == Format::None) return;
    auto record = std::make_shared<FlowRecord>(std::move(summary));
    print(*record);
}

void FlowPrinter::print(FlowRecord& record) {
    const FlowSummary& flow = record.summary();
    ++shown_;
    switch (format_) {
    case Format::Tree:
        if (shown_ > 1) buffer_.append('\n');
        appendEntryText(buffer_, *record.reportAnalyzerEntryUsingCache(), color_);
        break;
    case Format::Json: {
        nlohmann::ordered_json line = {{"protocol", flow.tcp ? "tcp" : "udp"},
                                       {"key", flow.key},
                                       {"endpoint0", flow.endpoint[0]},
                                       {"endpoint1", flow.endpoint[1]},
                                       {"start", flow.startTime},
                                       {"end", flow.endTime},
                                       {"bytes", {flow.bytes[0], flow.bytes[1]}},
                                       {flow.tcp ? "segments" : "datagrams", {flow.segments[0], flow.segments[1]}},
                                       {"reason", flow.reason}};
        if (flow.client >= 0) line["client"] = flow.client;
        buffer_.append(line.dump());
        buffer_.append('\n');
        break;
    }
    case Format::OneLine: {
        char times[96];
        std::snprintf(times, sizeof times, " %.6f-%.6f ", flow.startTime, flow.endTime);
        buffer_.append(kProtocolWord[flow.tcp ? 0 : 1]);
        buffer_.append(' ');
        buffer_.append(flow.key);
        buffer_.append(times);
        buffer_.append(std::to_string(flow.bytes[0]) + "/" + std::to_string(flow.bytes[1]) + " bytes, " + flow.reason +
                       "\n");
        break;
    }
    case Format::None: break;
    }
    // A live capture shows each flow as it ends.
    if (buffer_.size() >= (1u << 20) || capture_->isRunning()) buffer_.flush(out_);
}

void FlowPrinter::finish() {
    if (tcpTable_) tcpTable_->invalidate();
    if (udpTable_) udpTable_->invalidate();
    NotificationCenter::defaultCenter().removeObserver(this);
    buffer_.flush(out_);
    if (format_ == Format::None) {
        std::fprintf(out_, "TCP flows: %" PRIu64 "\nUDP flows: %" PRIu64 "\n", flows_[0], flows_[1]);
        std::fprintf(out_, "TCP bytes reassembled, client to server: %" PRIu64 "\n", tcpBytes_[0]);
        std::fprintf(out_, "TCP bytes reassembled, server to client: %" PRIu64 "\n", tcpBytes_[1]);
        if (tcpUnknownBytes_)
            std::fprintf(out_, "TCP bytes reassembled, opener not seen: %" PRIu64 "\n", tcpUnknownBytes_);
        std::fprintf(out_, "UDP payload bytes: %" PRIu64 "\n", udpBytes_);
    }
    std::fflush(out_);
}

}  // namespace wireloom::cli
