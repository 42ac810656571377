#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "VellumApp/SpectrogramImage.hpp"

// Pictures of pixels: the only place that names the drawing library.
namespace vellum::Drawing {

struct PictureSize {
  std::int64_t width, height;  // pixels
};

// A picture leaves room for titles, axes and the colour bar.
constexpr PictureSize leastSize{320, 200};
constexpr std::int64_t mostPixels = std::int64_t{1} << 24, mostSide = 8192;

// What is left in a picture for the spectrogram itself.
PictureSize plotSize(const PictureSize& picture);

// What is drawn over a spectrogram, in its own terms. What lies outside of it is clipped.
struct Point {
  double sec, hz;
};
struct Box {
  double fromSec, toSec, lowHz, highHz;
};
struct Overlay {
  std::string label;                         // above what it names, or below; may be empty
  std::vector<std::vector<Point>> outlines;  // closed lines
  std::vector<Box> cells;                    // areas, tinted; they may touch and overlap
};

struct SpectrogramPicture {
  PictureSize size;
  std::string title, subtitle;  // UTF-8; above the picture, left and right
  double minDB, maxDB;          // of the colours' ends, min < max
  std::vector<Overlay> overlays;
};

// The spectrogram with its axes as a PNG file. The image is of plotSize. Memory: some bytes per pixel.
std::string spectrogramPNG(const SpectrogramImage& image, const SpectrogramPicture& picture);

}  // namespace vellum::Drawing
