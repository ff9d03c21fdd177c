#pragma once
// Writes DNS messages for tests, the sample generator and the benchmarks,
// replacing each name (or tail of a name) already written with a pointer to
// it, as real responders do:
//
//   DnsMessage m(0, 0x8400);
//   m.record(DnsMessage::answer, "_http._tcp.local", 12, 1, 4500,
//            [](DnsMessage& d) { d.writeName("Kitchen._http._tcp.local"); });
//   Bytes frame = mdnsFrame(m.bytes());

#include "support/FrameBuilder.hpp"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace wireloom::testing {

class DnsMessage {
public:
    enum Section { question = 0, answer = 1, authority = 2, additional = 3 };

    DnsMessage(std::uint16_t id, std::uint16_t flags);

    DnsMessage& ask(const std::string& name, std::uint16_t type);
    // klass carries mDNS's cache-flush bit where it is set; the data comes
    // from a callback so that names inside it are compressed too.
    DnsMessage& record(Section section, const std::string& name, std::uint16_t type, std::uint16_t klass,
                       std::uint32_t ttl, const std::function<void(DnsMessage&)>& data);

    void writeName(const std::string& name);
    void write(const Bytes& more) { bytes_.insert(bytes_.end(), more.begin(), more.end()); }
    void write(std::uint64_t value, int size) { appendBE(bytes_, value, size); }
    // DNS-SD TXT data: each string after its length byte.
    void writeTxt(const std::vector<std::string>& strings);

    const Bytes& bytes() const { return bytes_; }

private:
    void count(Section section);

    Bytes bytes_;
    std::map<std::string, std::uint16_t> offsets_;
};

// A multicast datagram from port 5353 to port 5353 over IPv4 and Ethernet.
Bytes mdnsFrame(const Bytes& message, IPv4Address source = ip4("192.168.1.20"));

}  // namespace wireloom::testing
