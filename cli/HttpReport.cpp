#include "HttpReport.hpp"

#include "EntryOutput.hpp"
#include "FlowReport.hpp"
#include "SourceFilter.hpp"

#include <algorithm>
#include <cinttypes>
#include <cstdlib>

namespace wireloom::cli {

namespace {

constexpr const char* kNotAnswered = "(no response)";

// A property-list value as one line's text, or nothing for containers and
// values that cannot be shown.
std::optional<std::string> plistScalar(plist_t node) {
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        std::uint8_t value = 0;
        plist_get_bool_val(node, &value);
        return value ? "true" : "false";
    }
    case PLIST_UINT: {
        std::uint64_t value = 0;
        plist_get_uint_val(node, &value);
        return std::to_string(value);
    }
    case PLIST_REAL: {
        double value = 0;
        plist_get_real_val(node, &value);
        char text[32];
        std::snprintf(text, sizeof text, "%g", value);
        return text;
    }
    case PLIST_STRING:
    case PLIST_KEY: {
        char* value = nullptr;
        plist_get_string_val(node, &value);
        std::string text = value ? value : "";
        std::free(value);
        return text;
    }
    case PLIST_DATA: {
        char* value = nullptr;
        std::uint64_t length = 0;
        plist_get_data_val(node, &value, &length);
        std::string text = "<" + ByteBuffer::copy(value, static_cast<std::size_t>(length)).hexEncodedString() + ">";
        std::free(value);
        return text;
    }
    case PLIST_DATE: {
        std::int32_t seconds = 0, microseconds = 0;
        plist_get_date_val(node, &seconds, &microseconds);
        // Property-list dates count from 2001-01-01.
        char text[48];
        std::snprintf(text, sizeof text, "%.6f", 978307200.0 + seconds + microseconds / 1e6);
        return text;
    }
    case PLIST_UID: {
        std::uint64_t value = 0;
        plist_get_uid_val(node, &value);
        return "UID " + std::to_string(value);
    }
    default: return std::nullopt;
    }
}

// Calls visit(key, value) for each item of a dictionary, in its order.
template <class Visit>
void forEachItem(plist_t dictionary, Visit visit) {
    plist_dict_iter iterator = nullptr;
    plist_dict_new_iter(dictionary, &iterator);
    for (;;) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(dictionary, iterator, &key, &value);
        if (!key) break;
        visit(std::string(key), value);
        std::free(key);
    }
    std::free(iterator);
}

void addPlistLines(PXReportAnalyzerEntry& entry, const std::string& key, plist_t node) {
    if (auto text = plistScalar(node)) {
        entry.addLineWithKey(key, *text);
        return;
    }
    auto nested = entry.addNestedEntry();
    if (plist_get_node_type(node) == PLIST_DICT) {
        nested->setTitleWithLabel(key, plist_dict_get_size(node), "key");
        forEachItem(node, [&](const std::string& name, plist_t value) { addPlistLines(*nested, name, value); });
    } else if (plist_get_node_type(node) == PLIST_ARRAY) {
        const std::uint32_t size = plist_array_get_size(node);
        nested->setTitleWithLabel(key, size, "item");
        for (std::uint32_t i = 0; i < size; ++i)
            addPlistLines(*nested, std::to_string(i), plist_array_get_item(node, i));
    }
}

nlohmann::json plistJSON(plist_t node) {
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: return plistScalar(node) == "true";
    case PLIST_UINT: {
        std::uint64_t value = 0;
        plist_get_uint_val(node, &value);
        return value;
    }
    case PLIST_REAL: {
        double value = 0;
        plist_get_real_val(node, &value);
        return value;
    }
    case PLIST_DICT: {
        nlohmann::json object = nlohmann::json::object();
        forEachItem(node, [&](const std::string& key, plist_t value) { object[key] = plistJSON(value); });
        return object;
    }
    case PLIST_ARRAY: {
        nlohmann::json array = nlohmann::json::array();
        for (std::uint32_t i = 0; i < plist_array_get_size(node); ++i)
            array.push_back(plistJSON(plist_array_get_item(node, i)));
        return array;
    }
    default: {
        auto text = plistScalar(node);
        return text ? nlohmann::json(*text) : nlohmann::json();
    }
    }
}

void addJSONLines(PXReportAnalyzerEntry& entry, const std::string& key, const nlohmann::json& value) {
    if (!value.is_structured()) {
        entry.addLineWithKey(key, value.is_string() ? value.get<std::string>() : value.dump());
        return;
    }
    auto nested = entry.addNestedEntry();
    nested->setTitleWithLabel(key, value.size(), value.is_object() ? "key" : "item");
    std::size_t index = 0;
    for (auto item = value.begin(); item != value.end(); ++item, ++index)
        addJSONLines(*nested, value.is_object() ? item.key() : std::to_string(index), *item);
}

bool startsWith(const ByteBuffer& data, std::string_view prefix) { return data.stringView().starts_with(prefix); }

bool contains(const std::string* text, std::string_view word) { return text && text->find(word) != std::string::npos; }

bool looksLikeText(const ByteBuffer& data) {
    std::size_t n = 0;
    for (std::uint8_t byte : data) {
        if (byte < 0x20 && byte != '\n' && byte != '\r' && byte != '\t') return false;
        if (++n == 4096) break;
    }
    return true;
}

}  // namespace

PlistBody::~PlistBody() {
    if (dictionary_) plist_free(dictionary_);
}

bool PlistBody::initWithDictionary(plist_t dictionary, std::string* errorDescription, const ObjectPtr&) {
    if (plist_get_node_type(dictionary) != PLIST_DICT) {
        if (errorDescription) *errorDescription = "The property list is not a dictionary";
        return false;
    }
    dictionary_ = plist_copy(dictionary);
    forEachItem(dictionary_, [&](const std::string& key, plist_t value) {
        const plist_type type = plist_get_node_type(value);
        if (!plistScalar(value) && type != PLIST_DICT && type != PLIST_ARRAY)
            addErrorDescriptionForUnknownKey("Value of a type that cannot be shown", key);
    });
    return true;
}

std::shared_ptr<PXReportAnalyzerEntry> PlistBody::reportAnalyzerEntryUsingDataSource(const ObjectPtr& dataSource) {
    auto entry = PXHTTPBPlistContainer::reportAnalyzerEntryUsingDataSource(dataSource);
    entry->setTitleWithLabel(std::string_view("Property List"), plist_dict_get_size(dictionary_), "key");
    forEachItem(dictionary_, [&](const std::string& key, plist_t value) { addPlistLines(*entry, key, value); });
    return entry;
}

nlohmann::json PlistBody::json() const { return plistJSON(dictionary_); }

Value parseBody(const std::optional<ByteBuffer>& data, const std::string* type, std::string* error) {
    if (!data || data->empty()) return {};
    const auto size = static_cast<std::uint32_t>(std::min<std::size_t>(data->size(), UINT32_MAX));
    const char* bytes = reinterpret_cast<const char*>(data->data());
    const bool binaryPlist = startsWith(*data, "bplist00");
    const bool xmlPlist =
        !binaryPlist && (contains(type, "plist") ||
                         (startsWith(*data, "<?xml") && data->stringView().find("<plist") != std::string_view::npos));
    if (binaryPlist || xmlPlist) {
        plist_t root = nullptr;
        if (binaryPlist)
            plist_from_bin(bytes, size, &root);
        else
            plist_from_xml(bytes, size, &root);
        if (!root) {
            *error = binaryPlist ? "The binary property list cannot be read" : "The XML property list cannot be read";
            return {};
        }
        auto body = std::make_shared<PlistBody>();
        const bool usable = body->initWithDictionary(root, error, nullptr);
        plist_free(root);
        return usable ? Value(body) : Value();
    }
    const char first = static_cast<char>(data->data()[0]);
    if (contains(type, "json") || first == '{' || first == '[') {
        nlohmann::json value = nlohmann::json::parse(data->stringView(), nullptr, false);
        if (value.is_discarded()) {
            *error = "The JSON body cannot be read";
            return {};
        }
        return Value(std::make_shared<JsonBody>(std::move(value)));
    }
    if (contains(type, "text/") || looksLikeText(*data)) return Value(std::string(data->stringView()));
    return {};
}

std::string HttpExchange::title() const {
    std::string text = request ? request->method() + " " + request->resource() : "(no request)";
    text += " \xe2\x86\x92 ";
    text += response ? std::to_string(response->statusCode()) + " " + response->status() : kNotAnswered;
    return text;
}

namespace {

template <class Message>
void addMessage(PXReportAnalyzerEntry& parent, const Message& message, const std::string& startLine) {
    auto section = parent.addNestedEntry();
    section->setSectionTitle(startLine);
    for (const auto& [name, value] : message.header()) section->addLineWithKey(name, value);
    if (message.content()) section->addEntryWithData(*message.content(), "Body");
    const Value& parsed = message.parsedContent();
    if (auto plist = parsed.template object<PlistBody>()) {
        section->addEntry(plist->reportAnalyzerEntryUsingDataSource(nullptr));
    } else if (auto json = parsed.template object<JsonBody>()) {
        addJSONLines(*section, "JSON", json->value());
    } else if (const std::string* text = parsed.string()) {
        auto lines = section->addNestedEntry();
        lines->setTitleWithLabel(std::string_view("Text"),
                                 static_cast<std::uint64_t>(std::count(text->begin(), text->end(), '\n')) + 1, "line");
        std::size_t start = 0;
        while (start <= text->size()) {
            std::size_t end = text->find('\n', start);
            if (end == std::string::npos) end = text->size();
            std::string line = text->substr(start, end - start);
            if (!line.empty() && line.back() == '\r') line.pop_back();
            lines->addEntryLine(WLAttributedString::stringWithFormat(WLTokenText, line, WLTokenEnd));
            start = end + 1;
        }
    }
    if (!message.errorDescription().empty()) section->addLineWithErrorLabel("Error", message.errorDescription());
}

template <class Message>
nlohmann::ordered_json messageJSON(const Message& message) {
    nlohmann::ordered_json object;
    nlohmann::ordered_json headers = nlohmann::ordered_json::array();
    for (const auto& [name, value] : message.header()) headers.push_back({name, value});
    object["protocol"] = message.protocol();
    object["version"] = message.version();
    object["headers"] = std::move(headers);
    object["bodyLength"] = message.content() ? nlohmann::ordered_json(message.content()->size()) : nullptr;
    object["bodySHA256"] = message.content() ? nlohmann::ordered_json(message.content()->sha256HexDigest()) : nullptr;
    if (auto plist = message.parsedContent().template object<PlistBody>()) object["plist"] = plist->json();
    object["error"] = message.errorDescription().empty() ? nlohmann::ordered_json()
                                                         : nlohmann::ordered_json(message.errorDescription());
    return object;
}

}  // namespace

std::shared_ptr<PXReportAnalyzerEntry> HttpExchange::reportAnalyzerEntryUsingCache() {
    if (entry_) return entry_;
    auto entry = PXReportAnalyzerEntry::entry();
    entry->setSectionTitle(title());
    const detail::HTTPMessage* any = request ? static_cast<const detail::HTTPMessage*>(request.get()) : response.get();
    const bool clientSent = request != nullptr;
    entry->addLineWithKey("Client", clientSent ? any->senderAddress() + ":" + std::to_string(any->senderPort())
                                               : any->recipientAddress() + ":" + std::to_string(any->recipientPort()));
    entry->addLineWithKey("Server", clientSent ? any->recipientAddress() + ":" + std::to_string(any->recipientPort())
                                               : any->senderAddress() + ":" + std::to_string(any->senderPort()));
    if (request)
        addMessage(*entry, *request,
                   "Request: " + request->method() + " " + request->resource() + " " + request->protocol() + "/" +
                       request->version());
    if (response)
        addMessage(*entry, *response,
                   "Response: " + response->protocol() + "/" + response->version() + " " +
                       std::to_string(response->statusCode()) + " " + response->status());
    entry->setSource(std::dynamic_pointer_cast<PXReportAnalyzerEntrySource>(shared_from_this()));
    entry_ = entry;
    return entry_;
}

std::string HttpExchange::pasteboardString() {
    return reportAnalyzerEntryUsingCache()->pasteboardStringWithIdentation("");
}

bool HttpExchange::filterShouldIncludeEntryUsingInclusiveWords(const std::vector<std::string>& inclusiveWords,
                                                               const std::vector<std::string>& exclusiveWords) {
    const std::string text = title();
    const auto has = [&](const std::string& word) { return text.find(word) != std::string::npos; };
    return std::all_of(inclusiveWords.begin(), inclusiveWords.end(), has) &&
           std::none_of(exclusiveWords.begin(), exclusiveWords.end(), has);
}

nlohmann::ordered_json HttpExchange::json() const {
    nlohmann::ordered_json line;
    const PXTCPFlow* flow = request ? request->flow().get() : response->flow().get();
    line["key"] = flow ? flow->key() : std::string();
    if (request) {
        nlohmann::ordered_json object = {{"method", request->method()}, {"resource", request->resource()}};
        object.update(messageJSON(*request));
        line["request"] = std::move(object);
    } else {
        line["request"] = nullptr;
    }
    if (response) {
        nlohmann::ordered_json object = {{"statusCode", response->statusCode()}, {"status", response->status()}};
        object.update(messageJSON(*response));
        line["response"] = std::move(object);
    } else {
        line["response"] = nullptr;
    }
    return line;
}

HttpPrinter::~HttpPrinter() { NotificationCenter::defaultCenter().removeObserver(this); }

void HttpPrinter::attach(const PXNetworkCapture::Ptr& capture, const PXTCPFlowTable::Ptr& table) {
    capture_ = capture;
    table_ = table;
    NotificationCenter& center = NotificationCenter::defaultCenter();
    center.addObserver(
        this, kPXTCPFlowDetectedNotificationName,
        [this](const Notification& n) {
            auto flow = n.userInfo.at("flow").object<PXTCPFlow>();
            if (!flow) return;
            // The client opened the connection; when that is unknown, the
            // endpoint that sorts first is as good a guess as any.
            const PXPacketPtr creator = capture_->currentPacket();
            const bool clientIsZero = openingSide(*flow, creator.get()) != 1;
            followed_[flow.get()].analyzer =
                PXHTTPStreamAnalyzer::initWithTCPFlow(flow, shared_from_this(), clientIsZero);
        },
        table.get());
    center.addObserver(
        this, kPXTCPFlowEndedNotificationName,
        [this](const Notification& n) {
            if (auto flow = n.userInfo.at("flow").object<PXTCPFlow>()) flowEnded(flow.get());
        },
        table.get());
}

void HttpPrinter::flowEnded(const PXTCPFlow* flow) {
    auto found = followed_.find(flow);
    if (found == followed_.end()) return;
    found->second.analyzer->invalidate();
    for (const auto& exchange : found->second.waiting) print(exchange);
    followed_.erase(found);
}

Value HttpPrinter::httpStreamAnalyzer(PXHTTPStreamAnalyzer&, const std::optional<ByteBuffer>& data,
                                      const std::string* type, std::string* errorDescription,
                                      const std::shared_ptr<Object>&) {
    // Counting needs no reading of bodies.
    if (format_ == Format::None) return {};
    return parseBody(data, type, errorDescription);
}

Value HttpPrinter::httpStreamAnalyzer(PXHTTPStreamAnalyzer& analyzer, const PXHTTPRequest::Ptr& request) {
    ++requests_;
    if (!request->errorDescription().empty()) ++errors_;
    auto exchange = std::make_shared<HttpExchange>();
    exchange->request = request;
    followed_[analyzer.flow().get()].waiting.push_back(exchange);
    return Value(exchange);
}

void HttpPrinter::httpStreamAnalyzer(PXHTTPStreamAnalyzer& analyzer, const PXHTTPResponse::Ptr& response,
                                     const Value& context) {
    ++responses_;
    if (!response->errorDescription().empty()) ++errors_;
    std::shared_ptr<HttpExchange> exchange = context.object<HttpExchange>();
    auto& waiting = followed_[analyzer.flow().get()].waiting;
    // Requests before the answered one never get their response: they are
    // shown alone, in order, ahead of it.
    while (exchange && !waiting.empty()) {
        std::shared_ptr<HttpExchange> first = waiting.front();
        waiting.pop_front();
        if (first == exchange) break;
        print(first);
    }
    if (!exchange) {
        exchange = std::make_shared<HttpExchange>();
    }
    exchange->response = response;
    print(exchange);
}

void HttpPrinter::setFilter(SourceFilter* filter) {
    filter_ = filter;
    if (filter) filter->addFlush([this] { buffer_.flush(out_), std::fflush(out_); });
}

void HttpPrinter::print(const std::shared_ptr<HttpExchange>& exchange) {
    if (!filter_) return show(*exchange);
    filter_->offer(std::make_shared<ShownSource>(
        ShownSource::Parts{[exchange] { return exchange->reportAnalyzerEntryUsingCache(); },
                           [exchange] {
                               MutableByteBuffer bodies;
                               if (exchange->request && exchange->request->content())
                                   bodies.append(*exchange->request->content());
                               if (exchange->response && exchange->response->content())
                                   bodies.append(*exchange->response->content());
                               return bodies.take();
                           },
                           [this, exchange] { show(*exchange); }}));
}

void HttpPrinter::show(HttpExchange& exchange) {
    ++printed_;
    switch (format_) {
    case Format::Tree:
        if (printed_ > 1) buffer_.append('\n');
        appendEntryText(buffer_, *exchange.reportAnalyzerEntryUsingCache(), color_);
        break;
    case Format::Json:
        buffer_.append(exchange.json().dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
        buffer_.append('\n');
        break;
    case Format::OneLine: {
        const PXTCPFlow* flow = exchange.request ? exchange.request->flow().get() : exchange.response->flow().get();
        buffer_.append((flow ? flow->key() : std::string()) + " " + exchange.title() + "\n");
        break;
    }
    case Format::None: break;
    }
    if (buffer_.size() >= (1u << 20) || capture_->isRunning()) buffer_.flush(out_);
}

void HttpPrinter::finish() {
    if (table_) table_->invalidate();
    NotificationCenter::defaultCenter().removeObserver(this);
    buffer_.flush(out_);
    if (format_ == Format::None)
        std::fprintf(out_, "HTTP requests: %" PRIu64 "\nHTTP responses: %" PRIu64 "\nHTTP errors: %" PRIu64 "\n",
                     requests_, responses_, errors_);
    std::fflush(out_);
}

}  // namespace wireloom::cli
