#pragma once
// PXCaptureFile: reads a capture file (pcap or pcapng) record by record with
// libpcap's offline reader, and decodes each record into a packet chain with
// the file's link-layer type.
//
// A classic pcap file of a common link type, the kind nearly every capture
// is, is read straight into a buffer of its own, and its records handed out
// from there: libpcap would copy each record once more into its own buffer.
// Any record that libpcap would do more with than pass through (one longer
// than the snapshot length, one cut short) it reads itself, from where that
// record starts, so that what comes out, errors included, is libpcap's.
//
//   std::string error;
//   auto file = PXCaptureFile::open("trace.pcap", &error);
//   if (!file) { std::fprintf(stderr, "%s\n", error.c_str()); return 1; }
//   while (PXPacketPtr packet = file->nextPacket(&error)) { ... }
//   if (!error.empty()) ...   // a damaged record; the frames before it were read

#include <Wireloom/packets/PXPacket.hpp>

#include <cstdint>
#include <memory>
#include <string>

struct pcap;
struct pcap_pkthdr;

namespace wireloom {

class PXCaptureFile {
public:
    // Null, with libpcap's reason in *error, when the file cannot be opened or
    // is not a capture.
    static std::unique_ptr<PXCaptureFile> open(const std::string& path, std::string* error);
    ~PXCaptureFile();
    PXCaptureFile(const PXCaptureFile&) = delete;
    PXCaptureFile& operator=(const PXCaptureFile&) = delete;

    const std::string& path() const noexcept { return path_; }
    int linkLayerType() const noexcept { return linkLayerType_; }
    std::uint32_t snapLength() const noexcept { return snapLength_; }

    // The next record's header and bytes, valid until the next call. False at
    // the end of the file (error left empty) or on a damaged record (error
    // set).
    bool nextRecord(const pcap_pkthdr** header, const std::uint8_t** data, std::string* error);
    // The next record decoded; null at the end or on error, as nextRecord.
    PXPacketPtr nextPacket(std::string* error);

private:
    class DirectReader;

    PXCaptureFile(pcap* handle, std::string path, std::unique_ptr<char[]> readBuffer,
                  std::unique_ptr<DirectReader> direct);
    std::unique_ptr<char[]> readBuffer_;    // the file's stdio buffer: outlives the handle that closes it
    std::unique_ptr<DirectReader> direct_;  // null: libpcap reads every record
    bool directPaused_ = false;             // while libpcap reads a record for it
    pcap* handle_;
    std::string path_;
    int linkLayerType_;
    std::uint32_t snapLength_;
};

}  // namespace wireloom
