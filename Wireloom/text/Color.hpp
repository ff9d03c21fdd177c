#pragma once
// Color: an immutable RGBA colour, shared by pointer. Styled text keeps the
// pointer, not the components, and some code asks "is this the very standard
// black?", so the standard colours are singletons and identity is meaningful:
//
//   ColorPtr warning = Color::calibratedRGB(0.8, 0.4, 0.0);
//   bool isKeyColour = run.attributes.foregroundColor == Color::black();

#include <array>
#include <memory>

namespace wireloom {

class Color {
public:
    enum class Space { CalibratedRGB, DeviceRGB };

    static std::shared_ptr<const Color> calibratedRGB(double red, double green, double blue, double alpha = 1.0);
    static std::shared_ptr<const Color> deviceRGB(double red, double green, double blue, double alpha = 1.0);

    // The standard colours are singletons: every call returns the same object.
    static const std::shared_ptr<const Color>& black();
    static const std::shared_ptr<const Color>& blue();
    static const std::shared_ptr<const Color>& gray();
    static const std::shared_ptr<const Color>& red();
    static const std::shared_ptr<const Color>& orange();
    // Calibrated RGB 0.0, 0.7, 0.0, 1.0, where 0.7 is the single-precision
    // value widened (0.699999988079071): the green of ports and "<green>".
    static const std::shared_ptr<const Color>& calibratedGreen();

    double redComponent() const noexcept { return red_; }
    double greenComponent() const noexcept { return green_; }
    double blueComponent() const noexcept { return blue_; }
    double alphaComponent() const noexcept { return alpha_; }
    Space space() const noexcept { return space_; }

    // Red, green and blue as 0-255, clamped and rounded, for the renderers.
    std::array<int, 3> rgb8() const noexcept;

    Color(const Color&) = delete;
    Color& operator=(const Color&) = delete;

private:
    Color(Space space, double red, double green, double blue, double alpha) noexcept
        : space_(space), red_(red), green_(green), blue_(blue), alpha_(alpha) {}

    Space space_;
    double red_, green_, blue_, alpha_;
};

using ColorPtr = std::shared_ptr<const Color>;

}  // namespace wireloom
