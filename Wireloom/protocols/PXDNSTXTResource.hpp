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
#include <mutex>
#include <span>
#include <string>
#include <string_view>

namespace wireloom {

class PXDNSTXTResource : public PXDNSResource {
public:
    using Dictionary = std::map<std::string, Value, std::less<>>;
    std::string className() const override { return "PXDNSTXTResource"; }

    PXDNSTXTResource() = default;
    // Keeps the record's data; the dictionary is read from it when first
    // asked for. Most decoded messages are never looked into, and the parse
    // costs a dozen allocations.
    explicit PXDNSTXTResource(ByteBuffer data) : data_(std::move(data)) {}

    // The keys in the map's order (sorted), each with a string or a ByteBuffer.
    const Dictionary& txt() const {
        std::call_once(parsed_, [this] { txt_ = dictionaryFromTXTRecordData(data_.span()); });
        return txt_;
    }
    void setTxt(Dictionary txt) {
        std::call_once(parsed_, [] {});
        txt_ = std::move(txt);
    }
    const Value* valueForKey(std::string_view key) const {
        auto found = txt().find(key);
        return found == txt().end() ? nullptr : &found->second;
    }

    // The dictionary of TXT record data; empty when the data is not a run of
    // length-prefixed strings.
    static Dictionary dictionaryFromTXTRecordData(std::span<const std::uint8_t> data);

    std::shared_ptr<PXReportAnalyzerEntry> reportAnalyzerEntry() const override;

private:
    friend class PXMDNSRecord;
    // Over a view of `message`, which must outlive the resource: for a
    // resource its message keeps beside itself.
    PXDNSTXTResource(const ByteBuffer& message, std::size_t offset, std::size_t length)
        : data_(message.borrowedView(offset, length)) {}

    ByteBuffer data_;
    mutable std::once_flag parsed_;
    mutable Dictionary txt_;
};

}  // namespace wireloom
