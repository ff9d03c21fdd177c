#pragma once
// The PXRV string utilities: small texts the report shows again and again
// (durations, sizes, UUIDs, digests) and the split of a MAC@device service
// name. They are free functions in namespace wireloom, as the strings they
// work on are plain std::string values.
//
//   stringWithDuration(3725.25, true, false);   // "1h 2m 5s 250ms"
//   stringWithHumanReadableBytesSize(1536);     // "1.5KB"
//   relayonServiceNameDeviceName("0011223344AA@Living Room");  // "Living Room"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace wireloom {

// Splits a service name of the form MAC@device at its first "@". Pass only the
// out-pointers whose half you want: the MAC half (lower-cased, ASCII letters
// only) must contain twelve consecutive hex digits somewhere, the device half
// must not be empty, and a half that is not asked for is not checked. Names of
// fewer than two characters or without "@" fail. Nothing is written on failure.
bool PXRVSplitRelayonServiceName(std::string_view name, std::string* macAddress, std::string* deviceName);
std::optional<std::string> relayonServiceNameMACAddress(std::string_view name);
std::optional<std::string> relayonServiceNameDeviceName(std::string_view name);

// A new random UUID in upper-case 8-4-4-4-12 form.
std::string stringWithUUID();

// A duration as its non-zero parts, largest first: "2d 3h 4m 5s 6ms 7us".
// - Days, hours and minutes are shown only when what is left is strictly
//   greater than one such unit, so 60 s is "60s", 3600 s is "60m" and
//   86400 s is "24h".
// - Every part is a whole number of its unit, truncated, never rounded up:
//   59.9 s is "59s". What is left is first rounded to whole nanoseconds, so a
//   binary fraction such as 1.001 (stored as 1.000999…) keeps its millisecond.
// - Milliseconds and microseconds appear only when asked for, each counting
//   what the larger parts left; without milliseconds the microseconds count
//   the whole fraction (0.0015 s is "1500us").
// - Seconds appear when there is at least one, or when no other part would be
//   shown: 0 s is "0s", 0.5 s is "0s" or, with milliseconds, "500ms".
// - Negative and non-finite durations are caller mistakes and show as "0s".
std::string stringWithDuration(double seconds);
std::string stringWithDuration(double seconds, bool includeMilliseconds, bool includeMicroseconds);

// "HH:MM:SS"; the seconds are rounded, so 59.6 s is "00:00:60".
std::string stringWithElapsedTime(double seconds);

// "1023b", "1.5KB", "12.0MB", "2.0GB": one decimal from a kilobyte up, in
// units of 1024.
std::string stringWithHumanReadableBytesSize(std::uint64_t bytes);

// SHA-256 of the bytes of the text, as 64 lower-case hex digits.
std::string sha256HexDigest(std::string_view text);

}  // namespace wireloom
