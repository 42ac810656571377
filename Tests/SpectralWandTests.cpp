#include "VellumCore/SpectralWand.hpp"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <optional>
#include <queue>
#include <random>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace vellum {
namespace {

using SpectralWand::Cell;
using SpectralWand::grow;
using Int64 = std::numeric_limits<std::int64_t>;

constexpr float nan = std::numeric_limits<float>::quiet_NaN();
constexpr float infinity = std::numeric_limits<float>::infinity();
constexpr std::int64_t all = Int64::max();

struct Grid {
  std::int64_t columns, bins;
  std::vector<float> values;

  Grid(std::int64_t columnCount, std::int64_t binCount, float value)
      : columns(columnCount),
        bins(binCount),
        values(static_cast<std::size_t>(columnCount * binCount), value) {}
  float& at(std::int64_t column, std::int64_t bin) {
    return values[static_cast<std::size_t>(column * bins + bin)];
  }

  std::vector<Cell> grownFrom(std::int64_t column, std::int64_t bin, float toleranceDb,
                              std::optional<std::int64_t> reach = {}, std::int64_t maxCells = all) const {
    return grow(values, columns, bins, column, bin, toleranceDb, reach, maxCells);
  }
};

// The whole search once more: every neighbour goes through the queue, and is judged when it leaves it.
std::vector<Cell> plainGrow(const Grid& grid, Cell seed, float toleranceDb, std::optional<std::int64_t> reach,
                            std::int64_t maxCells) {
  const auto index = [&](Cell cell) { return static_cast<std::size_t>(cell.column * grid.bins + cell.bin); };
  const float threshold = grid.values[index(seed)] - toleranceDb;
  std::vector<bool> visited(grid.values.size());
  std::queue<Cell> queue;
  std::vector<Cell> result;
  visited[index(seed)] = true;
  queue.push(seed);
  while (!queue.empty()) {
    if (static_cast<std::int64_t>(result.size()) >= maxCells) break;
    const Cell cell = queue.front();
    queue.pop();
    if (!(threshold <= grid.values[index(cell)])) continue;
    result.push_back(cell);
    const Cell neighbours[] = {{cell.column, cell.bin + 1},
                               {cell.column, cell.bin - 1},
                               {cell.column + 1, cell.bin},
                               {cell.column - 1, cell.bin}};
    for (const Cell& next : neighbours) {
      if (next.bin < 0 || next.bin >= grid.bins || next.column < 0 || next.column >= grid.columns) continue;
      if (next.column != cell.column && reach && std::abs(next.column - seed.column) > *reach) continue;
      if (visited[index(next)]) continue;
      visited[index(next)] = true;
      queue.push(next);
    }
  }
  return result;
}

TEST(SpectralWand, EqualGridIsTakenWholeInTheOrderOfNeighbours) {
  const auto cells = Grid(5, 4, -20).grownFrom(2, 1, 0);
  ASSERT_EQ(cells.size(), 20u);
  const std::vector<Cell> first(cells.begin(), cells.begin() + 5);
  EXPECT_EQ(first, (std::vector<Cell>{{2, 1}, {2, 2}, {2, 0}, {3, 1}, {1, 1}}));
}

TEST(SpectralWand, MaxCellsBoundsTheResult) {
  const Grid grid(5, 4, -20);
  EXPECT_TRUE(grid.grownFrom(2, 1, 0, {}, 0).empty());
  EXPECT_TRUE(grid.grownFrom(2, 1, 0, {}, -3).empty());
  EXPECT_EQ(grid.grownFrom(2, 1, 0, {}, 1), (std::vector<Cell>{{2, 1}}));
  EXPECT_TRUE(grid.grownFrom(2, 1, -1, {}, 1).empty());
  const auto whole = grid.grownFrom(2, 1, 0);
  for (std::int64_t most = 1; most <= 20; ++most)
    EXPECT_EQ(grid.grownFrom(2, 1, 0, {}, most), std::vector<Cell>(whole.begin(), whole.begin() + most));
}

// The furthest that so many cells can lie away: in a row.
TEST(SpectralWand, MaxCellsReachAsManyColumns) {
  const Grid row(40, 1, 0);
  EXPECT_EQ(row.grownFrom(0, 0, 0, {}, 8).back(), (Cell{7, 0}));
  EXPECT_EQ(row.grownFrom(39, 0, 0, {}, 8).back(), (Cell{32, 0}));
}

TEST(SpectralWand, ToleranceIsOneSided) {
  Grid grid(4, 1, -20);
  grid.at(1, 0) = -23;
  grid.at(2, 0) = 100;
  grid.at(3, 0) = infinity;
  EXPECT_TRUE(grid.grownFrom(0, 0, -0.001f).empty());
  EXPECT_EQ(grid.grownFrom(0, 0, 0).size(), 1u);
  EXPECT_EQ(grid.grownFrom(0, 0, 2.99f).size(), 1u);
  EXPECT_EQ(grid.grownFrom(0, 0, 3).size(), 4u);  // the level itself passes, and however loud the rest is
  EXPECT_EQ(grid.grownFrom(2, 0, 0).size(), 2u);
}

TEST(SpectralWand, ReachIsCountedInColumnsFromTheSeed) {
  const Grid grid(9, 3, 0);
  for (const Cell& cell : grid.grownFrom(4, 1, 0, 0)) EXPECT_EQ(cell.column, 4);
  EXPECT_EQ(grid.grownFrom(4, 1, 0, 0).size(), 3u);
  EXPECT_EQ(grid.grownFrom(4, 1, 0, 2).size(), 15u);
  EXPECT_EQ(grid.grownFrom(1, 1, 0, 2).size(), 12u);
  EXPECT_EQ(grid.grownFrom(4, 1, 0, -1).size(), 3u);  // up and down are always near enough
  EXPECT_EQ(grid.grownFrom(4, 1, 0, Int64::max()).size(), 27u);
  EXPECT_EQ(grid.grownFrom(4, 1, 0, Int64::min()).size(), 3u);
}

TEST(SpectralWand, QuietValleyIsGoneRound) {
  Grid grid(3, 5, 0);
  for (std::int64_t column = 0; column < 3; ++column) grid.at(column, 2) = -60;
  EXPECT_EQ(grid.grownFrom(1, 0, 10).size(), 6u);
  grid.at(2, 2) = 0;  // a way round through the neighbouring column
  EXPECT_EQ(grid.grownFrom(1, 0, 10).size(), 13u);
  EXPECT_EQ(grid.grownFrom(1, 0, 10, 0).size(), 2u);
}

TEST(SpectralWand, NoDiagonalSteps) {
  Grid grid(2, 2, -60);
  grid.at(0, 0) = grid.at(1, 1) = 0;
  EXPECT_EQ(grid.grownFrom(0, 0, 10).size(), 1u);
}

TEST(SpectralWand, NaNNeverPasses) {
  Grid grid(3, 3, 0);
  grid.at(1, 1) = nan;
  EXPECT_EQ(grid.grownFrom(0, 0, 1000).size(), 8u);
  EXPECT_TRUE(grid.grownFrom(1, 1, 1000).empty());
  EXPECT_TRUE(Grid(3, 3, 0).grownFrom(1, 1, nan).empty());
  Grid silence(3, 3, -infinity);
  EXPECT_EQ(silence.grownFrom(1, 1, 6).size(), 9u);
}

TEST(SpectralWand, WhatIsOutsideOfTheGridIsEmpty) {
  const Grid grid(4, 3, 0);
  for (const Cell seed : {Cell{4, 0}, {-1, 0}, {0, 3}, {0, -1}, {Int64::min(), 0}, {0, Int64::max()}})
    EXPECT_TRUE(grid.grownFrom(seed.column, seed.bin, 0).empty()) << seed.column << ' ' << seed.bin;
  EXPECT_TRUE(grow(grid.values, 0, 3, 0, 0, 0, {}, all).empty());
  EXPECT_TRUE(grow(grid.values, 4, 0, 0, 0, 0, {}, all).empty());
  EXPECT_TRUE(grow(grid.values, -4, -3, 0, 0, 0, {}, all).empty());
  EXPECT_TRUE(grow(grid.values, 4, 4, 0, 0, 0, {}, all).empty());   // 12 values are too few
  EXPECT_EQ(grow(grid.values, 3, 3, 0, 0, 0, {}, all).size(), 9u);  // 12 are more than enough
}

TEST(SpectralWand, GridBeyond64BitsStops) {
  const std::vector<float> values(4);
  EXPECT_DEATH(grow(values, Int64::max() / 2, 3, 0, 0, 0, {}, all), "SpectralWand: columns x bins");
  EXPECT_TRUE(grow(values, Int64::max() / 4, 3, 0, 0, 0, {}, all).empty());
}

TEST(SpectralWand, AgreesWithAPlainSearchInEveryStep) {
  std::mt19937 rng(3);
  const auto below = [&](std::uint32_t limit) { return static_cast<std::int64_t>(rng() % limit); };
  std::size_t largest = 0;
  for (int trial = 0; trial < 1500; ++trial) {
    Grid grid(1 + below(20), 1 + below(80), 0);
    const auto holes = static_cast<std::uint32_t>(below(6));  // of 8: from open to scattered
    for (float& value : grid.values) {
      value = -static_cast<float>(below(10));
      if (rng() % 8 < holes) value = -50;
      if (rng() % 50 == 0) value = nan;
    }
    const Cell seed{below(static_cast<std::uint32_t>(grid.columns)),
                    below(static_cast<std::uint32_t>(grid.bins))};
    const std::optional<std::int64_t> reach =
        rng() % 2 ? std::optional<std::int64_t>(below(8)) : std::optional<std::int64_t>();
    const std::int64_t most = rng() % 2 ? below(100) : all;
    const auto tolerance = static_cast<float>(below(12) - 1);
    const auto expected = plainGrow(grid, seed, tolerance, reach, most);
    ASSERT_EQ(grid.grownFrom(seed.column, seed.bin, tolerance, reach, most), expected) << "trial " << trial;
    largest = std::max(largest, expected.size());
  }
  EXPECT_GT(largest, 500u);
}

}  // namespace
}  // namespace vellum
