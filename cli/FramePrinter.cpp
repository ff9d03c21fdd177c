#include "FramePrinter.hpp"
#include "EntryOutput.hpp"
#include "SourceFilter.hpp"

#include <Wireloom/core/detail/NumberText.hpp>
#include <Wireloom/core/detail/TextWriter.hpp>

#include <unistd.h>

namespace wireloom::cli {

const std::string* optionValue(const std::vector<std::string>& args, std::size_t& i, std::FILE* err) {
    if (i + 1 == args.size()) {
        std::fprintf(err, "wireloom: %s needs a value\n", args[i].c_str());
        return nullptr;
    }
    return &args[++i];
}

std::optional<Format> parseFormat(const std::string& word, bool allowNone, std::FILE* err) {
    if (word == "tree") return Format::Tree;
    if (word == "json") return Format::Json;
    if (word == "oneline") return Format::OneLine;
    if (word == "none" && allowNone) return Format::None;
    std::fprintf(err, "wireloom: unknown format '%s'\n", word.c_str());
    return std::nullopt;
}

std::optional<ColorMode> parseColorMode(const std::string& word, std::FILE* err) {
    if (word == "auto") return ColorMode::Auto;
    if (word == "always") return ColorMode::Always;
    if (word == "never") return ColorMode::Never;
    std::fprintf(err, "wireloom: unknown colour mode '%s'\n", word.c_str());
    return std::nullopt;
}

bool parseOutputOption(const std::string& option, const std::string& value, bool allowNone, Format& format,
                       ColorMode& color, std::FILE* err) {
    if (option == "--format") {
        const std::optional<Format> parsed = parseFormat(value, allowNone, err);
        if (parsed) format = *parsed;
        return parsed.has_value();
    }
    const std::optional<ColorMode> parsed = parseColorMode(value, err);
    if (parsed) color = *parsed;
    return parsed.has_value();
}

bool mdnsOptionFits(bool mdns, bool flowsOrHttp, std::FILE* err) {
    if (mdns && flowsOrHttp) std::fprintf(err, "wireloom: --mdns cannot be combined with --flows or --http\n");
    return !(mdns && flowsOrHttp);
}

bool colorFor(ColorMode mode, std::FILE* out) {
    return mode == ColorMode::Always || (mode == ColorMode::Auto && out == stdout && isatty(STDOUT_FILENO));
}

namespace {

// Frame number, capture time, then each decoded layer from the outermost
// in, appended to `line`.
void appendOneLine(std::string& line, std::uint64_t number, const PXPacket& innermost) {
    detail::TextWriter writer(line);
    char timestamp[detail::kNumberTextCapacity];
    std::string overflow;
    writer << detail::Decimal{number} << ' ' << detail::fixedText(timestamp, innermost.timestamp(), overflow);
    const PXPacket* layers[PXPacket::kMaxDecodeDepth + 1];
    std::size_t count = 0;
    for (const PXPacket* p = &innermost; p->encapsulatingLayer() && count < std::size(layers);
         p = p->encapsulatingLayer())
        layers[count++] = p;
    if (count == 0) {
        writer << ' ';
        innermost.appendDescription(line);
        writer << " (" << detail::Decimal{innermost.rawData().size()} << " bytes, no layer decoded)";
    }
    for (std::size_t i = count; i-- > 0;) {
        writer << (i + 1 == count ? " " : " | ");
        layers[i]->appendDescription(line);
    }
    writer << '\n';
}

// {"frame": N, "layers": [...], "timestamp": T} on one line, keys in the
// order nlohmann sorts them into.
void appendJSONLine(std::string& line, std::uint64_t number, const PXPacket& innermost) {
    line += "{\"frame\":";
    line += std::to_string(number);
    line += ",\"layers\":[";
    bool first = true;
    for (const auto& entry : layerEntries(innermost)) {
        if (!first) line += ',';
        first = false;
        appendEntryJSON(line, *entry);
    }
    // nlohmann's shortest form of the number, as every other JSON line has it.
    line += "],\"timestamp\":";
    line += nlohmann::json(innermost.timestamp()).dump();
    line += "}\n";
}

}  // namespace

std::unique_ptr<PXCaptureFile> openCaptureFile(const std::string& path, std::FILE* err) {
    std::string error;
    std::unique_ptr<PXCaptureFile> file = PXCaptureFile::open(path, &error);
    if (!file) std::fprintf(err, "wireloom: %s: %s\n", path.c_str(), error.c_str());
    return file;
}

void FramePrinter::setFilter(SourceFilter* filter) {
    filter_ = filter;
    if (filter)
        filter->addFlush([this] {
            buffer_.flush(out_);
            flushLines();
            std::fflush(out_);
        });
}

void FramePrinter::print(const PXPacket& innermost) {
    ++frames_;
    if (!filter_) return show(innermost, frames_);
    filter_->offer(frameSource(filter_->keep(innermost), frames_,
                               [this, number = frames_](const PXPacket& packet) { show(packet, number); }));
}

void FramePrinter::show(const PXPacket& innermost, std::uint64_t number) {
    ++shown_;
    switch (format_) {
    case Format::Tree:
        // Each layer's entry, outermost first, a blank line between frames;
        // written out a megabyte at a time.
        if (shown_ > 1) buffer_.append('\n');
        for (const auto& entry : layerEntries(innermost)) appendEntryText(buffer_, *entry, color_);
        if (buffer_.size() >= (1u << 20)) buffer_.flush(out_);
        break;
    case Format::Json:
        appendJSONLine(lines_, number, innermost);
        if (lines_.size() >= (1u << 20)) flushLines();
        break;
    case Format::OneLine:
        // Written straight into the output block, which goes out a megabyte at a time.
        appendOneLine(lines_, number, innermost);
        if (lines_.size() >= (1u << 20)) flushLines();
        break;
    case Format::None:
        for (const PXPacket* p = &innermost; p->encapsulatingLayer(); p = p->encapsulatingLayer())
            ++framesPerClass_[p->packetClass().registryIndex()];
        break;
    }
}

void FramePrinter::flushLines() {
    std::fwrite(lines_.data(), 1, lines_.size(), out_);
    lines_.clear();
}

void FramePrinter::finish() {
    buffer_.flush(out_);
    flushLines();
    if (format_ == Format::None) {
        std::fprintf(out_, "frames read: %llu\n", static_cast<unsigned long long>(frames_));
        if (filter_) std::fprintf(out_, "frames shown: %llu\n", static_cast<unsigned long long>(shown_));
        for (const PacketClass& cls : PXPacket::packetClasses()) {
            auto found = framesPerClass_.find(cls.registryIndex());
            std::string name(cls.name());
            std::fprintf(out_, "%s: %llu\n", name.c_str(),
                         static_cast<unsigned long long>(found == framesPerClass_.end() ? 0 : found->second));
        }
    }
    std::fflush(out_);
}

}  // namespace wireloom::cli
