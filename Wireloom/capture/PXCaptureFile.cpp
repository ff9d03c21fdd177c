#include <Wireloom/capture/PXCaptureFile.hpp>

#include <pcap/pcap.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace wireloom {

namespace {
// libpcap reads record by record through stdio; with the default buffer of
// a few kilobytes the read calls cost more than decoding a large file.
constexpr std::size_t kReadBufferSize = 1 << 20;
}  // namespace

std::unique_ptr<PXCaptureFile> PXCaptureFile::open(const std::string& path, std::string* error) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (!file) {
        if (error) *error = std::strerror(errno);
        return nullptr;
    }
    std::unique_ptr<char[]> buffer(new char[kReadBufferSize]);
    std::setvbuf(file, buffer.get(), _IOFBF, kReadBufferSize);
    char reason[PCAP_ERRBUF_SIZE] = "";
    pcap_t* handle = pcap_fopen_offline(file, reason);  // owns the file once it succeeds
    if (!handle) {
        std::fclose(file);
        if (error) *error = reason;
        return nullptr;
    }
    return std::unique_ptr<PXCaptureFile>(new PXCaptureFile(handle, path, std::move(buffer)));
}

PXCaptureFile::PXCaptureFile(pcap* handle, std::string path, std::unique_ptr<char[]> readBuffer)
    : readBuffer_(std::move(readBuffer)),
      handle_(handle),
      path_(std::move(path)),
      linkLayerType_(pcap_datalink(handle)),
      snapLength_(static_cast<std::uint32_t>(pcap_snapshot(handle))) {}

PXCaptureFile::~PXCaptureFile() { pcap_close(handle_); }

bool PXCaptureFile::nextRecord(const pcap_pkthdr** header, const std::uint8_t** data, std::string* error) {
    pcap_pkthdr* h = nullptr;
    const u_char* bytes = nullptr;
    int status = pcap_next_ex(handle_, &h, &bytes);
    if (status == 1) {
        *header = h;
        *data = bytes;
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
