#pragma once
// PXHTTPParser: cuts HTTP/1.x messages off the front of the bytes one
// direction of a stream has accumulated. It keeps no state: the caller owns
// the buffer, appends each stream chunk and asks again until no complete
// message is left:
//
//   MutableByteBuffer pending;   // one per direction
//   pending.append(chunk);
//   std::optional<ByteBuffer> body;
//   std::vector<std::string> startLine;
//   while (auto header = PXHTTPParser::parseHTTPFrameFrom(pending, &body, &startLine))
//       handle(startLine, *header, body);
//
// A body is delimited by "Content-Length" and nothing else: no chunked
// coding, no reading to the connection's end, no exception for responses
// that never carry one. A message without the field has no body, and what
// follows its blank line is taken as the next message. Names are matched
// exactly as written, so "content-length" is not the length field.
//
// Malformed input empties the buffer (a start line of fewer than three
// words, with a log line; a header line without ": "); an incomplete
// message leaves it as it was.

#include <Wireloom/core/ByteBuffer.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace wireloom {

// A message's header fields by name. Kept in the order the names first
// appeared, for display; a later field of a name replaces the value of the
// earlier one, as in a dictionary.
class HTTPHeaderFields {
public:
    using Field = std::pair<std::string, std::string>;

    // The value of the field named exactly `name`, or null.
    const std::string* find(std::string_view name) const noexcept;
    void set(std::string name, std::string value);
    std::size_t size() const noexcept { return fields_.size(); }
    bool empty() const noexcept { return fields_.empty(); }
    auto begin() const noexcept { return fields_.begin(); }
    auto end() const noexcept { return fields_.end(); }

private:
    // Past this many fields, names are found through a hash of positions: a
    // header of many thousand lines, as a hostile sender may write, would
    // otherwise cost the square of their number.
    static constexpr std::size_t kLinearFields = 16;
    std::size_t positionOf(std::string_view name) const noexcept;
    std::vector<Field> fields_;
    std::unordered_multimap<std::size_t, std::size_t> positionsByHash_;
};

// What a caller that only appends to its buffer keeps between calls for it,
// so that an incomplete message costs only the bytes that arrived since:
// without it, a header that never ends would be read again from its start
// for every chunk.
struct HTTPFrameProgress {
    // The buffer size from which the front message is complete when only
    // its body is still short (SIZE_MAX if never), and 0 otherwise: the
    // caller can wait until then instead of asking for every chunk.
    std::size_t wholeAt = 0;
    // Where the parser stopped reading an incomplete header, and how much
    // of the buffer it had seen; both 0 after the front changed.
    std::size_t headerCheckedTo = 0;
    std::size_t lookedAt = 0;
};

class PXHTTPParser {
public:
    // The bytes up to and including the first line feed, as UTF-8 text;
    // nothing without a line feed or when they are not valid UTF-8.
    static std::optional<std::string> nextLineFromBytes(const std::uint8_t* bytes, std::size_t length);

    // One complete message cut from the front of `buffer`: its header
    // fields, its body (*payload; an empty buffer for "Content-Length: 0",
    // nothing without the field) and its start line split in three
    // (*initialLine: the first two words and the rest). Nothing when no
    // complete message is there, or the front was malformed and discarded.
    // `progress`, if given, must be the one the previous call on this
    // buffer left, the buffer only appended to since (a new buffer starts
    // with a new one).
    static std::optional<HTTPHeaderFields> parseHTTPFrameFrom(MutableByteBuffer& buffer,
                                                              std::optional<ByteBuffer>* payload,
                                                              std::vector<std::string>* initialLine,
                                                              HTTPFrameProgress* progress = nullptr);

    // Every field of a raw header block, in order, duplicates kept; nothing
    // when the block is not ASCII.
    static std::optional<std::vector<HTTPHeaderFields::Field>> parseHTTPHeader(const ByteBuffer& header);
};

// Scans `text` (`length` bytes, or up to its zero byte when length is
// SIZE_MAX) for the next header field named `name` (byte-exact), or of any
// name when `name` is null. Returns 1 and the name's and value's ranges and
// the place to continue from, or 0. Lines that are not fields are skipped,
// the blank line ending a header block included; a last line without its
// line end is never a field. A value runs on over continuation lines (lines
// starting with a space or tab), which stay inside its range. Any out-
// parameter may be null.
int HTTPGetHeaderField(const char* text, std::size_t length, const char* name, const char** nameStart,
                       std::size_t* nameLength, const char** valueStart, std::size_t* valueLength, const char** next);

}  // namespace wireloom
