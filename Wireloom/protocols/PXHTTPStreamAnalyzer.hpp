#pragma once
// PXHTTPStreamAnalyzer: watches one TCP flow and turns its two streams into
// HTTP requests and responses, which it hands to its delegate as each one
// completes (body included). The owner makes one per flow it cares about,
// typically on the flow table's detected notification, says which endpoint
// is the client, and invalidates it when the flow ends:
//
//   auto analyzer = PXHTTPStreamAnalyzer::initWithTCPFlow(flow, delegate, clientIsEndpoint0);
//   ...
//   analyzer->invalidate();
//
// Responses are paired with requests by order through a single slot: each
// response gets the context the delegate returned for the latest request,
// which it then clears. A client that pipelines requests therefore loses
// the earlier contexts; the responses after the first get none.

#include <Wireloom/core/ByteBuffer.hpp>
#include <Wireloom/core/NotificationCenter.hpp>
#include <Wireloom/core/Object.hpp>
#include <Wireloom/core/Value.hpp>
#include <Wireloom/flows/PXTCPFlow.hpp>
#include <Wireloom/protocols/PXHTTPRequest.hpp>
#include <Wireloom/protocols/PXHTTPResponse.hpp>

#include <memory>
#include <optional>
#include <string>

namespace wireloom {

class PXHTTPStreamAnalyzer;

class PXHTTPStreamAnalyzerDelegate {
public:
    virtual ~PXHTTPStreamAnalyzerDelegate() = default;
    // parsedContentForData: the object the body stands for, or null; an
    // error text in *errorDescription when it could not be read. `data` is
    // nothing for a message without a body, `type` nothing without a
    // "Content-Type" field; `httpObject` is the request or response.
    virtual Value httpStreamAnalyzer(PXHTTPStreamAnalyzer& analyzer, const std::optional<ByteBuffer>& data,
                                     const std::string* type, std::string* errorDescription,
                                     const std::shared_ptr<Object>& httpObject) = 0;
    // processHTTPRequestReturningContext: the context the response to it
    // will be handed.
    virtual Value httpStreamAnalyzer(PXHTTPStreamAnalyzer& analyzer, const PXHTTPRequest::Ptr& request) = 0;
    // processHTTPResponse:context:
    virtual void httpStreamAnalyzer(PXHTTPStreamAnalyzer& analyzer, const PXHTTPResponse::Ptr& response,
                                    const Value& context) = 0;
};

class PXHTTPStreamAnalyzer : public Object {
public:
    using Ptr = std::shared_ptr<PXHTTPStreamAnalyzer>;

    static Ptr initWithTCPFlow(PXTCPFlow::Ptr flow, const std::shared_ptr<PXHTTPStreamAnalyzerDelegate>& delegate,
                               bool clientIsEndpoint0);
    ~PXHTTPStreamAnalyzer() override;
    std::string className() const override { return "PXHTTPStreamAnalyzer"; }

    std::shared_ptr<PXHTTPStreamAnalyzerDelegate> delegate() const { return delegate_.lock(); }
    void setDelegate(const std::shared_ptr<PXHTTPStreamAnalyzerDelegate>& delegate) { delegate_ = delegate; }
    const PXTCPFlow::Ptr& flow() const noexcept { return flow_; }
    bool clientIsEndpoint0() const noexcept { return clientIsEndpoint0_; }
    void setClientIsEndpoint0(bool zero) noexcept { clientIsEndpoint0_ = zero; }
    // The bytes each endpoint sent that are not yet a whole message.
    const MutableByteBuffer& endpoint0Outgoing() const noexcept { return endpoint0Outgoing_; }
    const MutableByteBuffer& endpoint1Outgoing() const noexcept { return endpoint1Outgoing_; }
    const Value& pendingRequestContext() const noexcept { return pendingRequestContext_; }
    void setPendingRequestContext(Value context) { pendingRequestContext_ = std::move(context); }

    // Drops the delegate and stops listening to the flow.
    void invalidate();
    void processTCPStreamChunkNotification(const Notification& notification);

    PXHTTPStreamAnalyzer(PXTCPFlow::Ptr flow, bool clientIsEndpoint0);

private:
    void handleRequest(bool fromZero, std::vector<std::string>& startLine, HTTPHeaderFields& header,
                       std::optional<ByteBuffer>& body);
    void handleResponse(bool fromZero, std::vector<std::string>& startLine, HTTPHeaderFields& header,
                        std::optional<ByteBuffer>& body);

    std::weak_ptr<PXHTTPStreamAnalyzerDelegate> delegate_;
    PXTCPFlow::Ptr flow_;
    bool clientIsEndpoint0_;
    MutableByteBuffer endpoint0Outgoing_;
    MutableByteBuffer endpoint1Outgoing_;
    // How far the parser got in each buffer.
    HTTPFrameProgress endpoint0Progress_;
    HTTPFrameProgress endpoint1Progress_;
    Value pendingRequestContext_;
};

}  // namespace wireloom
