// Drives one stream buffer with a sequence of segments decoded from the
// input, beside a plain reference that places and delivers byte by byte, and
// stops at the first push where the two disagree or an invariant breaks.
//
// Each segment is a mode byte, a length byte and a sequence number whose
// size the mode picks: a small or medium step from the window start, an
// absolute value (for the wrap), or a step from the window's far end (for
// the 10 MiB limit); bit 0x40 of the mode makes the length 31 times the
// length byte. The payload is made from the mode, so a short input can still
// push long segments.
#include "FuzzTarget.hpp"

#include <Wireloom/core/Assert.hpp>
#include <Wireloom/core/detail/ByteReader.hpp>
#include <Wireloom/flows/PXTCPBuffer.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

namespace {

using namespace wireloom;
using Bytes = std::vector<std::uint8_t>;

// The stream as positions that hold a byte; the window's length is kept
// apart because holes count in it.
struct Reference {
    std::uint64_t windowStart = 0;
    bool seenData = false;
    std::uint64_t length = 0;
    std::map<std::uint64_t, std::uint8_t> bytes;

    std::optional<Bytes> push(const Bytes& data, std::uint32_t seq32, bool* missing) {
        *missing = false;
        const std::uint64_t seq = seq32;
        if (!seenData) {
            seenData = true;
            windowStart = seq;
        }
        const bool wrapped = seq < 0xA00000 && windowStart > 0xFF5FFFFF;
        if (seq < windowStart && !wrapped) return std::nullopt;
        const std::uint64_t start = wrapped ? seq + 0xFFFFFFFF : seq;
        const std::uint64_t end = start + data.size();
        if (end <= windowStart) return std::nullopt;
        if (end - windowStart > 0xA00000) {
            *missing = true;
            return std::nullopt;
        }
        length = std::max(length, end - windowStart);
        for (std::uint64_t p = std::max(start, windowStart); p < end; ++p) bytes[p] = data[p - start];
        Bytes run;
        for (auto it = bytes.begin(); it != bytes.end() && it->first == windowStart + run.size(); it = bytes.erase(it))
            run.push_back(it->second);
        if (run.empty()) return std::nullopt;
        length -= run.size();
        windowStart += run.size();
        if (windowStart > 0xFFFFFFFF) {
            // Positions are kept in the window start's terms, so they fold too.
            windowStart -= 0xFFFFFFFF;
            std::map<std::uint64_t, std::uint8_t> folded;
            for (const auto& [position, byte] : bytes) folded.emplace_hint(folded.end(), position - 0xFFFFFFFF, byte);
            bytes.swap(folded);
        }
        return run;
    }
};

void checkWindow(const PXTCPBuffer& buffer, const Reference& reference) {
    // Built whole and compared with memcmp: a byte loop here would be most
    // of the fuzzer's time once windows reach megabytes.
    Bytes flags(reference.length), data(reference.length);
    for (const auto& [position, byte] : reference.bytes) {
        WL_ASSERT(position - reference.windowStart < reference.length, "reference byte outside its window");
        flags[position - reference.windowStart] = 1;
        data[position - reference.windowStart] = byte;
    }
    WL_ASSERT(flags.empty() || flags[0] == 0, "a contiguous front was left undelivered");
    WL_ASSERT(std::ranges::equal(buffer.slidingWindowSetBytes().span(), flags), "window flags differ");
    WL_ASSERT(std::ranges::equal(buffer.slidingWindow().span(), data), "window bytes differ");
}

}  // namespace

WIRELOOM_FUZZ_TARGET(tcp_buffer) {
    detail::ByteReader in(data, size);
    PXTCPBuffer buffer;
    Reference reference;
    // The reference costs a map node per byte: a budget keeps executions
    // fast enough to explore, and is still several windows of ring wraps.
    std::size_t budget = 64 * 1024;
    while (in.remaining() >= 3) {
        const std::uint8_t mode = in.readByte();
        const std::uint8_t lengthByte = in.readByte();
        const std::size_t length = mode & 0x40 ? lengthByte * 31u : lengthByte;
        const auto windowStart = static_cast<std::uint32_t>(buffer.windowStart());
        std::uint32_t seq = 0;
        // Steps near the window start most often; a jump to the far end
        // rarely, since a 10 MiB window makes an execution slow.
        const int kind = mode & 15;
        if (kind < 10)
            seq = windowStart + static_cast<std::int8_t>(in.readByte());
        else if (kind < 13)
            seq = windowStart + static_cast<std::int16_t>(in.readBE<std::uint16_t>());
        else if (kind < 15)
            seq = in.readBE<std::uint32_t>();
        else
            seq = windowStart + static_cast<std::uint32_t>(PXTCPBuffer::kMaxWindow - length) +
                  static_cast<std::int8_t>(in.readByte());
        if (!in || length > budget) break;
        budget -= length;
        Bytes payload(length);
        for (std::size_t i = 0; i < length; ++i) payload[i] = static_cast<std::uint8_t>(mode + 7 * i);

        bool missing = false, referenceMissing = false;
        const std::optional<ByteBuffer> got = buffer.pushData(payload, seq, &missing);
        const std::optional<Bytes> want = reference.push(payload, seq, &referenceMissing);
        WL_ASSERT(missing == referenceMissing, "missing flag differs");
        WL_ASSERT(got.has_value() == want.has_value(), "delivery differs");
        WL_ASSERT(!got || std::ranges::equal(got->span(), *want), "delivered bytes differ");
        WL_ASSERT(buffer.windowStart() == reference.windowStart && buffer.seenData(), "window start differs");
        WL_ASSERT(buffer.windowLength() <= PXTCPBuffer::kMaxWindow, "window beyond its limit");
        WL_ASSERT(buffer.windowLength() == reference.length, "window length differs");
        // The holes and flags only while the window is small: a megabyte
        // window takes the same code paths and would make each execution
        // slow; what it holds is still compared when it is delivered.
        if (reference.length <= 65536) checkWindow(buffer, reference);
    }
    return 0;
}
