#include "support/DnsMessage.hpp"

#include <algorithm>

namespace wireloom::testing {

DnsMessage::DnsMessage(std::uint16_t id, std::uint16_t flags) {
    appendBE(bytes_, id, 2);
    appendBE(bytes_, flags, 2);
    bytes_.resize(12);  // the four section counts, all 0
}

DnsMessage& DnsMessage::ask(const std::string& name, std::uint16_t type) {
    count(question);
    writeName(name);
    appendBE(bytes_, type, 2);
    appendBE(bytes_, 1, 2);  // class IN
    return *this;
}

DnsMessage& DnsMessage::record(Section section, const std::string& name, std::uint16_t type, std::uint16_t klass,
                               std::uint32_t ttl, const std::function<void(DnsMessage&)>& data) {
    count(section);
    writeName(name);
    appendBE(bytes_, type, 2);
    appendBE(bytes_, klass, 2);
    appendBE(bytes_, ttl, 4);
    const std::size_t lengthAt = bytes_.size();
    appendBE(bytes_, 0, 2);
    data(*this);
    const std::size_t length = bytes_.size() - lengthAt - 2;
    bytes_[lengthAt] = static_cast<std::uint8_t>(length >> 8);
    bytes_[lengthAt + 1] = static_cast<std::uint8_t>(length);
    return *this;
}

void DnsMessage::writeName(const std::string& name) {
    std::size_t at = 0;
    while (at < name.size()) {
        const std::string tail = name.substr(at);
        if (auto known = offsets_.find(tail); known != offsets_.end()) {
            appendBE(bytes_, 0xc000u | known->second, 2);
            return;
        }
        offsets_.emplace(tail, static_cast<std::uint16_t>(bytes_.size()));
        const std::size_t dot = std::min(name.find('.', at), name.size());
        bytes_.push_back(static_cast<std::uint8_t>(dot - at));
        bytes_.insert(bytes_.end(), name.begin() + static_cast<std::ptrdiff_t>(at),
                      name.begin() + static_cast<std::ptrdiff_t>(dot));
        at = dot + 1;
    }
    bytes_.push_back(0);
}

void DnsMessage::writeTxt(const std::vector<std::string>& strings) {
    for (const std::string& entry : strings) {
        write(entry.size(), 1);
        write(bytesOf(entry));
    }
}

void DnsMessage::count(Section section) {
    std::uint8_t* n = &bytes_[4 + 2 * static_cast<std::size_t>(section)];  // big-endian
    if (++n[1] == 0) ++n[0];
}

Bytes mdnsFrame(const Bytes& message, IPv4Address source) {
    return ethernet(mac("01:00:5e:00:00:fb"), kMacA, kEtherTypeIPv4,
                    ipv4(source, ip4("224.0.0.251"), kProtoUDP, udp(5353, 5353, message), {.ttl = 255}));
}

}  // namespace wireloom::testing
