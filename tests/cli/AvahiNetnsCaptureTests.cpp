// wireloom on real mDNS: avahi-daemon publishing a service in one network
// namespace, browsed and resolved from another (avahi-in-netns.sh), captured
// with `wireloom capture -w`, and every message of the capture compared with
// tshark's reading of it. Needs root, ip, avahi, D-Bus and tshark; skips with
// the reason otherwise.
#include "CommandText.hpp"
#include "support/Processes.hpp"

#include <Wireloom/packets/PXIPv6Packet.hpp>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <map>

namespace fs = std::filesystem;
using nlohmann::json;
using namespace wireloom::testing;

namespace {

// tshark's fields of a frame; the SRV owner's three (service, protocol,
// name) come right after the frame number.
constexpr const char* kFields[] = {"frame.number", "dns.srv.service",    "dns.srv.proto",  "dns.srv.name",
                                   "dns.qry.name", "dns.qry.type",       "dns.resp.name",  "dns.resp.type",
                                   "dns.resp.ttl", "dns.srv.port",       "dns.srv.target", "dns.txt",
                                   "dns.aaaa",     "dns.ptr.domain_name"};
// Each field's values in message order, joined by '|'; an SRV record's
// owner apart from the other records', as tshark keeps it.
using Fields = std::map<std::string, std::string>;

void add(Fields& f, const std::string& field, const std::string& value) {
    f[field] += (f[field].empty() ? "" : "|") + value;
}

Fields fieldsOf(const json& message) {
    Fields f;
    for (const json& question : message["questions"]) {
        add(f, "dns.qry.name", question["name"]);
        add(f, "dns.qry.type", std::to_string(question["type"].get<int>()));
    }
    std::vector<std::string> txt;
    for (const char* section : {"answers", "authority", "additional"}) {
        for (const json& record : message[section]) {
            const std::string name = record["name"].is_null() ? "(none)" : record["name"].get<std::string>();
            add(f, record.contains("srv") ? "srv owner" : "dns.resp.name", name);
            add(f, "dns.resp.type", std::to_string(record["type"].get<int>()));
            add(f, "dns.resp.ttl", std::to_string(record["ttl"].get<std::uint32_t>()));
            if (record.contains("srv")) {
                add(f, "dns.srv.port", std::to_string(record["srv"]["port"].get<int>()));
                add(f, "dns.srv.target", record["srv"]["target"]);
            }
            if (record.contains("txt"))
                for (const auto& [key, value] : record["txt"].items())
                    txt.push_back(key + "=" + (value.is_string() ? value.get<std::string>() : value.dump()));
            if (record.contains("aaaa")) add(f, "dns.aaaa", record["aaaa"]);
            if (record.contains("ptr")) add(f, "dns.ptr.domain_name", record["ptr"]);
        }
    }
    std::sort(txt.begin(), txt.end());
    for (const std::string& text : txt) add(f, "dns.txt", text);
    return f;
}

// tshark's line made comparable: SRV owners put together, TXT strings as
// key=value (sorted, as wireloom's dictionary is), addresses in the
// library's own text.
Fields fieldsOf(const std::vector<std::string>& columns) {
    Fields f;
    const auto values = [&](std::size_t i) { return split(columns[i], '|', true); };
    const std::vector<std::string> service = values(1), proto = values(2), name = values(3);
    for (std::size_t i = 0; i < service.size(); ++i)
        add(f, "srv owner", service[i] + "." + proto.at(i) + "." + name.at(i));
    for (std::size_t i = 4; i < columns.size(); ++i) {
        std::vector<std::string> list = values(i);
        if (kFields[i] == std::string("dns.txt")) {
            for (std::string& text : list)
                if (text.find('=') == npos) text += "=";
            std::sort(list.begin(), list.end());
        }
        for (std::string& value : list) {
            std::uint8_t bytes[16];
            if (kFields[i] == std::string("dns.aaaa") && inet_pton(AF_INET6, value.c_str(), bytes) == 1)
                value = wireloom::PXIPv6Packet::stringFromIPv6Address(bytes);
            add(f, kFields[i], value);
        }
    }
    return f;
}

}  // namespace

TEST(AvahiNetnsCapture, EveryMessageReadsAsTsharkReadsIt) {
    if (!fs::exists(wireloomCommand())) GTEST_SKIP() << "the wireloom command was not built";
    if (!have("tshark")) GTEST_SKIP() << "tshark is not installed";
    const fs::path dir = fs::path(::testing::TempDir()) / ("avahi-" + std::to_string(getpid()));
    fs::create_directories(dir);
    const std::string capture = (dir / "mdns.pcap").string();
    int status = -1;
    const std::string traffic = output("bash " + (sourceDir() / "tests" / "cli" / "avahi-in-netns.sh").string() + " " +
                                           wireloomCommand().string() + " " + capture + " 2>" + (dir / "why").string(),
                                       &status);
    if (status == 77) GTEST_SKIP() << slurp(dir / "why");
    ASSERT_EQ(status, 0) << traffic << slurp(dir / "why");
    // The other side resolved the service: its port and TXT strings.
    EXPECT_NE(traffic.find(";4242;\"model=kd 10\" \"flag\" \"path=/x\""), npos) << traffic;

    std::map<int, json> ours;
    for (const std::string& line :
         split(output(wireloomCommand().string() + " read " + capture + " --mdns --format json", &status))) {
        json message = json::parse(line);
        const int frame = message["frame"].get<int>();  // before the move: an assignment's right side goes first
        ours[frame] = std::move(message);
    }
    ASSERT_EQ(status, 0);

    std::string command =
        "tshark -r " + capture +
        " -Y 'udp.srcport == 5353 && udp.dstport == 5353' -T fields -E separator=/t -E aggregator='|'";
    for (const char* field : kFields) command += std::string(" -e ") + field;
    const std::vector<std::string> theirs = split(output(command + " 2>/dev/null", &status));
    ASSERT_EQ(status, 0);
    Fields captured;  // every message's, to see that the service's records were among them
    for (const std::string& line : theirs) {
        const std::vector<std::string> columns = split(line, '\t', true);
        ASSERT_EQ(columns.size(), std::size(kFields)) << line;
        const int frame = std::stoi(columns[0]);
        SCOPED_TRACE("frame " + columns[0]);
        ASSERT_TRUE(ours.count(frame)) << "mDNS to tshark only";
        const Fields actual = fieldsOf(ours[frame]);
        EXPECT_EQ(actual, fieldsOf(columns));
        for (const auto& [key, values] : actual) add(captured, key, values);
    }
    EXPECT_EQ(theirs.size(), ours.size()) << "messages tshark does not see as mDNS";
    EXPECT_NE(captured["dns.srv.port"].find("4242"), npos) << "no SRV record of the service captured";
    EXPECT_NE(captured["dns.txt"].find("model=kd 10"), npos) << "no TXT record of the service captured";
    EXPECT_FALSE(captured["dns.aaaa"].empty()) << "no AAAA record was captured";
    fs::remove_all(dir);
}
