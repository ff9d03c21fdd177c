#pragma once
// How `read` and `capture` print each announced frame: as report-entry trees,
// JSON lines or one-line summaries, or not at all while counting the layers
// for a closing summary.

#include "TextBuffer.hpp"

#include <Wireloom/Wireloom.hpp>

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace wireloom::cli {

enum class Format { Tree, Json, OneLine, None };
enum class ColorMode { Auto, Always, Never };

// The value after args[i], moving i past it; null, with a message, when it
// is missing.
const std::string* optionValue(const std::vector<std::string>& args, std::size_t& i, std::FILE* err);
// "tree", "json", "oneline" or, where allowed, "none"; nothing, with a
// message, for anything else.
std::optional<Format> parseFormat(const std::string& word, bool allowNone, std::FILE* err);
std::optional<ColorMode> parseColorMode(const std::string& word, std::FILE* err);
// --format or --color (`option`) set from `value`; false, with a message,
// for a value neither knows.
bool parseOutputOption(const std::string& option, const std::string& value, bool allowNone, Format& format,
                       ColorMode& color, std::FILE* err);
// The capture file at `path`; null, with the message on `err`, when it
// cannot be read.
std::unique_ptr<PXCaptureFile> openCaptureFile(const std::string& path, std::FILE* err);
// --mdns picks frames, while --flows and --http replace them: false, with a
// message, when they are given together.
bool mdnsOptionFits(bool mdns, bool flowsOrHttp, std::FILE* err);
// Whether tree output to `out` is coloured.
bool colorFor(ColorMode mode, std::FILE* out);

class SourceFilter;

class FramePrinter {
public:
    FramePrinter(std::FILE* out, Format format, bool color) : out_(out), format_(format), color_(color) {}

    // With a filter, frames are offered to it, which prints those it shows.
    void setFilter(SourceFilter* filter);
    // The next frame, numbered from 1.
    void print(const PXPacket& innermost);
    // Counts a frame that is not shown, so that the next keeps its number.
    void skip() noexcept { ++frames_; }
    // Prints a frame, whatever a filter would say.
    void show(const PXPacket& innermost, std::uint64_t number);
    // Writes out what is buffered and, for Format::None, the summary.
    void finish();
    std::uint64_t frames() const noexcept { return frames_; }

private:
    std::FILE* out_;
    Format format_;
    bool color_;
    std::uint64_t frames_ = 0;
    std::uint64_t shown_ = 0;
    SourceFilter* filter_ = nullptr;
    void flushLines();

    TextBuffer buffer_;  // trees
    std::string lines_;  // one-line summaries
    // Frames whose chain reaches each layer class, by registry position.
    std::map<int, std::uint64_t> framesPerClass_;
};

}  // namespace wireloom::cli
