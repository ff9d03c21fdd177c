#include "ReplayPrinters.hpp"
#include "SourceFilter.hpp"

namespace wireloom::cli {

void ReplayPrinters::setFilter(SourceFilter* filter) {
    frames.setFilter(filter);
    mdns.setFilter(filter);
    flows.setFilter(filter);
    http->setFilter(filter);
}

bool ReplayPrinters::replay(PXCaptureFile& file, bool showFlows, bool showHttp, bool showMdns, std::string* error,
                            const std::function<void(std::uint64_t frames, std::uint64_t bytes)>& progress) {
    const PXNetworkCapture::Ptr capture = PXNetworkCapture::captureWithNullDevice();
    NotificationCenter& center = NotificationCenter::defaultCenter();
    if (showFlows || showHttp) {
        const PXTCPFlowTable::Ptr tcpTable = PXTCPFlowTable::initWithCapture(capture);
        if (showFlows) flows.attach(capture, tcpTable);
        if (showHttp) http->attach(capture, tcpTable);
    } else {
        center.addObserver(
            &frames, kPXNetworkCapturePacketNotificationName,
            [this, showMdns](const Notification& notification) {
                auto packet = notification.userInfo.at("packet").object<PXPacket>();
                if (!packet) return;
                if (showMdns)
                    mdns.print(*packet);
                else
                    frames.print(*packet);
            },
            capture.get());
    }
    const bool complete = capture->replayCaptureFile(file, error, progress);
    center.removeObserver(&frames);
    // Ends the flows still open, which shows (or offers) them too.
    if (showFlows) flows.finish();
    if (showHttp) http->finish();
    return complete;
}

}  // namespace wireloom::cli
