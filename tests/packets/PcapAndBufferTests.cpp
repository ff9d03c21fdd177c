// pcap file records and the byte-buffer utilities.
#include "PacketTestSupport.hpp"

#include <gtest/gtest.h>

#include <algorithm>
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

namespace {

// A classic pcap file byte by byte, in either byte order, so that every
// field a reader might get wrong can be set.
struct RawPcap {
    bool swapped = false;
    Bytes bytes;
    void put32(std::uint32_t v) {
        if (swapped) v = __builtin_bswap32(v);
        bytes.insert(bytes.end(), reinterpret_cast<std::uint8_t*>(&v), reinterpret_cast<std::uint8_t*>(&v) + 4);
    }
    void put16(std::uint16_t v) {
        if (swapped) v = __builtin_bswap16(v);
        bytes.insert(bytes.end(), reinterpret_cast<std::uint8_t*>(&v), reinterpret_cast<std::uint8_t*>(&v) + 2);
    }
    RawPcap(bool swap, std::uint32_t magic, std::uint16_t minor, std::uint32_t snaplen, std::uint32_t linkType)
        : swapped(swap) {
        put32(magic);
        put16(2);
        put16(minor);
        put32(0);
        put32(0);
        put32(snaplen);
        put32(linkType);
    }
    // `stored` bytes of data follow, whatever caplen says.
    void record(std::uint32_t seconds, std::uint32_t fraction, std::uint32_t caplen, std::uint32_t len,
                std::size_t stored) {
        put32(seconds);
        put32(fraction);
        put32(caplen);
        put32(len);
        for (std::size_t i = 0; i < stored; ++i) bytes.push_back(static_cast<std::uint8_t>(i * 7 + caplen));
    }
    void record(std::uint32_t seconds, std::uint32_t fraction, std::uint32_t caplen) {
        record(seconds, fraction, caplen, caplen + 4, caplen);
    }
};

// Every record's header and bytes, then the message after the last.
std::string readAll(const std::string& path, bool libpcapAlone) {
    std::string out, error;
    auto line = [&](const pcap_pkthdr& h, const std::uint8_t* data) {
        out += std::to_string(h.ts.tv_sec) + "." + std::to_string(h.ts.tv_usec) + " " + std::to_string(h.caplen) + "/" +
               std::to_string(h.len) + " " + ByteBuffer::copy(data, h.caplen).md5HexDigest() + "\n";
    };
    if (libpcapAlone) {
        char reason[PCAP_ERRBUF_SIZE];
        pcap_t* handle = pcap_open_offline(path.c_str(), reason);
        if (!handle) return reason;
        pcap_pkthdr* h;
        const u_char* data;
        int status;
        while ((status = pcap_next_ex(handle, &h, &data)) == 1) line(*h, data);
        if (status != PCAP_ERROR_BREAK) error = pcap_geterr(handle);
        pcap_close(handle);
    } else {
        auto file = PXCaptureFile::open(path, &error);
        if (!file) return error;
        const pcap_pkthdr* h;
        const std::uint8_t* data;
        while (file->nextRecord(&h, &data, &error)) line(*h, data);
    }
    return out + "end: " + error;
}

}  // namespace

// Records are read without libpcap where it would only pass them through;
// whatever the file holds, the records and errors must be libpcap's own.
TEST(CaptureFile, RecordsAndErrorsAreLibpcapsInEveryLayout) {
    const std::string path = ::testing::TempDir() + "layout.pcap";
    auto check = [&](const RawPcap& file, const char* what) {
        std::FILE* f = std::fopen(path.c_str(), "wb");
        std::fwrite(file.bytes.data(), 1, file.bytes.size(), f);
        std::fclose(f);
        const std::string expected = readAll(path, true);
        EXPECT_EQ(readAll(path, false), expected) << what;
        return expected;
    };
    for (bool swapped : {false, true}) {
        for (std::uint32_t magic : {0xa1b2c3d4u, 0xa1b23c4du}) {
            // Negative and out-of-range times pass through (or are scaled) as
            // libpcap does; a record longer than the snapshot is cut to it.
            RawPcap file(swapped, magic, 4, 96, 1);
            file.record(1700000000, 999999, 60);
            file.record(0xffffffff, 1000000, 96);
            file.record(5, 0x80000001, 0, 0, 0);
            file.record(6, 999999999, 200, 300, 200);
            file.record(7, 1, 64);
            const std::string whole = check(file, "times and an oversized record");
            EXPECT_EQ(std::count(whole.begin(), whole.end(), '\n'), 5) << whole;
            // Cut in a record's data, then in a record's header.
            RawPcap cut = file;
            cut.record(8, 2, 50, 50, 20);
            EXPECT_NE(check(cut, "data cut short").find("truncated"), std::string::npos);
            cut = file;
            cut.bytes.insert(cut.bytes.end(), 9, 0);
            EXPECT_NE(check(cut, "header cut short").find("truncated"), std::string::npos);
        }
    }
    // More than the reader's buffer holds, records straddling each refill,
    // and one of the largest snapshot, more than the buffer itself.
    RawPcap large(false, 0xa1b2c3d4u, 4, 262144, 1);
    for (std::uint32_t i = 0; i < 2500; ++i) large.record(i, i, i == 1200 ? 262144 : 900 + i % 700);
    check(large, "three megabytes");
    // Layouts that libpcap alone reads: lengths that version 2.3 may have
    // swapped, and a link type whose pseudo-header libpcap rewrites.
    RawPcap old(false, 0xa1b2c3d4u, 3, 65535, 1);
    old.record(1, 1, 80, 40, 80);
    check(old, "version 2.3");
    RawPcap usb(true, 0xa1b2c3d4u, 4, 65535, 189);
    usb.record(1, 1, 64);
    check(usb, "Linux USB");
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
