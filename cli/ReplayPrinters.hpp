#pragma once
// The printers the commands show captured traffic through: its frames (or
// mDNS messages), or its flows and HTTP exchanges; `read` and `search`
// replay a file through them.

#include "FlowReport.hpp"
#include "FramePrinter.hpp"
#include "HttpReport.hpp"
#include "MdnsReport.hpp"

#include <Wireloom/Wireloom.hpp>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>

namespace wireloom::cli {

class SourceFilter;

struct ReplayPrinters {
    ReplayPrinters(std::FILE* out, Format format, bool color)
        : frames(out, format, color),
          mdns(out, format, color),
          flows(out, format, color),
          http(std::make_shared<HttpPrinter>(out, format, color)) {}

    // Every printer offers what it would print to the filter instead.
    void setFilter(SourceFilter* filter);

    // Replays the file through the printers the options ask for: frames (or
    // mDNS messages) unless flows or exchanges are asked for. Flows still
    // open and exchanges still pending at its end are shown then. False,
    // with *error, when the file ended early.
    bool replay(PXCaptureFile& file, bool showFlows, bool showHttp, bool showMdns, std::string* error,
                const std::function<void(std::uint64_t frames, std::uint64_t bytes)>& progress = {});

    FramePrinter frames;
    MdnsPrinter mdns;
    FlowPrinter flows;
    std::shared_ptr<HttpPrinter> http;
};

}  // namespace wireloom::cli
