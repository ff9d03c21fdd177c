// mDNS messages: the header and its bit order, the strict field checks and
// the one lenient place, the name reader's pointers, labels and limits, the
// decoded resources, the report entry, and the place in the decode chain.
#include "packets/PacketTestSupport.hpp"
#include "support/DnsMessage.hpp"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

using namespace wireloom;
using namespace wireloom::testing;

namespace {

std::shared_ptr<PXMDNSPacket> decodeMessage(const Bytes& message, std::uint32_t* consumed = nullptr,
                                            std::uint16_t sourcePort = 5353) {
    auto udp = std::make_shared<PXUDPPacket>();
    udp->setSourcePort(sourcePort);
    udp->setDestPort(5353);
    std::uint32_t count = 0;
    auto packet = PXMDNSPacket::packetFromData(ByteBuffer::copy(message.data(), message.size()), udp, &count);
    if (consumed) *consumed = count;
    return std::static_pointer_cast<PXMDNSPacket>(packet);
}

Bytes header(std::uint16_t flags, std::uint16_t questions, std::uint16_t answers) {
    Bytes b;
    for (std::uint16_t word : {std::uint16_t{0x1234}, flags, questions, answers, std::uint16_t{0}, std::uint16_t{0}})
        appendBE(b, word, 2);
    return b;
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Bytes pointer(std::size_t offset) {
    Bytes b;
    appendBE(b, 0xc000 | offset, 2);
    return b;
}

// type, class, TTL and the resource data with its length.
Bytes recordFields(std::uint16_t type, std::uint32_t ttl, const Bytes& data) {
    Bytes b;
    appendBE(b, type, 2);
    appendBE(b, 0x8001, 2);
    appendBE(b, ttl, 4);
    appendBE(b, data.size(), 2);
    return b + data;
}

std::optional<std::string> readName(const Bytes& message, std::size_t at, std::uint32_t* consumed = nullptr,
                                    std::size_t* endsAt = nullptr, bool withMessageStart = true) {
    detail::ByteReader cursor(message.data(), message.size());
    cursor.seek(at);
    std::uint32_t count = 0;
    auto name =
        readFullyQualitifiedDomainName(withMessageStart ? message.data() : nullptr, message.size(), cursor, count);
    if (consumed) *consumed = count;
    if (endsAt) *endsAt = cursor.offset();
    return name;
}

}  // namespace

TEST(MDNSHeader, TwelveBytesMakeAMessageWhoseFlagBitsCountFromTheLeastSignificant) {
    std::uint32_t consumed = 0;
    auto low = decodeMessage(header(0x01ff, 0, 0), &consumed);
    ASSERT_TRUE(low);
    EXPECT_EQ(consumed, 12u);
    EXPECT_EQ(low->transactionID(), 0x1234);
    EXPECT_TRUE(low->isNameServiceResponse() && low->isAuthoritativeAnswer() && low->hasTruncation() &&
                low->recursionDesired() && low->recursionAvailable());
    EXPECT_EQ(low->operationCode(), 15);
    EXPECT_EQ(low->returnCode(), 0);
    // A usual response's flags, counted this way round: a request with
    // return code 8, and the request bit is not the authoritative one.
    auto usual = decodeMessage(header(0x8400, 0, 0));
    EXPECT_TRUE(!usual->isNameServiceResponse() && usual->isNameServiceRequest() && !usual->isAuthoritativeAnswer());
    EXPECT_EQ(usual->returnCode(), 8);
    EXPECT_EQ(usual->reserved(), 2);
    EXPECT_FALSE(decodeMessage(Bytes(11, 0)));
    EXPECT_FALSE(decodeMessage(header(0, 0, 0), nullptr, 5354));
}

TEST(MDNSStrictness, AnyShortFieldRejectsTheMessage) {
    const Bytes local = {5, 'l', 'o', 'c', 'a', 'l', 0};
    const Bytes question = local + Bytes{0, 12, 0, 1};
    EXPECT_TRUE(decodeMessage(header(0, 1, 0) + question));
    EXPECT_FALSE(decodeMessage(header(0, 2, 0) + question)) << "more questions announced than present";
    EXPECT_FALSE(decodeMessage(header(0, 1, 0) + local + Bytes{0, 12, 0})) << "class cut short";
    EXPECT_FALSE(decodeMessage(header(0, 0, 1) + local + Bytes{0, 1, 0, 1, 0, 0})) << "TTL cut short";
    const Bytes record = local + recordFields(1, 120, {192, 168, 1, 20});
    EXPECT_TRUE(decodeMessage(header(0, 0, 1) + record));
    EXPECT_FALSE(decodeMessage(header(0, 0, 1) + Bytes(record.begin(), record.end() - 1))) << "data cut short";
}

TEST(MDNSStrictness, AnUnreadableNameRejectsAQuestionButOnlyUnnamesARecord) {
    const Bytes selfPointer = pointer(12);  // at offset 12: a pointer to itself
    EXPECT_FALSE(decodeMessage(header(0, 1, 0) + selfPointer + Bytes{0, 12, 0, 1}));

    auto packet = decodeMessage(header(0, 0, 1) + selfPointer + recordFields(1, 120, {10, 0, 0, 1}));
    ASSERT_TRUE(packet);
    const PXMDNSRecord& record = packet->answerRecords()[0];
    EXPECT_FALSE(record.recordName());
    // Reading went on after the pointer's two bytes.
    EXPECT_EQ(record.recordType(), 1);
    EXPECT_EQ(record.ttl(), 120u);
    EXPECT_EQ(record.resourceDataOffsetInMessage(), 24);
    EXPECT_EQ(packet->reportAnalyzerEntry()->plainTitle(), "Peerbell A: (null)");
}

TEST(DNSNameReader, LabelsPointersAndTheirLimits) {
    // "local" at 12, then "foo" and a pointer back to it, then a pointer
    // forward to "bar" and "local".
    const Bytes message = header(0, 0, 0) + Bytes{5, 'l', 'o', 'c', 'a', 'l', 0} + Bytes{3, 'f', 'o', 'o', 0xc0, 12} +
                          Bytes{0xc0, 27} + Bytes{3, 'b', 'a', 'r', 0xc0, 12};
    std::uint32_t consumed = 0;
    std::size_t endsAt = 0;
    EXPECT_EQ(readName(message, 12, &consumed), "local");
    EXPECT_EQ(consumed, 7u);
    EXPECT_EQ(readName(message, 19, &consumed, &endsAt), "foo.local");
    EXPECT_EQ(consumed, 6u) << "the bytes behind the pointer are not counted";
    EXPECT_EQ(endsAt, 25u);

    // Pointer i at offset 2i leads to offset 2i + 2; the last one to "x".
    auto chain = [](std::size_t pointers) {
        Bytes b;
        for (std::size_t i = 0; i < pointers; ++i) b = b + pointer(2 * i + 2);
        return b + Bytes{1, 'x', 0};
    };
    const Bytes highLength = Bytes{0xc0} + Bytes(192, 'a') + Bytes{0};
    const struct {
        Bytes bytes;
        std::size_t at;
        std::optional<std::string> name;
        const char* why;
        bool withMessageStart = true;
    } rows[] = {
        {message, 25, "bar.local", "a pointer forward"},
        {Bytes{0}, 0, "", "the root"},
        {Bytes{3, 'f', 'o', 'o'}, 0, std::nullopt, "a name must end"},
        {header(0, 0, 0) + Bytes{0xc0, 200}, 12, std::nullopt, "a pointer past the message"},
        {chain(100), 0, "x", "pointers up to depth 100"},
        {chain(101), 0, std::nullopt, "a pointer past depth 100"},
        {highLength, 0, std::string(192, 'a'), "without a message start, 0xc0 is a length", false},
        {highLength, 0, std::nullopt, "with a message start, 0xc0 is a pointer"},
        {Bytes{64} + Bytes(64, 'b') + Bytes{0}, 0, std::string(64, 'b'), "lengths 64 to 191 are always labels"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(readName(row.bytes, row.at, nullptr, nullptr, row.withMessageStart), row.name) << row.why;
}

// Through the chain a message remembers the names it has read, and a pointer
// to one takes its text. Reached deeper than where it was read, a name must
// still fail the depth limit exactly where following its pointers would.
TEST(DNSNameReader, NamesReadOnceFailTheDepthLimitAsWalkingThemWould) {
    // A records whose owner names point into a chain of 100 pointers after
    // them (each to the next, the last to "x"): entering it k pointers from
    // its end takes k + 1 pointers in all.
    const std::size_t chainStart = 112;
    auto entry = [&](std::size_t k) { return pointer(chainStart + 2 * (100 - k)); };
    const std::vector<std::pair<Bytes, std::optional<std::string>>> owners = {
        {entry(99), "x"},                             // 100 pointers
        {pointer(12), std::nullopt},                  // the first owner's name, one pointer deeper
        {entry(99), "x"},                             // the first owner's name again
        {entry(100), std::nullopt},                   // one pointer before where the first entered
        {Bytes{1, 'y'} + pointer(12), std::nullopt},  // a label, then as the second
        {Bytes{1, 'y'} + entry(98), "y.x"},           // a label, then part of the first
    };
    Bytes message = header(0, 0, static_cast<std::uint16_t>(owners.size()));
    for (const auto& [owner, name] : owners) message = message + owner + recordFields(1, 120, {10, 0, 0, 1});
    ASSERT_EQ(message.size(), chainStart);
    for (std::size_t i = 0; i < 100; ++i) message = message + pointer(chainStart + 2 * i + 2);
    message = message + Bytes{1, 'x', 0};

    const auto inBlock = decode(mdnsFrame(message))->packetWithProtocol<PXMDNSPacket>();
    const auto alone = decodeMessage(message);
    ASSERT_TRUE(inBlock && alone);
    for (const auto& packet : {inBlock, alone})
        for (std::size_t i = 0; i < owners.size(); ++i)
            EXPECT_EQ(packet->answerRecords()[i].recordName(), owners[i].second) << "record " << i;
}

TEST(DNSNameReader, NonASCIIAnywhereInALabel) {
    // Labels are copied and checked a word at a time, the last word
    // overlapping the one before: a high byte must count wherever it lies.
    for (std::size_t length : {1, 2, 3, 4, 5, 7, 8, 9, 16, 17, 63}) {
        for (std::size_t at : {std::size_t{0}, length / 2, length - 1}) {
            Bytes label(length, 'a');
            label[at] = 0x80;
            EXPECT_FALSE(readName(Bytes{static_cast<std::uint8_t>(length)} + label + Bytes{0}, 0)) << length << at;
        }
        if (length < 2) continue;
        std::string accented(length - 2, 'a');
        accented += "\xc3\xa9";
        EXPECT_EQ(
            readName(Bytes{static_cast<std::uint8_t>(length)} + Bytes(accented.begin(), accented.end()) + Bytes{0}, 0),
            accented);
    }
}

// Data too short for their type give no resource. An SRV target is read
// through the message: it may be compressed, or run past the record's data.
TEST(MDNSResources, SRVTXTAndAAAAFromTheirData) {
    const std::string owner = "Kitchen._http._tcp.local";
    DnsMessage m(0, 0x8400);
    m.record(DnsMessage::answer, owner, 33, 0x8001, 120, [](DnsMessage& d) {
        d.write(Bytes{0, 1, 0, 2, 0x1f, 0x90});
        d.writeName("kitchen.local");  // compressed: ".local" is a pointer
    });
    m.record(DnsMessage::answer, owner, 33, 0x8001, 120, [](DnsMessage& d) { d.write(Bytes{0, 1, 0, 2, 0, 80}); });
    m.record(DnsMessage::answer, owner, 28, 0x8001, 120, [](DnsMessage& d) { d.write(Bytes(15, 1)); });
    m.record(DnsMessage::answer, owner, 16, 0x8001, 4500, [](DnsMessage& d) {
        d.writeTxt({"path=/", "flag", "empty=", "path=/second"});
        d.write(Bytes{5, 'b', 'i', 'n', '=', 0xff});
    });
    // Last, so that its target's label runs past the end of the message.
    m.record(DnsMessage::answer, owner, 33, 0x8001, 120, [](DnsMessage& d) { d.write(Bytes{0, 1, 0, 2, 0, 80, 9}); });
    const auto packet = decodeMessage(m.bytes());
    ASSERT_TRUE(packet);
    const auto resource = [&](std::size_t i) { return packet->answerRecords()[i].resource(); };

    auto srv = std::dynamic_pointer_cast<PXDNSSRVResource>(resource(0));
    ASSERT_TRUE(srv);
    EXPECT_EQ(srv->priority(), 1);
    EXPECT_EQ(srv->weight(), 2);
    EXPECT_EQ(srv->port(), 8080);
    EXPECT_EQ(srv->target(), "kitchen.local");
    EXPECT_FALSE(resource(1)) << "SRV needs seven bytes";
    EXPECT_FALSE(resource(2)) << "AAAA needs sixteen";
    srv = std::dynamic_pointer_cast<PXDNSSRVResource>(resource(4));
    ASSERT_TRUE(srv);
    EXPECT_EQ(srv->port(), 80);
    EXPECT_FALSE(srv->target());

    auto txt = std::dynamic_pointer_cast<PXDNSTXTResource>(resource(3));
    ASSERT_TRUE(txt);
    EXPECT_EQ(txt->txt().size(), 4u);
    EXPECT_EQ(*txt->valueForKey("path")->string(), "/") << "the first of a repeated key counts";
    EXPECT_EQ(*txt->valueForKey("flag")->string(), "");
    EXPECT_EQ(*txt->valueForKey("empty")->string(), "");
    ASSERT_TRUE(txt->valueForKey("bin")->bytes());
    EXPECT_EQ(txt->valueForKey("bin")->bytes()->hexEncodedString(), "ff");
    EXPECT_TRUE(PXDNSTXTResource::dictionaryFromTXTRecordData(Bytes{9, 'a'}).empty()) << "a string overruns";
}

// The address's text is written on first use: the first readers may race,
// and an address set by hand replaces the record's for good.
TEST(MDNSResources, AAAATextWrittenOnceWhenFirstAskedFor) {
    const IPv6Address address = ip6("2001:db8::ff00:42:8329");
    const std::string expected = PXIPv6Packet::stringFromIPv6Address(address.data());
    PXDNSIPv6AddressResource decoded(address.data());
    std::vector<std::string> seen(4);
    std::vector<std::thread> readers;
    for (std::string& text : seen) readers.emplace_back([&] { text = decoded.ipv6Address(); });
    for (std::thread& reader : readers) reader.join();
    EXPECT_EQ(seen, std::vector<std::string>(4, expected));
    decoded.setIpv6Address("::2");
    EXPECT_EQ(decoded.ipv6Address(), "::2");

    PXDNSIPv6AddressResource set(address.data());
    set.setIpv6Address("::1");
    EXPECT_EQ(set.ipv6Address(), "::1");
    EXPECT_EQ(PXDNSIPv6AddressResource().ipv6Address(), "");
}

TEST(MDNSEntry, TitleNamesEveryRecordAndSectionsCountThem) {
    DnsMessage m(7, 0x8400);
    m.ask("_http._tcp.local", 12);
    m.record(DnsMessage::answer, "_http._tcp.local", 12, 1, 4500,
             [](DnsMessage& d) { d.writeName("Kitchen._http._tcp.local"); });
    m.record(DnsMessage::additional, "kitchen.local", 1, 0x8001, 120, [](DnsMessage& d) { d.write(0x0a000001, 4); });
    auto entry = decodeMessage(m.bytes())->reportAnalyzerEntry();
    EXPECT_EQ(entry->plainTitle(), "Peerbell Q: _http._tcp.local, A: _http._tcp.local, AR: kitchen.local");
    std::vector<std::string> titles;
    for (const auto& child : *entry->children()) titles.emplace_back(child->plainTitle());
    ASSERT_EQ(titles.size(), 19u);
    EXPECT_EQ(titles[0], "Transaction ID: 7");
    EXPECT_EQ(std::vector<std::string>(titles.end() - 4, titles.end()),
              (std::vector<std::string>{"Questions (1 record)", "Answers (1 record)",
                                        "Authoritative Answers (0 records)", "Additional (1 record)"}));
}

TEST(MDNSChain, OnlyDatagramsFrom5353To5353AndOnlyTheDatagramsBytes) {
    DnsMessage m(0, 0);
    m.ask("_http._tcp.local", 12);
    EXPECT_EQ(layerNames(decode(mdnsFrame(m.bytes()))).back(), "PXMDNSPacket");
    const Bytes toOtherPort =
        ethernet(kMacB, kMacA, kEtherTypeIPv4, ipv4(kClient4, kServer4, kProtoUDP, udp(5353, 5354, m.bytes())));
    EXPECT_EQ(layerNames(decode(toOtherPort)).back(), "PXUDPPacket");
    // A record announced but missing: the frame's padding must not stand in for it.
    Bytes padded = mdnsFrame(header(0, 0, 1));
    padded.resize(padded.size() + 18, 0);
    EXPECT_EQ(layerNames(decode(padded)).back(), "PXUDPPacket");
    EXPECT_EQ(PXMDNSPacket::nameOfRecordType(28), "AAAA (IPv6)");
    EXPECT_EQ(PXMDNSPacket::nameOfRecordType(99), "unknown");
}

// Decoded through the chain, names lie in the frame's block. Whatever is
// kept of a message must read the same once the message is gone and later
// frames, laid out alike, have taken the block over.
TEST(MDNSChain, TextKeptOfAMessageOutlivesIt) {
    // Names longer than a wire name (four full labels) and a data-less record,
    // whose copy holds nothing of the frame but its name.
    auto longName = [](char label) {
        std::string name;
        for (char c = label; c < label + 4; ++c) name += std::string(63, c) + ".";
        return name + "local";
    };
    auto decodeResponse = [&](const std::string& host, char label) {
        DnsMessage m(0, 0x8400);
        m.ask("_http._tcp." + host, 12);
        m.record(DnsMessage::answer, "_http._tcp.local", 12, 1, 4500,
                 [&](DnsMessage& d) { d.writeName(host + "._http._tcp.local"); });
        m.record(DnsMessage::additional, host + "._http._tcp.local", 33, 0x8001, 120, [&](DnsMessage& d) {
            d.write(80, 6);  // priority and weight 0, port 80
            d.writeName(longName(label));
        });
        m.record(DnsMessage::additional, longName(label), 28, 0x8001, 120,
                 [&](DnsMessage& d) { d.write(Bytes(16, static_cast<std::uint8_t>(label))); });
        m.record(DnsMessage::additional, host + ".local", 47, 0x8001, 120, [](DnsMessage&) {});
        return decode(mdnsFrame(m.bytes()))->packetWithProtocol<PXMDNSPacket>();
    };
    auto reuseTheBlock = [&] {
        for (int i = 0; i < 40; ++i) decodeResponse("hallway", 'p');
    };

    // Copies of records and questions, without their message.
    std::vector<PXMDNSQuestion> questions;
    std::optional<PXMDNSRecord> copied;
    if (const auto message = decodeResponse("kitchen", 'h')) {
        questions.assign(message->questionRecords().begin(), message->questionRecords().end());
        copied = message->additionalRecords()[2];
        EXPECT_EQ(message->additionalRecords()[1].recordName(), longName('h'));
    }
    reuseTheBlock();
    EXPECT_EQ(questions.at(0).recordName(), "_http._tcp.kitchen");
    EXPECT_EQ(copied->recordName(), "kitchen.local");

    // Resources, without their message.
    PXDNSResource::Ptr ptr, srv, aaaa;
    if (const auto message = decodeResponse("kitchen", 'h')) {
        ptr = message->answerRecords()[0].resource();
        srv = message->additionalRecords()[0].resource();
        aaaa = message->additionalRecords()[1].resource();
    }
    reuseTheBlock();
    EXPECT_EQ(std::dynamic_pointer_cast<PXDNSPTRResource>(ptr)->canonicalName(), "kitchen._http._tcp.local");
    EXPECT_EQ(std::dynamic_pointer_cast<PXDNSSRVResource>(srv)->target(), longName('h'));
    EXPECT_EQ(std::dynamic_pointer_cast<PXDNSIPv6AddressResource>(aaaa)->ipv6Address(),
              "6868:6868:6868:6868:6868:6868:6868:6868");
}

// Records and resources lie in the frame's block while it has room and on the
// heap after (the larger messages here run out of room part way through, or
// from the start); the data of those in the block are views of the message.
// Either way a resource kept alone, or a copied record, still reads right
// once the message is gone and its block reused.
TEST(MDNSChain, ResourcesKeptAloneWhetherInTheBlockOrNot) {
    auto decodeResponse = [](char label, int services) {
        auto instance = [&](int i) { return std::string(20, label) + std::to_string(i) + "._http._tcp.local"; };
        DnsMessage m(0, 0x8400);
        for (int i = 0; i < services; ++i)
            m.record(DnsMessage::answer, "_http._tcp.local", 12, 1, 4500,
                     [&](DnsMessage& d) { d.writeName(instance(i)); });
        for (int i = 0; i < services; ++i)
            m.record(DnsMessage::additional, instance(i), 16, 0x8001, 4500,
                     [&](DnsMessage& d) { d.writeTxt({"id=" + std::string(8, label) + std::to_string(i)}); });
        return decode(mdnsFrame(m.bytes()))->packetWithProtocol<PXMDNSPacket>();
    };
    auto id = [](const PXDNSResource::Ptr& txt) {
        return *std::dynamic_pointer_cast<PXDNSTXTResource>(txt)->valueForKey("id")->string();
    };
    for (const int services : {1, 6, 14, 40}) {
        std::vector<PXDNSResource::Ptr> kept;
        std::vector<PXMDNSRecord> copies;
        if (const auto message = decodeResponse('k', services)) {
            ASSERT_EQ(message->additionalRecords().size(), static_cast<std::size_t>(services));
            for (int i = 0; i < services; ++i) {
                kept.push_back(message->answerRecords()[i].resource());
                kept.push_back(message->additionalRecords()[i].resource());
            }
            copies.assign(message->additionalRecords().begin(), message->additionalRecords().end());
        }
        for (int i = 0; i < 40; ++i) decodeResponse('p', services);
        for (int i = 0; i < services; ++i) {
            const std::string number = std::to_string(i);
            EXPECT_EQ(std::dynamic_pointer_cast<PXDNSPTRResource>(kept.at(2 * i))->canonicalName(),
                      std::string(20, 'k') + number + "._http._tcp.local");
            EXPECT_EQ(id(kept.at(2 * i + 1)), std::string(8, 'k') + number);
            EXPECT_EQ(copies.at(i).resourceData().stringView().substr(1), "id=" + std::string(8, 'k') + number);
            EXPECT_EQ(id(copies.at(i).resource()), std::string(8, 'k') + number);
        }
    }
}
