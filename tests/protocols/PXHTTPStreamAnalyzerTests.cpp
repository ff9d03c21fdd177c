// The stream analyser fed stream chunks as a flow posts them: when records
// come out, how responses pair with request contexts through the one slot,
// and the property-list container's error lines.
#include <Wireloom/Wireloom.hpp>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace wireloom;

namespace {

class RecordingDelegate : public PXHTTPStreamAnalyzerDelegate {
public:
    Value httpStreamAnalyzer(PXHTTPStreamAnalyzer&, const std::optional<ByteBuffer>& data, const std::string* type,
                             std::string* error, const std::shared_ptr<Object>&) override {
        ++parses;
        if (type && *type == "broken") *error = "cannot read";
        return data ? Value(std::string(data->stringView())) : Value();
    }
    Value httpStreamAnalyzer(PXHTTPStreamAnalyzer&, const PXHTTPRequest::Ptr& request) override {
        requests.push_back(request);
        return Value(request->resource());
    }
    void httpStreamAnalyzer(PXHTTPStreamAnalyzer&, const PXHTTPResponse::Ptr& response, const Value& context) override {
        responses.push_back(response);
        contexts.push_back(context.string() ? *context.string() : "(none)");
    }
    int parses = 0;
    std::vector<PXHTTPRequest::Ptr> requests;
    std::vector<PXHTTPResponse::Ptr> responses;
    std::vector<std::string> contexts;
};

class PXHTTPStreamAnalyzerTest : public ::testing::Test {
protected:
    void send(bool fromClient, std::string_view bytes) {
        NotificationCenter::defaultCenter().postNotification(
            kPXTCPFlowStreamChunkNotificationName, flow,
            {{"chunk", ByteBuffer::fromString(bytes)},
             {"identifier", fromClient ? flow->endpoint1() : flow->endpoint0()}});
    }

    PXTCPFlow::Ptr flow = PXTCPFlow::initWithEndpoint("10.0.0.10:80", "10.0.0.9:5000", nullptr);
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
    // The client is the endpoint that sorts second here.
    PXHTTPStreamAnalyzer::Ptr analyzer = PXHTTPStreamAnalyzer::initWithTCPFlow(flow, delegate, false);
};

}  // namespace

// A request cut inside its start line and its body, then one pipelined
// behind it: the single context slot leaves the second response without one.
TEST_F(PXHTTPStreamAnalyzerTest, RequestsInPiecesAndPipelinedAndTheContextsOfTheirResponses) {
    send(true, "POST /notes HT");
    send(true, "TP/1.1\r\nContent-Length: 5\r\n\r\nhel");
    EXPECT_TRUE(delegate->requests.empty());
    send(true, "loGET /b HTTP\r\n\r\n");
    ASSERT_EQ(delegate->requests.size(), 2u);
    const PXHTTPRequest& post = *delegate->requests[0];
    EXPECT_EQ(post.method(), "POST");
    EXPECT_EQ(post.resource(), "/notes");
    EXPECT_EQ(post.version(), "1.1");
    EXPECT_EQ(post.content()->stringView(), "hello");
    EXPECT_EQ(*post.parsedContent().string(), "hello");
    EXPECT_EQ(delegate->requests[1]->protocol(), "unknown");
    EXPECT_EQ(delegate->requests[1]->version(), "unknown");

    send(false, "HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\nAHTTP/1.1 200 OK\r\n\r\n");
    ASSERT_EQ(delegate->responses.size(), 2u);
    EXPECT_EQ(delegate->contexts, (std::vector<std::string>{"/b", "(none)"}));
}

// A body in many chunks, the last of which also starts the next message:
// waiting for the body's last byte must neither miss nor repeat a message.
TEST_F(PXHTTPStreamAnalyzerTest, BodyInManyChunksThenTheNextMessageBehindIt) {
    send(false, "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n01");
    send(false, "2345");
    send(false, "678");
    EXPECT_TRUE(delegate->responses.empty());
    send(false, "9HTTP/1.1 404 Not Found\r\nContent-Length: 3\r\n\r\nno");
    ASSERT_EQ(delegate->responses.size(), 1u);
    EXPECT_EQ(delegate->responses[0]->content()->stringView(), "0123456789");
    send(false, "!HTTP/1.1 304 Not Modified\r\n");
    ASSERT_EQ(delegate->responses.size(), 2u);
    EXPECT_EQ(delegate->responses[1]->content()->stringView(), "no!");
    send(false, "\r\n");
    ASSERT_EQ(delegate->responses.size(), 3u);
    EXPECT_EQ(delegate->responses[2]->statusCode(), 304);
    EXPECT_EQ(analyzer->endpoint0Outgoing().size(), 0u);
}

TEST_F(PXHTTPStreamAnalyzerTest, OnlyExactly200OKHasItsBodyParsed) {
    send(false, "HTTP/1.1 200 Ok\r\nContent-Length: 2\r\n\r\nhi");
    send(false, "HTTP/1.1 200 OK\r\nContent-Type: broken\r\nContent-Length: 2\r\n\r\nhi");
    ASSERT_EQ(delegate->responses.size(), 2u);
    EXPECT_EQ(delegate->responses[0]->errorDescription(), "Response is not 200 OK");
    EXPECT_EQ(delegate->responses[0]->content()->stringView(), "hi");  // kept, not parsed
    EXPECT_EQ(delegate->responses[1]->errorDescription(), "cannot read");
    EXPECT_EQ(delegate->parses, 1);
}

TEST(PXHTTPBPlistContainer, ShowsOneErrorLinePerUnknownKeyInKeyOrder) {
    PXHTTPBPlistContainer container;
    EXPECT_FALSE(container.keyErrorDescriptions());
    container.addErrorDescriptionForUnknownKey("unexpected", "b");
    container.addErrorDescriptionForUnknownKey("first", "a");
    container.addErrorDescriptionForUnknownKey("replaced", "a");
    container.addErrorDescription("bad", "z");
    container.addErrorDescription("bad", "m");
    EXPECT_EQ(container.keysWithErrors(), (std::vector<std::string>{"m", "z"}));
    EXPECT_EQ(*container.errorDescriptionForKey("z"), "bad");
    auto entry = container.reportAnalyzerEntryUsingDataSource(nullptr);
    ASSERT_EQ(entry->numChildren(), 2u);
    EXPECT_EQ((*entry->children())[0]->plainTitle(), "Key 'a' Error: replaced");
    EXPECT_EQ((*entry->children())[1]->plainTitle(), "Key 'b' Error: unexpected");
}
