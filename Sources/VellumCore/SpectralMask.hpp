#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <vector>

#include "VellumCore/Support/ClosedRange.hpp"
#include "VellumCore/Support/RawValue.hpp"

namespace vellum {

// How a drawn shape combines with what is selected already.
enum class CombineMode {
  replace,   // the selection becomes the shape
  add,       // union
  subtract,  // difference
};

template <>
inline constexpr auto rawValueTable<CombineMode> = rawValues<CombineMode>(
    {{CombineMode::replace, "replace"}, {CombineMode::add, "add"}, {CombineMode::subtract, "subtract"}});

// A selection in the time-frequency plane: a set of cells, each a column (frame of the short-time spectrum,
// any integer) and a bin (0 ... binCount() - 1). A plain value.
//
// Only columns with a selected bin are stored, (binCount + 63) / 64 words of 64 bits each: memory does not
// depend on how long the file is. Bits are set, cleared, counted and searched a word at a time.
//
// Bins outside of the grid are clipped, and nothing happens where none is left. Columns are never clipped: a
// shape of a billion columns costs what a billion columns cost.
class SpectralMask {
 public:
  struct Vertex {
    double column, bin;
  };

  explicit SpectralMask(std::int64_t binCount);  // at least 1

  std::int64_t binCount() const { return binCount_; }
  bool isEmpty() const { return columns_.empty(); }
  std::optional<ClosedRange> columnRange() const;   // first ... last stored column
  std::optional<ClosedRange> binRange() const;      // lowest ... highest selected bin of all columns
  std::vector<std::int64_t> storedColumns() const;  // ascending
  bool contains(std::int64_t column, std::int64_t bin) const;
  std::int64_t selectedCellCount() const;

  // Calls action(bin) with each selected bin of the column, ascending.
  template <typename Action>
  void forEachSelectedBin(std::int64_t column, Action&& action) const;

  void insert(std::int64_t column, ClosedRange bins);
  void remove(std::int64_t column, ClosedRange bins);
  void removeAll() { columns_.clear(); }
  void subtract(const SpectralMask& other);  // nothing happens where its binCount() is another

  void rasterizeRect(ClosedRange columns, ClosedRange bins, CombineMode mode);

  // The cells whose centres (column + 0.5, bin + 0.5) lie in the polygon, by the even-odd rule: what it
  // covers twice stays out. Closed by itself; fewer than three vertices enclose nothing. On an edge, the bins
  // at both ends count; of two columns at the same distance, the one to the right does. Cost: what it fills,
  // plus the crossings of its edges with the columns' centre lines. Every coordinate is finite, columns also
  // within 64 bits.
  void rasterizePolygon(std::span<const Vertex> vertices, CombineMode mode);

  // The cells (column, bin) whose indices, as points, lie in or on the ellipse. A radius below 0.5, or NaN,
  // is 0.5, so that a stamp at a cell's indices always takes that cell. Centre and radii are finite apart
  // from that, the ellipse's columns within 64 bits.
  void stampEllipse(double centerColumn, double centerBin, double radiusColumns, double radiusBins,
                    CombineMode mode);

  // The columns of a range as a mask of their own, renumbered from 0.
  SpectralMask rebased(ClosedRange toColumnRange) const;

  friend bool operator==(const SpectralMask&, const SpectralMask&) = default;

 private:
  using Words = std::vector<std::uint64_t>;  // bin b is bit b mod 64 of word b / 64

  ClosedRange clipped(ClosedRange bins) const;
  void combine(std::int64_t column, double lowestBin, double highestBin, CombineMode mode);

  std::int64_t binCount_;
  std::map<std::int64_t, Words> columns_;  // none without a set bit
};

template <typename Action>
void SpectralMask::forEachSelectedBin(std::int64_t column, Action&& action) const {
  const auto found = columns_.find(column);
  if (found == columns_.end()) return;
  const Words& words = found->second;
  for (std::size_t k = 0; k < words.size(); ++k)
    for (std::uint64_t left = words[k]; left != 0; left &= left - 1)
      action(static_cast<std::int64_t>(k) * 64 + std::countr_zero(left));
}

}  // namespace vellum
