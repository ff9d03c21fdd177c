#include <Wireloom/text/WLColors.hpp>

#include <atomic>

namespace wireloom {

namespace {

struct Scheme {
    ColorPtr sourceAddress = Color::blue();
    ColorPtr destAddress = Color::blue();
    ColorPtr sourcePort = Color::calibratedGreen();
    ColorPtr destPort = Color::calibratedGreen();
    ColorPtr value = Color::blue();
    ColorPtr nullValue = Color::gray();
    ColorPtr key = Color::black();
};

// Made on first use (thread-safe, as any function-local static), and never
// destroyed: styled texts hold the variables' addresses and may be rendered
// from other static destructors.
Scheme& scheme() {
    static Scheme* const instance = new Scheme;
    return *instance;
}

std::atomic<std::uint32_t> revision{0};

void assign(ColorPtr& variable, ColorPtr color) {
    variable = std::move(color);
    revision.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

void WLColors::setSourceAddressColor(ColorPtr color) { assign(scheme().sourceAddress, std::move(color)); }
void WLColors::setDestAddressColor(ColorPtr color) { assign(scheme().destAddress, std::move(color)); }
void WLColors::setSourcePortColor(ColorPtr color) { assign(scheme().sourcePort, std::move(color)); }
void WLColors::setDestPortColor(ColorPtr color) { assign(scheme().destPort, std::move(color)); }
void WLColors::setValueColor(ColorPtr color) { assign(scheme().value, std::move(color)); }
void WLColors::setNullValueColor(ColorPtr color) { assign(scheme().nullValue, std::move(color)); }
void WLColors::setKeyColor(ColorPtr color) { assign(scheme().key, std::move(color)); }

const ColorPtr* WLColors::sourceAddressColorPointer() { return &scheme().sourceAddress; }
const ColorPtr* WLColors::destAddressColorPointer() { return &scheme().destAddress; }
const ColorPtr* WLColors::sourcePortColorPointer() { return &scheme().sourcePort; }
const ColorPtr* WLColors::destPortColorPointer() { return &scheme().destPort; }
const ColorPtr* WLColors::valueColorPointer() { return &scheme().value; }
const ColorPtr* WLColors::nullValueColorPointer() { return &scheme().nullValue; }
const ColorPtr* WLColors::keyColorPointer() { return &scheme().key; }

std::uint32_t WLColors::colorCacheRevision() noexcept { return revision.load(std::memory_order_relaxed); }

}  // namespace wireloom
