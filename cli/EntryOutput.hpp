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

// The entries of every layer of a frame, the root's first.
std::vector<std::shared_ptr<PXReportAnalyzerEntry>> layerEntries(const PXPacket& innermost);

}  // namespace wireloom::cli
