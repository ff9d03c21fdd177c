#pragma once
// How `read --http` and `capture --http` show HTTP: an analyser on every TCP
// flow, bodies read by their content (property lists, JSON, text, anything
// else as bytes), and each exchange (a request with its response, or one
// alone) printed as a report entry tree or a JSON line, or only counted.

#include "FramePrinter.hpp"
#include "TextBuffer.hpp"

#include <Wireloom/Wireloom.hpp>

#include <nlohmann/json.hpp>

#include <cstdint>
#include <cstdio>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>

namespace wireloom::cli {

// A body that decoded to a property-list dictionary, shown as a tree of its
// keys and values. Keys whose values cannot be shown are reported as unknown.
class PlistBody : public PXHTTPBPlistContainer {
public:
    ~PlistBody() override;
    std::string className() const override { return "PlistBody"; }
    bool initWithDictionary(plist_t dictionary, std::string* errorDescription, const ObjectPtr& dataSource) override;
    std::shared_ptr<PXReportAnalyzerEntry> reportAnalyzerEntryUsingDataSource(const ObjectPtr& dataSource) override;
    // The dictionary as JSON, for the command's JSON output.
    nlohmann::json json() const;

private:
    plist_t dictionary_ = nullptr;  // owned
};

// A JSON body, parsed.
class JsonBody : public Object {
public:
    explicit JsonBody(nlohmann::json value) : value_(std::move(value)) {}
    std::string className() const override { return "JsonBody"; }
    const nlohmann::json& value() const noexcept { return value_; }

private:
    nlohmann::json value_;
};

// A request and the response paired with it; either may be missing.
class HttpExchange : public Object, public PXReportAnalyzerEntrySource {
public:
    PXHTTPRequest::Ptr request;
    PXHTTPResponse::Ptr response;

    // "GET /path → 200 OK"
    std::string title() const;
    nlohmann::ordered_json json() const;

    std::shared_ptr<PXReportAnalyzerEntry> reportAnalyzerEntryUsingCache() override;
    bool hasCachedReportAnalyzerEntry() const override { return entry_ != nullptr; }
    double reportAnalyzerTimestamp() const override { return 0; }
    std::string pasteboardString() override;
    bool filterShouldIncludeEntryUsingInclusiveWords(const std::vector<std::string>& inclusiveWords,
                                                     const std::vector<std::string>& exclusiveWords) override;
    std::string representativeFilterText() override { return title(); }
    bool hasResourcesLoaded() const override { return true; }
    void swapResourcesOut() override { entry_.reset(); }
    void swapResourcesInWhenAvailable() override {}
    void ensureResourcesSwappedIn() override {}

private:
    std::shared_ptr<PXReportAnalyzerEntry> entry_;
};

// The value a body stands for: a PlistBody, a JsonBody, text, or nothing
// (then it is shown as bytes). *error is set when a body that claimed a
// kind could not be read as it.
Value parseBody(const std::optional<ByteBuffer>& data, const std::string* type, std::string* error);

class SourceFilter;

class HttpPrinter : public PXHTTPStreamAnalyzerDelegate, public std::enable_shared_from_this<HttpPrinter> {
public:
    HttpPrinter(std::FILE* out, Format format, bool color) : out_(out), format_(format), color_(color) {}
    ~HttpPrinter() override;

    // With a filter, exchanges are offered to it, which prints those it
    // shows; each is found by its entry and the printable text of its bodies.
    void setFilter(SourceFilter* filter);
    // Follows HTTP on every TCP flow the table detects.
    void attach(const PXNetworkCapture::Ptr& capture, const PXTCPFlowTable::Ptr& table);
    // Prints what is still waiting (requests never answered) and, for
    // Format::None, the summary.
    void finish();

    Value httpStreamAnalyzer(PXHTTPStreamAnalyzer& analyzer, const std::optional<ByteBuffer>& data,
                             const std::string* type, std::string* errorDescription,
                             const std::shared_ptr<Object>& httpObject) override;
    Value httpStreamAnalyzer(PXHTTPStreamAnalyzer& analyzer, const PXHTTPRequest::Ptr& request) override;
    void httpStreamAnalyzer(PXHTTPStreamAnalyzer& analyzer, const PXHTTPResponse::Ptr& response,
                            const Value& context) override;

private:
    struct Followed {
        PXHTTPStreamAnalyzer::Ptr analyzer;
        // Requests in order, until answered or the flow ends.
        std::deque<std::shared_ptr<HttpExchange>> waiting;
    };
    void flowEnded(const PXTCPFlow* flow);
    void print(const std::shared_ptr<HttpExchange>& exchange);
    void show(HttpExchange& exchange);

    std::FILE* out_;
    Format format_;
    bool color_;
    PXNetworkCapture::Ptr capture_;
    PXTCPFlowTable::Ptr table_;
    std::unordered_map<const PXTCPFlow*, Followed> followed_;
    SourceFilter* filter_ = nullptr;
    TextBuffer buffer_;
    std::uint64_t printed_ = 0;
    std::uint64_t requests_ = 0, responses_ = 0, errors_ = 0;
};

}  // namespace wireloom::cli
