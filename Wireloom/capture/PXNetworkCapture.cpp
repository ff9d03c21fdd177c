#include <Wireloom/capture/PXCaptureFile.hpp>
#include <Wireloom/capture/PXNetworkCapture.hpp>
#include <Wireloom/capture/WLNetworkCaptureAssistant.hpp>
#include <Wireloom/core/NotificationCenter.hpp>

#include <pcap/pcap.h>
#include <sys/time.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <semaphore>
#include <utility>

namespace wireloom {

namespace {

// One frame on its way from the capture thread to the main loop: the
// record header, then the captured bytes, in one block.
struct FrameBlock {
    pcap_pkthdr header;
    const std::uint8_t* bytes() const { return reinterpret_cast<const std::uint8_t*>(this + 1); }
    std::uint8_t* bytes() { return reinterpret_cast<std::uint8_t*>(this + 1); }
};

double wallClock() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_usec) / 1000000.0;
}

// A record's header in a pcap file: two times and two lengths, 4 bytes each.
constexpr std::uint64_t kRecordHeaderBytes = 16;

// pcap_open_live(interface, 65535, not promiscuous, ...), with its error
// texts, but made step by step for two settings Linux needs. Its packet ring
// hands frames over a block at a time, and with a read time-out of 0 a block
// that is not full waits indefinitely: 1 ms lets the 10 ms poll see every
// frame promptly. And its default ring of 2 MiB fills in a few ticks at
// 100,000 frames per second; 32 MiB leaves a quarter of a second of slack.
pcap_t* openLive(const std::string& interface, char* reason) {
    pcap_t* handle = pcap_create(interface.c_str(), reason);
    if (!handle) return nullptr;
    pcap_set_snaplen(handle, PXNetworkCapture::snaplen());
    pcap_set_promisc(handle, 0);
    pcap_set_timeout(handle, 1);
    pcap_set_buffer_size(handle, 32 << 20);
    const int status = pcap_activate(handle);
    if (status >= 0) return handle;
    const char* name = interface.c_str();
    if (status == PCAP_ERROR)
        std::snprintf(reason, PCAP_ERRBUF_SIZE, "%s: %.*s", name, PCAP_ERRBUF_SIZE - 3, pcap_geterr(handle));
    else if (status == PCAP_ERROR_NO_SUCH_DEVICE || status == PCAP_ERROR_PERM_DENIED ||
             status == PCAP_ERROR_PROMISC_PERM_DENIED)
        std::snprintf(reason, PCAP_ERRBUF_SIZE, "%s: %s (%.*s)", name, pcap_statustostr(status), PCAP_ERRBUF_SIZE - 6,
                      pcap_geterr(handle));
    else
        std::snprintf(reason, PCAP_ERRBUF_SIZE, "%s: %s", name, pcap_statustostr(status));
    pcap_close(handle);
    return nullptr;
}

}  // namespace

PXNetworkCapture::Ptr PXNetworkCapture::captureWithDevice(PXCaptureDevice::Ptr device) {
    return Ptr(new PXNetworkCapture(std::move(device)));
}

PXNetworkCapture::Ptr PXNetworkCapture::captureWithNullDevice() { return Ptr(new PXNetworkCapture(nullptr)); }

PXNetworkCapture::PXNetworkCapture(PXCaptureDevice::Ptr device)
    : device_(std::move(device)), nullDevice_(!device_), timeManager_(std::make_shared<PXTime>()) {}

PXNetworkCapture::~PXNetworkCapture() { stop(); }

bool PXNetworkCapture::open(std::string* error) {
    char reason[PCAP_ERRBUF_SIZE] = "";
    // A failed open may only lack access to the packet-filter devices: ask
    // for it after each failure, and try once more.
    for (int attempt = 0; attempt < 2 && !handle_; ++attempt) {
        handle_ = openLive(device_->interface(), reason);
        if (!handle_) WLNetworkCaptureAssistant::sharedInstance()->grantBPFAccess();
    }
    if (!handle_) {
        if (error) *error = reason;
        return false;
    }
    const auto fail = [this, error](const char* text) {
        if (error) *error = text;
        pcap_close(std::exchange(handle_, nullptr));
        return false;
    };
    if (pcap_setnonblock(handle_, 1, reason) != 0) return fail(reason);
    if (!captureFilter_.empty()) {
        bpf_program program{};
        if (pcap_compile(handle_, &program, captureFilter_.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0)
            return fail(pcap_geterr(handle_));
        const bool applied = pcap_setfilter(handle_, &program) == 0;
        pcap_freecode(&program);
        if (!applied) return fail(pcap_geterr(handle_));
    }
    return true;
}

bool PXNetworkCapture::startWithError(std::string* error) {
    if (!device_) {
        if (error) *error = "Starting a capture requires a device to capture on";
        return false;
    }
    if (isRunning()) {
        if (error) *error = "Capture already in progress";
        return false;
    }
    if (!open(error)) return false;
    linkLayerType_ = pcap_datalink(handle_);
    startTime_ = wallClock();
    received_ = 0;
    dropped_ = 0;

    captureQueue_ = std::make_unique<RunLoop>();
    captureThread_ = std::thread([loop = captureQueue_.get()] { loop->run(); });
    captureQueue_->post([this] {
        captureTimer_ = captureQueue_->addRepeatingTimer(std::chrono::milliseconds(10), [this] { drain(); });
        drain();  // the timer's first firing is immediate
    });
    timeManager_->driveTimeUsingRealTimeWithTick(0.1);
    return true;
}

void PXNetworkCapture::drain() {
    // Weak, and taken without locking: a capture being destroyed stops its
    // thread from the destructor, and this may run meanwhile.
    const std::weak_ptr<Object> self = weak_from_this();
    pcap_pkthdr* header = nullptr;
    const u_char* data = nullptr;
    while (pcap_next_ex(handle_, &header, &data) == 1) {
        auto* frame = static_cast<FrameBlock*>(std::malloc(sizeof(FrameBlock) + header->caplen));
        if (!frame) break;  // this frame is lost; the next tick goes on
        frame->header = *header;
        std::memcpy(frame->bytes(), data, header->caplen);
        std::shared_ptr<FrameBlock> owned(frame, std::free);
        RunLoop::main().post([self, owned = std::move(owned)] {
            if (auto capture = self.lock())
                static_cast<PXNetworkCapture&>(*capture).PX_processPacketHeader(owned->header, owned->bytes());
        });
    }
    sampleStatistics();
}

void PXNetworkCapture::sampleStatistics() {
    pcap_stat counters{};
    if (pcap_stats(handle_, &counters) != 0) return;
    received_ = counters.ps_recv;
    dropped_ = counters.ps_drop;
}

void PXNetworkCapture::stop() {
    if (!isRunning()) return;
    // The cancel handler runs on the capture thread, after any read under way.
    std::binary_semaphore cancelled(0);
    captureQueue_->post([this, &cancelled] {
        captureTimer_->invalidate();
        sampleStatistics();
        cancelled.release();
    });
    cancelled.acquire();
    captureQueue_->stop();
    captureThread_.join();
    captureTimer_.reset();
    captureQueue_.reset();
    pcap_close(std::exchange(handle_, nullptr));
    timeManager_->reset();
}

bool PXNetworkCapture::processRawPacketData(const ByteBuffer& data, double timestamp) {
    pcap_pkthdr header{};
    const double seconds = std::trunc(timestamp);
    header.ts.tv_sec = static_cast<time_t>(seconds);
    header.ts.tv_usec = static_cast<suseconds_t>((timestamp - seconds) * 1000000.0);
    header.caplen = header.len = static_cast<bpf_u_int32>(data.size());
    return PX_processPacketHeader(header, data.data());
}

bool PXNetworkCapture::PX_processPacketHeader(const pcap_pkthdr& header, const std::uint8_t* data) {
    if (!handle_ && !nullDevice_) return false;  // queued before a stop
    PXPacketPtr packet = PXPacket::packetWithHeader(header, data, linkLayerType_);
    if (!packet) return false;
    if (auto delegate = filterDelegate(); delegate && !delegate->networkCapture(*this, packet)) return false;
    packet->setInterface(device_ ? device_->interface() : std::string());
    // Held strongly while it is announced, whichever packet that ends up being.
    announcing_ = packet;
    currentPacket_ = packet;
    // The notification is made only when somebody observes one of the four
    // (a replay announces every frame of a file four times), and made once:
    // only its name changes, and its packet if an observer transformed it.
    std::optional<Notification> notification;
    const PXPacket* announced = nullptr;
    for (ObserverProbe& probe : probes_) {
        if (!probe.isObserved()) continue;
        if (!notification) notification.emplace().sender = shared_from_this();
        if (announced != announcing_.get() || notification->userInfo.empty()) {
            notification->userInfo.clear();
            notification->userInfo.emplace("packet", ObjectPtr(announcing_));
            announced = announcing_.get();
        }
        notification->name = probe.name();
        probe.post(*notification);
    }
    announcing_.reset();
    return true;
}

bool PXNetworkCapture::transformCurrentPacket(const PXPacketPtr& packet) {
    const PXPacketPtr current = currentPacket();
    if (!current) return false;
    for (const PXPacket* layer = packet.get(); layer; layer = layer->encapsulatingLayer()) {
        if (layer != current.get()) continue;
        currentPacket_ = packet;
        if (announcing_) announcing_ = packet;
        return true;
    }
    return false;
}

bool PXNetworkCapture::replayCaptureFile(PXCaptureFile& file, std::string* error,
                                         const std::function<void(std::uint64_t, std::uint64_t)>& progress) {
    if (!nullDevice_) {
        if (error) *error = "Replaying a capture file needs a capture without a device";
        return false;
    }
    linkLayerType_ = file.linkLayerType();
    const pcap_pkthdr* header = nullptr;
    const std::uint8_t* data = nullptr;
    std::string reason;
    std::uint64_t records = 0, bytes = 0;
    while (file.nextRecord(&header, &data, &reason)) {
        timeManager_->updateCurrentTime(static_cast<double>(header->ts.tv_sec) +
                                        static_cast<double>(header->ts.tv_usec) / 1000000.0);
        PX_processPacketHeader(*header, data);
        bytes += kRecordHeaderBytes + header->caplen;
        if (progress) progress(++records, bytes);
    }
    if (reason.empty()) return true;
    if (error) *error = reason;
    return false;
}

}  // namespace wireloom
