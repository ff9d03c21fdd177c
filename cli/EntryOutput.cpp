#include "EntryOutput.hpp"

namespace wireloom::cli {

namespace {

// `indent` grows by four spaces for the children and is given back after.
void appendEntryText(TextBuffer& out, PXReportAnalyzerEntry& entry, bool color, std::string& indent) {
    // The same layout as the entry's pasteboard text, with colours if asked.
    out.append(indent);
    if (color && entry.title())
        out.append(entry.title()->attributedString()->ansiText());
    else
        out.append(entry.plainTitle());
    out.append('\n');
    indent.append(4, ' ');
    // A hex dump's plain lines are written from its bytes: building an entry
    // per line cost ten times all the rest of a frame's tree.
    if (const std::size_t bound = color ? 0 : entry.hexDumpTextBound(indent)) {
        out.commit(entry.writeHexDumpText(out.reserve(bound), indent));
    } else if (const auto* children = entry.children()) {
        for (const auto& child : *children) appendEntryText(out, *child, color, indent);
    }
    indent.resize(indent.size() - 4);
}

}  // namespace

void appendEntryText(TextBuffer& out, PXReportAnalyzerEntry& entry, bool color) {
    std::string indent;
    appendEntryText(out, entry, color, indent);
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
