// Feeds chunks of both directions of a flow into an HTTP stream analyser,
// as the flow would post them, and checks that what the analyser keeps
// unparsed never exceeds what it was given, and that every record it hands
// out is whole.
//
// Each chunk is a byte whose low bit picks the direction and whose upper
// bits are a length (0 to 127, 0 meaning the rest of the input), then the
// chunk's bytes.
#include "FuzzTarget.hpp"

#include <Wireloom/Wireloom.hpp>
#include <Wireloom/core/detail/ByteReader.hpp>

namespace {

using namespace wireloom;

class CheckingDelegate : public PXHTTPStreamAnalyzerDelegate {
public:
    Value httpStreamAnalyzer(PXHTTPStreamAnalyzer&, const std::optional<ByteBuffer>& data, const std::string*,
                             std::string*, const std::shared_ptr<Object>&) override {
        return data ? Value(*data) : Value();
    }
    Value httpStreamAnalyzer(PXHTTPStreamAnalyzer&, const PXHTTPRequest::Ptr& request) override {
        WL_ASSERT(request->flow() != nullptr, "a request without its flow");
        return Value(request);
    }
    void httpStreamAnalyzer(PXHTTPStreamAnalyzer&, const PXHTTPResponse::Ptr& response, const Value&) override {
        const std::string* length = response->header().find("Content-Length");
        WL_ASSERT(!length || response->content(), "a body announced but missing");
    }
};

}  // namespace

WIRELOOM_FUZZ_TARGET(http_analyzer) {
    detail::ByteReader in(data, size);
    const PXTCPFlow::Ptr flow = PXTCPFlow::initWithEndpoint("10.0.0.10:80", "10.0.0.9:5000", nullptr);
    const auto delegate = std::make_shared<CheckingDelegate>();
    const PXHTTPStreamAnalyzer::Ptr analyzer = PXHTTPStreamAnalyzer::initWithTCPFlow(flow, delegate, false);
    std::size_t given[2] = {};
    while (in.remaining() > 0) {
        const std::uint8_t control = in.readByte();
        const int side = control & 1;
        std::size_t length = control >> 1;
        if (length == 0 || length > in.remaining()) length = in.remaining();
        if (length == 0) break;
        const ByteBuffer chunk = ByteBuffer::copy(in.readBytes(length), length);
        given[side] += length;
        NotificationCenter::defaultCenter().postNotification(
            kPXTCPFlowStreamChunkNotificationName, flow,
            {{"chunk", chunk}, {"identifier", side == 0 ? flow->endpoint0() : flow->endpoint1()}});
        WL_ASSERT(analyzer->endpoint0Outgoing().size() <= given[0] && analyzer->endpoint1Outgoing().size() <= given[1],
                  "the analyser keeps more than the stream gave it");
    }
    analyzer->invalidate();
    return 0;
}
