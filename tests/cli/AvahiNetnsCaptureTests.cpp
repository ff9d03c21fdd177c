// wireloom on real mDNS: avahi-daemon publishing a service in one network
// namespace, browsed and resolved from another (avahi-in-netns.sh), captured
// with `wireloom capture -w`, and every message of the capture compared with
// tshark's reading of it. Needs root, ip, avahi, D-Bus and tshark; skips with
// the reason otherwise.
#include <gtest/gtest.h>
#include "support/Paths.hpp"
#include "support/Processes.hpp"

#include <Wireloom/packets/PXIPv6Packet.hpp>

#include <arpa/inet.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using nlohmann::json;
using wireloom::testing::have;
using wireloom::testing::output;

namespace {

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    if (text.empty()) return parts;
    std::stringstream in(text);
    for (std::string part; std::getline(in, part, separator);) parts.push_back(part);
    if (text.back() == separator) parts.emplace_back();
    return parts;
}

std::string joined(const std::vector<std::string>& parts) {
    std::string text;
    for (const std::string& part : parts) text += (text.empty() ? "" : "|") + part;
    return text;
}

// One frame as tshark's fields give it, each list in message order.
constexpr const char* kFields[] = {"frame.number",  "dns.qry.name",       "dns.qry.type",    "dns.resp.name",
                                   "dns.resp.type", "dns.resp.ttl",       "dns.srv.service", "dns.srv.proto",
                                   "dns.srv.name",  "dns.srv.port",       "dns.srv.target",  "dns.txt",
                                   "dns.aaaa",      "dns.ptr.domain_name"};
using Fields = std::map<std::string, std::vector<std::string>>;

// The same lists from wireloom's JSON line. tshark names an SRV record's
// owner in three fields (service, protocol, name) instead of dns.resp.name.
Fields fieldsOf(const json& message) {
    Fields f;
    for (const json& question : message["questions"]) {
        f["dns.qry.name"].push_back(question["name"]);
        f["dns.qry.type"].push_back(std::to_string(question["type"].get<int>()));
    }
    for (const char* section : {"answers", "authority", "additional"}) {
        for (const json& record : message[section]) {
            const std::string name = record["name"].is_null() ? "(none)" : record["name"].get<std::string>();
            f[record.contains("srv") ? "srv owner" : "dns.resp.name"].push_back(name);
            f["dns.resp.type"].push_back(std::to_string(record["type"].get<int>()));
            f["dns.resp.ttl"].push_back(std::to_string(record["ttl"].get<std::uint32_t>()));
            if (record.contains("srv")) {
                f["dns.srv.port"].push_back(std::to_string(record["srv"]["port"].get<int>()));
                f["dns.srv.target"].push_back(record["srv"]["target"]);
            }
            if (record.contains("txt"))
                for (const auto& [key, value] : record["txt"].items())
                    f["dns.txt"].push_back(key + "=" + (value.is_string() ? value.get<std::string>() : value.dump()));
            if (record.contains("aaaa")) f["dns.aaaa"].push_back(record["aaaa"]);
            if (record.contains("ptr")) f["dns.ptr.domain_name"].push_back(record["ptr"]);
        }
    }
    return f;
}

// tshark's lists made comparable: SRV owners put together, TXT strings as
// key=value (sorted, as wireloom's dictionary is), addresses in the
// library's own text.
Fields normalised(Fields f) {
    for (std::size_t i = 0; i < f["dns.srv.service"].size(); ++i)
        f["srv owner"].push_back(f["dns.srv.service"][i] + "." + f["dns.srv.proto"].at(i) + "." +
                                 f["dns.srv.name"].at(i));
    for (const char* split : {"dns.srv.service", "dns.srv.proto", "dns.srv.name", "frame.number"}) f.erase(split);
    for (std::string& text : f["dns.txt"])
        if (text.find('=') == std::string::npos) text += "=";
    std::sort(f["dns.txt"].begin(), f["dns.txt"].end());
    for (std::string& address : f["dns.aaaa"]) {
        std::uint8_t bytes[16];
        if (inet_pton(AF_INET6, address.c_str(), bytes) == 1)
            address = wireloom::PXIPv6Packet::stringFromIPv6Address(bytes);
    }
    return f;
}

}  // namespace

TEST(AvahiNetnsCapture, EveryMessageReadsAsTsharkReadsIt) {
    const fs::path wireloom = wireloom::testing::binaryDir() / "cli" / "wireloom";
    if (!fs::exists(wireloom)) GTEST_SKIP() << "the wireloom command was not built";
    if (!have("tshark")) GTEST_SKIP() << "tshark is not installed";
    const fs::path dir = fs::path(::testing::TempDir()) / ("avahi-" + std::to_string(getpid()));
    fs::create_directories(dir);
    const fs::path capture = dir / "mdns.pcap";
    const fs::path script = wireloom::testing::sourceDir() / "tests" / "cli" / "avahi-in-netns.sh";
    int status = -1;
    const std::string traffic = output(
        "bash " + script.string() + " " + wireloom.string() + " " + capture.string() + " 2>" + (dir / "why").string(),
        &status);
    if (status == 77) {
        std::ifstream why(dir / "why");
        GTEST_SKIP() << std::string(std::istreambuf_iterator<char>(why), {});
    }
    ASSERT_EQ(status, 0) << traffic;
    // The other side resolved the service: its port and TXT strings.
    EXPECT_NE(traffic.find(";4242;\"model=kd 10\" \"flag\" \"path=/x\""), std::string::npos) << traffic;

    std::map<int, json> ours;
    const std::string read = output(wireloom.string() + " read " + capture.string() + " --mdns --format json", &status);
    ASSERT_EQ(status, 0);
    for (const std::string& line : split(read, '\n'))
        if (!line.empty()) {
            json message = json::parse(line);
            const int frame = message["frame"].get<int>();
            ours[frame] = std::move(message);
        }

    std::string command =
        "tshark -r " + capture.string() +
        " -Y 'udp.srcport == 5353 && udp.dstport == 5353' -T fields -E separator=/t -E aggregator='|'";
    for (const char* field : kFields) command += std::string(" -e ") + field;
    const std::string theirs = output(command + " 2>/dev/null", &status);
    ASSERT_EQ(status, 0);
    std::size_t compared = 0, services = 0, addresses = 0;
    for (const std::string& line : split(theirs, '\n')) {
        if (line.empty()) continue;
        const std::vector<std::string> columns = split(line, '\t');
        ASSERT_EQ(columns.size(), std::size(kFields)) << line;
        Fields tshark;
        for (std::size_t i = 1; i < columns.size(); ++i)
            if (!columns[i].empty()) tshark[kFields[i]] = split(columns[i], '|');
        const int frame = std::stoi(columns[0]);
        ASSERT_TRUE(ours.count(frame)) << "frame " << frame << " is mDNS to tshark only";
        const Fields expected = normalised(tshark);
        Fields actual = fieldsOf(ours[frame]);
        std::sort(actual["dns.txt"].begin(), actual["dns.txt"].end());
        for (const char* key :
             {"dns.qry.name", "dns.qry.type", "dns.resp.name", "srv owner", "dns.resp.type", "dns.resp.ttl",
              "dns.srv.port", "dns.srv.target", "dns.txt", "dns.aaaa", "dns.ptr.domain_name"}) {
            auto value = [key](const Fields& f) { return f.count(key) ? joined(f.at(key)) : std::string(); };
            EXPECT_EQ(value(actual), value(expected)) << "frame " << frame << ", " << key;
        }
        services += joined(actual["dns.srv.port"]).find("4242") != std::string::npos;
        addresses += actual.count("dns.aaaa");
        ++compared;
    }
    EXPECT_EQ(compared, ours.size()) << "messages tshark does not see as mDNS";
    EXPECT_GT(services, 0u) << "no SRV record of the published service was captured";
    EXPECT_GT(addresses, 0u) << "no AAAA record was captured";
    fs::remove_all(dir);
}
