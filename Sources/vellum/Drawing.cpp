#include "vellum/Drawing.hpp"

#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <memory>
#include <stdexcept>
#include <vector>

#include "VellumApp/ColourMap.hpp"
#include "vellum/AxisTicks.hpp"

namespace vellum::Drawing {
namespace {

constexpr double marginLeft = 60, marginRight = 84, marginTop = 34, marginBottom = 46;
constexpr double barWidth = 14, barGap = 14, tickLength = 5;
constexpr double fontSize = 12, titleSize = 13;
constexpr double infinity = std::numeric_limits<double>::infinity();

struct ReleaseSurface {
  void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
};
struct ReleaseContext {
  void operator()(cairo_t* context) const { cairo_destroy(context); }
};

void require(cairo_status_t status) {
  if (status != CAIRO_STATUS_SUCCESS)
    throw std::runtime_error(std::string("the picture cannot be drawn: ") + cairo_status_to_string(status));
}

cairo_status_t append(void* text, const unsigned char* bytes, unsigned int count) {
  try {
    static_cast<std::string*>(text)->append(reinterpret_cast<const char*>(bytes), count);
    return CAIRO_STATUS_SUCCESS;
  } catch (...) {  // not through a library in C
    return CAIRO_STATUS_NO_MEMORY;
  }
}

struct Pixel {
  double x, y;
};

// The part of a closed line on the side of an edge where distance(point) >= 0; what runs outside runs along
// the edge.
template <typename Distance>
std::vector<Pixel> clippedAt(const std::vector<Pixel>& line, const Distance& distance) {
  std::vector<Pixel> result;
  for (std::size_t k = 0; k < line.size(); ++k) {
    const Pixel &from = line[k], &to = line[k + 1 < line.size() ? k + 1 : 0];
    const double before = distance(from), after = distance(to);
    if (before >= 0) result.push_back(from);
    if ((before >= 0) != (after >= 0)) {
      const double share = before / (before - after);
      result.push_back({from.x + share * (to.x - from.x), from.y + share * (to.y - from.y)});
    }
  }
  return result;
}

enum class Align { left, centre, right };

class Canvas {
 public:
  explicit Canvas(const PictureSize& size)
      : surface_(cairo_image_surface_create(CAIRO_FORMAT_RGB24, static_cast<int>(size.width),
                                            static_cast<int>(size.height))) {
    require(cairo_surface_status(surface_.get()));
    context_.reset(cairo_create(surface_.get()));
    require(cairo_status(context_.get()));
    cairo_set_source_rgb(cairo(), 1, 1, 1);
    cairo_paint(cairo());
    cairo_select_font_face(cairo(), "DejaVu Sans", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
  }

  cairo_t* cairo() const { return context_.get(); }

  double widthOf(const std::string& text, double size) const {
    cairo_set_font_size(cairo(), size);
    cairo_text_extents_t extents;
    cairo_text_extents(cairo(), text.c_str(), &extents);
    return extents.x_advance;
  }

  // y is the middle of the text's height.
  void text(double x, double y, const std::string& text, Align align, double size = fontSize) const {
    const double width = widthOf(text, size);
    const double shift = align == Align::left ? 0 : align == Align::centre ? width / 2 : width;
    cairo_move_to(cairo(), std::round(x - shift), std::round(y + 0.36 * size));
    cairo_show_text(cairo(), text.c_str());
  }

  // A line of one pixel. x and y are between pixels.
  void line(double x0, double y0, double x1, double y1) const {
    const auto middle = [](double edge) { return std::floor(edge) + 0.5; };
    cairo_set_line_width(cairo(), 1);
    cairo_move_to(cairo(), middle(x0), middle(y0));
    cairo_line_to(cairo(), middle(x1), middle(y1));
    cairo_stroke(cairo());
  }

  // Sets pixels directly: colourOf(column, row) for each of an area.
  template <typename ColourOf>
  void fill(std::int64_t x, std::int64_t y, std::int64_t width, std::int64_t height,
            const ColourOf& colourOf) const {
    cairo_surface_flush(surface_.get());
    unsigned char* pixels = cairo_image_surface_get_data(surface_.get());
    const std::int64_t stride = cairo_image_surface_get_stride(surface_.get());
    for (std::int64_t row = 0; row < height; ++row) {
      auto* line = reinterpret_cast<std::uint32_t*>(pixels + (y + row) * stride) + x;
      for (std::int64_t column = 0; column < width; ++column) {
        const Colour colour = colourOf(column, row);
        line[column] = static_cast<std::uint32_t>(colour.red) << 16 |
                       static_cast<std::uint32_t>(colour.green) << 8 | colour.blue;
      }
    }
    cairo_surface_mark_dirty(surface_.get());
  }

  std::string png() const {
    require(cairo_status(cairo()));
    std::string bytes;
    require(cairo_surface_write_to_png_stream(surface_.get(), append, &bytes));
    return bytes;
  }

 private:
  std::unique_ptr<cairo_surface_t, ReleaseSurface> surface_;
  std::unique_ptr<cairo_t, ReleaseContext> context_;
};

class SpectrogramDrawing {
 public:
  SpectrogramDrawing(const SpectrogramImage& image, const SpectrogramPicture& picture)
      : image_(image), picture_(picture), canvas_(picture.size) {
    const PictureSize plot = plotSize(picture.size);
    width_ = static_cast<double>(plot.width);
    height_ = static_cast<double>(plot.height);
  }

  std::string png() {
    drawLevels();
    drawOverlays();
    setInk();
    drawAxes();
    drawColourBar();
    drawTitles();
    return canvas_.png();
  }

 private:
  double xOf(double sec) const {
    return marginLeft + (sec - image_.fromSec) / (image_.toSec - image_.fromSec) * width_;
  }
  double yOf(double hz) const { return marginTop + (1 - image_.axis.positionOf(hz)) * height_; }
  double yOfLevel(double dB) const {
    return marginTop + (picture_.maxDB - dB) / (picture_.maxDB - picture_.minDB) * height_;
  }

  Colour colourOf(double dB) const {
    const double share = (dB - picture_.minDB) / (picture_.maxDB - picture_.minDB);
    return levelColours()[static_cast<std::size_t>(std::lround(255 * std::clamp(share, 0.0, 1.0)))];
  }

  void setInk() const { cairo_set_source_rgb(canvas_.cairo(), 0.13, 0.13, 0.13); }

  void drawLevels() {
    canvas_.fill(static_cast<std::int64_t>(marginLeft), static_cast<std::int64_t>(marginTop), image_.width,
                 image_.height, [&](std::int64_t column, std::int64_t row) {
                   return colourOf(static_cast<double>(image_.level(column, row)));
                 });
  }

  void drawOverlays() const {
    cairo_t* cairo = canvas_.cairo();
    cairo_save(cairo);
    cairo_rectangle(cairo, marginLeft, marginTop, width_, height_);
    cairo_clip(cairo);
    for (const Overlay& overlay : picture_.overlays) {
      // In one piece, so that areas in one another are tinted once; with edges as crisp as cells have them.
      for (const Box& box : overlay.cells)
        addPath({{box.fromSec, box.lowHz},
                 {box.fromSec, box.highHz},
                 {box.toSec, box.highHz},
                 {box.toSec, box.lowHz}});
      cairo_set_antialias(cairo, CAIRO_ANTIALIAS_NONE);
      cairo_set_source_rgba(cairo, 0.25, 0.85, 1, 0.45);
      cairo_fill(cairo);
      cairo_set_antialias(cairo, CAIRO_ANTIALIAS_DEFAULT);

      for (const auto& outline : overlay.outlines) addPath(outline);
      cairo_set_line_width(cairo, 3.5);
      cairo_set_source_rgba(cairo, 0, 0, 0, 0.7);
      cairo_stroke_preserve(cairo);
      cairo_set_line_width(cairo, 1.5);
      cairo_set_source_rgb(cairo, 0.35, 0.9, 1);
      cairo_stroke(cairo);
      drawLabel(overlay);
    }
    cairo_restore(cairo);
  }

  // A closed line. The drawing library knows no coordinate beyond some million pixels, so that shapes are
  // clipped to a little more than what shows.
  void addPath(const std::vector<Point>& points) const {
    constexpr double margin = 10;
    const double left = marginLeft - margin, right = marginLeft + width_ + margin;
    const double top = marginTop - margin, bottom = marginTop + height_ + margin;
    std::vector<Pixel> line;
    for (const Point& point : points) line.push_back({xOf(point.sec), yOf(point.hz)});
    line = clippedAt(line, [&](const Pixel& p) { return p.x - left; });
    line = clippedAt(line, [&](const Pixel& p) { return right - p.x; });
    line = clippedAt(line, [&](const Pixel& p) { return p.y - top; });
    line = clippedAt(line, [&](const Pixel& p) { return bottom - p.y; });
    if (line.empty()) return;
    cairo_new_sub_path(canvas_.cairo());  // or the line before, or a text, would be joined to it
    for (const Pixel& pixel : line) cairo_line_to(canvas_.cairo(), pixel.x, pixel.y);
    cairo_close_path(canvas_.cairo());
  }

  void drawLabel(const Overlay& overlay) const {
    if (overlay.label.empty()) return;
    // What is drawn over the picture.
    double left = infinity, top = infinity, bottom = -infinity;
    const auto add = [&](double sec, double hz) {
      left = std::min(left, xOf(sec));
      top = std::min(top, yOf(hz));
      bottom = std::max(bottom, yOf(hz));
    };
    for (const auto& outline : overlay.outlines)
      for (const Point& point : outline) add(point.sec, point.hz);
    for (const Box& cell : overlay.cells) {
      add(cell.fromSec, cell.highHz);
      add(cell.fromSec, cell.lowHz);
    }
    if (left == infinity) return;
    // Above it, so that it stays in sight; where there is no room, below.
    constexpr double gap = 3, height = fontSize + 4;
    const double width = canvas_.widthOf(overlay.label, fontSize) + 6;
    const double above = top - gap - height;
    const double x = std::clamp(left, marginLeft, std::max(marginLeft, marginLeft + width_ - width));
    const double y = std::clamp(above >= marginTop ? above : bottom + gap, marginTop,
                                std::max(marginTop, marginTop + height_ - height));
    cairo_set_source_rgba(canvas_.cairo(), 0, 0, 0, 0.7);
    cairo_rectangle(canvas_.cairo(), x, y, width, height);
    cairo_fill(canvas_.cairo());
    cairo_set_source_rgb(canvas_.cairo(), 0.35, 0.9, 1);
    canvas_.text(x + 3, y + height / 2, overlay.label, Align::left);
  }

  void drawFrame(double x, double width) const {
    canvas_.line(x - 1, marginTop - 1, x + width, marginTop - 1);
    canvas_.line(x - 1, marginTop + height_, x + width, marginTop + height_);
    canvas_.line(x - 1, marginTop - 1, x - 1, marginTop + height_);
    canvas_.line(x + width, marginTop - 1, x + width, marginTop + height_);
  }

  void drawAxes() const {
    drawFrame(marginLeft, width_);
    const double bottom = marginTop + height_;
    for (const Tick& tick : timeTicks(image_.fromSec, image_.toSec, std::max(2.0, width_ / 90))) {
      const double x = std::min(xOf(tick.value), marginLeft + width_ - 1);
      canvas_.line(x, bottom, x, bottom + tickLength);
      canvas_.text(x, bottom + tickLength + 9, tick.label, Align::centre);
    }
    canvas_.text(marginLeft + width_ / 2, bottom + 36, image_.toSec >= 60 ? "Time" : "Time / s",
                 Align::centre);

    const double left = marginLeft - 1;
    const auto rowOf = [&](double hz) { return std::min(yOf(hz), bottom - 1); };
    for (const double hz : minorFrequencies(image_.axis)) canvas_.line(left, rowOf(hz), left - 3, rowOf(hz));
    for (const Tick& tick : frequencyTicks(image_.axis, std::max(2.0, height_ / 36))) {
      const double y = rowOf(tick.value);
      canvas_.line(left, y, left - tickLength, y);
      canvas_.text(left - tickLength - 3, y, tick.label, Align::right);
    }
    canvas_.text(left - tickLength - 3, marginTop - 14, "Hz", Align::right);
  }

  void drawColourBar() {
    const double x = marginLeft + width_ + barGap;
    canvas_.fill(static_cast<std::int64_t>(x), static_cast<std::int64_t>(marginTop),
                 static_cast<std::int64_t>(barWidth), image_.height, [&](std::int64_t, std::int64_t row) {
                   const double share = (static_cast<double>(row) + 0.5) / height_;
                   return colourOf(picture_.maxDB - share * (picture_.maxDB - picture_.minDB));
                 });
    drawFrame(x, barWidth);
    const double right = x + barWidth;
    for (const Tick& tick : levelTicks(picture_.minDB, picture_.maxDB, std::max(2.0, height_ / 36))) {
      const double y = std::min(yOfLevel(tick.value), marginTop + height_ - 1);
      canvas_.line(right, y, right + tickLength, y);
      canvas_.text(right + tickLength + 3, y, tick.label, Align::left);
    }
    canvas_.text(right + tickLength + 3, marginTop - 14, "dBFS", Align::left);
  }

  // Titles that do not fit beside each other give way: first the right one, then the left one's end.
  void drawTitles() const {
    const double room = width_;
    const double subtitle = canvas_.widthOf(picture_.subtitle, fontSize);
    const bool bothFit = canvas_.widthOf(picture_.title, titleSize) + 24 + subtitle <= room;
    cairo_save(canvas_.cairo());
    cairo_rectangle(canvas_.cairo(), marginLeft, 0, room, marginTop - 2);
    cairo_clip(canvas_.cairo());
    canvas_.text(marginLeft, marginTop - 14, picture_.title, Align::left, titleSize);
    if (bothFit) canvas_.text(marginLeft + width_, marginTop - 14, picture_.subtitle, Align::right);
    cairo_restore(canvas_.cairo());
  }

  const SpectrogramImage& image_;
  const SpectrogramPicture& picture_;
  Canvas canvas_;
  double width_, height_;
};

}  // namespace

PictureSize plotSize(const PictureSize& picture) {
  return {picture.width - static_cast<std::int64_t>(marginLeft + marginRight),
          picture.height - static_cast<std::int64_t>(marginTop + marginBottom)};
}

std::string spectrogramPNG(const SpectrogramImage& image, const SpectrogramPicture& picture) {
  return SpectrogramDrawing(image, picture).png();
}

}  // namespace vellum::Drawing
