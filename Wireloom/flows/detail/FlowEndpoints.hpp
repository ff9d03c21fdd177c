#pragma once
// What TCP and UDP flows have in common: their two endpoints, when each last
// sent something, and the key their table files them under. Endpoint 0 is
// the one whose identifier sorts first by plain byte-wise comparison; the
// flow takes the order its table gives it.

#include <Wireloom/packets/PXPacket.hpp>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace wireloom::detail {

class FlowEndpoints {
public:
    // "ADDRESS:PORT", the port in decimal.
    static std::string endpointWithAddress(std::string_view address, std::uint16_t port);

    const std::string& endpoint0Address() const noexcept { return endpoint0Address_; }
    void setEndpoint0Address(std::string address) { endpoint0Address_ = std::move(address); }
    std::uint16_t endpoint0Port() const noexcept { return endpoint0Port_; }
    void setEndpoint0Port(std::uint16_t port) noexcept { endpoint0Port_ = port; }
    const std::string& endpoint1Address() const noexcept { return endpoint1Address_; }
    void setEndpoint1Address(std::string address) { endpoint1Address_ = std::move(address); }
    std::uint16_t endpoint1Port() const noexcept { return endpoint1Port_; }
    void setEndpoint1Port(std::uint16_t port) noexcept { endpoint1Port_ = port; }
    const std::string& endpoint0() const noexcept { return endpoints_->endpoint0; }
    void setEndpoint0(std::string endpoint) { endpoints_ = shared(std::move(endpoint), endpoints_->endpoint1); }
    const std::string& endpoint1() const noexcept { return endpoints_->endpoint1; }
    void setEndpoint1(std::string endpoint) { endpoints_ = shared(endpoints_->endpoint0, std::move(endpoint)); }
    // The same texts, for notifications to carry without copying them. A
    // setter replaces the texts rather than changing them, so one handed out
    // keeps what it said.
    std::shared_ptr<const std::string> sharedEndpoint0() const noexcept { return {endpoints_, &endpoints_->endpoint0}; }
    std::shared_ptr<const std::string> sharedEndpoint1() const noexcept { return {endpoints_, &endpoints_->endpoint1}; }
    // Seconds on the capture clock; both start when the flow is made.
    double endpoint0ActivityTime() const noexcept { return endpoint0ActivityTime_; }
    void setEndpoint0ActivityTime(double time) noexcept { endpoint0ActivityTime_ = time; }
    double endpoint1ActivityTime() const noexcept { return endpoint1ActivityTime_; }
    void setEndpoint1ActivityTime(double time) noexcept { endpoint1ActivityTime_ = time; }

    // The table's key, "ENDPOINT0-ENDPOINT1"; empty until a table files it.
    const std::string& key() const noexcept { return key_; }
    void setKey(std::string key) { key_ = std::move(key); }
    // The capture clock's time when the flow was made.
    double startTime() const noexcept { return startTime_; }

protected:
    FlowEndpoints(std::string endpoint0, std::string endpoint1, double now)
        : endpoints_(shared(std::move(endpoint0), std::move(endpoint1))),
          endpoint0ActivityTime_(now),
          endpoint1ActivityTime_(now),
          startTime_(now) {}

    // Whether the packet's IPv6 layer, or failing that its IPv4 layer,
    // carries these addresses and ports in either direction.
    bool carriesEndpoints(const PXPacket& packet, std::uint16_t sourcePort, std::uint16_t destPort) const;

private:
    // Both texts in one block: a table of idle flows pays one allocation
    // for them, not two.
    struct Texts {
        std::string endpoint0, endpoint1;
    };
    static std::shared_ptr<const Texts> shared(std::string endpoint0, std::string endpoint1) {
        return std::make_shared<const Texts>(Texts{std::move(endpoint0), std::move(endpoint1)});
    }

    std::string endpoint0Address_;
    std::string endpoint1Address_;
    std::shared_ptr<const Texts> endpoints_;
    std::string key_;
    double endpoint0ActivityTime_;
    double endpoint1ActivityTime_;
    double startTime_;
    std::uint16_t endpoint0Port_ = 0;
    std::uint16_t endpoint1Port_ = 0;
};

}  // namespace wireloom::detail
