#include <Wireloom/protocols/detail/HTTPMessage.hpp>

namespace wireloom::detail {

std::string HTTPMessage::senderAddress() const {
    if (!flow_) return {};
    return senderIsZero_ ? flow_->endpoint0Address() : flow_->endpoint1Address();
}

std::uint16_t HTTPMessage::senderPort() const {
    if (!flow_) return 0;
    return senderIsZero_ ? flow_->endpoint0Port() : flow_->endpoint1Port();
}

std::string HTTPMessage::recipientAddress() const {
    if (!flow_) return {};
    return senderIsZero_ ? flow_->endpoint1Address() : flow_->endpoint0Address();
}

std::uint16_t HTTPMessage::recipientPort() const {
    if (!flow_) return 0;
    return senderIsZero_ ? flow_->endpoint1Port() : flow_->endpoint0Port();
}

}  // namespace wireloom::detail
