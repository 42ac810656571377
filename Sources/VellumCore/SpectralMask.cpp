#include "VellumCore/SpectralMask.hpp"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>

#include "VellumCore/Support/Require.hpp"

namespace vellum {

namespace {

constexpr std::uint64_t allBits = ~std::uint64_t{0};
constexpr double columnLimit = 0x1p63;  // columns are 64-bit integers

// Calls action(word, bits of it) for each word that holds one of the bins, which lie in the words.
template <typename Words, typename Action>
void forEachWord(Words& words, ClosedRange bins, Action&& action) {
  const auto first = static_cast<std::size_t>(bins.lower) / 64,
             last = static_cast<std::size_t>(bins.upper) / 64;
  for (std::size_t k = first; k <= last; ++k) {
    std::uint64_t bits = allBits;
    if (k == first) bits &= allBits << (bins.lower % 64);
    if (k == last) bits &= allBits >> (63 - bins.upper % 64);
    action(words[k], bits);
  }
}

bool isAllZero(const std::vector<std::uint64_t>& words) {
  return std::all_of(words.begin(), words.end(), [](std::uint64_t word) { return word == 0; });
}

// An edge of a polygon and the columns whose centre lines it may cross.
struct Edge {
  double x0, y0, x1, y1;
  ClosedRange columns;
};

// The columns floor(from) ... ceil(to).
ClosedRange columnsBetween(double from, double to) {
  const double lower = std::floor(from), upper = std::ceil(to);
  VELLUM_REQUIRE(lower >= -columnLimit && upper < columnLimit,
                 "SpectralMask: a shape's columns must be finite and fit 64 bits");
  return {static_cast<std::int64_t>(lower), static_cast<std::int64_t>(upper)};
}

}  // namespace

SpectralMask::SpectralMask(std::int64_t binCount) : binCount_(binCount) {
  VELLUM_REQUIRE(binCount >= 1, "SpectralMask: binCount must be at least 1");
}

std::optional<ClosedRange> SpectralMask::columnRange() const {
  if (isEmpty()) return {};
  return ClosedRange{columns_.begin()->first, columns_.rbegin()->first};
}

std::optional<ClosedRange> SpectralMask::binRange() const {
  if (isEmpty()) return {};
  ClosedRange range{std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::min()};
  for (const auto& [column, words] : columns_) {
    const auto isSet = [](std::uint64_t word) { return word != 0; };
    const auto lowest = std::find_if(words.begin(), words.end(), isSet);
    const auto highest = std::find_if(words.rbegin(), words.rend(), isSet);
    range.lower = std::min(range.lower, (lowest - words.begin()) * 64 + std::countr_zero(*lowest));
    range.upper = std::max(range.upper, (words.rend() - highest) * 64 - 1 - std::countl_zero(*highest));
  }
  return range;
}

std::vector<std::int64_t> SpectralMask::storedColumns() const {
  std::vector<std::int64_t> stored;
  stored.reserve(columns_.size());
  for (const auto& [column, words] : columns_) stored.push_back(column);
  return stored;
}

bool SpectralMask::contains(std::int64_t column, std::int64_t bin) const {
  if (bin < 0 || bin >= binCount_) return false;
  const auto found = columns_.find(column);
  return found != columns_.end() &&
         (found->second[static_cast<std::size_t>(bin) / 64] >> (bin % 64) & 1) != 0;
}

std::int64_t SpectralMask::selectedCellCount() const {
  std::int64_t count = 0;
  for (const auto& [column, words] : columns_)
    for (const std::uint64_t word : words) count += std::popcount(word);
  return count;
}

ClosedRange SpectralMask::clipped(ClosedRange bins) const {
  return {std::max<std::int64_t>(bins.lower, 0), std::min(bins.upper, binCount_ - 1)};
}

void SpectralMask::insert(std::int64_t column, ClosedRange bins) {
  const ClosedRange range = clipped(bins);
  if (range.isEmpty()) return;
  Words& words = columns_[column];
  words.resize(static_cast<std::size_t>((binCount_ - 1) / 64 + 1));
  forEachWord(words, range, [](std::uint64_t& word, std::uint64_t bits) { word |= bits; });
}

void SpectralMask::remove(std::int64_t column, ClosedRange bins) {
  rasterizeRect({column, column}, bins, CombineMode::subtract);
}

void SpectralMask::subtract(const SpectralMask& other) {
  if (other.binCount_ != binCount_) return;
  if (&other == this) return removeAll();
  for (const auto& [column, others] : other.columns_) {
    const auto own = columns_.find(column);
    if (own == columns_.end()) continue;
    Words& words = own->second;
    for (std::size_t k = 0; k < words.size(); ++k) words[k] &= ~others[k];
    if (isAllZero(words)) columns_.erase(own);
  }
}

void SpectralMask::rasterizeRect(ClosedRange columns, ClosedRange bins, CombineMode mode) {
  if (mode == CombineMode::replace) removeAll();
  const ClosedRange range = clipped(bins);
  if (columns.isEmpty() || range.isEmpty()) return;
  if (mode != CombineMode::subtract) {
    // Not up to upper + 1, which may be no integer of 64 bits.
    for (std::int64_t column = columns.lower;; ++column) {
      insert(column, range);
      if (column == columns.upper) return;
    }
  }
  const auto end = columns_.upper_bound(columns.upper);
  for (auto stored = columns_.lower_bound(columns.lower); stored != end;) {
    Words& words = stored->second;
    forEachWord(words, range, [](std::uint64_t& word, std::uint64_t bits) { word &= ~bits; });
    stored = isAllZero(words) ? columns_.erase(stored) : std::next(stored);
  }
}

// The bins from lowestBin to highestBin, which are whole numbers of any size.
void SpectralMask::combine(std::int64_t column, double lowestBin, double highestBin, CombineMode mode) {
  VELLUM_REQUIRE(std::isfinite(lowestBin) && std::isfinite(highestBin),
                 "SpectralMask: a shape's bins must be finite");
  const auto bins = static_cast<double>(binCount_);
  if (!(lowestBin <= highestBin) || highestBin < 0 || lowestBin >= bins) return;
  const ClosedRange range{static_cast<std::int64_t>(std::max(lowestBin, 0.0)),
                          highestBin < bins ? static_cast<std::int64_t>(highestBin) : binCount_ - 1};
  if (mode == CombineMode::subtract)
    remove(column, range);
  else
    insert(column, range);
}

void SpectralMask::rasterizePolygon(std::span<const Vertex> vertices, CombineMode mode) {
  if (mode == CombineMode::replace) removeAll();
  if (vertices.size() < 3) return;

  std::vector<Edge> edges;
  edges.reserve(vertices.size());
  for (std::size_t i = 0; i < vertices.size(); ++i) {
    const Vertex &from = vertices[i], &to = vertices[i + 1 < vertices.size() ? i + 1 : 0];
    VELLUM_REQUIRE(std::isfinite(from.column) && std::isfinite(from.bin),
                   "SpectralMask: a polygon's vertices must be finite");
    const auto [left, right] = std::minmax(from.column, to.column);
    edges.push_back({from.column, from.bin, to.column, to.bin, columnsBetween(left - 0.5, right + 0.5)});
  }
  std::sort(edges.begin(), edges.end(),
            [](const Edge& a, const Edge& b) { return a.columns.lower < b.columns.lower; });
  const std::int64_t lastColumn =
      std::max_element(edges.begin(), edges.end(), [](const Edge& a, const Edge& b) {
        return a.columns.upper < b.columns.upper;
      })->columns.upper;

  // From column to column, with the edges at hand that reach it.
  std::vector<Edge> active;
  std::vector<double> crossings;
  auto next = edges.begin();
  for (std::int64_t column = edges.front().columns.lower;; ++column) {
    std::erase_if(active, [&](const Edge& edge) { return edge.columns.upper < column; });
    for (; next != edges.end() && next->columns.lower == column; ++next) active.push_back(*next);

    const double x = static_cast<double>(column) + 0.5;
    crossings.clear();
    for (const Edge& edge : active) {
      // Half open, so that a vertex on the line counts once and an edge along it not at all.
      if ((edge.x0 <= x) == (edge.x1 <= x)) continue;
      // Multiplied first, so that whole and half coordinates meet a bin's centre exactly.
      const double y = edge.y0 + (x - edge.x0) * (edge.y1 - edge.y0) / (edge.x1 - edge.x0);
      VELLUM_REQUIRE(std::isfinite(y), "SpectralMask: a polygon's bins must be finite");
      crossings.push_back(y);
    }
    std::sort(crossings.begin(), crossings.end());
    for (std::size_t i = 0; i + 1 < crossings.size(); i += 2)
      combine(column, std::ceil(crossings[i] - 0.5), std::floor(crossings[i + 1] - 0.5), mode);
    if (column == lastColumn) return;
  }
}

void SpectralMask::stampEllipse(double centerColumn, double centerBin, double radiusColumns,
                                double radiusBins, CombineMode mode) {
  if (mode == CombineMode::replace) removeAll();
  // Written so that NaN becomes 0.5.
  const double rc = radiusColumns > 0.5 ? radiusColumns : 0.5;
  const double rb = radiusBins > 0.5 ? radiusBins : 0.5;
  const double first = std::ceil(centerColumn - rc), last = std::floor(centerColumn + rc);
  VELLUM_REQUIRE(std::isfinite(first) && std::isfinite(last) && std::isfinite(centerBin) && std::isfinite(rb),
                 "SpectralMask: an ellipse's centre and radii must be finite");
  if (last < first) return;
  const ClosedRange columns = columnsBetween(first, last);
  for (std::int64_t column = columns.lower;; ++column) {
    // Divided last, so that whole and half figures meet the cells on the rim exactly.
    const double u = static_cast<double>(column) - centerColumn;
    const double product = (rc - u) * (rc + u);
    if (product >= 0) {
      const double h = rb * std::sqrt(product) / rc;
      combine(column, std::ceil(centerBin - h), std::floor(centerBin + h), mode);
    }
    if (column == columns.upper) return;
  }
}

SpectralMask SpectralMask::rebased(ClosedRange toColumnRange) const {
  SpectralMask result(binCount_);
  if (toColumnRange.isEmpty()) return result;
  const auto end = columns_.upper_bound(toColumnRange.upper);
  for (auto stored = columns_.lower_bound(toColumnRange.lower); stored != end; ++stored) {
    const auto offset =
        static_cast<std::uint64_t>(stored->first) - static_cast<std::uint64_t>(toColumnRange.lower);
    VELLUM_REQUIRE(offset < std::uint64_t{1} << 63, "SpectralMask: a rebased column must fit 64 bits");
    result.columns_.emplace_hint(result.columns_.end(), static_cast<std::int64_t>(offset), stored->second);
  }
  return result;
}

}  // namespace vellum
