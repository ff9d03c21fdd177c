// pcap file records and the byte-buffer utilities.
#include "PacketTestSupport.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstring>

using namespace wireloom;
using namespace wireloom::testing;

namespace {

void writeFile(const std::string& path, const std::string& contents) {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    std::fwrite(contents.data(), 1, contents.size(), f);
    std::fclose(f);
}

// A classic pcap file byte by byte, in either byte order, so that every
// field a reader might get wrong can be set.
struct RawPcap {
    bool bigEndian;
    Bytes bytes;
    void put(std::uint32_t v, int size) {
        for (int i = 0; i < size; ++i)
            bytes.push_back(static_cast<std::uint8_t>(v >> 8 * (bigEndian ? size - 1 - i : i)));
    }
    RawPcap(bool swapped, std::uint32_t magic, std::uint16_t minor, std::uint32_t snaplen, std::uint32_t linkType)
        : bigEndian(swapped != (std::endian::native == std::endian::big)) {
        for (auto [value, size] :
             {std::pair<std::uint32_t, int>{magic, 4}, {2, 2}, {minor, 2}, {0, 4}, {0, 4}, {snaplen, 4}, {linkType, 4}})
            put(value, size);
    }
    // `stored` bytes of data follow, whatever caplen says.
    void record(std::uint32_t seconds, std::uint32_t fraction, std::uint32_t caplen, std::uint32_t len,
                std::size_t stored) {
        for (std::uint32_t value : {seconds, fraction, caplen, len}) put(value, 4);
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

TEST(Pcap, HeaderAndRecordsInHostOrder) {
    const pcap_file_header expected{0xa1b2c3d4u, 2, 4, 0, 0, 65535, DLT_EN10MB};
    EXPECT_EQ(PXPacket::pcapHeaderForRepresentativePacket(*decode(arpRequest(kMacA, kClient4, kServer4))),
              ByteBuffer::copy(&expected, sizeof expected));
    // The link type comes from the first decoded layer, -1 when there is none.
    auto linkType = [](const PXPacketPtr& packet) {
        std::uint32_t type;
        std::memcpy(&type, PXPacket::pcapHeaderForRepresentativePacket(*packet).data() + 20, sizeof type);
        return type;
    };
    EXPECT_EQ(linkType(decode(Bytes(3, 0), 228)), 0xffffffffu);
    EXPECT_EQ(linkType(decode(loopback(kLoopbackIPv4, Bytes(4, 0)), DLT_NULL)), 0u);

    // Records round the microseconds, without carrying them into the seconds;
    // any layer writes the whole frame.
    Bytes frame = ethernet4(kProtoUDP, udp(1, 2, bytesOf("x")));
    PXPacketPtr packet = decode(frame);
    packet->rootPacket()->setLengthOnWire(1514);
    auto record = [&](double timestamp, std::uint32_t seconds, std::uint32_t micros) {
        packet->rootPacket()->setTimestamp(timestamp);
        const std::uint32_t header[] = {seconds, micros, static_cast<std::uint32_t>(frame.size()), 1514};
        Bytes bytes(reinterpret_cast<const std::uint8_t*>(header), reinterpret_cast<const std::uint8_t*>(header + 4));
        bytes.insert(bytes.end(), frame.begin(), frame.end());
        EXPECT_EQ(packet->pcapFileEntry(), ByteBuffer::copy(bytes)) << timestamp;
    };
    record(1.9999996, 1, 1000000);
    record(1700000000.123456, 1700000000, 123456);
}

TEST(CaptureFile, ReadsWhatTheLibraryWritesAndRefusesGarbage) {
    std::string path = ::testing::TempDir() + "roundtrip.pcap", error;
    Bytes frame = ethernet4(kProtoUDP, udp(7, 9, bytesOf("hi")));
    ASSERT_TRUE(writePcap(path, 1, {{1.5, frame, 0}, {2.25, frame, 60}, {3, frame, 0}}));
    ASSERT_EQ(truncate(path.c_str(), 24 + 3 * 16 + 2 * static_cast<off_t>(frame.size()) + 10), 0);
    auto file = PXCaptureFile::open(path, &error);
    ASSERT_TRUE(file) << error;
    PXPacketPtr first = file->nextPacket(&error);
    PXPacketPtr second = file->nextPacket(&error);
    ASSERT_TRUE(first && second) << error;
    EXPECT_EQ(std::static_pointer_cast<PXUDPPacket>(first)->payload().stringView(), "hi");
    EXPECT_DOUBLE_EQ(second->timestamp(), 2.25);
    EXPECT_EQ(second->lengthOnWire(), 60u);
    EXPECT_FALSE(file->nextPacket(&error));
    EXPECT_NE(error.find("truncated"), std::string::npos) << error;

    writeFile(path, "this is not a capture file at all");
    error.clear();
    EXPECT_FALSE(PXCaptureFile::open(path, &error));
    EXPECT_FALSE(error.empty());
    EXPECT_FALSE(PXCaptureFile::open(::testing::TempDir() + "missing.pcap", &error));
}

// Records are read without libpcap where it would only pass them through;
// whatever the file holds, the records and errors must be libpcap's own.
TEST(CaptureFile, RecordsAndErrorsAreLibpcapsInEveryLayout) {
    const std::string path = ::testing::TempDir() + "layout.pcap";
    auto check = [&](const RawPcap& file, const char* what) {
        writeFile(path, std::string(file.bytes.begin(), file.bytes.end()));
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

TEST(ByteBufferUtilities, DigestsEncodingsAndHexParsing) {
    ByteBuffer abc = ByteBuffer::fromString("abc");
    EXPECT_EQ(abc.sha256HexDigest(), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(abc.md5HexDigest(), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(ByteBuffer().md5HexDigest(), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(ByteBuffer::fromString("foob").base64EncodedString(), "Zm9vYg==");
    EXPECT_EQ(ByteBuffer().base64EncodedString(), "");
    // No line breaks however long the input.
    EXPECT_EQ(ByteBuffer::copy(Bytes(300, 0xff)).base64EncodedString()->find('\n'), std::string::npos);
    EXPECT_EQ(ByteBuffer::copy(Bytes{0x00, 0x0f, 0xa0, 0xff}).hexEncodedString(), "000fa0ff");
    EXPECT_EQ(ByteBuffer::fromString("a\tb\r\nc\x7f\x1f~ ").bestEffortASCIIStringDiscardingInvalidBytes(), "abc~ ");

    // Hex parsing skips what it does not know, and an odd digit is a high nibble.
    EXPECT_EQ(ByteBuffer::dataWithHexString("0A1b"), ByteBuffer::copy(Bytes{0x01, 0xb0}));
    EXPECT_EQ(ByteBuffer::dataWithHexString("de ad-be:ef"), ByteBuffer::copy(Bytes{0xde, 0xad, 0xbe, 0xef}));
    EXPECT_TRUE(ByteBuffer::dataWithHexString("XYZ").empty());
    EXPECT_EQ(ByteBuffer::dataWithHexString("f"), ByteBuffer::copy(Bytes{0xf0}));
}

TEST(ByteBufferUtilities, SubrangesShareStorageAndBorrowedViewsOwnOnceCopied) {
    ByteBuffer whole = ByteBuffer::fromString("0123456789");
    ByteBuffer middle = whole.subrange(2, 5);
    EXPECT_EQ(middle.stringView(), "23456");
    EXPECT_EQ(middle.data(), whole.data() + 2);
    EXPECT_EQ(middle.subrange(4).stringView(), "6");
    EXPECT_TRUE(whole.subrange(10).empty());
    EXPECT_NE(whole.subrange(10).data(), nullptr);

    ByteBuffer copied, moved, sub;
    {
        ByteBuffer lender = ByteBuffer::fromString("borrowed bytes");
        ByteBuffer view = lender.borrowedView(9, 5);
        EXPECT_EQ(view.data(), lender.data() + 9);
        copied = view;
        sub = view.subrange(1, 3);
        moved = lender.borrowedView(0, 8).borrowedView(0, 3);
    }
    // The lender is gone; everything taken from its views still holds bytes.
    EXPECT_EQ(copied.stringView(), "bytes");
    EXPECT_EQ(sub.stringView(), "yte");
    EXPECT_EQ(moved.stringView(), "bor");
}
