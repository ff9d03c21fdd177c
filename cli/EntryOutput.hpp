#pragma once
// How the command prints report entries: as indented text (plain, or with
// ANSI colours for a terminal) and as JSON objects with the same shape
// everywhere, {"title": ..., "children": [...]} with children left out when
// there are none.

#include "TextBuffer.hpp"

#include <Wireloom/Wireloom.hpp>

#include <nlohmann/json.hpp>

#include <cstdio>
#include <string>

namespace wireloom::cli {

// The entry and its descendants, children indented by four spaces per level.
// With colour, titles are rendered as ANSI terminal text.
void appendEntryText(TextBuffer& out, PXReportAnalyzerEntry& entry, bool color);

nlohmann::json entryJSON(PXReportAnalyzerEntry& entry);
// The same object as entryJSON(entry).dump(), written straight into `out`:
// a frame's tree holds a hundred entries and more, and building a JSON
// value for each took forty times as long as printing the tree as text.
void appendEntryJSON(std::string& out, PXReportAnalyzerEntry& entry);
// `text` as a JSON string, quoted and escaped as nlohmann's dump() does.
void appendJSONString(std::string& out, std::string_view text);

// The entries of every layer of a frame, the root's first.
std::vector<std::shared_ptr<PXReportAnalyzerEntry>> layerEntries(const PXPacket& innermost);

}  // namespace wireloom::cli
