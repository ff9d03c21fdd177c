// What a request header that never ends costs the HTTP stream analyser: one
// "Xn: v" line after another, posted in 1,448-byte chunks as a flow posts
// them, for each size given (kilobytes of header), wall time of the whole
// feed.
//
//   http_endless_header [KILOBYTES...]      default: 64 256 1024 16384
#include <Wireloom/Wireloom.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using namespace wireloom;

class Nobody : public PXHTTPStreamAnalyzerDelegate {
public:
    Value httpStreamAnalyzer(PXHTTPStreamAnalyzer&, const std::optional<ByteBuffer>&, const std::string*, std::string*,
                             const std::shared_ptr<Object>&) override {
        return {};
    }
    Value httpStreamAnalyzer(PXHTTPStreamAnalyzer&, const PXHTTPRequest::Ptr&) override { return {}; }
    void httpStreamAnalyzer(PXHTTPStreamAnalyzer&, const PXHTTPResponse::Ptr&, const Value&) override {}
};

double feed(std::size_t kilobytes) {
    std::string stream = "GET / HTTP/1.1\r\n";
    for (int i = 0; stream.size() < kilobytes << 10; ++i) stream += "X" + std::to_string(i) + ": v\r\n";
    const PXTCPFlow::Ptr flow = PXTCPFlow::initWithEndpoint("10.0.0.10:80", "10.0.0.9:5000", nullptr);
    const auto delegate = std::make_shared<Nobody>();
    const PXHTTPStreamAnalyzer::Ptr analyzer = PXHTTPStreamAnalyzer::initWithTCPFlow(flow, delegate, false);
    const auto start = std::chrono::steady_clock::now();
    for (std::size_t at = 0; at < stream.size(); at += 1448) {
        const std::size_t length = std::min<std::size_t>(1448, stream.size() - at);
        NotificationCenter::defaultCenter().postNotification(
            kPXTCPFlowStreamChunkNotificationName, flow,
            {{"chunk", ByteBuffer::copy(stream.data() + at, length)}, {"identifier", flow->endpoint1()}});
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    analyzer->invalidate();
    return seconds;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::size_t> sizes;
    for (int i = 1; i < argc; ++i) sizes.push_back(std::strtoul(argv[i], nullptr, 10));
    if (sizes.empty()) sizes = {64, 256, 1024, 16384};
    for (const std::size_t kilobytes : sizes)
        std::printf("%6zu KB of header lines: %8.3f s\n", kilobytes, feed(kilobytes));
    return 0;
}
