#pragma once

#include <string>

#include "VellumApp/SpectrumAnalysis.hpp"

namespace vellum {

// The average and the peaks of a spectrum over a logarithmic frequency axis, as an SVG picture of 960 x 540.
// Where several bins share a pixel, the highest of each curve is drawn.
//   title  UTF-8
std::string spectrumSVG(const FileSpectrum& spectrum, const std::string& title, const std::string& subtitle);

}  // namespace vellum
