#include "EntryOutput.hpp"

namespace wireloom::cli {

void appendEntryText(std::string& out, PXReportAnalyzerEntry& entry, bool color, const std::string& indent) {
    // The same layout as the entry's pasteboard text, with colours if asked.
    out += indent;
    if (color && entry.title())
        out += entry.title()->attributedString()->ansiText();
    else
        out += entry.plainTitle();
    out += '\n';
    const std::string deeper = indent + "    ";
    // A hex dump's plain lines are written from its bytes: building an entry
    // per line cost ten times all the rest of a frame's tree.
    if (!color && entry.appendHexDumpText(out, deeper)) return;
    if (const auto* children = entry.children())
        for (const auto& child : *children) appendEntryText(out, *child, color, deeper);
}

nlohmann::json entryJSON(PXReportAnalyzerEntry& entry) {
    nlohmann::json object = {{"title", entry.plainTitle()}};
    if (const auto* children = entry.children()) {
        nlohmann::json list = nlohmann::json::array();
        for (const auto& child : *children) list.push_back(entryJSON(*child));
        object["children"] = std::move(list);
    }
    return object;
}

std::vector<std::shared_ptr<PXReportAnalyzerEntry>> layerEntries(const PXPacket& innermost) {
    std::vector<std::shared_ptr<PXReportAnalyzerEntry>> entries;
    for (const PXPacket* layer = &innermost; layer; layer = layer->encapsulatingPacket().get())
        entries.insert(entries.begin(), layer->reportAnalyzerEntry());
    return entries;
}

}  // namespace wireloom::cli
