// The builders with which packets, flows and messages fill their entries, so
// that every report formats keys, values and missing values alike, through
// the shared colour variables.
#include <Wireloom/core/Assert.hpp>
#include <Wireloom/core/detail/Format.hpp>
#include <Wireloom/report/PXReportAnalyzerEntry.hpp>
#include <Wireloom/text/WLColors.hpp>

#include <cinttypes>
#include <string_view>

namespace wireloom {

namespace {

using detail::stringWithFormat;

std::shared_ptr<WLAttributedString> plainLine(const std::string& text) {
    return WLAttributedString::stringWithFormat(WLTokenText, text, WLTokenEnd);
}

// key: value, the value drawn through the given colour variable.
std::shared_ptr<WLAttributedString> keyValueLine(const std::string& key, const ColorPtr* valueColor,
                                                 const std::string& value) {
    return WLAttributedString::stringWithFormat(WLTokenColorPointer, WLColors::keyColorPointer(), WLTokenText, key,
                                                WLTokenPop, WLTokenText, ": ", WLTokenColorPointer, valueColor,
                                                WLTokenText, value, WLTokenPop, WLTokenEnd);
}

std::uint64_t unsignedOf(const Value& value) {
    if (const std::int64_t* i = value.integer()) return static_cast<std::uint64_t>(*i);
    if (const double* d = value.number()) return *d >= 0 && *d < 1.8e19 ? static_cast<std::uint64_t>(*d) : 0;
    if (const bool* b = value.boolean()) return *b ? 1 : 0;
    return 0;
}

double doubleOf(const Value& value) {
    if (const double* d = value.number()) return *d;
    if (const std::int64_t* i = value.integer()) return static_cast<double>(*i);
    if (const bool* b = value.boolean()) return *b ? 1 : 0;
    return 0;
}

bool boolOf(const Value& value) {
    if (const bool* b = value.boolean()) return *b;
    return unsignedOf(value) != 0;
}

void assertSingular(const std::string& units) {
    WL_ASSERT(units.empty() || units.back() != 's', "Units must be singular");
}

}  // namespace

void PXReportAnalyzerEntry::setProtocolLayerName(const std::string& name) { title_ = plainLine(name); }

void PXReportAnalyzerEntry::setProtocolLayerAttributedName(std::shared_ptr<WLAttributedString> name) {
    title_ = std::move(name);
}

void PXReportAnalyzerEntry::setSectionTitle(const std::string& title) { title_ = plainLine(title); }

PXReportAnalyzerEntry::Ptr PXReportAnalyzerEntry::addLineWithKey(const std::string& key, const Value& value) {
    if (value.isNull()) return addEntryLine(keyValueLine(key, WLColors::nullValueColorPointer(), "(null)"));
    return addEntryLine(keyValueLine(key, WLColors::valueColorPointer(), value.description()));
}

PXReportAnalyzerEntry::Ptr PXReportAnalyzerEntry::setValue(const Value& value, const std::string& key, unsigned type) {
    if (type > 9) return nullptr;
    if (value.isNull() || (type == 8 && !value.bytes()))
        return addEntryLine(keyValueLine(key, WLColors::nullValueColorPointer(), "(null)"));

    std::string text;
    switch (type) {
    case 0: text = stringWithFormat("%" PRIu64, unsignedOf(value)); break;
    case 1: text = stringWithFormat("0x%01x", static_cast<std::uint32_t>(unsignedOf(value))); break;
    case 2: text = stringWithFormat("0x%02x", static_cast<std::uint32_t>(unsignedOf(value))); break;
    case 3: text = stringWithFormat("0x%04x", static_cast<std::uint32_t>(unsignedOf(value))); break;
    case 4: text = stringWithFormat("0x%08x", static_cast<std::uint32_t>(unsignedOf(value))); break;
    case 5: text = stringWithFormat("0x%" PRIx64, unsignedOf(value)); break;
    case 6: text = stringWithFormat("%f", doubleOf(value)); break;
    case 7: text = value.description(); break;
    case 8: return addEntryWithData(*value.bytes(), key);
    case 9: text = boolOf(value) ? "YES" : "NO"; break;
    }
    return addEntryLine(keyValueLine(key, WLColors::valueColorPointer(), text));
}

PXReportAnalyzerEntry::Ptr PXReportAnalyzerEntry::addEntryWithData(const ByteBuffer& data, const std::string& label) {
    Ptr dump = addEntryWithData(data);
    dump->setTitleWithLabel(label, data.size(), "byte");
    return dump;
}

std::string PXReportAnalyzerEntry::pluralOfUnit(const std::string& unit) {
    // The consonant list counts s, w and y with the consonants, deliberately.
    static constexpr std::string_view kBeforeIes = "bcdfghjklmnpqrstvxzwy";
    if (unit.size() >= 2 && unit.back() == 'y' && kBeforeIes.find(unit[unit.size() - 2]) != std::string_view::npos)
        return unit.substr(0, unit.size() - 1) + "ies";
    return unit + "s";
}

void PXReportAnalyzerEntry::setTitleWithLabel(const std::optional<std::string>& label, std::uint64_t quantity,
                                              const std::string& units) {
    assertSingular(units);
    const std::string unit = quantity == 1 ? units : pluralOfUnit(units);
    const std::string count = stringWithFormat("%" PRIu64, quantity);
    if (label) {
        title_ = WLAttributedString::stringWithFormat(
            WLTokenText, *label, WLTokenText, " (", WLTokenColorPointer, WLColors::valueColorPointer(), WLTokenText,
            count, WLTokenPop, WLTokenText, " ", WLTokenText, unit, WLTokenText, ")", WLTokenEnd);
    } else {
        title_ =
            WLAttributedString::stringWithFormat(WLTokenColorPointer, WLColors::valueColorPointer(), WLTokenText, count,
                                                 WLTokenPop, WLTokenText, " ", WLTokenText, unit, WLTokenEnd);
    }
}

void PXReportAnalyzerEntry::setTitleWithLabel(const std::string& label, const ColorPtr& color, std::uint64_t quantity,
                                              const std::string& units) {
    assertSingular(units);
    const std::string unit = quantity == 1 ? units : units + "s";
    title_ = WLAttributedString::stringWithFormat(WLTokenColor, color, WLTokenText, label, WLTokenPop, WLTokenText,
                                                  " (", WLTokenColorPointer, WLColors::valueColorPointer(), WLTokenText,
                                                  stringWithFormat("%" PRIu64, quantity), WLTokenPop, WLTokenText, " ",
                                                  WLTokenText, unit, WLTokenText, ")", WLTokenEnd);
}

void PXReportAnalyzerEntry::setTitleWithErrorLabel(const std::string& label, const std::string& error) {
    title_ = WLAttributedString::stringWithFormat(WLTokenText, label + ": ", WLTokenColor, Color::red(), WLTokenText,
                                                  error, WLTokenPop, WLTokenEnd);
}

PXReportAnalyzerEntry::Ptr PXReportAnalyzerEntry::addLineWithErrorLabel(const std::string& label,
                                                                        const std::string& error) {
    Ptr line = addNestedEntry();
    line->setTitleWithErrorLabel(label, error);
    return line;
}

void PXReportAnalyzerEntry::addLinesWithValueKeyFields(const std::vector<Value>& fields) {
    for (std::size_t i = 0; i + 1 < fields.size(); i += 2) {
        const std::string* key = fields[i + 1].string();
        addLineWithKey(key ? *key : fields[i + 1].description(), fields[i]);
    }
}

PXReportAnalyzerEntry::Ptr PXReportAnalyzerEntry::addLinesWithValueKeyFields(const std::vector<Value>& fields,
                                                                             const std::string& sectionTitle) {
    Ptr section = addNestedEntry();
    section->setSectionTitle(sectionTitle);
    section->addLinesWithValueKeyFields(fields);
    return section;
}

}  // namespace wireloom
