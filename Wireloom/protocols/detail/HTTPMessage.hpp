#pragma once
// What HTTP requests and responses share: the flow they travelled on, which
// endpoint sent them, their protocol and version, header fields, body and
// the delegate's reading of the body.

#include <Wireloom/core/ByteBuffer.hpp>
#include <Wireloom/core/Value.hpp>
#include <Wireloom/flows/PXTCPFlow.hpp>
#include <Wireloom/protocols/PXHTTPParser.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace wireloom::detail {

class HTTPMessage {
public:
    // Empty when nothing went wrong.
    const std::string& errorDescription() const noexcept { return errorDescription_; }
    void setErrorDescription(std::string text) { errorDescription_ = std::move(text); }
    const PXTCPFlow::Ptr& flow() const noexcept { return flow_; }
    void setFlow(PXTCPFlow::Ptr flow) noexcept { flow_ = std::move(flow); }
    // Whether endpoint 0 of the flow sent it.
    bool senderIsZero() const noexcept { return senderIsZero_; }
    void setSenderIsZero(bool zero) noexcept { senderIsZero_ = zero; }
    // "HTTP" and "1.1", or "unknown" for both when the start line's
    // protocol word does not split in two at "/".
    const std::string& protocol() const noexcept { return protocol_; }
    void setProtocol(std::string protocol) { protocol_ = std::move(protocol); }
    const std::string& version() const noexcept { return version_; }
    void setVersion(std::string version) { version_ = std::move(version); }
    const HTTPHeaderFields& header() const noexcept { return header_; }
    void setHeader(HTTPHeaderFields header) { header_ = std::move(header); }
    // Nothing without a "Content-Length" field.
    const std::optional<ByteBuffer>& content() const noexcept { return content_; }
    void setContent(std::optional<ByteBuffer> content) { content_ = std::move(content); }
    // The delegate's object for the body, or null.
    const Value& parsedContent() const noexcept { return parsedContent_; }
    void setParsedContent(Value content) { parsedContent_ = std::move(content); }

    // The sender's and the recipient's address and port, from the flow.
    std::string senderAddress() const;
    std::uint16_t senderPort() const;
    std::string recipientAddress() const;
    std::uint16_t recipientPort() const;

protected:
    HTTPMessage() = default;

private:
    std::string errorDescription_;
    PXTCPFlow::Ptr flow_;
    bool senderIsZero_ = false;
    std::string protocol_;
    std::string version_;
    HTTPHeaderFields header_;
    std::optional<ByteBuffer> content_;
    Value parsedContent_;
};

}  // namespace wireloom::detail
