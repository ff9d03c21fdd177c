// The HTTP parser's failure table, the message framing cases real traffic
// brings (pipelining, empty and missing bodies, bare LF), and the header
// field scanner.
#include <Wireloom/Wireloom.hpp>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace wireloom;

namespace {

MutableByteBuffer bufferOf(std::string_view text) {
    MutableByteBuffer buffer;
    buffer.append(text);
    return buffer;
}

std::string textOf(const MutableByteBuffer& buffer) {
    return std::string(reinterpret_cast<const char*>(buffer.data()), buffer.size());
}

struct Parsed {
    std::optional<HTTPHeaderFields> header;
    std::optional<ByteBuffer> body;
    std::vector<std::string> startLine;
};

Parsed parse(MutableByteBuffer& buffer) {
    Parsed parsed;
    parsed.header = PXHTTPParser::parseHTTPFrameFrom(buffer, &parsed.body, &parsed.startLine);
    return parsed;
}

}  // namespace

TEST(PXHTTPParser, FailureTableKeepsOrEmptiesTheBufferRowByRow) {
    std::vector<std::string> logged;
    Log::setSink([&](Log::Level, const std::string& text) { logged.push_back(text); });
    // wholeAt: the buffer size from which asking again can help; known
    // only when nothing but body bytes are missing.
    struct Row {
        const char* input;
        bool emptied;
        std::size_t wholeAt;
    } rows[] = {
        {"GET / HTTP/1.1", false, 0},                                            // no complete start line
        {"GET /\r\nHost: a\r\n\r\n", true, 0},                                   // two words
        {"GET / HTTP/1.1\r\nHost: a\r\n", false, 0},                             // header block not complete
        {"GET / HTTP/1.1\r\nHost:example\r\n\r\n", true, 0},                     // no ": "
        {"POST / HTTP/1.1\r\nContent-Length: 10\r\n\r\nshort", false, 49},       // body short
        {"POST / HTTP/1.1\r\nContent-Length: -1\r\n\r\nbody", false, SIZE_MAX},  // never satisfied
        {"\xff\xfe / HTTP/1.1\r\n\r\n", false, 0},                               // not UTF-8: no line
    };
    for (const Row& row : rows) {
        MutableByteBuffer buffer = bufferOf(row.input);
        HTTPFrameProgress progress;
        EXPECT_FALSE(PXHTTPParser::parseHTTPFrameFrom(buffer, nullptr, nullptr, &progress)) << row.input;
        EXPECT_EQ(textOf(buffer), row.emptied ? "" : row.input) << row.input;
        EXPECT_EQ(progress.wholeAt, row.wholeAt) << row.input;
    }
    Log::setSink({});
    ASSERT_EQ(logged.size(), 1u);
    EXPECT_EQ(logged[0], "Invalid components... GET /\r\n");
}

TEST(PXHTTPParser, CutsPipelinedMessagesAndTheirBodies) {
    MutableByteBuffer buffer = bufferOf(
        "HTTP/1.1 404 Not Found\r\nContent-Length: 3\r\nX: a: b\r\nX-Empty: \r\n\r\nabc"
        "HTTP/1.1 204 No Content\nContent-Length: 0\n\n"
        "HTTP/1.1 304 Not Modified\r\ncontent-length: 4\r\n\r\nbody");
    Parsed first = parse(buffer);
    ASSERT_TRUE(first.header);
    EXPECT_EQ(first.startLine, (std::vector<std::string>{"HTTP/1.1", "404", "Not Found"}));
    EXPECT_EQ(*first.header->find("X"), "a: b");
    EXPECT_EQ(*first.header->find("X-Empty"), "");
    EXPECT_EQ(first.body->stringView(), "abc");
    EXPECT_EQ(textOf(buffer).rfind("HTTP/1.1 204", 0), 0u);

    Parsed second = parse(buffer);  // bare LF line ends
    ASSERT_TRUE(second.header && second.body);
    EXPECT_TRUE(second.body->empty());

    // A lower-case length is not the length: no body, and its bytes become
    // the next start line (one word: discarded).
    Parsed third = parse(buffer);
    ASSERT_TRUE(third.header);
    EXPECT_FALSE(third.body);
    EXPECT_EQ(textOf(buffer), "body");
    EXPECT_FALSE(parse(buffer).header);
}

// Large bodies may take over the buffer's bytes instead of being copied out:
// whether or not another message follows, the body and the rest come out the same.
TEST(PXHTTPParser, LargeBodiesWithAndWithoutAMessageBehind) {
    std::string body(100'000, 'b');
    body.front() = '<', body.back() = '>';
    for (const std::string behind : {"", "GET / HTTP/1.1\r\n"}) {
        MutableByteBuffer buffer = bufferOf("HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n" + body + behind);
        Parsed parsed = parse(buffer);
        ASSERT_TRUE(parsed.header && parsed.body) << behind;
        EXPECT_EQ(textOf(buffer), behind);
        buffer.append(std::string_view("more"));
        EXPECT_EQ(parsed.body->stringView(), body) << "the buffer's later bytes are not the body's";
    }
}

// Whether or not the parser resumes where the previous call stopped, a
// message arriving byte by byte is cut, or dropped as malformed, on its last
// byte and not before.
TEST(PXHTTPParser, MessagesArrivingByteByByteAreDecidedOnTheirLastByte) {
    // More fields than are looked up one by one, a name given twice, and a
    // character of two bytes.
    std::string message = "POST /upload HTTP/1.1\r\n";
    for (int i = 0; i < 40; ++i) message += "F" + std::to_string(i) + ": v" + std::to_string(i) + "\r\n";
    message += "F30: again\r\nX-Text: caf\xc3\xa9\r\nContent-Length: 2\r\n\r\nok";
    const std::string malformed = "GET / HTTP/1.1\r\nA: b\r\nno colon\r\n";
    for (const bool resumed : {false, true}) {
        for (const std::string& input : {message, malformed}) {
            SCOPED_TRACE(testing::Message() << (resumed ? "resumed: " : "") << input.substr(0, 5));
            MutableByteBuffer buffer;
            HTTPFrameProgress progress;
            std::optional<HTTPHeaderFields> header;
            std::size_t fed = 0;
            do {
                buffer.append(reinterpret_cast<const std::uint8_t*>(&input[fed++]), 1);
                header = PXHTTPParser::parseHTTPFrameFrom(buffer, nullptr, nullptr, resumed ? &progress : nullptr);
            } while (!buffer.empty() && fed < input.size());
            EXPECT_EQ(fed, input.size());
            EXPECT_TRUE(buffer.empty());
            ASSERT_EQ(header.has_value(), input == message);
            if (!header) continue;
            EXPECT_EQ(header->size(), 42u);
            EXPECT_EQ(header->begin()->first, "F0");
            EXPECT_EQ(*header->find("F30"), "again");
            EXPECT_EQ(*header->find("F39"), "v39");
        }
    }
}

TEST(PXHTTPParser, CountsTheStartLineInCharactersAndHeaderLinesInBytes) {
    // "é" is one character but two bytes: the header scan starts one byte
    // early, inside the start line's line end, and reads an empty line there.
    MutableByteBuffer buffer = bufferOf("GET /caf\xc3\xa9 HTTP/1.1\n\nHost: a\r\n\r\n");
    Parsed parsed = parse(buffer);
    ASSERT_TRUE(parsed.header);
    EXPECT_TRUE(parsed.header->empty());
    EXPECT_EQ(parsed.startLine[1], "/caf\xc3\xa9");
    EXPECT_EQ(textOf(buffer), "\nHost: a\r\n\r\n");
}

TEST(PXHTTPParser, HeaderFieldScannerFoldsContinuationsAndMatchesNamesExactly) {
    const std::string block =
        "Host: example.com\r\nX-Long: one\r\n  two\r\n\tthree\r\nhost: lower\r\n\r\nAfter: blank\r\nLast: open";
    // The blank line does not stop the scan; an unterminated last line is no field.
    const std::pair<const char*, std::optional<std::string>> fields[] = {
        {"X-Long", "one\r\n  two\r\n\tthree"}, {"host", "lower"}, {"After", "blank"}, {"Last", {}}, {"Hos", {}}};
    for (const auto& [name, value] : fields) {
        for (const std::size_t length : {block.size(), SIZE_MAX}) {
            const char* valueStart = nullptr;
            std::size_t valueLength = 0;
            std::optional<std::string> found;
            if (HTTPGetHeaderField(block.c_str(), length, name, nullptr, nullptr, &valueStart, &valueLength, nullptr))
                found.emplace(valueStart, valueLength);
            EXPECT_EQ(found, value) << name << " in " << length;
        }
    }
    auto all = PXHTTPParser::parseHTTPHeader(ByteBuffer::fromString(block));
    EXPECT_EQ(
        all,
        (std::vector<HTTPHeaderFields::Field>{
            {"Host", "example.com"}, {"X-Long", "one\r\n  two\r\n\tthree"}, {"host", "lower"}, {"After", "blank"}}));
    EXPECT_FALSE(PXHTTPParser::parseHTTPHeader(ByteBuffer::fromString("X: caf\xc3\xa9\r\n")));
}
