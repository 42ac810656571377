#include "vellum/Drawing.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Picture.hpp"
#include "Support/TemporaryFolder.hpp"
#include "vellum/AxisTicks.hpp"

namespace vellum {
namespace {

using Drawing::Overlay;
using Drawing::SpectrogramPicture;

constexpr Drawing::PictureSize size{544, 280};  // 400 x 200 for the spectrogram, from (60, 34)

// 4 seconds from 10 s on, 0 to 2,000 Hz: a pixel is 10 ms and 10 Hz. All at the darkest level.
SpectrogramImage darkImage() {
  return {.formatName = "",
          .sampleRate = 4000,
          .channelCount = 1,
          .channels = {0},
          .fromSec = 10,
          .toSec = 14,
          .axis = frequencyAxisOf(FrequencyScale::linear, 4000),
          .fftSize = 512,
          .width = 400,
          .height = 200,
          .levels = std::vector<float>(400 * 200, -200.0f),
          .warnings = {}};
}

class DrawingTest : public testing::Test {
 protected:
  test::Picture drawn(const std::vector<Overlay>& overlays, const std::string& title = "") {
    return drawn(
        darkImage(),
        {.size = size, .title = title, .subtitle = "", .minDB = -100, .maxDB = 0, .overlays = overlays});
  }

  test::Picture drawn(const SpectrogramImage& image, const SpectrogramPicture& picture) {
    std::ofstream(folder_ / "a.png", std::ios::binary) << Drawing::spectrogramPNG(image, picture);
    return test::Picture(folder_ / "a.png");
  }

  static bool isInked(const test::Picture& picture, int x, int y) {
    return picture.at(x, y) != Colour{255, 255, 255};
  }

  // The pixels with ink of a part of a row, or of a column beside the spectrogram.
  static std::vector<int> inkedInRow(const test::Picture& picture, int y, int fromX, int toX) {
    std::vector<int> inked;
    for (int x = fromX; x < toX; ++x)
      if (isInked(picture, x, y)) inked.push_back(x);
    return inked;
  }
  static std::vector<int> inkedInColumn(const test::Picture& picture, int x) {
    std::vector<int> inked;
    for (int y = 0; y <= 235; ++y)  // down to the times below the frame
      if (isInked(picture, x, y)) inked.push_back(y);
    return inked;
  }

  // Around the ink in an area, edges included.
  struct Extent {
    int left = 10'000, top = 10'000, right = -1, bottom = -1;
    bool isEmpty() const { return right < 0; }
    double x() const { return (left + right) / 2.0; }
    double y() const { return (top + bottom) / 2.0; }
  };
  static Extent inkIn(const test::Picture& picture, int fromX, int toX, int fromY, int toY) {
    Extent extent;
    for (int y = fromY; y <= toY; ++y)
      for (int x = fromX; x <= toX; ++x)
        if (isInked(picture, x, y)) {
          extent.left = std::min(extent.left, x);
          extent.right = std::max(extent.right, x);
          extent.top = std::min(extent.top, y);
          extent.bottom = std::max(extent.bottom, y);
        }
    return extent;
  }

  // Whether the pixel of the spectrogram is drawn over.
  static bool isTouched(const test::Picture& picture, int column, int row) {
    return picture.at(60 + column, 34 + row) != levelColours()[0];
  }

 private:
  test::TemporaryFolder folder_;
};

TEST_F(DrawingTest, PlotIsWhatAxesLeave) {
  EXPECT_EQ(Drawing::plotSize(size).width, 400);
  EXPECT_EQ(Drawing::plotSize(size).height, 200);
  const test::Picture picture = drawn({});
  ASSERT_EQ(picture.width(), 544);
  ASSERT_EQ(picture.height(), 280);
  for (int x = 0; x < 400; ++x)
    for (int y = 0; y < 200; ++y) ASSERT_FALSE(isTouched(picture, x, y)) << x << ", " << y;
  for (const auto& [x, y] : {std::pair{60 - 2, 100}, {60 + 401, 100}, {200, 34 - 2}, {205, 34 + 201}})
    EXPECT_EQ(picture.at(x, y), (Colour{255, 255, 255})) << x << ", " << y;
}

// 11 to 12 s, 500 to 1,000 Hz.
TEST_F(DrawingTest, CellsAreTintedWhereTheyLie) {
  const test::Picture picture = drawn({{.label = "", .outlines = {}, .cells = {{11, 12, 500, 1000}}}});
  for (int x = 0; x < 400; ++x)
    for (int y = 0; y < 200; ++y)
      ASSERT_EQ(isTouched(picture, x, y), x >= 100 && x < 200 && y >= 100 && y < 150) << x << ", " << y;
}

TEST_F(DrawingTest, CellsThatTouchOrOverlapAreTintedOnce) {
  std::vector<Drawing::Box> parts;
  for (int k = 0; k < 30; ++k) parts.push_back({11 + k / 30.0, 11 + (k + 1.5) / 30, 500, 1000});
  const test::Picture picture = drawn({{.label = "", .outlines = {}, .cells = parts}});
  const Colour tint = picture.at(60 + 150, 34 + 120);
  for (int x = 100; x < 200; ++x)
    for (int y = 100; y < 150; ++y) ASSERT_EQ(picture.at(60 + x, 34 + y), tint) << x << ", " << y;
}

// Edges between pixels leave no half-tinted ones.
TEST_F(DrawingTest, CellsHaveCrispEdges) {
  const test::Picture picture = drawn({{.label = "", .outlines = {}, .cells = {{11.004, 11.997, 504, 997}}}});
  const Colour tint = picture.at(60 + 150, 34 + 120);
  for (int x = 0; x < 400; ++x)
    for (int y = 0; y < 200; ++y)
      ASSERT_TRUE(!isTouched(picture, x, y) || picture.at(60 + x, 34 + y) == tint) << x << ", " << y;
}

TEST_F(DrawingTest, OutlinesAreClosedLines) {
  const test::Picture picture =
      drawn({{.label = "", .outlines = {{{11, 500}, {12, 500}, {12, 1000}, {11, 1000}}}, .cells = {}}});
  for (const int x : {100, 150, 200}) EXPECT_TRUE(isTouched(picture, x, 100) && isTouched(picture, x, 150));
  for (const int y : {100, 125, 150}) EXPECT_TRUE(isTouched(picture, 100, y) && isTouched(picture, 200, y));
  EXPECT_FALSE(isTouched(picture, 150, 125));
  EXPECT_FALSE(isTouched(picture, 90, 125));
}

// Areas and lines of one overlay and of the next, at both ends of the picture.
TEST_F(DrawingTest, ShapesApartAreNotJoined) {
  const std::vector<Drawing::Point> low = {{10.5, 200}, {11, 200}, {11, 400}},
                                    high = {{13, 1700}, {13.5, 1700}, {13.5, 1900}};
  const Overlay areas{.label = "", .outlines = {}, .cells = {{10.5, 11, 200, 400}, {13, 13.5, 1700, 1900}}};
  const Overlay lines{.label = "", .outlines = {low, high}, .cells = {}};
  Overlay named = areas;
  named.label = "1";
  for (const std::vector<Overlay>& overlays : {std::vector{areas}, {lines}, {named, named}, {areas, lines}}) {
    const test::Picture picture = drawn(overlays);
    EXPECT_TRUE(isTouched(picture, 99, 161) && isTouched(picture, 349, 11));
    for (int column = 120; column < 290; ++column)
      for (int row = 0; row < 200; ++row)
        ASSERT_FALSE(isTouched(picture, column, row)) << column << ", " << row;
  }
}

TEST_F(DrawingTest, WhatLiesOutsideIsClipped) {
  const test::Picture plain = drawn({});
  const test::Picture picture =
      drawn({{.label = "",
              .outlines = {{{-1e6, -1e6}, {1e6, -1e6}, {1e6, 1e6}, {-1e6, 1e6}}, {}},
              .cells = {{-1.03e5, 10.5, -500, 1e9}}}});
  EXPECT_TRUE(isTouched(picture, 20, 100));
  EXPECT_FALSE(isTouched(picture, 60, 100));
  for (int y = 0; y < 280; ++y)
    for (const int x : {0, 30, 57, 470, 500}) ASSERT_EQ(picture.at(x, y), plain.at(x, y)) << x << ", " << y;
}

TEST_F(DrawingTest, LabelsStandAboveTheirShapesOrBelowWhereThereIsNoRoom) {
  const test::Picture picture =
      drawn({{.label = "1", .outlines = {}, .cells = {{11, 12, 500, 1000}}},
             {.label = "2", .outlines = {}, .cells = {{12.5, 13, 1800, 2000}}},
             {.label = "nothing to stand beside", .outlines = {}, .cells = {}},
             {.label = "far outside", .outlines = {{{50, 9000}, {60, 9000}, {60, 9999}}}, .cells = {}}});
  EXPECT_TRUE(isTouched(picture, 106, 90));
  EXPECT_TRUE(isTouched(picture, 256, 30));
  EXPECT_FALSE(isTouched(picture, 256, 45));
  // What is named stays in sight.
  for (int row = 101; row < 149; ++row)
    ASSERT_EQ(picture.at(60 + 106, 34 + row), picture.at(60 + 190, 34 + 145)) << row;
  EXPECT_TRUE(isTouched(picture, 390, 8));  // drawn as near as there is room
}

TEST_F(DrawingTest, LongTitleStaysInThePicture) {
  const test::Picture plain = drawn({}), picture = drawn({}, std::string(5000, 'W'));
  int inked = 0;
  for (int x = 440; x < 460; ++x) inked += picture.at(x, 20) != plain.at(x, 20);
  EXPECT_GT(inked, 0);
  for (int x = 461; x < 544; ++x)
    for (int y = 0; y < 280; ++y) ASSERT_EQ(picture.at(x, y), plain.at(x, y)) << x << ", " << y;
}

// --- Axes ------------------------------------------------------------------------------------------------

// A mark at every full second, the last one in the last column; its label is centred below it.
TEST_F(DrawingTest, TimesAreMarkedAndLabelledBelow) {
  const std::vector<Tick> ticks = timeTicks(10, 14, 400 / 90.0);
  ASSERT_EQ(ticks.size(), 5u);
  const test::Picture picture = drawn({});
  const std::vector<int> columns = {60, 160, 260, 360, 459};
  for (const int y : {235, 236, 237, 238}) EXPECT_EQ(inkedInRow(picture, y, 53, 496), columns) << y;
  EXPECT_EQ(inkedInRow(picture, 241, 53, 496), std::vector<int>{});
  for (const int x : columns) {
    const Extent label = inkIn(picture, x - 30, x + 30, 241, 256);
    ASSERT_FALSE(label.isEmpty()) << x;
    EXPECT_NEAR(label.x(), x, 2) << x;
    EXPECT_LT(label.right - label.left, 20) << x;
    EXPECT_NEAR(label.y(), 248, 2) << x;
  }
  for (int k = 0; k < 4; ++k) EXPECT_TRUE(inkIn(picture, 80 + 100 * k, 140 + 100 * k, 241, 256).isEmpty());
  EXPECT_NEAR(inkIn(picture, 60, 459, 258, 279).x(), 260, 2);  // what the axis is of
}

// 0, 500 ... 2,000 Hz; labels end left of their marks.
TEST_F(DrawingTest, FrequenciesAreMarkedAndLabelledOnTheLeft) {
  ASSERT_EQ(frequencyTicks(darkImage().axis, 200 / 36.0).size(), 5u);
  const test::Picture picture = drawn({});
  const std::vector<int> rows = {34, 84, 134, 184, 233};
  for (const int x : {55, 56, 57, 58}) EXPECT_EQ(inkedInColumn(picture, x), rows) << x;
  EXPECT_EQ(inkedInColumn(picture, 53), std::vector<int>{});
  for (const int y : rows) {
    const Extent label = inkIn(picture, 0, 53, y - 8, y + 8);
    ASSERT_FALSE(label.isEmpty()) << y;
    EXPECT_NEAR(label.right, 50, 2) << y;
    EXPECT_NEAR(label.y(), y, 2) << y;
  }
  for (const int y : {34, 84, 134, 184}) EXPECT_TRUE(inkIn(picture, 0, 53, y + 10, y + 40).isEmpty());
  EXPECT_FALSE(inkIn(picture, 20, 53, 12, 25).isEmpty());  // the unit
}

// On a logarithmic axis from 20 Hz, every digit of a decade has a mark, shorter where it has no label.
TEST_F(DrawingTest, LogarithmicAxisHasShortMarksBetween) {
  SpectrogramImage image = darkImage();
  image.axis = frequencyAxisOf(FrequencyScale::log, 4000);
  ASSERT_EQ(image.axis.lowHz, 20);
  const auto rowsOf = [](const std::vector<double>& frequencies) {
    std::vector<int> rows;
    for (const double hz : frequencies)
      rows.push_back(std::min(233, static_cast<int>(34 + 200 * (1 - std::log10(hz / 20) / 2))));
    std::reverse(rows.begin(), rows.end());
    return rows;
  };
  std::vector<double> labelled;
  for (const Tick& tick : frequencyTicks(image.axis, 200 / 36.0)) labelled.push_back(tick.value);
  ASSERT_EQ(labelled, (std::vector<double>{100, 1000}));
  std::vector<double> all;
  for (const double decade : {10, 100, 1000})
    for (int digit = 1; digit <= 9; ++digit)
      if (digit * decade >= 20 && digit * decade <= 2000) all.push_back(digit * decade);
  const test::Picture picture =
      drawn(image, {.size = size, .title = "", .subtitle = "", .minDB = -100, .maxDB = 0, .overlays = {}});
  EXPECT_EQ(inkedInColumn(picture, 55), rowsOf(labelled));
  EXPECT_EQ(inkedInColumn(picture, 58), rowsOf(all));
}

// --- The colour bar --------------------------------------------------------------------------------------

// 14 pixels wide, 14 beside the spectrogram: from the colour of the lowest level to that of the highest,
// whatever these are.
TEST_F(DrawingTest, ColourBarHoldsEveryColourFromBottomToTop) {
  for (const auto& [minDB, maxDB] : {std::pair{-100.0, 0.0}, {-60.0, -20.0}}) {
    const test::Picture picture =
        drawn(darkImage(),
              {.size = size, .title = "", .subtitle = "", .minDB = minDB, .maxDB = maxDB, .overlays = {}});
    for (int k = 0; k < 200; ++k)
      for (int x = 474; x < 488; ++x)
        ASSERT_EQ(picture.at(x, 233 - k),
                  levelColours()[static_cast<std::size_t>(std::lround(255 * (k + 0.5) / 200))])
            << x << ", " << k;
    for (int y = 33; y <= 234; ++y)  // its frame
      ASSERT_TRUE(isInked(picture, 473, y) && isInked(picture, 488, y)) << y;
    EXPECT_EQ(inkedInColumn(picture, 467), std::vector<int>{});
  }
}

TEST_F(DrawingTest, LevelsAreMarkedAndLabelledBesideTheColourBar) {
  struct Case {
    double minDB, maxDB;
    std::vector<double> levels;
    std::vector<int> rows;
  };
  for (const auto& [minDB, maxDB, levels, rows] :
       {Case{-100, 0, {-100, -80, -60, -40, -20, 0}, {34, 74, 114, 154, 194, 233}},
        Case{-68, -28, {-60, -50, -40, -30}, {44, 94, 144, 194}}}) {
    std::vector<double> ticks;
    for (const Tick& tick : levelTicks(minDB, maxDB, 200 / 36.0)) ticks.push_back(tick.value);
    ASSERT_EQ(ticks, levels);
    const test::Picture picture =
        drawn(darkImage(),
              {.size = size, .title = "", .subtitle = "", .minDB = minDB, .maxDB = maxDB, .overlays = {}});
    for (const int x : {489, 490, 491, 492}) EXPECT_EQ(inkedInColumn(picture, x), rows) << x;
    EXPECT_EQ(inkedInColumn(picture, 494), std::vector<int>{});
    for (const int y : rows) {
      const Extent label = inkIn(picture, 494, 543, y - 8, y + 8);
      ASSERT_FALSE(label.isEmpty()) << y;
      EXPECT_NEAR(label.left, 497, 2) << y;
      EXPECT_LT(label.right, 530) << y;
      EXPECT_NEAR(label.y(), y, 2) << y;
    }
    for (std::size_t k = 1; k < rows.size(); ++k)
      EXPECT_TRUE(inkIn(picture, 494, 543, rows[k - 1] + 10, rows[k] - 10).isEmpty()) << k;
    EXPECT_FALSE(inkIn(picture, 494, 543, 12, 25).isEmpty());  // the unit
  }
}

}  // namespace
}  // namespace vellum
