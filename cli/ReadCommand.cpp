// wireloom read FILE [--format tree|json|oneline|none] [--color auto|always|never]
#include "Commands.hpp"
#include "EntryOutput.hpp"

#include <Wireloom/Wireloom.hpp>

#include <pcap/pcap.h>
#include <unistd.h>

#include <map>
#include <optional>

namespace wireloom::cli {

namespace {

enum class Format { Tree, Json, OneLine, None };
enum class ColorMode { Auto, Always, Never };

struct ReadOptions {
    std::string path;
    Format format = Format::Tree;
    ColorMode color = ColorMode::Auto;
};

// The value after an option, or nothing (with a message) when it is missing.
const std::string* optionValue(const std::vector<std::string>& args, std::size_t& i, std::FILE* err) {
    if (i + 1 == args.size()) {
        std::fprintf(err, "wireloom: %s needs a value\n", args[i].c_str());
        return nullptr;
    }
    return &args[++i];
}

std::optional<ReadOptions> parseReadOptions(const std::vector<std::string>& args, std::FILE* err) {
    ReadOptions options;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "--format") {
            const std::string* value = optionValue(args, i, err);
            if (!value) return std::nullopt;
            if (*value == "tree")
                options.format = Format::Tree;
            else if (*value == "json")
                options.format = Format::Json;
            else if (*value == "oneline")
                options.format = Format::OneLine;
            else if (*value == "none")
                options.format = Format::None;
            else {
                std::fprintf(err, "wireloom: unknown format '%s'\n", value->c_str());
                return std::nullopt;
            }
        } else if (arg == "--color") {
            const std::string* value = optionValue(args, i, err);
            if (!value) return std::nullopt;
            if (*value == "auto")
                options.color = ColorMode::Auto;
            else if (*value == "always")
                options.color = ColorMode::Always;
            else if (*value == "never")
                options.color = ColorMode::Never;
            else {
                std::fprintf(err, "wireloom: unknown colour mode '%s'\n", value->c_str());
                return std::nullopt;
            }
        } else if (arg.size() > 1 && arg[0] == '-') {
            std::fprintf(err, "wireloom: unknown option '%s'\n", arg.c_str());
            return std::nullopt;
        } else if (options.path.empty()) {
            options.path = arg;
        } else {
            std::fprintf(err, "wireloom: unexpected argument '%s'\n", arg.c_str());
            return std::nullopt;
        }
    }
    if (options.path.empty()) {
        std::fprintf(err, "wireloom: read needs a capture file\n");
        return std::nullopt;
    }
    return options;
}

// Frame number, capture time, then each decoded layer from the outermost in.
void printOneLine(std::FILE* out, std::uint64_t number, const PXPacket& innermost) {
    std::vector<const PXPacket*> layers;
    for (const PXPacket* p = &innermost; p->encapsulatingPacket(); p = p->encapsulatingPacket().get())
        layers.push_back(p);
    std::fprintf(out, "%llu %.6f", static_cast<unsigned long long>(number), innermost.timestamp());
    if (layers.empty()) {
        std::fprintf(out, " %s (%zu bytes, no layer decoded)\n", innermost.description().c_str(),
                     innermost.rawData().size());
        return;
    }
    for (auto it = layers.rbegin(); it != layers.rend(); ++it)
        std::fprintf(out, "%s %s", it == layers.rbegin() ? "" : " |", (*it)->description().c_str());
    std::fputc('\n', out);
}

// Each layer's entry, outermost first, then a blank line between frames.
// Written out a megabyte at a time.
void printTree(std::FILE* out, std::uint64_t number, const PXPacket& innermost, bool color, TextBuffer& buffer) {
    if (number > 1) buffer.append('\n');
    for (const auto& entry : layerEntries(innermost)) appendEntryText(buffer, *entry, color);
    if (buffer.size() >= (1u << 20)) buffer.flush(out);
}

// {"frame": N, "timestamp": T, "layers": [...]} on one line.
void printJSON(std::FILE* out, std::uint64_t number, const PXPacket& innermost) {
    nlohmann::json layers = nlohmann::json::array();
    for (const auto& entry : layerEntries(innermost)) layers.push_back(entryJSON(*entry));
    nlohmann::json frame = {{"frame", number}, {"timestamp", innermost.timestamp()}, {"layers", std::move(layers)}};
    std::string line = frame.dump();
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), out);
}

}  // namespace

int readCommand(const std::vector<std::string>& args, std::FILE* out, std::FILE* err) {
    std::optional<ReadOptions> options = parseReadOptions(args, err);
    if (!options) {
        printUsage(err);
        return kExitUsage;
    }

    std::string error;
    std::unique_ptr<PXCaptureFile> file = PXCaptureFile::open(options->path, &error);
    if (!file) {
        std::fprintf(err, "wireloom: %s: %s\n", options->path.c_str(), error.c_str());
        return kExitFailure;
    }

    const bool color = options->color == ColorMode::Always ||
                       (options->color == ColorMode::Auto && out == stdout && isatty(STDOUT_FILENO));
    TextBuffer buffer;
    std::uint64_t frames = 0;
    // Frames whose chain reaches each layer class, by registry position.
    std::map<int, std::uint64_t> framesPerClass;
    while (PXPacketPtr packet = file->nextPacket(&error)) {
        ++frames;
        if (options->format == Format::Tree) {
            printTree(out, frames, *packet, color, buffer);
        } else if (options->format == Format::Json) {
            printJSON(out, frames, *packet);
        } else if (options->format == Format::OneLine) {
            printOneLine(out, frames, *packet);
        } else {
            for (const PXPacket* p = packet.get(); p->encapsulatingPacket(); p = p->encapsulatingPacket().get())
                ++framesPerClass[p->packetClass().registryIndex()];
        }
    }

    buffer.flush(out);
    if (options->format == Format::None) {
        std::fprintf(out, "frames read: %llu\n", static_cast<unsigned long long>(frames));
        for (const PacketClass& cls : PXPacket::packetClasses()) {
            auto found = framesPerClass.find(cls.registryIndex());
            std::string name(cls.name());
            std::fprintf(out, "%s: %llu\n", name.c_str(),
                         static_cast<unsigned long long>(found == framesPerClass.end() ? 0 : found->second));
        }
    }
    std::fflush(out);
    if (!error.empty()) {
        std::fprintf(err, "wireloom: %s: %s\n", options->path.c_str(), error.c_str());
        return kExitFailure;
    }
    return 0;
}

}  // namespace wireloom::cli
