// wireloom follow FILE KEY [--direction 0|1]
//
// The reassembled bytes of one TCP flow of a capture file, found by the key
// the flow table files it under. The first flow with that key is followed;
// a key that comes back later (a port reused) is a new flow and is left out.
#include "Commands.hpp"
#include "FramePrinter.hpp"

#include <Wireloom/Wireloom.hpp>

#include <cinttypes>
#include <optional>
#include <set>

namespace wireloom::cli {

namespace {

struct FollowOptions {
    std::string path;
    std::string key;
    int direction = -1;  // -1: both, interleaved
};

std::optional<FollowOptions> parseFollowOptions(const std::vector<std::string>& args, std::FILE* err) {
    FollowOptions options;
    std::vector<std::string> words;
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--direction") {
            if (i + 1 == args.size() || (args[i + 1] != "0" && args[i + 1] != "1")) {
                std::fprintf(err, "wireloom: --direction takes 0 or 1\n");
                return std::nullopt;
            }
            options.direction = args[++i][0] - '0';
        } else if (args[i].size() > 1 && args[i][0] == '-') {
            std::fprintf(err, "wireloom: unknown option '%s'\n", args[i].c_str());
            return std::nullopt;
        } else {
            words.push_back(args[i]);
        }
    }
    if (words.size() != 2) {
        std::fprintf(err, "wireloom: follow needs a capture file and a flow key\n");
        return std::nullopt;
    }
    options.path = words[0];
    options.key = words[1];
    return options;
}

// "<n> keys: a, b, c" with at most a screenful of them.
std::string keyList(const std::set<std::string>& keys) {
    constexpr std::size_t kShown = 20;
    std::string text;
    std::size_t shown = 0;
    for (const std::string& key : keys) {
        if (shown == kShown) {
            text += ", ... and " + std::to_string(keys.size() - kShown) + " more";
            break;
        }
        text += (shown++ ? ", " : "") + key;
    }
    return text;
}

}  // namespace

int followCommand(const std::vector<std::string>& args, std::FILE* out, std::FILE* err) {
    std::optional<FollowOptions> options = parseFollowOptions(args, err);
    if (!options) {
        printUsage(err);
        return kExitUsage;
    }
    std::unique_ptr<PXCaptureFile> file = openCaptureFile(options->path, err);
    if (!file) return kExitFailure;
    std::string error;

    const PXNetworkCapture::Ptr capture = PXNetworkCapture::captureWithNullDevice();
    const PXTCPFlowTable::Ptr table = PXTCPFlowTable::initWithCapture(capture);
    NotificationCenter& center = NotificationCenter::defaultCenter();
    std::set<std::string> keys;
    PXTCPFlow::Ptr followed;
    bool writeFailed = false;

    const auto chunk = [&](const Notification& notification) {
        const ByteBuffer* bytes = notification.userInfo.at("chunk").bytes();
        const std::string* from = notification.userInfo.at("identifier").string();
        if (!bytes || !from || writeFailed) return;
        const int side = *from == followed->endpoint0() ? 0 : 1;
        if (options->direction >= 0 && side != options->direction) return;
        if (options->direction < 0) {
            // The header gives the length, so a reader can cut the bytes out
            // exactly; the newline after them is for the eye.
            std::fprintf(out, "==> %s -> %s (endpoint %d), %zu bytes at %.6f\n", from->c_str(),
                         (side == 0 ? followed->endpoint1() : followed->endpoint0()).c_str(), side, bytes->size(),
                         capture->timeManager()->currentTime());
        }
        writeFailed = std::fwrite(bytes->data(), 1, bytes->size(), out) != bytes->size();
        if (options->direction < 0) std::fputc('\n', out);
    };
    center.addObserver(
        &keys, kPXTCPFlowDetectedNotificationName,
        [&](const Notification& notification) {
            auto flow = notification.userInfo.at("flow").object<PXTCPFlow>();
            if (!flow) return;
            keys.insert(flow->key());
            if (followed || flow->key() != options->key) return;
            followed = flow;
            center.addObserver(&keys, kPXTCPFlowStreamChunkNotificationName, chunk, flow.get());
        },
        table.get());

    const bool complete = capture->replayCaptureFile(*file, &error);
    table->invalidate();
    center.removeObserver(&keys);
    if (std::fflush(out) != 0) writeFailed = true;

    if (!complete) {
        std::fprintf(err, "wireloom: %s: %s\n", options->path.c_str(), error.c_str());
        return kExitFailure;
    }
    if (writeFailed) {
        std::fprintf(err, "wireloom: could not write the stream\n");
        return kExitFailure;
    }
    if (!followed) {
        if (keys.empty())
            std::fprintf(err, "wireloom: no TCP flow %s in %s: it holds no TCP flow opened in the capture\n",
                         options->key.c_str(), options->path.c_str());
        else
            std::fprintf(err, "wireloom: no TCP flow %s in %s; its flows: %s\n", options->key.c_str(),
                         options->path.c_str(), keyList(keys).c_str());
        return kExitFailure;
    }
    return 0;
}

}  // namespace wireloom::cli
