// Which flow a TCP packet reaches while flows come and go under the same
// addresses: the table remembers each address pair's flow between packets,
// and must forget it whenever a flow is filed or removed.
#include "support/TcpConversation.hpp"

#include <Wireloom/capture/PXNetworkCapture.hpp>
#include <Wireloom/flows/PXTCPFlow.hpp>
#include <Wireloom/flows/PXTCPFlowTable.hpp>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace wireloom;
using namespace wireloom::testing;

namespace {

struct Chunk {
    const Object* flow;
    std::string from, text;
};

class FlowRouting : public ::testing::Test {
protected:
    void SetUp() override {
        NotificationCenter& center = NotificationCenter::defaultCenter();
        center.addObserver(this, kPXTCPFlowStreamChunkNotificationName, [this](const Notification& n) {
            chunks.push_back({n.sender.get(), *n.userInfo.at("identifier").string(),
                              std::string(n.userInfo.at("chunk").bytes()->stringView())});
        });
        center.addObserver(this, kPXTCPFlowEndedNotificationName,
                           [this](const Notification& n) { ended.push_back(n.userInfo.at("flow").object()); });
    }
    void TearDown() override {
        NotificationCenter::defaultCenter().removeObserver(this);
        table->invalidate();
    }
    void feed(const std::vector<Frame>& frames) {
        for (const Frame& frame : frames)
            capture->processRawPacketData(ByteBuffer::copy(frame.bytes.data(), frame.bytes.size()), frame.timestamp);
    }

    PXNetworkCapture::Ptr capture = PXNetworkCapture::captureWithNullDevice();
    PXTCPFlowTable::Ptr table = PXTCPFlowTable::initWithCapture(capture);
    std::vector<Chunk> chunks;
    std::vector<ObjectPtr> ended;  // kept, so that no new flow takes an ended one's address
    double clock = 1700000000;
};

const TcpEndpoint kClient{kMacA, "10.0.0.9", 5000};
const TcpEndpoint kServer{kMacB, "10.0.0.10", 80};
const TcpEndpoint kOtherClient{kMacA, "10.0.0.9", 5001};

TEST_F(FlowRouting, AConnectionOpenedAgainOnTheSamePortsIsANewFlow) {
    std::vector<Frame> frames;
    TcpConversation first(1, kClient, kServer, 1000, 5000);
    TcpConversation other(1, kOtherClient, kServer, 3000, 7000);
    first.open(frames, clock);
    other.open(frames, clock);
    first.send(true, bytesOf("one"), frames, clock);
    other.send(true, bytesOf("A"), frames, clock);
    first.close(frames, clock);
    // The other flow's route was remembered before the first flow went.
    other.send(true, bytesOf("B"), frames, clock);
    feed(frames);
    ASSERT_EQ(ended.size(), 1u);
    const Object* gone = ended[0].get();

    // Data on the closed ports reaches no flow; a new SYN starts one.
    frames.clear();
    TcpConversation late(1, kClient, kServer, 1004, 5002);
    late.send(true, bytesOf("stray"), frames, clock);
    TcpConversation second(1, kClient, kServer, 90000, 95000);
    second.open(frames, clock);
    second.send(true, bytesOf("two"), frames, clock);
    second.send(false, bytesOf("reply"), frames, clock);
    other.send(true, bytesOf("C"), frames, clock);
    feed(frames);

    ASSERT_EQ(chunks.size(), 6u);
    EXPECT_EQ(chunks[0].text, "one");
    EXPECT_EQ(chunks[0].flow, gone);
    const Object* otherFlow = chunks[1].flow;
    EXPECT_NE(otherFlow, gone);
    EXPECT_EQ(chunks[1].text + chunks[2].text + chunks[5].text, "ABC");
    EXPECT_EQ(chunks[2].flow, otherFlow);
    EXPECT_EQ(chunks[5].flow, otherFlow);
    EXPECT_EQ(chunks[3].text, "two");
    EXPECT_EQ(chunks[4].text, "reply");
    EXPECT_EQ(chunks[4].from, "10.0.0.10:80");
    EXPECT_EQ(chunks[3].flow, chunks[4].flow);
    EXPECT_NE(chunks[3].flow, gone);
    EXPECT_NE(chunks[3].flow, otherFlow);
    EXPECT_EQ(table->table().size(), 2u);
}

}  // namespace
