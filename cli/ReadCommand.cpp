// wireloom read FILE [--flows] [--http] [--mdns] [--format tree|json|oneline|none] [--color auto|always|never]
//                    [--filter WORDS] [--exclude WORDS]
//
// The file goes through the same pipeline as a live capture: a capture
// without a device announces each record, its clock set to the record's time.
#include "Commands.hpp"
#include "ReplayPrinters.hpp"
#include "SourceFilter.hpp"

#include <Wireloom/Wireloom.hpp>

#include <sys/stat.h>
#include <unistd.h>

#include <optional>

namespace wireloom::cli {

namespace {

struct ReadOptions {
    std::string path;
    Format format = Format::Tree;
    ColorMode color = ColorMode::Auto;
    bool flows = false;
    bool http = false;
    bool mdns = false;
    FilterWords words;
};

std::optional<ReadOptions> parseReadOptions(const std::vector<std::string>& args, std::FILE* err) {
    ReadOptions options;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "--format" || arg == "--color") {
            const std::string* value = optionValue(args, i, err);
            if (!value || !parseOutputOption(arg, *value, true, options.format, options.color, err))
                return std::nullopt;
        } else if (arg == "--flows") {
            options.flows = true;
        } else if (arg == "--http") {
            options.http = true;
        } else if (arg == "--mdns") {
            options.mdns = true;
        } else if (bool failed = false; parseFilterOption(args, i, options.words, &failed, err)) {
            if (failed) return std::nullopt;
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
    if (!mdnsOptionFits(options.mdns, options.flows || options.http, err)) return std::nullopt;
    return options;
}

// A bar on a terminal's standard error for files large enough to wait for;
// the records' bytes against the file's size.
class ProgressBar {
public:
    ProgressBar(const std::string& path, std::FILE* err) : err_(err) {
        struct stat info {};
        if (err == stderr && isatty(STDERR_FILENO) && stat(path.c_str(), &info) == 0 && info.st_size > (64 << 20))
            fileBytes_ = static_cast<double>(info.st_size);
    }
    void show(std::uint64_t bytes) {
        if (fileBytes_ == 0) return;
        const int percent = static_cast<int>(100.0 * static_cast<double>(bytes) / fileBytes_);
        if (percent == shown_ || percent > 100) return;
        shown_ = percent;
        std::fprintf(err_, "\r[%-50s] %3d%%", std::string(static_cast<std::size_t>(percent / 2), '#').c_str(), percent);
        std::fflush(err_);
    }
    ~ProgressBar() {
        if (shown_ >= 0) std::fprintf(err_, "\r%72s\r", "");
    }

private:
    std::FILE* err_;
    double fileBytes_ = 0;
    int shown_ = -1;
};

}  // namespace

int readCommand(const std::vector<std::string>& args, std::FILE* out, std::FILE* err) {
    std::optional<ReadOptions> options = parseReadOptions(args, err);
    if (!options) {
        printUsage(err);
        return kExitUsage;
    }

    std::unique_ptr<PXCaptureFile> file = openCaptureFile(options->path, err);
    if (!file) return kExitFailure;
    std::string error;

    const bool color = colorFor(options->color, out);
    ReplayPrinters printers(out, options->format, color);
    const auto filter = filterPrinters(options->words, printers);
    ProgressBar progress(options->path, err);
    const bool complete = printers.replay(*file, options->flows, options->http, options->mdns, &error,
                                          [&](std::uint64_t, std::uint64_t bytes) { progress.show(bytes); });
    if (options->mdns)
        printers.mdns.finish();
    else if (!options->flows && !options->http)
        printers.frames.finish();
    if (!complete) {
        std::fprintf(err, "wireloom: %s: %s\n", options->path.c_str(), error.c_str());
        return kExitFailure;
    }
    return 0;
}

}  // namespace wireloom::cli
