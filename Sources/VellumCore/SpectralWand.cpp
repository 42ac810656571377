#include "VellumCore/SpectralWand.hpp"

#include <algorithm>
#include <cstddef>
#include <limits>

#include "VellumCore/Support/Require.hpp"

namespace vellum::SpectralWand {

std::vector<Cell> grow(std::span<const float> values, std::int64_t columns, std::int64_t bins,
                       std::int64_t seedColumn, std::int64_t seedBin, float toleranceDb,
                       std::optional<std::int64_t> maxColumnsFromSeed, std::int64_t maxCells) {
  if (columns < 1 || bins < 1) return {};
  VELLUM_REQUIRE(columns <= std::numeric_limits<std::int64_t>::max() / bins,
                 "SpectralWand: columns x bins must fit 64 bits");
  if (static_cast<std::uint64_t>(columns * bins) > values.size()) return {};
  if (seedColumn < 0 || seedColumn >= columns || seedBin < 0 || seedBin >= bins || maxCells < 1) return {};

  // So many cells reach no further than as many columns.
  const std::int64_t reach = std::clamp<std::int64_t>(
      maxColumnsFromSeed.value_or(std::numeric_limits<std::int64_t>::max()), 0, maxCells - 1);
  const std::int64_t firstColumn = seedColumn - std::min(reach, seedColumn);
  const std::int64_t lastColumn = seedColumn + std::min(reach, columns - 1 - seedColumn);
  const float* grid = values.data() + firstColumn * bins;
  const auto gridCells = static_cast<std::size_t>((lastColumn - firstColumn + 1) * bins);

  const std::int64_t seedIndex = (seedColumn - firstColumn) * bins + seedBin;
  const float threshold = grid[seedIndex] - toleranceDb;
  std::vector<std::uint64_t> visited((gridCells - 1) / 64 + 1);
  // The result is its own queue: a cell is tested when it is found instead of when its turn comes, which
  // neither adds nor moves one.
  std::vector<Cell> cells;
  // Growing step by step would cost more than the search; room that is never touched costs nothing.
  cells.reserve(std::min({gridCells, static_cast<std::size_t>(maxCells), std::size_t{1} << 20}));
  const auto visit = [&](std::int64_t index, std::int64_t column, std::int64_t bin) {
    std::uint64_t& word = visited[static_cast<std::size_t>(index) / 64];
    const std::uint64_t bit = std::uint64_t{1} << (index % 64);
    if ((word & bit) != 0) return;
    word |= bit;
    if (threshold <= grid[index]) cells.push_back({column, bin});
  };

  visit(seedIndex, seedColumn, seedBin);
  const auto most = static_cast<std::size_t>(maxCells);
  for (std::size_t next = 0; next < cells.size() && cells.size() < most; ++next) {
    const auto [column, bin] = cells[next];
    const std::int64_t index = (column - firstColumn) * bins + bin;
    if (bin + 1 < bins) visit(index + 1, column, bin + 1);
    if (bin > 0) visit(index - 1, column, bin - 1);
    if (column < lastColumn) visit(index + bins, column + 1, bin);
    if (column > firstColumn) visit(index - bins, column - 1, bin);
  }
  if (cells.size() > most) cells.resize(most);  // the last cell's neighbours may run over
  return cells;
}

}  // namespace vellum::SpectralWand
