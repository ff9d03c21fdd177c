#pragma once
// PXHTTPResponse: one response cut from a flow's server stream by a
// PXHTTPStreamAnalyzer. Anything but exactly "200" and "OK" carries the
// error "Response is not 200 OK", and its body is kept but not parsed.

#include <Wireloom/core/Object.hpp>
#include <Wireloom/protocols/detail/HTTPMessage.hpp>

#include <cstdint>
#include <memory>
#include <string>

namespace wireloom {

class PXHTTPResponse : public Object, public detail::HTTPMessage {
public:
    using Ptr = std::shared_ptr<PXHTTPResponse>;
    std::string className() const override { return "PXHTTPResponse"; }

    std::int64_t statusCode() const noexcept { return statusCode_; }
    void setStatusCode(std::int64_t code) noexcept { statusCode_ = code; }
    // The reason phrase.
    const std::string& status() const noexcept { return status_; }
    void setStatus(std::string status) { status_ = std::move(status); }

private:
    std::int64_t statusCode_ = 0;
    std::string status_;
};

}  // namespace wireloom
