#pragma once
// The machinery the TCP and UDP flow tables share: naming a packet's flow,
// filing flows under their keys, and announcing them.
//
// A flow's key is text ("10.0.0.10:80-10.0.0.9:5000"), and building it means
// formatting two addresses per packet. The directory remembers, for each
// address-and-port pair seen as binary header bytes, the key and side that
// text gave, so a packet of a known conversation costs two hash look-ups.
// (Binary pairs cannot be keys themselves: distinct IPv6 addresses can share
// one text, and the text decides which flow a packet joins.)

#include <Wireloom/capture/PXNetworkCapture.hpp>
#include <Wireloom/capture/PXTimer.hpp>
#include <Wireloom/core/Assert.hpp>
#include <Wireloom/core/NotificationCenter.hpp>
#include <Wireloom/core/Object.hpp>
#include <Wireloom/packets/PXPacket.hpp>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace wireloom::detail {

// A packet's addresses (from its IPv6 layer, else its IPv4 layer) and ports
// as header bytes, in the direction it travels.
struct PacketPath {
    std::array<std::uint8_t, 36> bytes{};  // source, destination (16 each), ports
    std::uint8_t family = 0;               // 4 or 6
    friend bool operator==(const PacketPath&, const PacketPath&) = default;
};
struct PacketPathHash {
    // Every packet is routed through this, so a few multiplications over
    // whole words rather than the general byte hash: the table's prime
    // bucket count asks for mixed bits, not for a strong hash.
    std::size_t operator()(const PacketPath& path) const noexcept {
        constexpr std::uint64_t kMultiplier = 0x9E3779B97F4A7C15u;
        std::uint64_t hash = path.family;
        for (std::size_t offset = 0; offset < 32; offset += 8) {
            std::uint64_t word;
            std::memcpy(&word, path.bytes.data() + offset, 8);
            hash = (hash ^ word) * kMultiplier;
            hash ^= hash >> 29;
        }
        std::uint32_t ports;
        std::memcpy(&ports, path.bytes.data() + 32, 4);
        hash = (hash ^ ports) * kMultiplier;
        return static_cast<std::size_t>(hash ^ (hash >> 32));
    }
};
// False when the packet has no IP layer.
bool packetPathOf(const PXPacket& packet, std::uint16_t sourcePort, std::uint16_t destPort, PacketPath* path);

// Which flow a packet belongs to and which of its endpoints sent it.
struct FlowSides {
    std::string key;
    std::string address[2];
    std::string endpoint[2];
    std::uint16_t port[2] = {};
    bool sourceIsZero = true;
};
// From the addresses' text; nothing when the packet has no IP layer.
std::optional<FlowSides> flowSidesOf(const PXPacket& packet, std::uint16_t sourcePort, std::uint16_t destPort);

struct StringHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>()(text); }
};

// Has the table observe the capture's notification of that name and poll its
// flows every five seconds of capture time; returns the poll timer. Both hold
// the table weakly, so a table that was never invalidated can still go.
template <class FlowTable>
PXTimerPtr attachToCapture(const std::shared_ptr<FlowTable>& table, const PXNetworkCapture& capture,
                           const char* notificationName) {
    const std::weak_ptr<FlowTable> weak = table;
    NotificationCenter::defaultCenter().addObserver(
        table.get(), notificationName,
        [weak](const Notification& notification) {
            if (auto self = weak.lock()) self->observePacketNotification(notification);
        },
        &capture);
    return capture.timeManager()->scheduledTimerWithTimeInterval(
        5,
        [weak] {
            if (auto self = weak.lock()) self->pollFlows();
        },
        true);
}

template <class Flow>
class FlowDirectory {
public:
    using FlowPtr = std::shared_ptr<Flow>;
    using Table = std::unordered_map<std::string, FlowPtr, StringHash, std::equal_to<>>;

    FlowDirectory(const char* detectedName, const char* endedName)
        : detectedName_(detectedName), endedName_(endedName) {}

    const Table& table() const noexcept { return table_; }
    std::vector<FlowPtr> flows() const {
        std::vector<FlowPtr> flows;
        flows.reserve(table_.size());
        for (const auto& entry : table_) flows.push_back(entry.second);
        return flows;
    }
    FlowPtr flowForKey(std::string_view key) const {
        auto found = table_.find(key);
        return found == table_.end() ? nullptr : found->second;
    }

    // The flow a packet travelling along `path` belongs to, with the side
    // that sent it; null when there is none. *sides is filled when the key
    // had to be worked out from text, so that a caller creating the flow
    // need not do it again.
    FlowPtr route(const PXPacket& packet, const PacketPath& path, std::uint16_t sourcePort, std::uint16_t destPort,
                  bool* sourceIsZero, std::optional<FlowSides>* sides) {
        auto known = paths_.find(path);
        if (known == paths_.end()) {
            *sides = flowSidesOf(packet, sourcePort, destPort);
            if (!*sides) return nullptr;
            // A capture of many short conversations would grow this without
            // end; starting over costs each live pair one text key again.
            if (paths_.size() > 2 * table_.size() + kSpareRoutes) paths_.clear();
            known = paths_.emplace(path, Route{(*sides)->key, nullptr, 0, (*sides)->sourceIsZero}).first;
        }
        Route& route = known->second;
        *sourceIsZero = route.sourceIsZero;
        if (route.generation != generation_) {
            auto found = table_.find(route.key);
            route.flow = found == table_.end() ? nullptr : &found->second;
            route.generation = generation_;
        }
        return route.flow ? *route.flow : nullptr;
    }

    void addFlow(const ObjectPtr& sender, const FlowPtr& flow, const std::string& key) {
        WL_ASSERT(!table_.contains(key), "This must never be called if there's already a flow with this key");
        flow->setKey(key);
        table_.emplace(key, flow);
        tableChanged();
        NotificationCenter::defaultCenter().postNotification(detectedName_, sender, {{"flow", flow}});
    }

    void removeFlowWithKey(const ObjectPtr& sender, std::string_view key, const std::string* error) {
        auto found = table_.find(key);
        WL_ASSERT(found != table_.end(), "Must always have a flow for this key");
        const FlowPtr flow = found->second;
        const std::string ownKey(key);  // `key` may be the flow's own, and go with it
        NotificationCenter::defaultCenter().postNotification(
            endedName_, sender, {{"flow", flow}, {"reason", error ? *error : std::string("Flow is no longer active")}});
        // An observer may have removed it already, or filed another.
        found = table_.find(ownKey);
        if (found != table_.end() && found->second == flow) {
            table_.erase(found);
            tableChanged();
        }
    }

    // Over a copy of the keys, sorted so that the announcements come in an
    // order that does not depend on hashing.
    template <class Visit>
    void forEachKey(Visit visit) const {
        std::vector<std::string> keys;
        keys.reserve(table_.size());
        for (const auto& entry : table_) keys.push_back(entry.first);
        std::sort(keys.begin(), keys.end());
        for (const std::string& key : keys) visit(key);
    }

    void pollFlows(const ObjectPtr& sender) {
        forEachKey([&](const std::string& key) {
            if (FlowPtr flow = flowForKey(key); flow && !flow->isAlive()) removeFlowWithKey(sender, key, nullptr);
        });
    }

    void removeAll(const ObjectPtr& sender) {
        forEachKey([&](const std::string& key) {
            if (table_.contains(key)) removeFlowWithKey(sender, key, nullptr);
        });
        table_.clear();
        paths_.clear();
        tableChanged();
    }

private:
    static constexpr std::size_t kSpareRoutes = 4096;
    struct Route {
        std::string key;
        // Where the table held the key's flow (null: no flow) when it was at
        // `generation`: until a flow is filed or removed, a look-up of the
        // key finds the same, and the node holding it stays put. (32 bits,
        // so that an idle flow's route is no larger than the key alone made
        // it.)
        const FlowPtr* flow;
        std::uint32_t generation;
        bool sourceIsZero;
    };

    void tableChanged() noexcept {
        if (++generation_ != 0) return;
        // Wrapped: a route last looked up 2^32 changes ago must not pass.
        for (auto& entry : paths_) entry.second.generation = 0;
        generation_ = 1;
    }

    const char* detectedName_;
    const char* endedName_;
    Table table_;
    // Counts the flows filed and removed; never 0, so a new route looks up.
    std::uint32_t generation_ = 1;
    std::unordered_map<PacketPath, Route, PacketPathHash> paths_;
};

}  // namespace wireloom::detail
