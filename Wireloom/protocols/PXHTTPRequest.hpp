#pragma once
// PXHTTPRequest: one request cut from a flow's client stream by a
// PXHTTPStreamAnalyzer, with the delegate's reading of its body.

#include <Wireloom/core/Object.hpp>
#include <Wireloom/protocols/detail/HTTPMessage.hpp>

#include <memory>
#include <string>

namespace wireloom {

class PXHTTPRequest : public Object, public detail::HTTPMessage {
public:
    using Ptr = std::shared_ptr<PXHTTPRequest>;
    std::string className() const override { return "PXHTTPRequest"; }

    const std::string& method() const noexcept { return method_; }
    void setMethod(std::string method) { method_ = std::move(method); }
    const std::string& resource() const noexcept { return resource_; }
    void setResource(std::string resource) { resource_ = std::move(resource); }

private:
    std::string method_;
    std::string resource_;
};

}  // namespace wireloom
