#include <Wireloom/capture/PXCaptureFile.hpp>

#include <pcap/pcap.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace wireloom {

namespace {
// libpcap reads record by record through stdio; with the default buffer of
// a few kilobytes the read calls cost more than decoding a large file. The
// direct reader reads a quarter of a megabyte at a time: few enough calls,
// and what the kernel has just written is still in the core's cache when
// each frame is copied out of it (a megabyte decoded 2 to 3 % slower). A
// record of the largest snapshot does not fit, and goes to libpcap.
constexpr std::size_t kReadBufferSize = 1 << 18;
constexpr std::size_t kFileHeaderBytes = 24;
constexpr std::size_t kRecordHeaderBytes = 16;

// Link types (as the file states them) whose records libpcap hands out as
// they are: the others may have pseudo-headers it byte-swaps or lengths it
// fixes up.
bool passesThrough(std::uint32_t linkType) {
    switch (linkType) {
    case 0:    // BSD loopback
    case 1:    // Ethernet
    case 101:  // raw IP
    case 108:  // OpenBSD loopback
    case 113:  // Linux cooked
    case 228:  // raw IPv4
    case 229:  // raw IPv6
        return true;
    default: return false;
    }
}

std::uint32_t read32(const std::uint8_t* p, bool swapped) {
    std::uint32_t value;
    std::memcpy(&value, p, sizeof value);
    return swapped ? __builtin_bswap32(value) : value;
}
std::uint16_t read16(const std::uint8_t* p, bool swapped) {
    std::uint16_t value;
    std::memcpy(&value, p, sizeof value);
    return swapped ? __builtin_bswap16(value) : value;
}

}  // namespace

// Reads the records of a classic pcap file (version 2.4, microsecond or
// nanosecond times, either byte order) with pread, from the offset it is
// told, into one buffer. It hands out what libpcap would for every record it
// takes, and hands back to libpcap every record it cannot take as it is.
class PXCaptureFile::DirectReader {
public:
    enum class Result { record, end, libpcap };

    // Nothing unless the header is one this reader follows libpcap on.
    static std::unique_ptr<DirectReader> forHeader(int fd, const std::uint8_t (&header)[kFileHeaderBytes]) {
        const std::uint32_t magic = read32(header, false);
        const bool swapped = magic == 0xd4c3b2a1 || magic == 0x4d3cb2a1;
        const bool nanoseconds = magic == 0xa1b23c4d || magic == 0x4d3cb2a1;
        if (!swapped && !nanoseconds && magic != 0xa1b2c3d4) return nullptr;
        if (read16(header + 4, swapped) != 2 || read16(header + 6, swapped) != 4) return nullptr;
        if (!passesThrough(read32(header + 20, swapped))) return nullptr;
        return std::unique_ptr<DirectReader>(new DirectReader(fd, swapped, nanoseconds));
    }

    // libpcap's snapshot length for the file, as it settled it when opening.
    void setSnapshot(std::uint32_t snapshot) noexcept { snapshot_ = snapshot; }

    Result next(const pcap_pkthdr** header, const std::uint8_t** data) {
        if (available() < kRecordHeaderBytes && !fill()) return Result::libpcap;
        if (available() == 0 && atEnd_) return Result::end;
        if (available() < kRecordHeaderBytes) return Result::libpcap;  // a header cut short
        const std::uint32_t caplen = read32(&buffer_[begin_ + 8], swapped_);
        if (caplen > snapshot_ || kRecordHeaderBytes + caplen > kReadBufferSize) return Result::libpcap;
        if (available() < kRecordHeaderBytes + caplen && !fill()) return Result::libpcap;
        if (available() < kRecordHeaderBytes + caplen) return Result::libpcap;  // data cut short

        const std::uint8_t* record = &buffer_[begin_];
        const std::uint32_t seconds = read32(record, swapped_);
        const std::uint32_t fraction = read32(record + 4, swapped_);
        // With the high bit set, libpcap widens a time field with its sign
        // or without it depending on the file's byte order.
        if ((seconds | fraction) >> 31) return Result::libpcap;
        header_.ts.tv_sec = seconds;
        header_.ts.tv_usec = nanoseconds_ ? fraction / 1000 : fraction;
        header_.caplen = caplen;
        header_.len = read32(record + 12, swapped_);
        *header = &header_;
        *data = record + kRecordHeaderBytes;
        begin_ += kRecordHeaderBytes + caplen;
        return Result::record;
    }

    // Where the record next() would read starts in the file.
    std::uint64_t offset() const noexcept { return bufferOffset_ + begin_; }
    // Reading goes on from there, after libpcap has read what lies before:
    // from the buffer if it holds that part of the file.
    void resumeAt(std::uint64_t offset) noexcept {
        if (offset >= bufferOffset_ && offset <= bufferOffset_ + end_) {
            begin_ = static_cast<std::size_t>(offset - bufferOffset_);
            return;
        }
        bufferOffset_ = offset;
        begin_ = end_ = 0;
        atEnd_ = false;
    }

private:
    DirectReader(int fd, bool swapped, bool nanoseconds)
        : buffer_(new std::uint8_t[kReadBufferSize]), fd_(fd), swapped_(swapped), nanoseconds_(nanoseconds) {}

    std::size_t available() const noexcept { return end_ - begin_; }

    // Moves what is left to the front and reads until the buffer is full or
    // the file ends; false on a read error, which libpcap then meets and
    // reports in its own words. Once the file has ended it is not read
    // again, as stdio does not read again after its end.
    bool fill() {
        std::memmove(&buffer_[0], &buffer_[begin_], available());
        bufferOffset_ += begin_;
        end_ -= begin_;
        begin_ = 0;
        while (!atEnd_ && end_ < kReadBufferSize) {
            const ssize_t n =
                pread(fd_, &buffer_[end_], kReadBufferSize - end_, static_cast<off_t>(bufferOffset_ + end_));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) return false;
            if (n == 0) atEnd_ = true;
            end_ += static_cast<std::size_t>(n);
        }
        return true;
    }

    std::unique_ptr<std::uint8_t[]> buffer_;
    std::size_t begin_ = 0, end_ = 0;
    std::uint64_t bufferOffset_ = kFileHeaderBytes;  // of buffer_[0] in the file
    int fd_;
    bool swapped_, nanoseconds_;
    bool atEnd_ = false;
    std::uint32_t snapshot_ = 0;
    pcap_pkthdr header_{};
};

std::unique_ptr<PXCaptureFile> PXCaptureFile::open(const std::string& path, std::string* error) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (!file) {
        if (error) *error = std::strerror(errno);
        return nullptr;
    }
    // Peeked at without moving the stream, which libpcap reads the header
    // from; a pipe cannot be read this way, and is left to libpcap.
    std::uint8_t header[kFileHeaderBytes];
    std::unique_ptr<DirectReader> direct;
    if (pread(fileno(file), header, sizeof header, 0) == static_cast<ssize_t>(sizeof header))
        direct = DirectReader::forHeader(fileno(file), header);
    // stdio's own small buffer serves libpcap well enough for the header and
    // the odd record it reads for the direct reader.
    std::unique_ptr<char[]> buffer;
    if (!direct) {
        buffer.reset(new char[kReadBufferSize]);
        std::setvbuf(file, buffer.get(), _IOFBF, kReadBufferSize);
    }
    char reason[PCAP_ERRBUF_SIZE] = "";
    pcap_t* handle = pcap_fopen_offline(file, reason);  // owns the file once it succeeds
    if (!handle) {
        std::fclose(file);
        if (error) *error = reason;
        return nullptr;
    }
    return std::unique_ptr<PXCaptureFile>(new PXCaptureFile(handle, path, std::move(buffer), std::move(direct)));
}

PXCaptureFile::PXCaptureFile(pcap* handle, std::string path, std::unique_ptr<char[]> readBuffer,
                             std::unique_ptr<DirectReader> direct)
    : readBuffer_(std::move(readBuffer)),
      direct_(std::move(direct)),
      handle_(handle),
      path_(std::move(path)),
      linkLayerType_(pcap_datalink(handle)),
      snapLength_(static_cast<std::uint32_t>(pcap_snapshot(handle))) {
    if (direct_) direct_->setSnapshot(snapLength_);
}

PXCaptureFile::~PXCaptureFile() { pcap_close(handle_); }

bool PXCaptureFile::nextRecord(const pcap_pkthdr** header, const std::uint8_t** data, std::string* error) {
    if (direct_ && !directPaused_) {
        switch (direct_->next(header, data)) {
        case DirectReader::Result::record: return true;
        case DirectReader::Result::end:
            if (error) error->clear();
            return false;
        case DirectReader::Result::libpcap:
            // libpcap takes this record from its start, with its own checks.
            std::fseek(pcap_file(handle_), static_cast<long>(direct_->offset()), SEEK_SET);
            directPaused_ = true;
            break;
        }
    }
    pcap_pkthdr* h = nullptr;
    const u_char* bytes = nullptr;
    int status = pcap_next_ex(handle_, &h, &bytes);
    if (status == 1) {
        *header = h;
        *data = bytes;
        // After a record libpcap read for it, the direct reader goes on.
        if (direct_ && directPaused_) {
            if (const long at = std::ftell(pcap_file(handle_)); at >= 0) {
                direct_->resumeAt(static_cast<std::uint64_t>(at));
                directPaused_ = false;
            }
        }
        return true;
    }
    if (error) {
        if (status == PCAP_ERROR_BREAK)
            error->clear();  // the end of the file
        else
            *error = pcap_geterr(handle_);
    }
    return false;
}

PXPacketPtr PXCaptureFile::nextPacket(std::string* error) {
    const pcap_pkthdr* header;
    const std::uint8_t* data;
    if (!nextRecord(&header, &data, error)) return nullptr;
    return PXPacket::packetWithHeader(*header, data, linkLayerType_);
}

}  // namespace wireloom
