#pragma once
// readFullyQualitifiedDomainName (the spelling is the established one): reads
// one DNS name, label by label, from a cursor over a message and returns it
// dotted, "foo.local" (the root name is ""), or nothing when it cannot be
// read. The cursor and the consumed count move over what lies inline; a
// compression pointer is followed through the message with a cursor of its
// own, so the caller's cursor ends after the pointer's two bytes and what the
// pointer reached is not counted:
//
//   detail::ByteReader cursor(message, length);
//   cursor.seek(12);
//   std::uint32_t consumed = 12;
//   auto name = readFullyQualitifiedDomainName(message, length, cursor, consumed);
//
// Pointers may lead forwards as well as backwards; only the depth limit ends
// a loop of them. Without a message start pointers cannot be followed, and a
// length byte of 0xC0 or more is then a plain (long) label length, as are the
// reserved lengths 64 to 191 always. Labels must be UTF-8.

#include <Wireloom/core/detail/ByteReader.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace wireloom {

// Pointers followed beyond this depth make the name unreadable.
inline constexpr int kDNSNameMaxPointerDepth = 100;

// On failure the cursor is left where reading stopped: after the length byte
// of a label that ran out or was not UTF-8, after a pointer that led nowhere.
std::optional<std::string> readFullyQualitifiedDomainName(const std::uint8_t* messageStart, std::size_t messageLength,
                                                          detail::ByteReader& cursor, std::uint32_t& consumed,
                                                          std::string partialName = {}, int depth = 0);

}  // namespace wireloom
