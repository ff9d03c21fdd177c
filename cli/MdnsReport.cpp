#include "MdnsReport.hpp"
#include "SourceFilter.hpp"

namespace wireloom::cli {

namespace {

// Names and TXT text come off the wire: anything that is not UTF-8 is kept
// out of the JSON by the readers, but a TXT key is taken as it comes.
std::string jsonLine(const nlohmann::ordered_json& value) {
    std::string line = value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    line += '\n';
    return line;
}

nlohmann::ordered_json optionalName(std::optional<std::string_view> name) {
    return name ? nlohmann::ordered_json(std::string(*name)) : nlohmann::ordered_json();
}

void addResource(nlohmann::ordered_json& out, const PXDNSResource* resource) {
    if (const auto* srv = dynamic_cast<const PXDNSSRVResource*>(resource)) {
        out["srv"] = {{"priority", srv->priority()},
                      {"weight", srv->weight()},
                      {"port", srv->port()},
                      {"target", optionalName(srv->target())}};
    } else if (const auto* txt = dynamic_cast<const PXDNSTXTResource*>(resource)) {
        nlohmann::ordered_json pairs = nlohmann::ordered_json::object();
        for (const auto& [key, value] : txt->txt()) {
            if (const std::string* text = value.string())
                pairs[key] = *text;
            else if (const ByteBuffer* bytes = value.bytes())
                pairs[key] = {{"hex", bytes->hexEncodedString()}};
        }
        out["txt"] = std::move(pairs);
    } else if (const auto* ptr = dynamic_cast<const PXDNSPTRResource*>(resource)) {
        out["ptr"] = optionalName(ptr->canonicalName());
    } else if (const auto* aaaa = dynamic_cast<const PXDNSIPv6AddressResource*>(resource)) {
        out["aaaa"] = std::string(aaaa->ipv6Address());
    }
}

nlohmann::ordered_json recordsJSON(std::span<const PXMDNSRecord> records) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const PXMDNSRecord& record : records) {
        nlohmann::ordered_json item = {{"name", optionalName(record.recordName())},
                                       {"type", record.recordType()},
                                       {"class", record.recordClass()},
                                       {"ttl", record.ttl()},
                                       {"data", record.resourceData().hexEncodedString()}};
        addResource(item, record.resource().get());
        list.push_back(std::move(item));
    }
    return list;
}

std::string endpoint(const PXPacket* ip, std::uint16_t port, bool source) {
    std::string address;
    if (const auto* v4 = dynamic_cast<const PXIPv4Packet*>(ip))
        address = source ? v4->sourceAddress() : v4->destAddress();
    if (const auto* v6 = dynamic_cast<const PXIPv6Packet*>(ip))
        address = source ? v6->sourceAddress() : v6->destAddress();
    return address + ":" + std::to_string(port);
}

}  // namespace

nlohmann::ordered_json mdnsJSON(const PXMDNSPacket& message, std::uint64_t frame) {
    nlohmann::ordered_json out = {{"frame", frame}, {"timestamp", message.timestamp()}};
    if (const auto udp = message.packetWithProtocol<PXUDPPacket>()) {
        const PXPacketPtr ip = udp->encapsulatingPacket();
        out["source"] = endpoint(ip.get(), udp->sourcePort(), true);
        out["destination"] = endpoint(ip.get(), udp->destPort(), false);
    }
    out["transactionID"] = message.transactionID();
    out["flags"] = message.flags();
    nlohmann::ordered_json questions = nlohmann::ordered_json::array();
    for (const PXMDNSQuestion& question : message.questionRecords())
        questions.push_back({{"name", std::string(question.recordName())},
                             {"type", question.questionType()},
                             {"class", question.questionClass()}});
    out["questions"] = std::move(questions);
    out["answers"] = recordsJSON(message.answerRecords());
    out["authority"] = recordsJSON(message.authoritativeAnswerRecords());
    out["additional"] = recordsJSON(message.additionalRecords());
    return out;
}

void MdnsPrinter::print(const PXPacket& innermost) {
    ++frame_;
    const auto message = innermost.packetWithProtocol<PXMDNSPacket>();
    if (!message) return;
    ++messages_;
    questions_ += message->questionRecords().size();
    records_ += message->answerRecords().size() + message->authoritativeAnswerRecords().size() +
                message->additionalRecords().size();
    const auto show = [this, number = frame_](const PXPacket& packet) {
        ++shown_;
        if (format_ == Format::Json) {
            const std::string line = jsonLine(mdnsJSON(*packet.packetWithProtocol<PXMDNSPacket>(), number));
            std::fwrite(line.data(), 1, line.size(), out_);
        } else if (format_ != Format::None) {
            frames_.show(packet, number);
        }
    };
    if (!filter_) return show(innermost);
    filter_->offer(frameSource(filter_->keep(innermost), frame_, show));
}

void MdnsPrinter::setFilter(SourceFilter* filter) {
    filter_ = filter;
    frames_.setFilter(filter);
}

void MdnsPrinter::finish() {
    if (format_ == Format::None) {
        std::fprintf(out_, "frames read: %llu\nmDNS messages: %llu\nquestions: %llu\nrecords: %llu\n",
                     static_cast<unsigned long long>(frame_), static_cast<unsigned long long>(messages_),
                     static_cast<unsigned long long>(questions_), static_cast<unsigned long long>(records_));
        if (filter_) std::fprintf(out_, "mDNS messages shown: %llu\n", static_cast<unsigned long long>(shown_));
        std::fflush(out_);
        return;
    }
    frames_.finish();
}

}  // namespace wireloom::cli
