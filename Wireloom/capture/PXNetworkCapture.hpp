#pragma once
// PXNetworkCapture: one live capture on one device. Frames are read by the
// capture's own thread every 10 ms and handed, in order, to the main run
// loop, where each is decoded and announced through four notifications:
//
//   auto capture = PXNetworkCapture::captureWithDevice(PXCaptureDevice::deviceWithInterface("lo"));
//   NotificationCenter::defaultCenter().addObserver(this, kPXNetworkCapturePacketNotificationName,
//       [](const Notification& n) { /* n.userInfo().at("packet") */ });
//   std::string error;
//   if (!capture->startWithError(&error)) ...
//   RunLoop::main().run();
//
// A capture without a device (captureWithNullDevice) never runs; it takes
// frames from its caller (processRawPacketData, replayCaptureFile) through
// the same decoding and notifications, on the caller's thread.

#include <Wireloom/capture/PXCaptureDevice.hpp>
#include <Wireloom/capture/PXTime.hpp>
#include <Wireloom/core/ByteBuffer.hpp>
#include <Wireloom/core/NotificationCenter.hpp>
#include <Wireloom/core/Object.hpp>
#include <Wireloom/core/RunLoop.hpp>
#include <Wireloom/packets/PXPacket.hpp>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

struct pcap;
struct pcap_pkthdr;

namespace wireloom {

class PXCaptureFile;
class PXNetworkCapture;

// Each carries the capture as its sender and the packet under "packet".
inline constexpr const char* kPXNetworkCapturePacketDecodeOpportunityNotificationName =
    "kPXNetworkCapturePacketDecodeOpportunityNotificationName";
inline constexpr const char* kPXNetworkCapturePrePacketNotificationName = "kPXNetworkCapturePrePacketNotificationName";
inline constexpr const char* kPXNetworkCapturePacketNotificationName = "kPXNetworkCapturePacketNotificationName";
inline constexpr const char* kPXNetworkCapturePostPacketNotificationName =
    "kPXNetworkCapturePostPacketNotificationName";

class PXNetworkCaptureFilterDelegate {
public:
    virtual ~PXNetworkCaptureFilterDelegate() = default;
    // shouldPostPacket: false drops the packet without any notification.
    virtual bool networkCapture(PXNetworkCapture& capture, const PXPacketPtr& packet) = 0;
};

class PXNetworkCapture : public Object {
public:
    using Ptr = std::shared_ptr<PXNetworkCapture>;

    static Ptr captureWithDevice(PXCaptureDevice::Ptr device);
    static Ptr captureWithNullDevice();
    static constexpr int snaplen() noexcept { return 65535; }
    ~PXNetworkCapture() override;

    const PXCaptureDevice::Ptr& device() const noexcept { return device_; }
    std::shared_ptr<PXNetworkCaptureFilterDelegate> filterDelegate() const { return filterDelegate_.lock(); }
    void setFilterDelegate(const std::shared_ptr<PXNetworkCaptureFilterDelegate>& delegate) {
        filterDelegate_ = delegate;
    }
    bool nullDevice() const noexcept { return nullDevice_; }
    PXPacketPtr currentPacket() const { return currentPacket_.lock(); }
    double startTime() const noexcept { return startTime_; }
    int linkLayerType() const noexcept { return linkLayerType_; }
    const PXTimePtr& timeManager() const noexcept { return timeManager_; }
    bool isRunning() const noexcept { return handle_ != nullptr; }

    // A filter in libpcap's language, applied when the capture starts; a
    // bad expression fails the start with libpcap's text. Empty: none.
    const std::string& captureFilter() const noexcept { return captureFilter_; }
    void setCaptureFilter(std::string filter) { captureFilter_ = std::move(filter); }

    // libpcap's counters of the running capture (or of its last run).
    struct Statistics {
        std::uint64_t received = 0;
        std::uint64_t dropped = 0;
    };
    Statistics statistics() const noexcept { return {received_.load(), dropped_.load()}; }

    // Call from the thread whose run loop is RunLoop::main(), normally the
    // main thread; stop() must not be called from the capture's own thread.
    bool startWithError(std::string* error);
    void stop();

    // One frame by hand, with captured and wire length the buffer's length.
    bool processRawPacketData(const ByteBuffer& data, double timestamp);
    // Decodes and announces one frame; whether it was announced.
    bool PX_processPacketHeader(const pcap_pkthdr& header, const std::uint8_t* data);
    // During the decode-opportunity notification: `packet` replaces the
    // current packet if the current one is in its chain.
    bool transformCurrentPacket(const PXPacketPtr& packet);

    // Feeds every record of a capture file through a null-device capture:
    // the file's link-layer type, each record's own lengths, and the clock
    // set to each record's time before it is announced, so that time-outs
    // behave as they did live. `progress` (may be empty) is told, after
    // each record, the records done and their bytes (captured bytes and
    // record headers). False with libpcap's text if the file is cut short.
    bool replayCaptureFile(PXCaptureFile& file, std::string* error,
                           const std::function<void(std::uint64_t records, std::uint64_t bytes)>& progress = {});

    PXNetworkCapture(const PXNetworkCapture&) = delete;
    PXNetworkCapture& operator=(const PXNetworkCapture&) = delete;

private:
    explicit PXNetworkCapture(PXCaptureDevice::Ptr device);
    bool open(std::string* error);
    void drain();  // on the capture thread
    void sampleStatistics();

    PXCaptureDevice::Ptr device_;
    std::weak_ptr<PXNetworkCaptureFilterDelegate> filterDelegate_;
    bool nullDevice_ = false;
    std::weak_ptr<PXPacket> currentPacket_;
    PXPacketPtr announcing_;
    // Whether each of the four notifications has observers.
    ObserverProbe probes_[4] = {ObserverProbe(kPXNetworkCapturePacketDecodeOpportunityNotificationName),
                                ObserverProbe(kPXNetworkCapturePrePacketNotificationName),
                                ObserverProbe(kPXNetworkCapturePacketNotificationName),
                                ObserverProbe(kPXNetworkCapturePostPacketNotificationName)};
    pcap* handle_ = nullptr;
    double startTime_ = 0;
    int linkLayerType_ = 1;
    PXTimePtr timeManager_;
    std::string captureFilter_;

    // The capture queue: a thread of its own running its own loop, where
    // the poll timer reads libpcap.
    std::unique_ptr<RunLoop> captureQueue_;
    std::thread captureThread_;
    std::shared_ptr<RunLoop::Timer> captureTimer_;
    std::atomic<std::uint64_t> received_{0}, dropped_{0};
};

}  // namespace wireloom
