#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace vellum {

// The magic wand of a spectrogram: a connected region that is not much quieter than the cell it starts from.
namespace SpectralWand {

struct Cell {
  std::int64_t column, bin;

  friend bool operator==(const Cell&, const Cell&) = default;
};

// The cells that can be reached from the seed through cells no more than a tolerance below the seed's value;
// from a cell one goes up, down, right or left. However loud a cell is, it is taken, and NaN never is.
//   values              dB; bin b of column c at c x bins + b; at least columns x bins
//   toleranceDb         negative: not even the seed is taken
//   maxColumnsFromSeed  how far to the left and right of the seed; absent: any distance
//   maxCells            no more than these
// Breadth first, in the order in which cells are found: up, down, right, left of each cell. Empty where the
// seed is outside of the grid, the grid without columns or bins, or values shorter than it.
// Linear in the cells reached, except for one bit per cell of the columns within reach. columns x bins fits
// 64 bits.
std::vector<Cell> grow(std::span<const float> values, std::int64_t columns, std::int64_t bins,
                       std::int64_t seedColumn, std::int64_t seedBin, float toleranceDb,
                       std::optional<std::int64_t> maxColumnsFromSeed, std::int64_t maxCells);

}  // namespace SpectralWand

}  // namespace vellum
