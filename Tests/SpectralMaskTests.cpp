#include "VellumCore/SpectralMask.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Signals.hpp"

namespace vellum {
namespace {

using Cell = std::pair<std::int64_t, std::int64_t>;  // column, bin
using Cells = std::set<Cell>;
using Int64 = std::numeric_limits<std::int64_t>;

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double nan = std::numeric_limits<double>::quiet_NaN();

Cells cellsOf(const SpectralMask& mask) {
  Cells cells;
  for (const std::int64_t column : mask.storedColumns())
    mask.forEachSelectedBin(column, [&](std::int64_t bin) { cells.emplace(column, bin); });
  return cells;
}

// --- A set of cells ---------------------------------------------------------------------------------------

TEST(SpectralMask, SelectedBinsComeOnceEachAndAscending) {
  SpectralMask mask(200);
  for (const std::int64_t bin : {199, 0, 64, 63, 128, 127, 5, 64}) mask.insert(-3, {bin, bin});
  std::vector<std::int64_t> bins;
  mask.forEachSelectedBin(-3, [&](std::int64_t bin) { bins.push_back(bin); });
  EXPECT_EQ(bins, (std::vector<std::int64_t>{0, 5, 63, 64, 127, 128, 199}));
  mask.forEachSelectedBin(-2, [&](std::int64_t) { ADD_FAILURE(); });
}

TEST(SpectralMask, NewMaskIsEmpty) {
  const SpectralMask mask(1025);
  EXPECT_TRUE(mask.isEmpty());
  EXPECT_EQ(mask.binCount(), 1025);
  EXPECT_EQ(mask.columnRange(), std::nullopt);
  EXPECT_EQ(mask.binRange(), std::nullopt);
  EXPECT_EQ(mask.selectedCellCount(), 0);
  EXPECT_TRUE(mask.storedColumns().empty());
}

TEST(SpectralMask, NeedsABin) {
  EXPECT_DEATH(SpectralMask(0), "SpectralMask: binCount");
  EXPECT_DEATH(SpectralMask(-5), "SpectralMask: binCount");
}

TEST(SpectralMask, RemovingEveryBinRemovesTheColumn) {
  SpectralMask mask(100);
  mask.insert(3, {10, 90});
  mask.insert(5, {0, 99});
  mask.remove(5, {0, 50});
  EXPECT_EQ(mask.columnRange(), (ClosedRange{3, 5}));
  mask.remove(5, {51, 200});
  EXPECT_EQ(mask.columnRange(), (ClosedRange{3, 3}));
  EXPECT_EQ(mask.storedColumns(), std::vector<std::int64_t>{3});
}

TEST(SpectralMask, ContainsNothingOutsideOfTheGrid) {
  SpectralMask mask(65);  // the last word has 63 bits to spare
  mask.insert(0, {Int64::min(), Int64::max()});
  EXPECT_EQ(mask.selectedCellCount(), 65);
  EXPECT_FALSE(mask.contains(0, -1));
  EXPECT_TRUE(mask.contains(0, 0));
  EXPECT_TRUE(mask.contains(0, 64));
  EXPECT_FALSE(mask.contains(0, 65));
  EXPECT_FALSE(mask.contains(0, Int64::min()));
  EXPECT_FALSE(mask.contains(0, Int64::max()));
  EXPECT_FALSE(mask.contains(1, 0));
}

TEST(SpectralMask, BinsThatMissTheGridChangeNothing) {
  SpectralMask mask(10);
  mask.insert(0, {2, 3});
  const SpectralMask before = mask;
  for (const ClosedRange bins : {ClosedRange{10, 20}, {-5, -1}, {5, 4}, {Int64::max(), Int64::min()}}) {
    mask.insert(0, bins);
    mask.insert(1, bins);
    mask.remove(0, bins);
  }
  EXPECT_EQ(mask, before);
}

TEST(SpectralMask, TakesEveryColumnThereIs) {
  SpectralMask mask(4);
  mask.rasterizeRect({Int64::max() - 1, Int64::max()}, {0, 0}, CombineMode::add);
  mask.rasterizeRect({Int64::min(), Int64::min() + 1}, {1, 1}, CombineMode::add);
  EXPECT_EQ(mask.columnRange(), (ClosedRange{Int64::min(), Int64::max()}));
  EXPECT_EQ(mask.selectedCellCount(), 4);
  mask.rasterizeRect({Int64::min(), Int64::max()}, {1, 1}, CombineMode::subtract);
  EXPECT_EQ(mask.columnRange(), (ClosedRange{Int64::max() - 1, Int64::max()}));
}

TEST(SpectralMask, SubtractBetweenDifferentBinCountsDoesNothing) {
  SpectralMask mask(64), other(65);
  mask.insert(0, {0, 63});
  other.insert(0, {0, 63});
  mask.subtract(other);
  EXPECT_EQ(mask.selectedCellCount(), 64);
}

TEST(SpectralMask, SubtractedFromItselfIsEmpty) {
  SpectralMask mask(64);
  mask.rasterizeRect({0, 9}, {5, 50}, CombineMode::add);
  mask.subtract(mask);
  EXPECT_EQ(mask, SpectralMask(64));
}

TEST(SpectralMask, EqualityGoesByCellsAndBinCount) {
  SpectralMask one(64), two(64);
  one.insert(0, {3, 9});
  EXPECT_NE(one, two);
  two.insert(0, {3, 20});
  two.insert(7, {1, 1});
  two.remove(0, {10, 63});
  two.remove(7, {0, 63});  // no trace of the column is left
  EXPECT_EQ(one, two);
  EXPECT_NE(SpectralMask(64), SpectralMask(63));  // the same number of words
}

TEST(SpectralMask, RebasedRenumbersTheColumnsOfARange) {
  SpectralMask mask(70);
  mask.insert(99, {0, 69});
  mask.insert(100, {1, 1});
  mask.insert(150, {60, 69});
  mask.insert(199, {2, 2});
  mask.insert(200, {0, 69});
  const SpectralMask before = mask;
  const SpectralMask rebased = mask.rebased({100, 199});
  EXPECT_EQ(rebased.storedColumns(), (std::vector<std::int64_t>{0, 50, 99}));
  EXPECT_EQ(rebased.binCount(), 70);
  EXPECT_TRUE(rebased.contains(50, 60) && rebased.contains(50, 69) && !rebased.contains(50, 59));
  EXPECT_EQ(mask, before);
  EXPECT_TRUE(mask.rebased({199, 100}).isEmpty());
  EXPECT_TRUE(mask.rebased({101, 149}).isEmpty());
}

TEST(SpectralMask, RebasedKeepsNegativeAndFarColumns) {
  SpectralMask mask(2);
  mask.insert(-7, {0, 0});
  mask.insert(Int64::max(), {1, 1});
  EXPECT_EQ(mask.rebased({-10, 0}).storedColumns(), std::vector<std::int64_t>{3});
  EXPECT_EQ(mask.rebased({0, Int64::max()}).storedColumns(), std::vector<std::int64_t>{Int64::max()});
  EXPECT_DEATH(mask.rebased({-1, Int64::max()}), "SpectralMask: a rebased column");
}

// Any sequence of operations leaves what it leaves of a set of cells, around the borders of words above all.
TEST(SpectralMask, AgreesWithASetOfCells) {
  for (const std::int64_t binCount : {1, 63, 64, 65, 130}) {
    std::mt19937 rng(11);
    const auto integer = [&](std::int64_t low, std::int64_t high) {
      return low + static_cast<std::int64_t>(rng() % static_cast<std::uint64_t>(high - low + 1));
    };
    SpectralMask mask(binCount), other(binCount);
    Cells cells, others;
    for (int step = 0; step < 600; ++step) {
      const std::int64_t c0 = integer(-6, 6), c1 = c0 + integer(-1, 4);
      const std::int64_t b0 = integer(-70, binCount + 5), b1 = b0 + integer(-2, 140);
      const auto forEachCell = [&](std::int64_t lastColumn, const auto& action) {
        for (std::int64_t c = c0; c <= lastColumn; ++c)
          for (std::int64_t b = std::max<std::int64_t>(b0, 0); b <= std::min(b1, binCount - 1); ++b)
            action(Cell(c, b));
      };
      switch (integer(0, 9)) {
        case 0:
        case 1:
          mask.insert(c0, {b0, b1});
          forEachCell(c0, [&](Cell cell) { cells.insert(cell); });
          break;
        case 2:
          mask.remove(c0, {b0, b1});
          forEachCell(c0, [&](Cell cell) { cells.erase(cell); });
          break;
        case 3:
        case 4:
          mask.rasterizeRect({c0, c1}, {b0, b1}, CombineMode::add);
          forEachCell(c1, [&](Cell cell) { cells.insert(cell); });
          break;
        case 5:
        case 6:
          mask.rasterizeRect({c0, c1}, {b0, b1}, CombineMode::subtract);
          forEachCell(c1, [&](Cell cell) { cells.erase(cell); });
          break;
        case 7:
          mask.rasterizeRect({c0, c1}, {b0, b1}, CombineMode::replace);
          cells.clear();
          forEachCell(c1, [&](Cell cell) { cells.insert(cell); });
          break;
        case 8:
          mask.subtract(other);
          for (const Cell& cell : others) cells.erase(cell);
          break;
        default:
          std::swap(mask, other);
          std::swap(cells, others);
      }

      ASSERT_EQ(cellsOf(mask), cells) << "bins " << binCount << ", step " << step;
      ASSERT_EQ(mask.selectedCellCount(), static_cast<std::int64_t>(cells.size()));
      ASSERT_EQ(mask.isEmpty(), cells.empty());
      for (std::int64_t b = -1; b <= binCount; ++b) ASSERT_EQ(mask.contains(c0, b), cells.contains({c0, b}));
      if (cells.empty()) {
        ASSERT_EQ(mask.columnRange(), std::nullopt);
        ASSERT_EQ(mask.binRange(), std::nullopt);
        continue;
      }
      const auto byBin = [](const Cell& a, const Cell& b) { return a.second < b.second; };
      const auto [lowest, highest] = std::minmax_element(cells.begin(), cells.end(), byBin);
      ASSERT_EQ(mask.columnRange(), (ClosedRange{cells.begin()->first, cells.rbegin()->first}));
      ASSERT_EQ(mask.binRange(), (ClosedRange{lowest->second, highest->second}));
    }
  }
}

// --- Rectangles -------------------------------------------------------------------------------------------

TEST(SpectralMask, RectangleIsClippedToTheBins) {
  SpectralMask mask(513);
  mask.rasterizeRect({7, 7}, {-5, 3}, CombineMode::add);
  EXPECT_EQ(cellsOf(mask), (Cells{{7, 0}, {7, 1}, {7, 2}, {7, 3}}));
}

TEST(SpectralMask, SubtractedRectangleOverUnselectedColumnsChangesNothing) {
  SpectralMask mask(513);
  mask.insert(1, {2, 3});
  const SpectralMask before = mask;
  mask.rasterizeRect({2, 1000000000000}, {0, 512}, CombineMode::subtract);
  EXPECT_EQ(mask, before);
}

TEST(SpectralMask, ReplacingByNothingClears) {
  for (const auto& replace :
       {+[](SpectralMask& mask) {
          mask.rasterizeRect({3, 2}, {0, 5}, CombineMode::replace);
        },
        +[](SpectralMask& mask) { mask.rasterizePolygon({}, CombineMode::replace); },
        +[](SpectralMask& mask) { mask.stampEllipse(0, -50, 1, 1, CombineMode::replace); }}) {
    SpectralMask mask(64);
    mask.insert(0, {0, 9});
    replace(mask);
    EXPECT_TRUE(mask.isEmpty());
  }
}

// --- Polygons ---------------------------------------------------------------------------------------------

// Vertices in halves of a cell: column and bin.
using HalfVertex = std::pair<std::int64_t, std::int64_t>;

// What the even-odd rule takes, cell by cell, with fractions instead of rounded numbers.
Cells plainPolygon(const std::vector<HalfVertex>& vertices, std::int64_t binCount, std::int64_t reach) {
  struct Fraction {
    std::int64_t over, under;  // under > 0
    bool operator<(const Fraction& other) const { return over * other.under < other.over * under; }
  };
  Cells cells;
  for (std::int64_t c = -reach; c <= reach; ++c) {
    const std::int64_t x = 2 * c + 1;
    std::vector<Fraction> crossings;
    for (std::size_t i = 0; i < vertices.size(); ++i) {
      auto [x0, y0] = vertices[i];
      auto [x1, y1] = vertices[(i + 1) % vertices.size()];
      if ((x0 <= x) == (x1 <= x)) continue;
      if (x1 < x0) std::swap(x0, x1), std::swap(y0, y1);
      crossings.push_back({y0 * (x1 - x0) + (x - x0) * (y1 - y0), x1 - x0});
    }
    std::sort(crossings.begin(), crossings.end());
    for (std::size_t i = 0; i + 1 < crossings.size(); i += 2)
      for (std::int64_t b = 0; b < binCount; ++b) {
        const Fraction centre{2 * b + 1, 1};
        if (!(centre < crossings[i]) && !(crossings[i + 1] < centre)) cells.emplace(c, b);
      }
  }
  return cells;
}

std::vector<SpectralMask::Vertex> verticesOf(const std::vector<HalfVertex>& halves) {
  std::vector<SpectralMask::Vertex> vertices;
  for (const auto& [column, bin] : halves)
    vertices.push_back({static_cast<double>(column) / 2, static_cast<double>(bin) / 2});
  return vertices;
}

TEST(SpectralMask, TriangleTakesTheCellsWhoseCentresItHolds) {
  SpectralMask mask(513);
  mask.rasterizePolygon(std::vector<SpectralMask::Vertex>{{0, 0}, {4, 0}, {0, 4}}, CombineMode::replace);
  EXPECT_EQ(cellsOf(mask),
            (Cells{{0, 0}, {0, 1}, {0, 2}, {0, 3}, {1, 0}, {1, 1}, {1, 2}, {2, 0}, {2, 1}, {3, 0}}));
}

// An edge through the centre of (1, 7), which a quotient rounded too early would miss: 1.5 / 5.5 x 27.5.
TEST(SpectralMask, CentreOnAnEdgeIsInside) {
  SpectralMask mask(64);
  mask.rasterizePolygon(std::vector<SpectralMask::Vertex>{{0, 0}, {5.5, 27.5}, {5.5, 0}}, CombineMode::add);
  EXPECT_TRUE(mask.contains(1, 7));
  EXPECT_FALSE(mask.contains(1, 8));
}

TEST(SpectralMask, FewerThanThreeVerticesEncloseNothing) {
  SpectralMask mask(8);
  mask.rasterizePolygon(std::vector<SpectralMask::Vertex>{{0, 0}, {4, 4}}, CombineMode::add);
  mask.rasterizePolygon(std::vector<SpectralMask::Vertex>{{nan, infinity}}, CombineMode::add);
  EXPECT_TRUE(mask.isEmpty());
}

TEST(SpectralMask, PolygonLeavesOutWhatItCoversTwice) {
  SpectralMask mask(8);
  // A square around, then a smaller one inside of it.
  mask.rasterizePolygon(std::vector<SpectralMask::Vertex>{{0, 0},
                                                          {5, 0},
                                                          {5, 5},
                                                          {0, 5},
                                                          {0, 0},
                                                          {1.25, 1.25},
                                                          {3.75, 1.25},
                                                          {3.75, 3.75},
                                                          {1.25, 3.75},
                                                          {1.25, 1.25}},
                        CombineMode::add);
  EXPECT_EQ(mask.selectedCellCount(), 25 - 4 - 4 - 1);
  EXPECT_FALSE(mask.contains(2, 2));
  EXPECT_TRUE(mask.contains(0, 0));
}

// Vertices on centres and between them, edges along centre lines and through centres, in all modes.
TEST(SpectralMask, PolygonsAgreeWithAnExactScan) {
  std::mt19937 rng(5);
  const auto integer = [&](std::int64_t low, std::int64_t high) {
    return low + static_cast<std::int64_t>(rng() % static_cast<std::uint64_t>(high - low + 1));
  };
  constexpr std::int64_t binCount = 70;
  for (int trial = 0; trial < 400; ++trial) {
    const std::int64_t size = trial % 2 ? 12 : 80;  // halves: small ones are nothing but ties
    std::vector<HalfVertex> halves(static_cast<std::size_t>(integer(3, 9)));
    const std::int64_t left = integer(-40, 0), low = integer(-20, 150);
    for (auto& vertex : halves) vertex = {left + integer(0, size), low + integer(0, size)};
    const Cells shape = plainPolygon(halves, binCount, 60);

    SpectralMask mask(binCount);
    mask.rasterizeRect({-20, 20}, {0, 40}, CombineMode::add);
    Cells expected = cellsOf(mask);
    const auto mode = allCases<CombineMode>()[static_cast<std::size_t>(trial % 3)];
    if (mode == CombineMode::replace) expected.clear();
    for (const Cell& cell : shape)
      if (mode == CombineMode::subtract)
        expected.erase(cell);
      else
        expected.insert(cell);
    mask.rasterizePolygon(verticesOf(halves), mode);
    ASSERT_EQ(cellsOf(mask), expected) << "trial " << trial;
  }
}

// The same with edges that no half describes: 1,000 vertices of a freehand line.
TEST(SpectralMask, FreehandPolygonAgreesWithPointByPointTests) {
  std::mt19937 rng(6);
  std::vector<SpectralMask::Vertex> vertices;
  for (int k = 0; k < 1000; ++k) {
    const double angle = k * 0.00628318, radius = 1 + 0.2 * test::uniform(rng, -1, 1);
    vertices.push_back({90 * radius * std::cos(3 * angle), 200 + 150 * radius * std::sin(2 * angle)});
  }
  SpectralMask mask(330);
  mask.rasterizePolygon(vertices, CombineMode::add);
  std::int64_t inside = 0;
  for (std::int64_t c = -115; c <= 115; ++c)
    for (std::int64_t b = 0; b < 330; ++b) {
      const long double x = static_cast<long double>(c) + 0.5L, y = static_cast<long double>(b) + 0.5L;
      int below = 0;
      for (std::size_t i = 0; i < vertices.size(); ++i) {
        const auto &p = vertices[i], &q = vertices[(i + 1) % vertices.size()];
        if ((p.column <= x) == (q.column <= x)) continue;
        const long double slope = (static_cast<long double>(q.bin) - p.bin) / (q.column - p.column);
        if (p.bin + (x - p.column) * slope < y) ++below;
      }
      ASSERT_EQ(mask.contains(c, b), below % 2 == 1) << c << ", " << b;
      inside += below % 2;
    }
  EXPECT_EQ(mask.selectedCellCount(), inside);
  EXPECT_GT(inside, 10000);
}

TEST(SpectralMask, PolygonFarBeyondTheBinsIsClipped) {
  SpectralMask mask(16);
  mask.rasterizePolygon(
      std::vector<SpectralMask::Vertex>{{0, -0x1p53}, {2, -0x1p53}, {2, 0x1p53}, {0, 0x1p53}},
      CombineMode::add);
  EXPECT_EQ(mask.selectedCellCount(), 32);
  mask.rasterizePolygon(std::vector<SpectralMask::Vertex>{{0, 16}, {2, 16}, {2, 0x1p53}, {0, 0x1p53}},
                        CombineMode::replace);
  EXPECT_TRUE(mask.isEmpty());
  mask.rasterizePolygon(
      std::vector<SpectralMask::Vertex>{{0x1p53 - 3, 0}, {0x1p53, 0}, {0x1p53, 4}, {0x1p53 - 3, 4}},
      CombineMode::add);
  EXPECT_EQ(mask.columnRange()->lower, (std::int64_t{1} << 53) - 3);
}

TEST(SpectralMask, PolygonNeedsFiniteVertices) {
  SpectralMask mask(16);
  for (const double bad : {nan, infinity, -infinity}) {
    EXPECT_DEATH(
        mask.rasterizePolygon(std::vector<SpectralMask::Vertex>{{bad, 0}, {2, 0}, {2, 4}}, CombineMode::add),
        "SpectralMask: a");
    EXPECT_DEATH(
        mask.rasterizePolygon(std::vector<SpectralMask::Vertex>{{0, 0}, {2, bad}, {2, 4}}, CombineMode::add),
        "SpectralMask: a polygon's vertices");
  }
  EXPECT_DEATH(
      mask.rasterizePolygon(std::vector<SpectralMask::Vertex>{{0, 0}, {1e19, 0}, {2, 4}}, CombineMode::add),
      "SpectralMask: a shape's columns");
}

// --- Ellipses ---------------------------------------------------------------------------------------------

TEST(SpectralMask, StampWithoutRadiusTakesOneCell) {
  for (const double radius : {0.0, -3.0, nan, 0.49}) {
    SpectralMask mask(513);
    mask.stampEllipse(10, 20, radius, radius, CombineMode::add);
    EXPECT_EQ(cellsOf(mask), (Cells{{10, 20}})) << radius;
  }
}

// 3, 4, 5: the rim runs through twelve cells.
TEST(SpectralMask, CellOnTheRimIsInside) {
  SpectralMask mask(64);
  mask.stampEllipse(10, 20, 5, 5, CombineMode::add);
  for (const Cell& offset : {Cell{5, 0}, {4, 3}, {3, 4}, {0, 5}})
    for (const int horizontal : {-1, 1})
      for (const int vertical : {-1, 1})
        EXPECT_TRUE(mask.contains(10 + horizontal * offset.first, 20 + vertical * offset.second));
  EXPECT_EQ(mask.selectedCellCount(), 81);  // lattice points of a circle of radius 5
}

// All figures in halves, so that what lies on the rim is known.
TEST(SpectralMask, EllipsesAgreeWithAnExactScan) {
  constexpr std::int64_t binCount = 70;
  std::mt19937 rng(9);
  const auto integer = [&](std::int64_t low, std::int64_t high) {
    return low + static_cast<std::int64_t>(rng() % static_cast<std::uint64_t>(high - low + 1));
  };
  std::int64_t onTheRim = 0;
  for (int trial = 0; trial < 600; ++trial) {
    const std::int64_t cc = 2 * integer(-20, 20) + trial % 2, cb = integer(-20, 160);
    const std::int64_t rc = integer(0, 60), rb = integer(0, 60);
    const std::int64_t a = std::max<std::int64_t>(rc, 1), b = std::max<std::int64_t>(rb, 1);
    Cells shape;
    for (std::int64_t c = -60; c <= 60; ++c)
      for (std::int64_t bin = 0; bin < binCount; ++bin) {
        const std::int64_t u = (2 * c - cc) * b, v = (2 * bin - cb) * a;
        if (u * u + v * v <= a * a * b * b) shape.emplace(c, bin);
        onTheRim += u * u + v * v == a * a * b * b;
      }

    SpectralMask mask(binCount);
    mask.rasterizeRect({-20, 20}, {0, 40}, CombineMode::add);
    Cells expected = cellsOf(mask);
    const auto mode = allCases<CombineMode>()[static_cast<std::size_t>(trial % 3)];
    if (mode == CombineMode::replace) expected.clear();
    for (const Cell& cell : shape)
      if (mode == CombineMode::subtract)
        expected.erase(cell);
      else
        expected.insert(cell);
    mask.stampEllipse(static_cast<double>(cc) / 2, static_cast<double>(cb) / 2, static_cast<double>(rc) / 2,
                      static_cast<double>(rb) / 2, mode);
    ASSERT_EQ(cellsOf(mask), expected) << cc << ' ' << cb << ' ' << rc << ' ' << rb << " halves";
  }
  EXPECT_GT(onTheRim, 200);  // the hard cases are there
}

TEST(SpectralMask, EllipseOfAnyFiniteHeightIsClipped) {
  SpectralMask mask(100);
  mask.stampEllipse(0, 50, 1, 0x1p53, CombineMode::add);
  EXPECT_EQ(mask.binRange(), (ClosedRange{0, 99}));
  mask.stampEllipse(0, -0x1p53, 2, 3, CombineMode::replace);
  EXPECT_TRUE(mask.isEmpty());
}

TEST(SpectralMask, EllipseNeedsFiniteFigures) {
  SpectralMask mask(16);
  for (const double bad : {infinity, -infinity, nan}) {
    EXPECT_DEATH(mask.stampEllipse(bad, 0, 1, 1, CombineMode::add), "SpectralMask: an ellipse's");
    EXPECT_DEATH(mask.stampEllipse(0, bad, 1, 1, CombineMode::add), "SpectralMask: an ellipse's");
  }
  EXPECT_DEATH(mask.stampEllipse(0, 0, infinity, 1, CombineMode::add), "SpectralMask: an ellipse's");
  EXPECT_DEATH(mask.stampEllipse(0, 0, 1, infinity, CombineMode::add), "SpectralMask: an ellipse's");
  EXPECT_DEATH(mask.stampEllipse(1e19, 0, 1, 1, CombineMode::add), "SpectralMask: a shape's columns");
}

}  // namespace
}  // namespace vellum
