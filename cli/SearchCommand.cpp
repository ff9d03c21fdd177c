// wireloom search FILE WORDS [--exclude WORDS] [--interactive] [--flows] [--http] [--mdns]
//                 [--format tree|json|oneline] [--color auto|always|never]
//
// Every source the file holds (frames, mDNS messages, or flows and HTTP exchanges) is
// indexed once; then each set of words, from the command line or one line
// at a time from standard input, shows the sources it lets through.
#include "Commands.hpp"
#include "ReplayPrinters.hpp"
#include "SourceFilter.hpp"

#include <Wireloom/Wireloom.hpp>

#include <unistd.h>

#include <cctype>
#include <iostream>
#include <optional>

namespace wireloom::cli {

namespace {

struct SearchOptions {
    std::string path;
    FilterWords words;
    bool wordsGiven = false;
    bool interactive = false;
    bool flows = false;
    bool http = false;
    bool mdns = false;
    Format format = Format::Tree;
    ColorMode color = ColorMode::Auto;
};

std::optional<SearchOptions> parseSearchOptions(const std::vector<std::string>& args, std::FILE* err) {
    SearchOptions options;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "--format" || arg == "--color") {
            const std::string* value = optionValue(args, i, err);
            if (!value || !parseOutputOption(arg, *value, false, options.format, options.color, err))
                return std::nullopt;
        } else if (bool failed = false; parseFilterOption(args, i, options.words, &failed, err)) {
            if (failed) return std::nullopt;
            options.wordsGiven |= arg == "--filter";
        } else if (arg == "--interactive" || arg == "--flows" || arg == "--http" || arg == "--mdns") {
            (arg == "--interactive" ? options.interactive
             : arg == "--flows"     ? options.flows
             : arg == "--http"      ? options.http
                                    : options.mdns) = true;
        } else if (arg.size() > 1 && arg[0] == '-') {
            std::fprintf(err, "wireloom: unknown option '%s'\n", arg.c_str());
            return std::nullopt;
        } else if (options.path.empty()) {
            options.path = arg;
        } else if (!options.wordsGiven) {
            options.words.inclusive = arg;
            options.wordsGiven = true;
        } else {
            std::fprintf(err, "wireloom: unexpected argument '%s'\n", arg.c_str());
            return std::nullopt;
        }
    }
    if (options.path.empty() || (!options.wordsGiven && !options.interactive)) {
        std::fprintf(err, "wireloom: search needs a capture file and words (or --interactive)\n");
        return std::nullopt;
    }
    if (!mdnsOptionFits(options.mdns, options.flows || options.http, err)) return std::nullopt;
    return options;
}

// "WORDS" or "WORDS --exclude WORDS"; "--exclude" counts only as a word of
// its own, so that a word such as "a--exclude" is searched for as it is.
FilterWords wordsOfLine(const std::string& line) {
    constexpr std::string_view kExclude = "--exclude";
    auto isSpace = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
    for (std::size_t at = line.find(kExclude); at != std::string::npos; at = line.find(kExclude, at + 1)) {
        const std::size_t end = at + kExclude.size();
        if ((at == 0 || isSpace(line[at - 1])) && (end == line.size() || isSpace(line[end])))
            return {line.substr(0, at), line.substr(end)};
    }
    return {line, ""};
}

}  // namespace

int searchCommand(const std::vector<std::string>& args, std::FILE* out, std::FILE* err) {
    std::optional<SearchOptions> options = parseSearchOptions(args, err);
    if (!options) {
        printUsage(err);
        return kExitUsage;
    }
    std::unique_ptr<PXCaptureFile> file = openCaptureFile(options->path, err);
    if (!file) return kExitFailure;

    const bool color = colorFor(options->color, out);
    ReplayPrinters printers(out, options->format, color);
    const std::unique_ptr<SourceFilter> filter = SourceFilter::search(file->linkLayerType());
    printers.setFilter(filter.get());
    std::string error;
    const bool complete = printers.replay(*file, options->flows, options->http, options->mdns, &error);
    if (!complete) std::fprintf(err, "wireloom: %s: %s\n", options->path.c_str(), error.c_str());
    filter->indexOffered();

    const auto search = [&](const FilterWords& words) {
        const std::size_t shown = filter->showMatching(words);
        std::fprintf(err, "wireloom: %zu of %zu sources\n", shown, filter->sourceCount());
    };
    if (options->wordsGiven || !options->interactive) search(options->words);
    if (options->interactive) {
        const bool prompt = isatty(STDIN_FILENO) && isatty(STDERR_FILENO);
        std::string line;
        for (;;) {
            if (prompt) std::fputs("search> ", err), std::fflush(err);
            if (!std::getline(std::cin, line)) break;
            search(wordsOfLine(line));
        }
    }
    return complete ? 0 : kExitFailure;
}

}  // namespace wireloom::cli
