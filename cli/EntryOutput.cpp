#include "EntryOutput.hpp"

#include <algorithm>

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

void appendJSONString(std::string& out, std::string_view text) {
    const bool ascii =
        std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    // Anything else goes through nlohmann, whose UTF-8 check then accepts
    // and refuses exactly what it did before this writer existed.
    if (!ascii) {
        out += nlohmann::json(std::string(text)).dump();
        return;
    }
    static constexpr char kHex[] = "0123456789abcdef";
    out += '"';
    std::size_t plainFrom = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c >= 0x20 && c != '"' && c != '\\') continue;
        out.append(text, plainFrom, i - plainFrom);
        plainFrom = i + 1;
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\b': out += "\\b"; break;
        case '\t': out += "\\t"; break;
        case '\n': out += "\\n"; break;
        case '\f': out += "\\f"; break;
        case '\r': out += "\\r"; break;
        default:
            out += "\\u00";
            out += kHex[c >> 4];
            out += kHex[c & 0xf];
        }
    }
    out.append(text, plainFrom);
    out += '"';
}

void appendEntryJSON(std::string& out, PXReportAnalyzerEntry& entry) {
    // Keys in nlohmann's order (sorted), so that both writers agree byte for byte.
    out += '{';
    if (const std::size_t bound = entry.hexDumpTextBound({})) {
        // The dump's lines from its bytes, without an entry for each.
        std::string lines(bound, '\0');
        lines.resize(static_cast<std::size_t>(entry.writeHexDumpText(lines.data(), {}) - lines.data()));
        out += "\"children\":[";
        std::size_t start = 0;
        while (start < lines.size()) {
            const std::size_t end = lines.find('\n', start);
            if (start > 0) out += ',';
            out += "{\"title\":";
            appendJSONString(out, std::string_view(lines).substr(start, end - start));
            out += '}';
            start = end + 1;
        }
        out += "],";
    } else if (const auto* children = entry.children()) {
        out += "\"children\":[";
        bool first = true;
        for (const auto& child : *children) {
            if (!first) out += ',';
            first = false;
            appendEntryJSON(out, *child);
        }
        out += "],";
    }
    out += "\"title\":";
    appendJSONString(out, entry.plainTitle());
    out += '}';
}

std::vector<std::shared_ptr<PXReportAnalyzerEntry>> layerEntries(const PXPacket& innermost) {
    std::vector<std::shared_ptr<PXReportAnalyzerEntry>> entries;
    for (const PXPacket* layer = &innermost; layer; layer = layer->encapsulatingLayer())
        entries.insert(entries.begin(), layer->reportAnalyzerEntry());
    return entries;
}

}  // namespace wireloom::cli
