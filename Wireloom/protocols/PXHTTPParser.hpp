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
    std::vector<Field> fields_;
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
    // *wholeAt, if asked for, is the buffer size from which the message at
    // the front is complete when only its body is still short (SIZE_MAX if
    // never), and 0 otherwise: a caller that only appends can wait until
    // then instead of parsing the same header again for every chunk.
    static std::optional<HTTPHeaderFields> parseHTTPFrameFrom(MutableByteBuffer& buffer,
                                                              std::optional<ByteBuffer>* payload,
                                                              std::vector<std::string>* initialLine,
                                                              std::size_t* wholeAt = nullptr);

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
