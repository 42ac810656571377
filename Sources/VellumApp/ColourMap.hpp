#pragma once

#include <array>
#include <cstdint>

namespace vellum {

struct Colour {
  std::uint8_t red, green, blue;  // sRGB

  friend bool operator==(const Colour&, const Colour&) = default;
};

// Colours for levels, from black by violet, red and orange to white. Lightness (CIELAB L*) rises in equal
// steps, so that equal differences of level look equally large, and the picture reads the same in greyscale.
// Made by formula: L* from 1 to 98, the hue from 285 to 450 degrees, and a chroma of 65 sin(pi t), less where
// sRGB has no such colour.
const std::array<Colour, 256>& levelColours();

}  // namespace vellum
