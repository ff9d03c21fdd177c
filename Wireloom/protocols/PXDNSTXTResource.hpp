#pragma once
// PXDNSTXTResource: a TXT record's data (type 16) read as DNS-SD key=value
// strings. A value is text when it is UTF-8, else its bytes; a key given
// without "=" maps to "". When a key comes twice the first one counts, as
// DNS-SD asks of clients.
//
//   if (auto txt = std::dynamic_pointer_cast<PXDNSTXTResource>(record.resource()))
//       if (const Value* path = txt->valueForKey("path")) use(path->string());

#include <Wireloom/core/ByteBuffer.hpp>
#include <Wireloom/core/Value.hpp>
#include <Wireloom/protocols/PXDNSResource.hpp>

#include <map>
#include <span>
#include <string>
#include <string_view>

namespace wireloom {

class PXDNSTXTResource : public PXDNSResource {
public:
    using Dictionary = std::map<std::string, Value, std::less<>>;
    std::string className() const override { return "PXDNSTXTResource"; }

    // The keys in the map's order (sorted), each with a string or a ByteBuffer.
    const Dictionary& txt() const noexcept { return txt_; }
    void setTxt(Dictionary txt) { txt_ = std::move(txt); }
    const Value* valueForKey(std::string_view key) const {
        auto found = txt_.find(key);
        return found == txt_.end() ? nullptr : &found->second;
    }

    // The dictionary of TXT record data; empty when the data is not a run of
    // length-prefixed strings.
    static Dictionary dictionaryFromTXTRecordData(std::span<const std::uint8_t> data);

    std::shared_ptr<PXReportAnalyzerEntry> reportAnalyzerEntry() const override;

private:
    Dictionary txt_;
};

}  // namespace wireloom
