#pragma once
// How `read --mdns` and `capture --mdns` show multicast DNS: only the frames
// that carry an mDNS message, printed as every frame is (tree, one line), or
// with --format json one line per message with its questions and records,
// or with --format none only counted.

#include "FramePrinter.hpp"

#include <Wireloom/Wireloom.hpp>

#include <nlohmann/json.hpp>

#include <cstdint>
#include <cstdio>

namespace wireloom::cli {

// {"frame": N, "timestamp": T, "source": ..., "destination": ..., "transactionID": ..., "flags": ...,
//  "questions": [{"name", "type", "class"}], "answers"|"authority"|"additional": [{"name", "type",
//  "class", "ttl", "data" (hex) and, when decoded, "srv"|"txt"|"ptr"|"aaaa"}]}
nlohmann::ordered_json mdnsJSON(const PXMDNSPacket& message, std::uint64_t frame);

class SourceFilter;

class MdnsPrinter {
public:
    MdnsPrinter(std::FILE* out, Format format, bool color) : out_(out), format_(format), frames_(out, format, color) {}

    // With a filter, the frames that carry mDNS are offered to it, which
    // prints those it shows.
    void setFilter(SourceFilter* filter);
    // The next frame, numbered from 1; shown only when it carries mDNS.
    void print(const PXPacket& innermost);
    // Writes out what is buffered and, for Format::None, the summary.
    void finish();

private:
    std::FILE* out_;
    Format format_;
    FramePrinter frames_;
    SourceFilter* filter_ = nullptr;
    std::uint64_t frame_ = 0;
    std::uint64_t shown_ = 0;
    std::uint64_t messages_ = 0, questions_ = 0, records_ = 0;
};

}  // namespace wireloom::cli
