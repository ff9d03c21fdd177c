#include <Wireloom/core/Log.hpp>
#include <Wireloom/core/detail/UTF8.hpp>
#include <Wireloom/protocols/PXHTTPParser.hpp>

#include <algorithm>
#include <climits>
#include <cstring>

namespace wireloom {

namespace {

// Bodies from this size up may keep the buffer they arrived in: copying
// them out is then the largest cost of a message, and the header bytes
// they keep alive beside them are few in comparison.
constexpr std::int64_t kLargeBody = 64 << 10;

using detail::decodeUTF8;
using detail::validUTF8;

bool isLineEnd(char32_t c) { return (c >= 0x0A && c <= 0x0D) || c == 0x85 || c == 0x2028 || c == 0x2029; }

bool isWhiteSpaceOrLineEnd(char32_t c) {
    return c == ' ' || c == '\t' || isLineEnd(c) || c == 0xA0 || c == 0x1680 || (c >= 0x2000 && c <= 0x200A) ||
           c == 0x202F || c == 0x205F || c == 0x3000;
}

// The text without the leading and trailing code points `drop` accepts.
template <class Drop>
std::string_view trimmed(std::string_view text, Drop drop) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    std::size_t begin = 0, end = text.size();
    char32_t c;
    while (begin < end) {
        const std::size_t length = decodeUTF8(bytes + begin, end - begin, &c);
        if (length == 0 || !drop(c)) break;
        begin += length;
    }
    while (end > begin) {
        std::size_t start = end - 1;
        while (start > begin && (bytes[start] & 0xC0) == 0x80) --start;
        if (decodeUTF8(bytes + start, end - start, &c) != end - start || !drop(c)) break;
        end = start;
    }
    return text.substr(begin, end - begin);
}

// The line at `bytes`, up to and including its line feed, when there is one
// and it is UTF-8; *utf16Units, if asked for, is its length in characters.
std::optional<std::string_view> lineAt(const std::uint8_t* bytes, std::size_t length, std::size_t* utf16Units) {
    const void* lineFeed = length ? std::memchr(bytes, '\n', length) : nullptr;
    if (!lineFeed) return std::nullopt;
    const std::size_t lineLength = static_cast<std::size_t>(static_cast<const std::uint8_t*>(lineFeed) - bytes) + 1;
    if (!validUTF8(bytes, lineLength, utf16Units)) return std::nullopt;
    return std::string_view(reinterpret_cast<const char*>(bytes), lineLength);
}

// The platform's reading of a number as a 32-bit int: white space, a sign,
// the digits up to the first other character, clamped; 0 without digits.
std::int64_t int32Value(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\n' || text[i] == '\r')) ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    std::int64_t value = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        value = value * 10 + (text[i] - '0');
        if (value > std::int64_t{INT_MAX} + 1) value = std::int64_t{INT_MAX} + 1;
    }
    value = negative ? -value : value;
    return std::clamp<std::int64_t>(value, INT_MIN, INT_MAX);
}

void removeFront(MutableByteBuffer& buffer, std::size_t count) {
    const std::size_t rest = buffer.size() - count;
    if (rest) std::memmove(buffer.data(), buffer.data() + count, rest);
    buffer.resize(rest);
}

}  // namespace

std::size_t HTTPHeaderFields::positionOf(std::string_view name) const noexcept {
    if (positionsByHash_.empty()) {
        for (std::size_t i = 0; i < fields_.size(); ++i)
            if (fields_[i].first == name) return i;
        return fields_.size();
    }
    const auto [first, last] = positionsByHash_.equal_range(std::hash<std::string_view>{}(name));
    for (auto it = first; it != last; ++it)
        if (fields_[it->second].first == name) return it->second;
    return fields_.size();
}

const std::string* HTTPHeaderFields::find(std::string_view name) const noexcept {
    const std::size_t position = positionOf(name);
    return position < fields_.size() ? &fields_[position].second : nullptr;
}

void HTTPHeaderFields::set(std::string name, std::string value) {
    const std::size_t position = positionOf(name);
    if (position < fields_.size()) {
        fields_[position].second = std::move(value);
        return;
    }
    fields_.emplace_back(std::move(name), std::move(value));
    const auto hashOf = [&](std::size_t i) { return std::hash<std::string_view>{}(fields_[i].first); };
    if (!positionsByHash_.empty()) {
        positionsByHash_.emplace(hashOf(position), position);
    } else if (fields_.size() > kLinearFields) {
        for (std::size_t i = 0; i < fields_.size(); ++i) positionsByHash_.emplace(hashOf(i), i);
    }
}

std::optional<std::string> PXHTTPParser::nextLineFromBytes(const std::uint8_t* bytes, std::size_t length) {
    const std::optional<std::string_view> line = lineAt(bytes, length, nullptr);
    if (!line) return std::nullopt;
    return std::string(*line);
}

std::optional<HTTPHeaderFields> PXHTTPParser::parseHTTPFrameFrom(MutableByteBuffer& buffer,
                                                                 std::optional<ByteBuffer>* payload,
                                                                 std::vector<std::string>* initialLine,
                                                                 HTTPFrameProgress* progress) {
    HTTPFrameProgress unused;
    HTTPFrameProgress& state = progress ? *progress : unused;
    // The outcome of an incomplete message changes only with a line feed:
    // until one arrives there is no new line to read.
    if (state.lookedAt && state.lookedAt <= buffer.size() &&
        !std::memchr(buffer.data() + state.lookedAt, '\n', buffer.size() - state.lookedAt)) {
        state.lookedAt = buffer.size();
        return std::nullopt;
    }
    // The lines before headerCheckedTo were complete and well formed last
    // time: only what follows them can end the header or break it.
    if (state.headerCheckedTo && state.headerCheckedTo <= buffer.size()) {
        std::size_t at = state.headerCheckedTo;
        for (;;) {
            const std::optional<std::string_view> line = lineAt(buffer.data() + at, buffer.size() - at, nullptr);
            if (!line) {
                state.headerCheckedTo = at;
                state.lookedAt = buffer.size();
                return std::nullopt;
            }
            at += line->size();
            const std::string_view field = trimmed(*line, isLineEnd);
            if (field.empty() || field.find(": ") == std::string_view::npos) break;  // decided below
        }
    }
    // From here on every return sets all three.
    state = {};
    const auto incomplete = [&](std::size_t headerCheckedTo) {
        state.headerCheckedTo = headerCheckedTo;
        state.lookedAt = buffer.size();
        return std::nullopt;
    };

    // Counted in characters, as the platform's strings count them; header
    // lines below are counted in bytes. The two agree for the ASCII start
    // lines of real traffic.
    std::size_t consumed = 0;
    const std::optional<std::string_view> line = lineAt(buffer.data(), buffer.size(), &consumed);
    if (!line) return incomplete(0);
    // Split at single spaces, the third component being everything after
    // the second space: the words after it joined again with spaces.
    const std::string_view words = trimmed(*line, isWhiteSpaceOrLineEnd);
    const std::size_t first = words.find(' ');
    const std::size_t second = first == std::string_view::npos ? first : words.find(' ', first + 1);
    if (second == std::string_view::npos) {
        Log::error("Invalid components... %s", std::string(*line).c_str());
        buffer.clear();
        return std::nullopt;
    }
    std::vector<std::string> components = {std::string(words.substr(0, first)),
                                           std::string(words.substr(first + 1, second - first - 1)),
                                           std::string(words.substr(second + 1))};

    HTTPHeaderFields header;
    for (;;) {
        if (consumed > buffer.size()) return incomplete(0);
        const std::optional<std::string_view> headerLine =
            lineAt(buffer.data() + consumed, buffer.size() - consumed, nullptr);
        if (!headerLine) return incomplete(consumed);
        consumed += headerLine->size();
        const std::string_view field = trimmed(*headerLine, isLineEnd);
        if (field.empty()) break;
        // The name ends at the first ": "; the value is all the rest, later
        // ": " included.
        const std::size_t colon = field.find(": ");
        if (colon == std::string_view::npos) {
            buffer.clear();
            return std::nullopt;
        }
        header.set(std::string(field.substr(0, colon)), std::string(field.substr(colon + 2)));
    }

    std::optional<ByteBuffer> body;
    if (const std::string* length = header.find("Content-Length")) {
        // A negative length is never satisfied: the message stays incomplete.
        const std::int64_t bodyLength = int32Value(*length);
        if (bodyLength < 0 || static_cast<std::uint64_t>(bodyLength) > buffer.size() - consumed) {
            state.wholeAt = bodyLength < 0 ? SIZE_MAX : consumed + static_cast<std::size_t>(bodyLength);
            return std::nullopt;
        }
        const std::size_t start = consumed;
        consumed += static_cast<std::size_t>(bodyLength);
        if (consumed == buffer.size() && bodyLength >= kLargeBody) {
            // The message is all the buffer holds: its bytes become the
            // body's, header and all, rather than a copy of them.
            body = buffer.take().subrange(start);
            consumed = 0;
        } else {
            body = ByteBuffer::copy(buffer.data() + start, static_cast<std::size_t>(bodyLength));
        }
    }
    removeFront(buffer, consumed);
    if (payload) *payload = std::move(body);
    if (initialLine) *initialLine = std::move(components);
    return header;
}

std::optional<std::vector<HTTPHeaderFields::Field>> PXHTTPParser::parseHTTPHeader(const ByteBuffer& header) {
    const auto* text = reinterpret_cast<const char*>(header.data());
    if (std::any_of(header.begin(), header.end(), [](std::uint8_t byte) { return byte > 0x7F; })) return std::nullopt;
    std::vector<HTTPHeaderFields::Field> fields;
    const char* at = text;
    const char* nameStart = nullptr;
    const char* valueStart = nullptr;
    std::size_t nameLength = 0, valueLength = 0;
    while (HTTPGetHeaderField(at, header.size() - static_cast<std::size_t>(at - text), nullptr, &nameStart, &nameLength,
                              &valueStart, &valueLength, &at))
        fields.emplace_back(std::string(nameStart, nameLength), std::string(valueStart, valueLength));
    return fields;
}

int HTTPGetHeaderField(const char* text, std::size_t length, const char* name, const char** nameStart,
                       std::size_t* nameLength, const char** valueStart, std::size_t* valueLength, const char** next) {
    if (length == SIZE_MAX) length = std::strlen(text);
    const char* const end = text + length;
    const std::size_t wanted = name ? std::strlen(name) : 0;
    // The end of the line starting at `p`, and where the line after it starts.
    const auto lineAt = [end](const char* p, const char** lineEnd, const char** after) {
        const char* e = p;
        while (e < end && *e != '\r' && *e != '\n') ++e;
        if (e == end) return false;
        *lineEnd = e;
        if (e < end && *e == '\r') ++e;
        if (e < end && *e == '\n') ++e;
        *after = e;
        return true;
    };
    for (const char* line = text;;) {
        const char* lineEnd;
        const char* after;
        if (!lineAt(line, &lineEnd, &after)) return 0;
        const std::size_t size = static_cast<std::size_t>(lineEnd - line);
        const char* colon = nullptr;
        if (name) {
            if (size > wanted && line[wanted] == ':' && std::memcmp(line, name, wanted) == 0) colon = line + wanted;
        } else {
            colon = static_cast<const char*>(std::memchr(line, ':', size));
        }
        if (!colon) {
            line = after;
            continue;
        }
        const char* value = colon + 1;
        while (value < lineEnd && (*value == ' ' || *value == '\t')) ++value;
        const char* valueEnd = lineEnd;
        // Continuation lines belong to the value, line breaks and all.
        while (after < end && (*after == ' ' || *after == '\t')) {
            const char* continuationEnd;
            const char* continuationAfter;
            if (!lineAt(after, &continuationEnd, &continuationAfter)) break;
            valueEnd = continuationEnd;
            after = continuationAfter;
        }
        if (nameStart) *nameStart = line;
        if (nameLength) *nameLength = static_cast<std::size_t>(colon - line);
        if (valueStart) *valueStart = value;
        if (valueLength) *valueLength = static_cast<std::size_t>(std::max(valueEnd, value) - value);
        if (next) *next = after;
        return 1;
    }
}

}  // namespace wireloom
