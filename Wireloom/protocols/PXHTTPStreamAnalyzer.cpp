#include <Wireloom/protocols/PXHTTPStreamAnalyzer.hpp>

namespace wireloom {

namespace {

constexpr std::size_t kReserveAhead = 16 << 20;

// "HTTP/1.1" as ("HTTP", "1.1"); ("unknown", "unknown") unless the word
// splits into exactly two parts.
std::pair<std::string, std::string> protocolAndVersion(const std::string& word) {
    const std::size_t slash = word.find('/');
    if (slash == std::string::npos || word.find('/', slash + 1) != std::string::npos) return {"unknown", "unknown"};
    return {word.substr(0, slash), word.substr(slash + 1)};
}

// Digits up to the first other character; 0 when there are none.
std::int64_t leadingNumber(const std::string& text) {
    std::size_t i = 0;
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t')) ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    std::int64_t value = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9' && value < (INT64_MAX - 9) / 10; ++i)
        value = value * 10 + (text[i] - '0');
    return negative ? -value : value;
}

template <class Message>
void fillMessage(Message& message, const PXTCPFlow::Ptr& flow, bool fromZero, const std::string& protocolWord,
                 HTTPHeaderFields& header, std::optional<ByteBuffer>& body) {
    message.setFlow(flow);
    message.setSenderIsZero(fromZero);
    auto [protocol, version] = protocolAndVersion(protocolWord);
    message.setProtocol(std::move(protocol));
    message.setVersion(std::move(version));
    message.setHeader(std::move(header));
    message.setContent(std::move(body));
}

}  // namespace

PXHTTPStreamAnalyzer::PXHTTPStreamAnalyzer(PXTCPFlow::Ptr flow, bool clientIsEndpoint0)
    : flow_(std::move(flow)), clientIsEndpoint0_(clientIsEndpoint0) {}

PXHTTPStreamAnalyzer::Ptr PXHTTPStreamAnalyzer::initWithTCPFlow(
    PXTCPFlow::Ptr flow, const std::shared_ptr<PXHTTPStreamAnalyzerDelegate>& delegate, bool clientIsEndpoint0) {
    WL_ASSERT(flow != nullptr, "An HTTP stream analyzer needs a flow");
    auto analyzer = std::make_shared<PXHTTPStreamAnalyzer>(std::move(flow), clientIsEndpoint0);
    analyzer->delegate_ = delegate;
    const std::weak_ptr<PXHTTPStreamAnalyzer> weak = analyzer;
    NotificationCenter::defaultCenter().addObserver(
        analyzer.get(), kPXTCPFlowStreamChunkNotificationName,
        [weak](const Notification& notification) {
            if (auto self = weak.lock()) self->processTCPStreamChunkNotification(notification);
        },
        analyzer->flow_.get());
    return analyzer;
}

PXHTTPStreamAnalyzer::~PXHTTPStreamAnalyzer() { NotificationCenter::defaultCenter().removeObserver(this); }

void PXHTTPStreamAnalyzer::invalidate() {
    delegate_.reset();
    NotificationCenter::defaultCenter().removeObserver(this);
}

void PXHTTPStreamAnalyzer::processTCPStreamChunkNotification(const Notification& notification) {
    const auto chunkValue = notification.userInfo.find("chunk");
    const auto identifierValue = notification.userInfo.find("identifier");
    if (chunkValue == notification.userInfo.end() || identifierValue == notification.userInfo.end()) return;
    const ByteBuffer* chunk = chunkValue->second.bytes();
    const std::string* identifier = identifierValue->second.string();
    if (!chunk || !identifier) return;
    // The flow posts its own text, so the address alone nearly always tells.
    const bool fromZero = identifier == &flow_->endpoint0() || *identifier == flow_->endpoint0();
    MutableByteBuffer& pending = fromZero ? endpoint0Outgoing_ : endpoint1Outgoing_;
    HTTPFrameProgress& progress = fromZero ? endpoint0Progress_ : endpoint1Progress_;
    pending.append(*chunk);
    // A message whose body is still short stays so, header and all, until
    // its last byte is in: parsing its header again for every segment of a
    // large body would cost more than everything else here.
    if (pending.size() < progress.wholeAt) return;
    const bool fromClient = fromZero == clientIsEndpoint0_;
    std::optional<ByteBuffer> body;
    std::vector<std::string> startLine;
    // Every message the chunk completes, pipelined ones included.
    while (std::optional<HTTPHeaderFields> header =
               PXHTTPParser::parseHTTPFrameFrom(pending, &body, &startLine, &progress)) {
        if (fromClient)
            handleRequest(fromZero, startLine, *header, body);
        else
            handleResponse(fromZero, startLine, *header, body);
    }
    // Room for exactly the rest of the body, rather than a buffer doubling
    // as it comes: a large body keeps the buffer it completes (the parser
    // hands it over), so it had better not hold spare room. Not for lengths
    // so large that they are more likely garbage than a body on its way.
    const std::size_t wholeAt = progress.wholeAt;
    if (wholeAt != SIZE_MAX && wholeAt > pending.size() && wholeAt - pending.size() <= kReserveAhead) {
        MutableByteBuffer room(wholeAt);
        room.append(pending.data(), pending.size());
        pending = std::move(room);
    }
}

void PXHTTPStreamAnalyzer::handleRequest(bool fromZero, std::vector<std::string>& startLine, HTTPHeaderFields& header,
                                         std::optional<ByteBuffer>& body) {
    auto request = std::make_shared<PXHTTPRequest>();
    request->setMethod(std::move(startLine[0]));
    request->setResource(std::move(startLine[1]));
    fillMessage(*request, flow_, fromZero, startLine[2], header, body);
    // Without a delegate nothing is parsed and the context is none, as a
    // call to nobody answers nothing.
    const std::shared_ptr<PXHTTPStreamAnalyzerDelegate> delegate = this->delegate();
    if (delegate) {
        std::string error;
        request->setParsedContent(delegate->httpStreamAnalyzer(*this, request->content(),
                                                               request->header().find("Content-Type"), &error,
                                                               std::static_pointer_cast<Object>(request)));
        request->setErrorDescription(std::move(error));
    }
    pendingRequestContext_ = delegate ? delegate->httpStreamAnalyzer(*this, request) : Value();
}

void PXHTTPStreamAnalyzer::handleResponse(bool fromZero, std::vector<std::string>& startLine, HTTPHeaderFields& header,
                                          std::optional<ByteBuffer>& body) {
    auto response = std::make_shared<PXHTTPResponse>();
    response->setStatusCode(leadingNumber(startLine[1]));
    response->setStatus(std::move(startLine[2]));
    fillMessage(*response, flow_, fromZero, startLine[0], header, body);
    const std::shared_ptr<PXHTTPStreamAnalyzerDelegate> delegate = this->delegate();
    if (response->statusCode() != 200 || response->status() != "OK") {
        response->setErrorDescription("Response is not 200 OK");
    } else if (delegate) {
        std::string error;
        response->setParsedContent(delegate->httpStreamAnalyzer(*this, response->content(),
                                                                response->header().find("Content-Type"), &error,
                                                                std::static_pointer_cast<Object>(response)));
        response->setErrorDescription(std::move(error));
    }
    const Value context = std::move(pendingRequestContext_);
    pendingRequestContext_ = Value();
    if (delegate) delegate->httpStreamAnalyzer(*this, response, context);
}

}  // namespace wireloom
