// The builders with which packets, flows and messages fill their entries, so
// that every report formats keys, values and missing values alike, through
// the shared colour variables.
#include <Wireloom/core/Assert.hpp>
#include <Wireloom/core/detail/Format.hpp>
#include <Wireloom/core/detail/NumberText.hpp>
#include <Wireloom/report/PXReportAnalyzerEntry.hpp>
#include <Wireloom/text/WLColors.hpp>

#include <cinttypes>
#include <string_view>

namespace wireloom {

namespace {

std::shared_ptr<WLAttributedString> plainLine(std::string_view text) {
    return WLAttributedString::stringWithFormat(WLTokenText, text, WLTokenEnd);
}

// key: value, the value drawn through the given colour variable.
std::shared_ptr<WLAttributedString> keyValueLine(std::string_view key, const ColorPtr* valueColor,
                                                 std::string_view value) {
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

void assertSingular(std::string_view units) {
    WL_ASSERT(units.empty() || units.back() != 's', "Units must be singular");
}

}  // namespace

void PXReportAnalyzerEntry::setProtocolLayerName(std::string_view name) { title_ = plainLine(name); }

void PXReportAnalyzerEntry::setProtocolLayerAttributedName(std::shared_ptr<WLAttributedString> name) {
    title_ = std::move(name);
}

void PXReportAnalyzerEntry::setSectionTitle(std::string_view title) { title_ = plainLine(title); }

PXReportAnalyzerEntry::Ptr PXReportAnalyzerEntry::addLineWithKey(std::string_view key, const Value& value) {
    if (value.isNull()) return addEntryLine(keyValueLine(key, WLColors::nullValueColorPointer(), "(null)"));
    return addEntryLine(keyValueLine(key, WLColors::valueColorPointer(), value.description()));
}

PXReportAnalyzerEntry::Ptr PXReportAnalyzerEntry::setValue(const Value& value, std::string_view key, unsigned type) {
    if (type > 9) return nullptr;
    if (value.isNull() || (type == 8 && !value.bytes()))
        return addEntryLine(keyValueLine(key, WLColors::nullValueColorPointer(), "(null)"));

    // Rows are built by the hundred thousand: numbers are written straight
    // into a buffer, as printf's %u, %0Nx and %f would write them.
    char buffer[detail::kNumberTextCapacity];
    std::string description;
    std::string_view text;
    switch (type) {
    case 0: text = detail::decimalText(buffer, unsignedOf(value)); break;
    case 1: text = detail::hexText(buffer, static_cast<std::uint32_t>(unsignedOf(value)), 1); break;
    case 2: text = detail::hexText(buffer, static_cast<std::uint32_t>(unsignedOf(value)), 2); break;
    case 3: text = detail::hexText(buffer, static_cast<std::uint32_t>(unsignedOf(value)), 4); break;
    case 4: text = detail::hexText(buffer, static_cast<std::uint32_t>(unsignedOf(value)), 8); break;
    case 5: text = detail::hexText(buffer, unsignedOf(value), 1); break;
    case 6: text = detail::fixedText(buffer, doubleOf(value), description); break;
    case 7: text = description = value.description(); break;
    case 8: return addEntryWithData(*value.bytes(), key);
    case 9: text = boolOf(value) ? "YES" : "NO"; break;
    }
    return addEntryLine(keyValueLine(key, WLColors::valueColorPointer(), text));
}

PXReportAnalyzerEntry::Ptr PXReportAnalyzerEntry::addEntryWithData(const ByteBuffer& data, std::string_view label) {
    Ptr dump = addEntryWithData(data);
    dump->setTitleWithLabel(label, data.size(), "byte");
    return dump;
}

std::string PXReportAnalyzerEntry::pluralOfUnit(std::string_view unit) {
    // The consonant list counts s, w and y with the consonants, deliberately.
    static constexpr std::string_view kBeforeIes = "bcdfghjklmnpqrstvxzwy";
    std::string plural(unit);
    if (unit.size() >= 2 && unit.back() == 'y' && kBeforeIes.find(unit[unit.size() - 2]) != std::string_view::npos) {
        plural.pop_back();
        return plural + "ies";
    }
    return plural + "s";
}

void PXReportAnalyzerEntry::setTitleWithLabel(std::optional<std::string_view> label, std::uint64_t quantity,
                                              std::string_view units) {
    assertSingular(units);
    const std::string plural = quantity == 1 ? std::string() : pluralOfUnit(units);
    const std::string_view unit = quantity == 1 ? units : std::string_view(plural);
    char buffer[detail::kNumberTextCapacity];
    const std::string_view count = detail::decimalText(buffer, quantity);
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

void PXReportAnalyzerEntry::setTitleWithLabel(std::string_view label, const ColorPtr& color, std::uint64_t quantity,
                                              std::string_view units) {
    assertSingular(units);
    const std::string unit = quantity == 1 ? std::string(units) : std::string(units) + "s";
    char buffer[detail::kNumberTextCapacity];
    title_ = WLAttributedString::stringWithFormat(WLTokenColor, color, WLTokenText, label, WLTokenPop, WLTokenText,
                                                  " (", WLTokenColorPointer, WLColors::valueColorPointer(), WLTokenText,
                                                  detail::decimalText(buffer, quantity), WLTokenPop, WLTokenText, " ",
                                                  WLTokenText, unit, WLTokenText, ")", WLTokenEnd);
}

void PXReportAnalyzerEntry::setTitleWithErrorLabel(std::string_view label, std::string_view error) {
    title_ = WLAttributedString::stringWithFormat(WLTokenText, std::string(label) + ": ", WLTokenColor, Color::red(),
                                                  WLTokenText, error, WLTokenPop, WLTokenEnd);
}

PXReportAnalyzerEntry::Ptr PXReportAnalyzerEntry::addLineWithErrorLabel(std::string_view label,
                                                                        std::string_view error) {
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
                                                                             std::string_view sectionTitle) {
    Ptr section = addNestedEntry();
    section->setSectionTitle(sectionTitle);
    section->addLinesWithValueKeyFields(fields);
    return section;
}

}  // namespace wireloom
