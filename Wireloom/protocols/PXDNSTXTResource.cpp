#include <Wireloom/core/detail/UTF8.hpp>
#include <Wireloom/protocols/PXDNSTXTResource.hpp>

#include <avahi-common/malloc.h>
#include <avahi-common/strlst.h>

#include <memory>

namespace wireloom {

namespace {

struct StringListFree {
    void operator()(AvahiStringList* list) const noexcept { avahi_string_list_free(list); }
};
struct AvahiFree {
    void operator()(char* text) const noexcept { avahi_free(text); }
};
using AvahiText = std::unique_ptr<char, AvahiFree>;

}  // namespace

PXDNSTXTResource::Dictionary PXDNSTXTResource::dictionaryFromTXTRecordData(std::span<const std::uint8_t> data) {
    Dictionary txt;
    AvahiStringList* parsed = nullptr;
    if (data.empty() || avahi_string_list_parse(data.data(), data.size(), &parsed) < 0) return txt;
    const std::unique_ptr<AvahiStringList, StringListFree> list(parsed);
    // The parser builds its list back to front, so keeping the last value
    // seen for a key keeps the first one on the wire.
    for (AvahiStringList* item = parsed; item; item = avahi_string_list_get_next(item)) {
        char* keyText = nullptr;
        char* valueText = nullptr;
        std::size_t size = 0;
        if (avahi_string_list_get_pair(item, &keyText, &valueText, &size) < 0) continue;
        const AvahiText key(keyText), value(valueText);
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(value.get());
        if (!value)
            txt.insert_or_assign(key.get(), Value(std::string()));
        else if (detail::validUTF8(bytes, size))
            txt.insert_or_assign(key.get(), Value(std::string(value.get(), size)));
        else
            txt.insert_or_assign(key.get(), Value(ByteBuffer::copy(bytes, size)));
    }
    return txt;
}

std::shared_ptr<PXReportAnalyzerEntry> PXDNSTXTResource::reportAnalyzerEntry() const {
    auto entry = PXDNSResource::reportAnalyzerEntry();
    for (const auto& [key, value] : txt()) entry->addLineWithKey(key, value);
    return entry;
}

}  // namespace wireloom
