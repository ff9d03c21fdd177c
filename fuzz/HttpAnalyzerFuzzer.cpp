// Feeds chunks of both directions of a flow into an HTTP stream analyser,
// as the flow would post them, and checks that what the analyser keeps
// unparsed never exceeds what it was given, that every record it hands
// out is whole, and that it cuts the same messages and keeps the same bytes
// as the parser does when asked afresh for every chunk (the analyser
// resumes where the parser stopped).
//
// Each chunk is a byte whose low bit picks the direction and whose upper
// bits are a length (0 to 127, 0 meaning the rest of the input), then the
// chunk's bytes.
#include "FuzzTarget.hpp"

#include <Wireloom/Wireloom.hpp>
#include <Wireloom/core/detail/ByteReader.hpp>

#include <algorithm>

namespace {

using namespace wireloom;

// A message as both ways of parsing must agree on it.
std::string describe(const HTTPHeaderFields& header, const std::optional<ByteBuffer>& body) {
    std::string text;
    for (const auto& [name, value] : header) text += name + ": " + value + "\n";
    if (body) text.append(reinterpret_cast<const char*>(body->data()), body->size());
    return text;
}

class CheckingDelegate : public PXHTTPStreamAnalyzerDelegate {
public:
    std::vector<std::string> messages[2];
    Value httpStreamAnalyzer(PXHTTPStreamAnalyzer&, const std::optional<ByteBuffer>& data, const std::string*,
                             std::string*, const std::shared_ptr<Object>&) override {
        return data ? Value(*data) : Value();
    }
    Value httpStreamAnalyzer(PXHTTPStreamAnalyzer&, const PXHTTPRequest::Ptr& request) override {
        WL_ASSERT(request->flow() != nullptr, "a request without its flow");
        messages[request->senderIsZero() ? 0 : 1].push_back(describe(request->header(), request->content()));
        return Value(request);
    }
    void httpStreamAnalyzer(PXHTTPStreamAnalyzer&, const PXHTTPResponse::Ptr& response, const Value&) override {
        const std::string* length = response->header().find("Content-Length");
        WL_ASSERT(!length || response->content(), "a body announced but missing");
        messages[response->senderIsZero() ? 0 : 1].push_back(describe(response->header(), response->content()));
    }
};

}  // namespace

WIRELOOM_FUZZ_TARGET(http_analyzer) {
    detail::ByteReader in(data, size);
    const PXTCPFlow::Ptr flow = PXTCPFlow::initWithEndpoint("10.0.0.10:80", "10.0.0.9:5000", nullptr);
    const auto delegate = std::make_shared<CheckingDelegate>();
    const PXHTTPStreamAnalyzer::Ptr analyzer = PXHTTPStreamAnalyzer::initWithTCPFlow(flow, delegate, false);
    std::size_t given[2] = {};
    MutableByteBuffer plain[2];
    std::vector<std::string> plainMessages[2];
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
        plain[side].append(chunk);
        std::optional<ByteBuffer> body;
        while (const auto header = PXHTTPParser::parseHTTPFrameFrom(plain[side], &body, nullptr))
            plainMessages[side].push_back(describe(*header, body));
        const MutableByteBuffer& kept = side == 0 ? analyzer->endpoint0Outgoing() : analyzer->endpoint1Outgoing();
        WL_ASSERT(
            kept.size() == plain[side].size() && std::equal(kept.data(), kept.data() + kept.size(), plain[side].data()),
            "the analyser keeps other bytes than a fresh parse");
        WL_ASSERT(delegate->messages[side] == plainMessages[side],
                  "the analyser cut other messages than a fresh parse");
    }
    analyzer->invalidate();
    return 0;
}
