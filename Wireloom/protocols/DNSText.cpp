#include <Wireloom/packets/detail/FrameArena.hpp>
#include <Wireloom/protocols/DNSText.hpp>

#include <cstring>

namespace wireloom::detail {

namespace {

FrameArena* arenaHolding(const void* holder) noexcept {
    FrameArena* arena = tCurrentFrameArena;
    return arena && arena->owns(holder) ? arena : nullptr;
}

}  // namespace

DNSText keepDecodedText(const void* holder, std::string_view text) {
    if (FrameArena* arena = arenaHolding(holder); arena && !text.empty())
        if (void* kept = arena->allocateUnreferenced(text.size())) {
            if (kept != text.data()) std::memcpy(kept, text.data(), text.size());
            return DNSText::borrowedFromFrame({static_cast<const char*>(kept), text.size()});
        }
    return DNSText(text);
}

std::span<char> frameTextRoom(const void* holder) noexcept {
    FrameArena* arena = arenaHolding(holder);
    if (!arena) return {};
    const std::span<std::uint8_t> room = arena->unallocated();
    return {reinterpret_cast<char*>(room.data()), room.size()};
}

}  // namespace wireloom::detail
