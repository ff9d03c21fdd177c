#pragma once
// How `read --flows` and `capture --flows` show conversations: a flow table
// for TCP and one for UDP on the capture, and a report entry per flow when
// it ends (tree, JSON line or one line), or only the closing summary.

#include "FramePrinter.hpp"
#include "TextBuffer.hpp"

#include <Wireloom/Wireloom.hpp>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <unordered_map>

namespace wireloom::cli {

// What the report shows of one ended flow, kept after the flow is gone.
struct FlowSummary {
    bool tcp = true;
    std::string key;
    std::string endpoint[2];
    // The endpoint that opened the connection (TCP), or -1 when unknown.
    int client = -1;
    double startTime = 0;
    double endTime = 0;
    std::uint64_t bytes[2] = {};     // reassembled stream bytes (TCP), payload bytes (UDP)
    std::uint64_t segments[2] = {};  // segments (TCP), datagrams (UDP)
    std::string reason;
};

// An ended flow as a source of report entries.
class FlowRecord : public Object, public PXReportAnalyzerEntrySource {
public:
    explicit FlowRecord(FlowSummary summary) : summary_(std::move(summary)) {}
    const FlowSummary& summary() const noexcept { return summary_; }

    std::shared_ptr<PXReportAnalyzerEntry> reportAnalyzerEntryUsingCache() override;
    bool hasCachedReportAnalyzerEntry() const override { return entry_ != nullptr; }
    double reportAnalyzerTimestamp() const override { return summary_.startTime; }
    std::string pasteboardString() override;
    bool filterShouldIncludeEntryUsingInclusiveWords(const std::vector<std::string>& inclusiveWords,
                                                     const std::vector<std::string>& exclusiveWords) override;
    std::string representativeFilterText() override;
    bool hasResourcesLoaded() const override { return true; }
    void swapResourcesOut() override { entry_.reset(); }
    void swapResourcesInWhenAvailable() override {}
    void ensureResourcesSwappedIn() override {}

private:
    FlowSummary summary_;
    std::shared_ptr<PXReportAnalyzerEntry> entry_;
};

class SourceFilter;

class FlowPrinter {
public:
    FlowPrinter(std::FILE* out, Format format, bool color);
    ~FlowPrinter();
    FlowPrinter(const FlowPrinter&) = delete;
    FlowPrinter& operator=(const FlowPrinter&) = delete;

    // With a filter, ended flows are offered to it, which prints those it
    // shows; each is found by its entry and the printable text of its
    // stream (each direction's first megabyte).
    void setFilter(SourceFilter* filter);
    // Follows the capture's flows from now on: TCP through the table given,
    // UDP through a table of its own.
    void attach(const PXNetworkCapture::Ptr& capture, const PXTCPFlowTable::Ptr& tcpTable);
    // Ends the flows still open, prints them, and for Format::None the summary.
    void finish();

private:
    void detected(const Notification& notification);
    void ended(const Notification& notification, bool tcp);
    void print(FlowRecord& record);
    void gather(const Object* flow, const ByteBuffer& bytes, bool fromEndpoint0);

    std::FILE* out_;
    Format format_;
    bool color_;
    PXNetworkCapture::Ptr capture_;
    PXTCPFlowTable::Ptr tcpTable_;
    PXUDPFlowTable::Ptr udpTable_;
    // The side that opened each live TCP flow, learnt from the packet that
    // created it.
    std::unordered_map<const Object*, int> clients_;
    SourceFilter* filter_ = nullptr;
    // What each live flow carried, while a filter needs it: the bytes of
    // each direction, up to a limit.
    std::unordered_map<const Object*, std::string> carried_[2];
    std::uint64_t shown_ = 0;
    TextBuffer buffer_;
    std::uint64_t flows_[2] = {};        // TCP, UDP
    std::uint64_t tcpBytes_[2] = {};     // client to server, server to client
    std::uint64_t tcpUnknownBytes_ = 0;  // flows whose opener was not seen
    std::uint64_t udpBytes_ = 0;
};

// The side of a new TCP flow that opened it, from the packet that created
// it: the sender of a SYN without ACK, the receiver of a SYN+ACK; -1 for
// anything else.
int openingSide(const PXTCPFlow& flow, const PXPacket* creator);

}  // namespace wireloom::cli
