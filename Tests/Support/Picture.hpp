#pragma once

#include <cairo.h>

#include <cstdint>
#include <filesystem>
#include <stdexcept>

#include "VellumApp/ColourMap.hpp"

namespace vellum::test {

// A PNG file, decoded.
class Picture {
 public:
  explicit Picture(const std::filesystem::path& path)
      : surface_(cairo_image_surface_create_from_png(path.c_str())) {
    if (cairo_surface_status(surface_) != CAIRO_STATUS_SUCCESS) {
      cairo_surface_destroy(surface_);
      throw std::runtime_error("no picture: " + path.string());
    }
  }
  ~Picture() { cairo_surface_destroy(surface_); }
  Picture(const Picture&) = delete;
  Picture& operator=(const Picture&) = delete;

  int width() const { return cairo_image_surface_get_width(surface_); }
  int height() const { return cairo_image_surface_get_height(surface_); }
  Colour at(int x, int y) const {
    const unsigned char* row =
        cairo_image_surface_get_data(surface_) + y * cairo_image_surface_get_stride(surface_);
    const std::uint32_t pixel = reinterpret_cast<const std::uint32_t*>(row)[x];
    return {static_cast<std::uint8_t>(pixel >> 16), static_cast<std::uint8_t>(pixel >> 8),
            static_cast<std::uint8_t>(pixel)};
  }

 private:
  cairo_surface_t* surface_;
};

}  // namespace vellum::test
