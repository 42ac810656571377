#include "vellum/Drawing.hpp"

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Picture.hpp"
#include "Support/TemporaryFolder.hpp"

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
    const SpectrogramPicture picture{
        .size = size, .title = title, .subtitle = "", .minDB = -100, .maxDB = 0, .overlays = overlays};
    std::ofstream(folder_ / "a.png", std::ios::binary) << Drawing::spectrogramPNG(darkImage(), picture);
    return test::Picture(folder_ / "a.png");
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

}  // namespace
}  // namespace vellum
