#include <Wireloom/text/Color.hpp>

#include <algorithm>
#include <cmath>

namespace wireloom {

ColorPtr Color::calibratedRGB(double red, double green, double blue, double alpha) {
    return ColorPtr(new Color(Space::CalibratedRGB, red, green, blue, alpha));
}

ColorPtr Color::deviceRGB(double red, double green, double blue, double alpha) {
    return ColorPtr(new Color(Space::DeviceRGB, red, green, blue, alpha));
}

const ColorPtr& Color::black() {
    static const ColorPtr color = calibratedRGB(0.0, 0.0, 0.0);
    return color;
}

const ColorPtr& Color::blue() {
    static const ColorPtr color = calibratedRGB(0.0, 0.0, 1.0);
    return color;
}

const ColorPtr& Color::gray() {
    static const ColorPtr color = calibratedRGB(0.5, 0.5, 0.5);
    return color;
}

const ColorPtr& Color::red() {
    static const ColorPtr color = calibratedRGB(1.0, 0.0, 0.0);
    return color;
}

const ColorPtr& Color::orange() {
    static const ColorPtr color = calibratedRGB(1.0, 0.5, 0.0);
    return color;
}

const ColorPtr& Color::calibratedGreen() {
    // The float literal is the point: the colour was always defined in single
    // precision, and comparisons of the component must see the widened value.
    static const ColorPtr color = calibratedRGB(0.0, static_cast<double>(0.7f), 0.0);
    return color;
}

std::array<int, 3> Color::rgb8() const noexcept {
    auto to8 = [](double c) { return static_cast<int>(std::lround(std::clamp(c, 0.0, 1.0) * 255.0)); };
    return {to8(red_), to8(green_), to8(blue_)};
}

}  // namespace wireloom
