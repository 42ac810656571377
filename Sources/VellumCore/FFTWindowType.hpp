#pragma once

#include <span>
#include <string_view>

#include "VellumCore/Support/RawValue.hpp"

namespace vellum {

// The window shapes of a spectrum: from the narrowest peaks with the most leakage to the widest with the
// truest height.
enum class FFTWindowType { hann, hamming, blackman, blackmanHarris, flatTop };

template <>
inline constexpr auto rawValueTable<FFTWindowType> =
    rawValues<FFTWindowType>({{FFTWindowType::hann, "hann"},
                              {FFTWindowType::hamming, "hamming"},
                              {FFTWindowType::blackman, "blackman"},
                              {FFTWindowType::blackmanHarris, "blackmanHarris"},
                              {FFTWindowType::flatTop, "flatTop"}});

std::string_view displayName(FFTWindowType type);  // "Blackman-Harris"

// Fills `window` with the shape. Periodic: the phase divides by the size, so that the smallest value stands
// first and has no mirror image at the end. Values in 32 bit, each within a unit of its last place.
void fillWindow(FFTWindowType type, std::span<float> window);

}  // namespace vellum
