#pragma once
// WLColors: the process-wide colour scheme of report text. Styled text refers
// to these variables by address (WLTokenColorPointer), so a changed colour
// shows at the next rendering without rebuilding any text:
//
//   auto port = WLAttributedString::stringWithFormat(WLTokenColorPointer, WLColors::sourcePortColorPointer(),
//                                                    WLTokenText, "443", WLTokenPop, WLTokenEnd);
//   WLColors::setSourcePortColor(Color::red());   // bumps colorCacheRevision()
//
// Displaying code compares a text's cacheRevision() with colorCacheRevision()
// and, when they differ, calls clearCache() and stores the new revision, so
// each text re-renders once per change. Set the colours on the thread that
// renders (the main one); the revision itself may be read from anywhere.

#include <Wireloom/text/Color.hpp>

#include <cstdint>

namespace wireloom {

class WLColors {
public:
    WLColors() = delete;

    static void setSourceAddressColor(ColorPtr color);
    static void setDestAddressColor(ColorPtr color);
    static void setSourcePortColor(ColorPtr color);
    static void setDestPortColor(ColorPtr color);
    static void setValueColor(ColorPtr color);
    static void setNullValueColor(ColorPtr color);
    static void setKeyColor(ColorPtr color);

    static const ColorPtr* sourceAddressColorPointer();
    static const ColorPtr* destAddressColorPointer();
    static const ColorPtr* sourcePortColorPointer();
    static const ColorPtr* destPortColorPointer();
    static const ColorPtr* valueColorPointer();
    static const ColorPtr* nullValueColorPointer();
    static const ColorPtr* keyColorPointer();

    // Starts at 0 and grows by one with every setter call.
    static std::uint32_t colorCacheRevision() noexcept;
};

}  // namespace wireloom
