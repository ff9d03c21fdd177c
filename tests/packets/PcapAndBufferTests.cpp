// pcap file records and the byte-buffer utilities.
#include "PacketTestSupport.hpp"

#include <gtest/gtest.h>

#include <cstring>

using namespace wireloom;
using namespace wireloom::testing;

namespace {
template <class T>
T at(const ByteBuffer& buffer, std::size_t offset) {
    T value;
    std::memcpy(&value, buffer.data() + offset, sizeof value);
    return value;
}
}  // namespace

TEST(Pcap, GlobalHeaderInHostOrder) {
    ByteBuffer header = PXPacket::pcapHeaderForLinkLayerType(1);
    ASSERT_EQ(header.size(), 24u);
    EXPECT_EQ(at<std::uint32_t>(header, 0), 0xa1b2c3d4u);
    EXPECT_EQ(at<std::uint16_t>(header, 4), 2);
    EXPECT_EQ(at<std::uint16_t>(header, 6), 4);
    EXPECT_EQ(at<std::uint32_t>(header, 16), 65535u);
    EXPECT_EQ(at<std::uint32_t>(header, 20), 1u);

    PXPacketPtr undecoded = decode(Bytes(3, 0), 228);
    EXPECT_EQ(at<std::uint32_t>(PXPacket::pcapHeaderForRepresentativePacket(*undecoded), 20), 0xffffffffu);
    PXPacketPtr loop = decode(loopback(kLoopbackIPv4, Bytes(4, 0)), 0);
    EXPECT_EQ(at<std::uint32_t>(PXPacket::pcapHeaderForRepresentativePacket(*loop), 20), 0u);
}

TEST(Pcap, RecordRoundsMicrosecondsWithoutCarry) {
    Bytes frame = ethernet(kMacB, kMacA, kEtherTypeIPv4, ipv4(kClient4, kServer4, kProtoUDP, udp(1, 2, bytesOf("x"))));
    PXPacketPtr packet = decode(frame);
    packet->rootPacket()->setTimestamp(1.9999996);
    packet->rootPacket()->setLengthOnWire(1514);
    ByteBuffer entry = packet->pcapFileEntry();  // any layer writes the whole frame
    ASSERT_EQ(entry.size(), 16 + frame.size());
    EXPECT_EQ(at<std::uint32_t>(entry, 0), 1u);
    EXPECT_EQ(at<std::uint32_t>(entry, 4), 1000000u);
    EXPECT_EQ(at<std::uint32_t>(entry, 8), frame.size());
    EXPECT_EQ(at<std::uint32_t>(entry, 12), 1514u);
    EXPECT_EQ(std::memcmp(entry.data() + 16, frame.data(), frame.size()), 0);

    packet->rootPacket()->setTimestamp(1700000000.123456);
    entry = packet->pcapFileEntry();
    EXPECT_EQ(at<std::uint32_t>(entry, 0), 1700000000u);
    EXPECT_EQ(at<std::uint32_t>(entry, 4), 123456u);
}

TEST(Pcap, WrittenFileReadsBackThroughLibpcap) {
    std::string path = ::testing::TempDir() + "roundtrip.pcap";
    Bytes frame = ethernet(kMacB, kMacA, kEtherTypeIPv4, ipv4(kClient4, kServer4, kProtoUDP, udp(7, 9, bytesOf("hi"))));
    ASSERT_TRUE(writePcap(path, 1, {{1.5, frame, 0}, {2.25, frame, 60}}));
    std::string error;
    auto file = PXCaptureFile::open(path, &error);
    ASSERT_TRUE(file) << error;
    PXPacketPtr first = file->nextPacket(&error);
    PXPacketPtr second = file->nextPacket(&error);
    ASSERT_TRUE(first && second);
    EXPECT_FALSE(file->nextPacket(&error));
    EXPECT_TRUE(error.empty());
    EXPECT_DOUBLE_EQ(second->timestamp(), 2.25);
    EXPECT_EQ(second->lengthOnWire(), 60u);
    EXPECT_EQ(std::static_pointer_cast<PXUDPPacket>(first)->payload().stringView(), "hi");
}

TEST(CaptureFile, GarbageAndTruncatedFiles) {
    std::string garbage = ::testing::TempDir() + "garbage.pcap";
    std::FILE* f = std::fopen(garbage.c_str(), "wb");
    std::fputs("this is not a capture file at all", f);
    std::fclose(f);
    std::string error;
    EXPECT_FALSE(PXCaptureFile::open(garbage, &error));
    EXPECT_FALSE(error.empty());
    EXPECT_FALSE(PXCaptureFile::open(::testing::TempDir() + "missing.pcap", &error));

    std::string cut = ::testing::TempDir() + "cut.pcap";
    Bytes frame = ethernet(kMacB, kMacA, kEtherTypeARP, Bytes(28, 0));
    ASSERT_TRUE(writePcap(cut, 1, {{1, frame, 0}, {2, frame, 0}}));
    ASSERT_EQ(truncate(cut.c_str(), 24 + 16 + static_cast<off_t>(frame.size()) + 10), 0);
    auto file = PXCaptureFile::open(cut, &error);
    ASSERT_TRUE(file);
    EXPECT_TRUE(file->nextPacket(&error));
    EXPECT_FALSE(file->nextPacket(&error));
    EXPECT_NE(error.find("truncated"), std::string::npos) << error;
}

TEST(ByteBufferUtilities, DigestsEncodingsAndText) {
    ByteBuffer abc = ByteBuffer::fromString("abc");
    EXPECT_EQ(abc.sha256HexDigest(), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(abc.md5HexDigest(), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(ByteBuffer().md5HexDigest(), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(ByteBuffer::fromString("foob").base64EncodedString(), "Zm9vYg==");
    EXPECT_EQ(ByteBuffer().base64EncodedString(), "");
    // No line breaks however long the input.
    EXPECT_EQ(ByteBuffer::copy(Bytes(300, 0xff).data(), 300).base64EncodedString()->find('\n'), std::string::npos);
    EXPECT_EQ(ByteBuffer::copy(Bytes{0x00, 0x0f, 0xa0, 0xff}.data(), 4).hexEncodedString(), "000fa0ff");
    EXPECT_EQ(ByteBuffer::fromString("a\tb\r\nc\x7f\x1f~ ").bestEffortASCIIStringDiscardingInvalidBytes(), "abc~ ");
    EXPECT_EQ(ByteBuffer().bestEffortASCIIStringDiscardingInvalidBytes(), "");
}

TEST(ByteBufferUtilities, HexParsingSkipsWhatItDoesNotKnow) {
    EXPECT_EQ(ByteBuffer::dataWithHexString("0A1b"), ByteBuffer::copy(Bytes{0x01, 0xb0}.data(), 2));
    EXPECT_EQ(ByteBuffer::dataWithHexString("de ad-be:ef"), ByteBuffer::copy(Bytes{0xde, 0xad, 0xbe, 0xef}.data(), 4));
    EXPECT_TRUE(ByteBuffer::dataWithHexString("").empty());
    EXPECT_TRUE(ByteBuffer::dataWithHexString("XYZ").empty());
    EXPECT_EQ(ByteBuffer::dataWithHexString("f"), ByteBuffer::copy(Bytes{0xf0}.data(), 1));
}

TEST(ByteBufferUtilities, SubrangesShareStorage) {
    ByteBuffer whole = ByteBuffer::fromString("0123456789");
    ByteBuffer middle = whole.subrange(2, 5);
    EXPECT_EQ(middle.stringView(), "23456");
    EXPECT_EQ(middle.data(), whole.data() + 2);
    EXPECT_EQ(middle.subrange(4).stringView(), "6");
    EXPECT_TRUE(whole.subrange(10).empty());
    EXPECT_NE(whole.subrange(10).data(), nullptr);
}

TEST(ByteBufferUtilities, BorrowedViewsOwnOnceCopied) {
    ByteBuffer copied, moved, sub;
    {
        ByteBuffer lender = ByteBuffer::fromString("borrowed bytes");
        ByteBuffer view = lender.borrowedView(9, 5);
        EXPECT_EQ(view.data(), lender.data() + 9);
        copied = view;
        sub = view.subrange(1, 3);
        ByteBuffer again = lender.borrowedView(0, 8).borrowedView(0, 3);
        moved = std::move(again);
    }
    // The lender is gone; everything taken from its views still holds bytes.
    EXPECT_EQ(copied.stringView(), "bytes");
    EXPECT_EQ(sub.stringView(), "yte");
    EXPECT_EQ(moved.stringView(), "bor");
}
