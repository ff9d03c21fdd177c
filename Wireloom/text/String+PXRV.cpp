#include <Wireloom/text/String+PXRV.hpp>

#include <Wireloom/core/ByteBuffer.hpp>
#include <Wireloom/core/detail/Format.hpp>

#include <uuid/uuid.h>

#include <algorithm>
#include <cmath>

namespace wireloom {

namespace {

bool isLowerHexDigit(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); }

// Same answer as an unanchored search for "[0-9a-f]{12}", without a regex.
bool containsTwelveHexDigits(std::string_view text) {
    std::size_t run = 0;
    for (char c : text) {
        run = isLowerHexDigit(c) ? run + 1 : 0;
        if (run == 12) return true;
    }
    return false;
}

std::string lowercasedASCII(std::string_view text) {
    std::string lower(text);
    for (char& c : lower) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return lower;
}

}  // namespace

bool PXRVSplitRelayonServiceName(std::string_view name, std::string* macAddress, std::string* deviceName) {
    if (name.size() < 2) return false;
    std::size_t at = name.find('@');
    if (at == std::string_view::npos) return false;
    std::string mac;
    if (macAddress) {
        mac = lowercasedASCII(name.substr(0, at));
        if (!containsTwelveHexDigits(mac)) return false;
    }
    std::string_view device = name.substr(at + 1);
    if (deviceName && device.empty()) return false;
    if (macAddress) *macAddress = std::move(mac);
    if (deviceName) *deviceName = device;
    return true;
}

std::optional<std::string> relayonServiceNameMACAddress(std::string_view name) {
    std::string mac;
    if (!PXRVSplitRelayonServiceName(name, &mac, nullptr)) return std::nullopt;
    return mac;
}

std::optional<std::string> relayonServiceNameDeviceName(std::string_view name) {
    std::string device;
    if (!PXRVSplitRelayonServiceName(name, nullptr, &device)) return std::nullopt;
    return device;
}

std::string stringWithUUID() {
    uuid_t uuid;
    uuid_generate_random(uuid);
    char text[37];
    uuid_unparse_upper(uuid, text);
    return text;
}

std::string stringWithDuration(double seconds) { return stringWithDuration(seconds, false, false); }

std::string stringWithDuration(double seconds, bool includeMilliseconds, bool includeMicroseconds) {
    double t = std::isfinite(seconds) && seconds > 0 ? seconds : 0.0;
    std::string text;
    auto takeWhole = [&](double unit, char symbol) {
        if (t <= unit) return;
        double count = std::floor(t / unit);
        text += detail::stringWithFormat(" %.0lf%c", count, symbol);
        // The product can round above t for huge values; nothing is left then.
        t = std::max(0.0, t - count * unit);
    };
    takeWhole(86400, 'd');
    takeWhole(3600, 'h');
    takeWhole(60, 'm');

    // At most 60 s are left: whole nanoseconds fit easily in 64 bits.
    const auto nanoseconds = static_cast<std::int64_t>(std::llround(t * 1e9));
    const std::int64_t wholeSeconds = nanoseconds / 1'000'000'000;
    std::int64_t fraction = nanoseconds % 1'000'000'000;
    std::int64_t milliseconds = 0, microseconds = 0;
    if (includeMilliseconds) {
        milliseconds = fraction / 1'000'000;
        fraction -= milliseconds * 1'000'000;
    }
    if (includeMicroseconds) microseconds = fraction / 1'000;

    if (wholeSeconds > 0 || (text.empty() && milliseconds == 0 && microseconds == 0))
        text += detail::stringWithFormat(" %.0lfs", static_cast<double>(wholeSeconds));
    if (milliseconds > 0) text += detail::stringWithFormat(" %.0lfms", static_cast<double>(milliseconds));
    if (microseconds > 0) text += detail::stringWithFormat(" %.0lfus", static_cast<double>(microseconds));
    // Every part was written with a leading blank; the first one goes.
    return text.substr(1);
}

std::string stringWithElapsedTime(double seconds) {
    double hours = std::floor(seconds / 3600);
    double minutes = std::floor((seconds - hours * 3600) / 60);
    double rest = seconds - hours * 3600 - minutes * 60;
    return detail::stringWithFormat("%02.0f:%02.0f:%02.0f", hours, minutes, rest);
}

std::string stringWithHumanReadableBytesSize(std::uint64_t bytes) {
    constexpr std::uint64_t kKilobyte = 1024, kMegabyte = 1024 * kKilobyte, kGigabyte = 1024 * kMegabyte;
    const auto value = static_cast<double>(bytes);
    // Gigabytes are tested before megabytes, deliberately: megabytes are what
    // the other three ranges leave.
    if (bytes < kKilobyte) return detail::stringWithFormat("%.0lfb", value);
    if (bytes < kMegabyte) return detail::stringWithFormat("%.1lfKB", value / kKilobyte);
    if (bytes >= kGigabyte) return detail::stringWithFormat("%.1lfGB", value / kGigabyte);
    return detail::stringWithFormat("%.1lfMB", value / kMegabyte);
}

std::string sha256HexDigest(std::string_view text) { return ByteBuffer::fromString(text).sha256HexDigest(); }

}  // namespace wireloom
