// wireloom capture [--flows] [--http] [--mdns] [-i IFACE] [-f FILTER] [-c COUNT] [--duration SECONDS] [-w OUT.pcap]
//                  [--format tree|oneline|json] [--color auto|always|never] [--filter WORDS] [--exclude WORDS]
// wireloom devices
#include "Commands.hpp"
#include "FlowReport.hpp"
#include "FramePrinter.hpp"
#include "HttpReport.hpp"
#include "MdnsReport.hpp"
#include "ReplayPrinters.hpp"
#include "SourceFilter.hpp"

#include <Wireloom/Wireloom.hpp>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <optional>

namespace wireloom::cli {

namespace {

struct CaptureOptions {
    std::string interface;
    std::string filter;
    std::uint64_t count = 0;  // 0: no limit
    double duration = 0;      // 0: no limit
    std::string outputPath;
    Format format = Format::OneLine;
    ColorMode color = ColorMode::Auto;
    bool flows = false;
    bool http = false;
    bool mdns = false;
    FilterWords words;
};

std::optional<double> positiveNumber(const std::string& text) {
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (end == text.c_str() || *end != '\0' || !(value > 0)) return std::nullopt;
    return value;
}

std::optional<CaptureOptions> parseCaptureOptions(const std::vector<std::string>& args, std::FILE* err) {
    CaptureOptions options;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "--flows" || arg == "--http" || arg == "--mdns") {
            (arg == "--flows" ? options.flows : arg == "--http" ? options.http : options.mdns) = true;
            continue;
        }
        if (bool failed = false; parseFilterOption(args, i, options.words, &failed, err)) {
            if (failed) return std::nullopt;
            continue;
        }
        const bool takesValue = arg == "-i" || arg == "-f" || arg == "-c" || arg == "--duration" || arg == "-w" ||
                                arg == "--format" || arg == "--color";
        if (!takesValue) {
            std::fprintf(err, "wireloom: %s '%s'\n", arg[0] == '-' ? "unknown option" : "unexpected argument",
                         arg.c_str());
            return std::nullopt;
        }
        const std::string* value = optionValue(args, i, err);
        if (!value) return std::nullopt;
        if (arg == "-i") {
            options.interface = *value;
        } else if (arg == "-f") {
            options.filter = *value;
        } else if (arg == "-w") {
            options.outputPath = *value;
        } else if (arg == "-c" || arg == "--duration") {
            const std::optional<double> number = positiveNumber(*value);
            // 2^64 and above do not convert to a count: asking whether the
            // conversion round-trips would itself be undefined for them.
            const bool wholeCount = number && *number < 18446744073709551616.0 &&
                                    *number == static_cast<double>(static_cast<std::uint64_t>(*number));
            if (!number || (arg == "-c" && !wholeCount)) {
                std::fprintf(err, "wireloom: %s needs a positive %s, not '%s'\n", arg.c_str(),
                             arg == "-c" ? "whole number" : "number", value->c_str());
                return std::nullopt;
            }
            if (arg == "-c")
                options.count = static_cast<std::uint64_t>(*number);
            else
                options.duration = *number;
        } else if (!parseOutputOption(arg, *value, true, options.format, options.color, err)) {
            return std::nullopt;
        }
    }
    if (!mdnsOptionFits(options.mdns, options.flows || options.http, err)) return std::nullopt;
    return options;
}

volatile std::sig_atomic_t gInterrupted = 0;

void onInterrupt(int) { gInterrupted = 1; }

}  // namespace

int captureCommand(const std::vector<std::string>& args, std::FILE* out, std::FILE* err) {
    std::optional<CaptureOptions> options = parseCaptureOptions(args, err);
    if (!options) {
        printUsage(err);
        return kExitUsage;
    }
    PXCaptureDevice::Ptr device = options->interface.empty() ? PXCaptureDevice::defaultDevice()
                                                             : PXCaptureDevice::deviceWithInterface(options->interface);
    if (!device) {
        std::fprintf(err, "wireloom: %s\n",
                     options->interface.empty() ? "no capture device found"
                                                : ("no capture device '" + options->interface + "'").c_str());
        return kExitFailure;
    }

    const PXNetworkCapture::Ptr capture = PXNetworkCapture::captureWithDevice(device);
    capture->setCaptureFilter(options->filter);
    const bool color = colorFor(options->color, out);
    ReplayPrinters printers(out, options->format, color);
    FramePrinter& printer = printers.frames;
    MdnsPrinter& mdnsPrinter = printers.mdns;
    FlowPrinter& flowPrinter = printers.flows;
    const std::shared_ptr<HttpPrinter>& httpPrinter = printers.http;
    const auto filter = filterPrinters(options->words, printers);
    if (options->flows || options->http) {
        const PXTCPFlowTable::Ptr tcpTable = PXTCPFlowTable::initWithCapture(capture);
        if (options->flows) flowPrinter.attach(capture, tcpTable);
        if (options->http) httpPrinter->attach(capture, tcpTable);
    }
    const bool framesShown = !options->flows && !options->http;
    std::uint64_t frames = 0;
    std::FILE* pcapFile = nullptr;
    NotificationCenter& center = NotificationCenter::defaultCenter();
    center.addObserver(
        &printer, kPXNetworkCapturePacketNotificationName,
        [&](const Notification& notification) {
            const PXPacketPtr packet = notification.userInfo.at("packet").object<PXPacket>();
            if (!packet || (options->count && frames >= options->count)) return;
            ++frames;
            if (options->mdns)
                mdnsPrinter.print(*packet);
            else if (framesShown)
                printer.print(*packet);
            if (!pcapFile) return;
            const ByteBuffer record = packet->pcapFileEntry();
            std::fwrite(record.data(), 1, record.size(), pcapFile);
        },
        capture.get());

    std::string error;
    if (!capture->startWithError(&error)) {
        center.removeObserver(&printer);
        std::fprintf(err, "wireloom: %s\n", error.c_str());
        return kExitFailure;
    }
    // Opened only once the capture runs, so that a capture that cannot start
    // leaves no file behind; the header goes in at once, with the device's
    // link type, so that a capture that sees nothing still leaves a file
    // that reads as an empty capture. No frame is handed over before the run
    // loop below runs.
    if (!options->outputPath.empty()) {
        pcapFile = std::fopen(options->outputPath.c_str(), "wb");
        if (!pcapFile) {
            const int reason = errno;
            capture->stop();
            center.removeObserver(&printer);
            std::fprintf(err, "wireloom: %s: %s\n", options->outputPath.c_str(), std::strerror(reason));
            return kExitFailure;
        }
        const ByteBuffer header = PXPacket::pcapHeaderForLinkLayerType(capture->linkLayerType());
        std::fwrite(header.data(), 1, header.size(), pcapFile);
    }
    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);
    std::fprintf(err, "wireloom: capturing on %s\n", device->interface().c_str());
    const auto deadline = options->duration > 0
                              ? RunLoop::Clock::now() + std::chrono::duration_cast<RunLoop::Clock::duration>(
                                                            std::chrono::duration<double>(options->duration))
                              : RunLoop::Clock::time_point::max();
    // In slices, so that a signal is noticed promptly.
    while (!gInterrupted && RunLoop::Clock::now() < deadline && (!options->count || frames < options->count))
        RunLoop::main().runUntil([&] { return gInterrupted || (options->count && frames >= options->count); },
                                 std::min(deadline, RunLoop::Clock::now() + std::chrono::milliseconds(100)));
    capture->stop();
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    center.removeObserver(&printer);
    if (options->flows) flowPrinter.finish();
    if (options->http) httpPrinter->finish();
    if (options->mdns)
        mdnsPrinter.finish();
    else if (framesShown)
        printer.finish();
    if (pcapFile) std::fclose(pcapFile);

    const PXNetworkCapture::Statistics counters = capture->statistics();
    std::fprintf(err, "wireloom: %llu frames announced; libpcap received %llu, dropped %llu\n",
                 static_cast<unsigned long long>(frames), static_cast<unsigned long long>(counters.received),
                 static_cast<unsigned long long>(counters.dropped));
    return 0;
}

int devicesCommand(const std::vector<std::string>& args, std::FILE* out, std::FILE* err) {
    if (!args.empty()) {
        std::fprintf(err, "wireloom: devices takes no arguments\n");
        printUsage(err);
        return kExitUsage;
    }
    const std::optional<std::vector<PXCaptureDevice::Ptr>> devices = PXCaptureDevice::allDevices();
    if (!devices) {
        std::fprintf(err, "wireloom: libpcap could not list the capture devices\n");
        return kExitFailure;
    }
    const PXCaptureDevice::Ptr preferred = PXCaptureDevice::defaultDevice();
    static const char* const kTypes[] = {"unknown", "Ethernet", "IEEE 802.11", "IEEE 1394"};
    for (const PXCaptureDevice::Ptr& device : *devices) {
        const bool isDefault = preferred && preferred->interface() == device->interface();
        std::fprintf(out, "%s%s  (%s)%s\n", device->interface().c_str(), isDefault ? " [default]" : "",
                     kTypes[device->type() >= 0 && device->type() <= 3 ? device->type() : 0],
                     device->info() ? (" " + *device->info()).c_str() : "");
        for (const std::string& address : device->addresses()) std::fprintf(out, "    %s\n", address.c_str());
    }
    return 0;
}

}  // namespace wireloom::cli
