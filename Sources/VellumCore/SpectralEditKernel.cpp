#include "VellumCore/SpectralEditKernel.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numbers>
#include <utility>

#include "VellumCore/Fourier/RealFFT.hpp"
#include "VellumCore/Kernels/Kernels.hpp"
#include "VellumCore/Support/Require.hpp"

namespace vellum::SpectralEditKernel {
namespace {

constexpr float leastWindowPower = 0.001f;
constexpr double leastPower = 1e-20;  // -200 dB
constexpr std::int64_t leastContextColumns = 100;
constexpr std::int64_t framesOverlapping = 4;  // a sample is in this many columns

std::size_t sizeOf(std::int64_t count) {
  return static_cast<std::size_t>(count);
}

// Periodic Hann.
std::vector<float> hannWindow(std::int64_t size) {
  std::vector<float> window(sizeOf(size));
  const double step = 2 * std::numbers::pi / static_cast<double>(size);
  for (std::int64_t n = 0; n < size; ++n)
    window[sizeOf(n)] = (1.0f - static_cast<float>(std::cos(step * static_cast<double>(n)))) / 2.0f;
  return window;
}

// One column of the short-time spectrum at a time, in RealFFT's layout: a grid of all columns would take four
// times the signal.
class ColumnTransform {
 public:
  explicit ColumnTransform(const SpectralGridConfig& config)
      : binCount_(config.binCount()),
        powerScale_(static_cast<float>(16.0 / std::pow(static_cast<double>(config.fftSize), 2))),
        fft_(config.fftSize),
        window_(hannWindow(config.fftSize)),
        frame_(window_.size()),
        re_(sizeOf(fft_.binCount())),
        im_(re_.size()) {}

  const std::vector<float>& window() const { return window_; }

  void analyse(const float* samples) {
    kernels().multiply(samples, window_.data(), frame_.data(), fft_.size());
    fft_.forward(frame_, re_, im_);
  }

  // Power of each bin, 1 for a full-scale sine: its windowed spectrum has the magnitude N / 4. The smallest
  // is what reads -200 dB.
  void getPowers(std::vector<float>& powers) const {
    powers.resize(sizeOf(binCount_));
    kernels().power(re_.data(), im_.data(), powers.data(), fft_.binCount());
    powers.front() = re_[0] * re_[0];
    if (binCount_ > 1) powers.back() = im_[0] * im_[0];
  }
  void getDecibels(std::vector<float>& values) const {
    getPowers(values);
    kernels().powersToDecibels(powerScale_, static_cast<float>(leastPower), values.data(), binCount_);
  }
  float powerScale() const { return powerScale_; }

  // One factor per bin.
  void scaleBins(const std::vector<float>& gains) {
    const float dc = re_[0] * gains.front(), nyquist = im_[0] * gains.back();
    kernels().multiply(re_.data(), gains.data(), re_.data(), fft_.binCount());
    kernels().multiply(im_.data(), gains.data(), im_.data(), fft_.binCount());
    re_[0] = dc;
    im_[0] = nyquist;
  }

  // N times the windowed frame.
  const std::vector<float>& synthesise() {
    fft_.inverse(re_, im_, frame_);
    return frame_;
  }

  // The same of the frame as it was analysed, with what the transforms rounded off sent through them as well.
  const std::vector<float>& synthesiseExactly(const float* samples) {
    std::vector<float> rounded = synthesise();
    const auto size = static_cast<float>(fft_.size());
    for (std::size_t n = 0; n < rounded.size(); ++n) frame_[n] = samples[n] * window_[n] - rounded[n] / size;
    fft_.forward(frame_, re_, im_);
    kernels().add(rounded.data(), synthesise().data(), fft_.size());
    return frame_ = std::move(rounded);
  }

 private:
  std::int64_t binCount_;
  float powerScale_;
  RealFFT fft_;
  std::vector<float> window_, frame_, re_, im_;
};

// Puts frames together again, column after column, and writes what is complete over `output`: only samples
// that no later column begins before, so that it may be the signal that is analysed.
class OverlapAdd {
 public:
  // Only samples of `range` are written; the first column is the first that overlaps it.
  OverlapAdd(const std::vector<float>& window, std::int64_t firstColumn, SampleRange range,
             std::span<float> output)
      : size_(static_cast<std::int64_t>(window.size())),
        hop_(size_ / framesOverlapping),
        position_(firstColumn * hop_),
        range_(range),
        output_(output),
        synthesis_(window),
        windowPower_(window.size()),
        frame_(window.size()),
        sum_(window.size()),
        power_(window.size()) {
    kernels().scale(synthesis_.data(), 1.0f / static_cast<float>(size_), size_);
    kernels().multiply(window.data(), window.data(), windowPower_.data(), size_);
  }

  void add(const std::vector<float>& frame) {
    kernels().multiply(frame.data(), synthesis_.data(), frame_.data(), size_);
    kernels().add(sum_.data(), frame_.data(), size_);
    kernels().add(power_.data(), windowPower_.data(), size_);
    write(hop_);
    position_ += hop_;
    advance(sum_);
    advance(power_);
  }
  // After the last column.
  void finish() { write(size_ - hop_); }

 private:
  void write(std::int64_t count) {
    const std::int64_t from = std::max(range_.lower - position_, std::int64_t{0});
    const std::int64_t to = std::min(range_.upper - position_, count);
    if (from >= to) return;
    float* const out = output_.data() + position_;
    for (std::size_t n = sizeOf(from); n < sizeOf(to); ++n)
      out[n] = power_[n] > leastWindowPower ? sum_[n] / power_[n] : out[n];
  }
  void advance(std::vector<float>& line) const {
    std::fill(std::copy(line.begin() + hop_, line.end(), line.begin()), line.end(), 0.0f);
  }

  std::int64_t size_, hop_, position_;
  SampleRange range_;
  std::span<float> output_;
  std::vector<float> synthesis_, windowPower_, frame_, sum_, power_;
};

// --- Which columns ---------------------------------------------------------------------------------------

// The parts of the grid that an edit deals with, each within the next but for `context`, which holds
// `edited`.
struct Columns {
  ClosedRange edited;       // of the mask
  ClosedRange weighted;     // where the blurred mask is not 0
  ClosedRange synthesised;  // whose frames overlap those of `weighted`
  ClosedRange context;      // from which levels are taken
};

std::optional<Columns> columnsFor(ClosedRange mask, std::int64_t columnCount, std::int64_t radius) {
  const ClosedRange grid = {0, columnCount - 1};
  const auto widened = [&](ClosedRange range, std::int64_t by) {
    return ClosedRange{std::max(range.lower - by, grid.lower), std::min(range.upper + by, grid.upper)};
  };
  const ClosedRange edited = {std::max(mask.lower, grid.lower), std::min(mask.upper, grid.upper)};
  if (edited.isEmpty()) return {};
  const ClosedRange weighted = widened(edited, radius);
  return Columns{.edited = edited,
                 .weighted = weighted,
                 .synthesised = widened(weighted, framesOverlapping - 1),
                 .context = widened(edited, std::max(radius, leastContextColumns))};
}

// --- Weights ---------------------------------------------------------------------------------------------

// The mask, blurred: the weight of a cell is the share of selected cells among those around it. Counted in
// whole numbers, so that nothing is left where nothing is selected.
class FeatheredMask {
 public:
  FeatheredMask(const SpectralMask& mask, const Columns& columns, const Radii& radii, std::int64_t binCount)
      : mask_(mask),
        edited_(columns.edited),
        // A single column is not blurred along columns.
        radius_(columns.weighted.lower == columns.weighted.upper ? 0 : radii.columns),
        binRadius_(radii.bins),
        next_(columns.weighted.lower),
        counts_(sizeOf(binCount)) {
    share_ = 1.0 / (static_cast<double>(2 * radius_ + 1) * static_cast<double>(2 * binRadius_ + 1));
    const ClosedRange first = around(next_);
    for (std::int64_t c = first.lower; c <= first.upper; ++c) count(c, 1);
  }

  // The weights of the next column, from the first weighted one on. False where all are 0.
  bool next(std::vector<float>& weights) {
    std::fill(weights.begin(), weights.end(), 0.0f);
    const bool isWeighted = selected_ > 0;
    if (isWeighted) blurBins(weights);
    count(next_ - radius_, -1);
    ++next_;
    count(next_ + radius_, 1);
    return isWeighted;
  }

 private:
  ClosedRange around(std::int64_t column) const {
    return {std::max(column - radius_, edited_.lower), std::min(column + radius_, edited_.upper)};
  }

  void count(std::int64_t column, std::int64_t change) {
    if (!edited_.contains(column)) return;
    mask_.forEachSelectedBin(column, [&](std::int64_t bin) {
      if (sizeOf(bin) >= counts_.size()) return;
      counts_[sizeOf(bin)] += change;
      selected_ += change;
    });
  }

  void blurBins(std::vector<float>& weights) const {
    const auto binCount = static_cast<std::int64_t>(counts_.size());
    std::int64_t sum = 0;
    for (std::int64_t b = 0; b < std::min(binRadius_, binCount); ++b) sum += counts_[sizeOf(b)];
    for (std::int64_t b = 0; b < binCount; ++b) {
      if (b + binRadius_ < binCount) sum += counts_[sizeOf(b + binRadius_)];
      weights[sizeOf(b)] = static_cast<float>(static_cast<double>(sum) * share_);
      if (b >= binRadius_) sum -= counts_[sizeOf(b - binRadius_)];
    }
  }

  const SpectralMask& mask_;
  ClosedRange edited_;
  std::int64_t radius_, binRadius_, next_;
  double share_;
  std::vector<std::int64_t> counts_;  // per bin: selected cells in the columns around the next one
  std::int64_t selected_ = 0;         // their sum
};

// --- Levels of the surroundings --------------------------------------------------------------------------

// Which bins of a column are selected.
void markSelected(const SpectralMask& mask, std::int64_t column, std::vector<bool>& isSelected) {
  std::fill(isSelected.begin(), isSelected.end(), false);
  mask.forEachSelectedBin(column, [&](std::int64_t bin) {
    if (sizeOf(bin) < isSelected.size()) isSelected[sizeOf(bin)] = true;
  });
}

// The level of steady noise, whatever else comes and goes: the mean power of the cells that are at most 7 dB
// above the median. For noise alone that is 0.5 dB below its power. The median itself would be 1.6 dB below,
// and an erased cell loses another half a dB when frames overlap; Docs/SpectralEditing.md has the figures.
float noiseFloor(std::vector<float>& powers) {
  constexpr float mostAboveMedian = 5.0118723f;  // 10^(7 / 10)
  const auto middle = powers.begin() + static_cast<std::ptrdiff_t>(powers.size() / 2);
  std::nth_element(powers.begin(), middle, powers.end());
  const float most = *middle * mostAboveMedian;
  double sum = 0, count = 0;
  for (const float power : powers)
    if (power <= most) sum += static_cast<double>(power), ++count;
  return static_cast<float>(sum / count);
}

// Collects the unselected cells of the context. Of more than mostValues in a bin, evenly spread ones.
class FloorEstimator {
 public:
  FloorEstimator(const SpectralMask& mask, ClosedRange context, std::int64_t binCount)
      : mask_(mask), isSelected_(sizeOf(binCount)), bins_(sizeOf(binCount)) {
    std::vector<std::int64_t> selected(bins_.size());
    for (std::int64_t c = context.lower; c <= context.upper; ++c)
      mask.forEachSelectedBin(c, [&](std::int64_t bin) {
        if (sizeOf(bin) < selected.size()) ++selected[sizeOf(bin)];
      });
    const std::int64_t columnCount = context.upper - context.lower + 1;
    // Where nothing is unselected there is no telling apart.
    isEverythingSelected_ = std::all_of(selected.begin(), selected.end(),
                                        [&](std::int64_t count) { return count == columnCount; });
    for (std::size_t b = 0; b < bins_.size(); ++b) {
      const std::int64_t count = isEverythingSelected_ ? columnCount : columnCount - selected[b];
      bins_[b].stride = (count + mostValues - 1) / mostValues;
      bins_[b].powers.reserve(sizeOf(std::min(count, mostValues)));
    }
  }

  void add(std::int64_t column, const std::vector<float>& powers) {
    if (!isEverythingSelected_) markSelected(mask_, column, isSelected_);
    for (std::size_t b = 0; b < bins_.size(); ++b)
      if (!isSelected_[b] && bins_[b].seen++ % bins_[b].stride == 0 && std::isfinite(powers[b]))
        bins_[b].powers.push_back(powers[b]);
  }

  // In dB. A bin that is selected throughout gets what lies between the nearest ones that are not.
  std::vector<float> decibels(float powerScale) {
    std::vector<float> floor(bins_.size());
    std::vector<std::size_t> known;
    for (std::size_t b = 0; b < bins_.size(); ++b)
      if (!bins_[b].powers.empty()) {
        floor[b] = noiseFloor(bins_[b].powers);
        known.push_back(b);
      }
    kernels().powersToDecibels(powerScale, static_cast<float>(leastPower), floor.data(),
                               static_cast<std::int64_t>(floor.size()));
    if (known.empty()) return floor;  // no frame was finite
    std::fill(floor.begin(), floor.begin() + static_cast<std::ptrdiff_t>(known.front()),
              floor[known.front()]);
    std::fill(floor.begin() + static_cast<std::ptrdiff_t>(known.back()), floor.end(), floor[known.back()]);
    for (std::size_t k = 1; k < known.size(); ++k) {
      const std::size_t from = known[k - 1], to = known[k];
      const float slope = (floor[to] - floor[from]) / static_cast<float>(to - from);
      for (std::size_t b = from + 1; b < to; ++b)
        floor[b] = floor[from] + slope * static_cast<float>(b - from);
    }
    return floor;
  }

 private:
  static constexpr std::int64_t mostValues = 1024;
  struct Bin {
    std::vector<float> powers;
    std::int64_t seen = 0, stride = 1;
  };

  const SpectralMask& mask_;
  bool isEverythingSelected_;
  std::vector<bool> isSelected_;
  std::vector<Bin> bins_;
};

// Analyses the context and calls eachColumn(c) meanwhile, with column c in the transform.
template <typename Action>
std::vector<float> estimatedFloor(std::span<const float> samples, const SpectralGridConfig& config,
                                  const SpectralMask& mask, ClosedRange context, ColumnTransform& transform,
                                  const Action& eachColumn) {
  FloorEstimator floor(mask, context, config.binCount());
  std::vector<float> powers;
  for (std::int64_t c = context.lower; c <= context.upper; ++c) {
    transform.analyse(samples.data() + c * config.hop());
    transform.getPowers(powers);
    floor.add(c, powers);
    eachColumn(c);
  }
  return floor.decibels(transform.powerScale());
}

// The selected runs of each bin, and the levels on either side of them.
class RepairTargets {
 public:
  RepairTargets(const SpectralMask& mask, std::int64_t binCount)
      : mask_(mask), bins_(sizeOf(binCount)), isSelected_(bins_.size()) {}

  // Every column of the context in order: it has one more on either side of the
  // mask's, where the grid does.
  void add(std::int64_t column, const std::vector<float>& decibels) {
    markSelected(mask_, column, isSelected_);
    for (std::size_t b = 0; b < bins_.size(); ++b) {
      Bin& bin = bins_[b];
      if (isSelected_[b] && !bin.isOpen) bin.runs.push_back({.first = column, .before = bin.newest});
      if (isSelected_[b]) bin.runs.back().last = column;
      if (!isSelected_[b] && bin.isOpen) bin.runs.back().after = decibels[b];
      bin.isOpen = isSelected_[b];
      bin.newest = decibels[b];
    }
  }

  // Calls action(bin, level) with each selected cell of the column. Columns ascend.
  template <typename Action>
  void forEachTarget(std::int64_t column, const std::vector<float>& floor, const Action& action) {
    for (std::size_t b = 0; b < bins_.size(); ++b) {
      Bin& bin = bins_[b];
      while (bin.current < bin.runs.size() && bin.runs[bin.current].last < column) ++bin.current;
      if (bin.current == bin.runs.size() || bin.runs[bin.current].first > column) continue;
      action(b, levelOf(bin.runs[bin.current], column, floor[b]) + liftDB);
    }
  }

 private:
  // Cells of interpolated level but unrelated phase cancel when frames overlap: this makes up for it.
  static constexpr float liftDB = 3.1f;

  struct Run {
    std::int64_t first, last = 0;
    std::optional<float> before, after = {};
  };
  struct Bin {
    std::vector<Run> runs;
    std::optional<float> newest;  // level of the column before
    bool isOpen = false;
    std::size_t current = 0;
  };

  static float levelOf(const Run& run, std::int64_t column, float floor) {
    if (!run.before) return run.after.value_or(floor);
    if (!run.after) return *run.before;
    const auto t = static_cast<float>(static_cast<double>(column - run.first + 1) /
                                      static_cast<double>(run.last - run.first + 2));
    return *run.before + t * (*run.after - *run.before);
  }

  const SpectralMask& mask_;
  std::vector<Bin> bins_;
  std::vector<bool> isSelected_;
};

// --- Operations ------------------------------------------------------------------------------------------

// What an operation does to the cells of one column: getGains turns weights into gains in dB.
struct Attenuation {
  float gainDB;

  void getGains(std::int64_t, const ColumnTransform&, std::vector<float>& gains) const {
    kernels().scale(gains.data(), gainDB, static_cast<std::int64_t>(gains.size()));
  }
};

struct Erasure {
  std::vector<float> targets = {}, levels = {};  // dB per bin

  void getGains(std::int64_t, const ColumnTransform& transform, std::vector<float>& gains) {
    transform.getDecibels(levels);
    for (std::size_t b = 0; b < gains.size(); ++b)
      if (gains[b] > 0) gains[b] *= targets[b] - levels[b];
  }
};

struct Repair {
  RepairTargets& targets;
  std::vector<float> floor, levels = {}, weights = {};

  void getGains(std::int64_t column, const ColumnTransform& transform, std::vector<float>& gains) {
    transform.getDecibels(levels);
    weights.assign(gains.size(), 0.0f);
    weights.swap(gains);
    targets.forEachTarget(column, floor,
                          [&](std::size_t b, float target) { gains[b] = weights[b] * (target - levels[b]); });
  }
};

class Edit {
 public:
  Edit(std::span<float> samples, const SpectralGridConfig& config, const SpectralMask& mask,
       const Columns& columns, const Radii& radii)
      : samples_(samples),
        config_(config),
        mask_(mask),
        columns_(columns),
        radii_(radii),
        transform_(config) {}

  void operator()(const Operation::Attenuate& attenuate) {
    requireNumber(attenuate.dB);
    run(Attenuation{std::clamp(attenuate.dB, -96.0f, 24.0f)});
  }

  void operator()(const Operation::EraseToFloor& erase) {
    requireNumber(erase.dB);
    Erasure erasure{floorOf([](std::int64_t) {})};
    for (float& target : erasure.targets) target -= std::max(erase.dB, 0.0f);
    run(std::move(erasure));
  }

  void operator()(const Operation::Repair&) {
    RepairTargets targets(mask_, config_.binCount());
    std::vector<float> levels;
    std::vector<float> floor = floorOf([&](std::int64_t c) {
      transform_.getDecibels(levels);
      targets.add(c, levels);
    });
    run(Repair{targets, std::move(floor)});
  }

 private:
  static void requireNumber(float dB) {
    VELLUM_REQUIRE(!std::isnan(dB), "SpectralEditKernel: an operation's level must be a number");
  }

  template <typename Action>
  std::vector<float> floorOf(const Action& eachColumn) {
    return estimatedFloor(samples_, config_, mask_, columns_.context, transform_, eachColumn);
  }

  template <typename Applied>
  void run(Applied operation) {
    FeatheredMask feathered(mask_, columns_, radii_, config_.binCount());
    std::vector<float> gains(sizeOf(config_.binCount()));
    OverlapAdd output(transform_.window(), columns_.synthesised.lower,
                      affectedSampleRange(columns_.weighted, config_), samples_);
    for (std::int64_t c = columns_.synthesised.lower; c <= columns_.synthesised.upper; ++c) {
      transform_.analyse(samples_.data() + c * config_.hop());
      if (columns_.weighted.contains(c) && feathered.next(gains)) {
        operation.getGains(c, transform_, gains);
        kernels().decibelsToGains(gains.data(), static_cast<std::int64_t>(gains.size()));
        transform_.scaleBins(gains);
      }
      output.add(transform_.synthesise());
    }
    output.finish();
  }

  std::span<float> samples_;
  const SpectralGridConfig& config_;
  const SpectralMask& mask_;
  const Columns& columns_;
  const Radii& radii_;
  ColumnTransform transform_;
};

// The levels of `count` frames that start `step` samples apart.
std::vector<float> decibelsOfFrames(const float* samples, std::int64_t step, std::int64_t count,
                                    const SpectralGridConfig& config) {
  ColumnTransform transform(config);
  std::vector<float> values, column;
  values.reserve(sizeOf(count * config.binCount()));
  for (std::int64_t c = 0; c < count; ++c) {
    transform.analyse(samples + c * step);
    transform.getDecibels(column);
    values.insert(values.end(), column.begin(), column.end());
  }
  return values;
}

std::int64_t lengthOf(std::span<const float> samples) {
  return static_cast<std::int64_t>(samples.size());
}

}  // namespace

Radii radii(const Feather& feather, const SpectralGridConfig& config) {
  const double columns =
      std::round(config.sampleRate * (feather.timeMs / 1000) / static_cast<double>(config.hop()));
  VELLUM_REQUIRE(std::isfinite(columns), "SpectralEditKernel: a feather must be finite");
  constexpr double most = 0x1p53;  // beyond any signal
  return {.columns = static_cast<std::int64_t>(std::clamp(columns, 1.0, most)),
          .bins = std::max<std::int64_t>(config.bin(feather.freqHz), 2)};
}

SampleRange affectedSampleRange(ClosedRange maskColumnRange, const SpectralGridConfig& config) {
  return {config.sampleRange(maskColumnRange.lower).lower, config.sampleRange(maskColumnRange.upper).upper};
}

std::optional<Reach> reach(ClosedRange maskColumnRange, const SpectralGridConfig& config,
                           const Feather& feather, std::int64_t sampleCount) {
  const std::int64_t columnCount = config.columnCount(sampleCount);
  if (columnCount == 0) return {};
  const auto columns = columnsFor(maskColumnRange, columnCount, radii(feather, config).columns);
  if (!columns) return {};
  const ClosedRange read = {std::min(columns->synthesised.lower, columns->context.lower),
                            std::max(columns->synthesised.upper, columns->context.upper)};
  return Reach{.read = affectedSampleRange(read, config),
               .changed = affectedSampleRange(columns->weighted, config)};
}

std::vector<float> process(std::span<const float> samples, const SpectralGridConfig& config,
                           const SpectralMask& mask, const Operation& operation, const Feather& feather) {
  std::vector<float> result(samples.begin(), samples.end());
  processInPlace(result, config, mask, operation, feather);
  return result;
}

void processInPlace(std::span<float> samples, const SpectralGridConfig& config, const SpectralMask& mask,
                    const Operation& operation, const Feather& feather) {
  const auto selected = mask.columnRange();
  if (!selected) return;
  const std::int64_t columnCount = config.columnCount(lengthOf(samples));
  if (columnCount == 0) return;
  const Radii reached = radii(feather, config);
  const auto columns = columnsFor(*selected, columnCount, reached.columns);
  if (columns) std::visit(Edit(samples, config, mask, *columns, reached), operation.value);
}

std::vector<float> perBinFloor(std::span<const float> samples, const SpectralGridConfig& config,
                               const SpectralMask& mask, ClosedRange contextColumns) {
  const ClosedRange context = {std::max(contextColumns.lower, std::int64_t{0}),
                               std::min(contextColumns.upper, config.columnCount(lengthOf(samples)) - 1)};
  if (context.isEmpty()) return {};
  ColumnTransform transform(config);
  return estimatedFloor(samples, config, mask, context, transform, [](std::int64_t) {});
}

double selectedPower(std::span<const float> samples, const SpectralGridConfig& config,
                     const SpectralMask& mask) {
  constexpr double sineUnderHann = 1.5;  // 1 in its own bin, and a quarter in each of the two beside it
  const std::int64_t columnCount = config.columnCount(lengthOf(samples));
  if (columnCount == 0) return 0;
  ColumnTransform transform(config);
  std::vector<float> powers;
  double sum = 0;
  for (const std::int64_t c : mask.storedColumns()) {
    if (c < 0 || c >= columnCount) continue;
    transform.analyse(samples.data() + c * config.hop());
    transform.getPowers(powers);
    mask.forEachSelectedBin(c, [&](std::int64_t bin) {
      if (bin < config.binCount()) sum += static_cast<double>(powers[sizeOf(bin)]);
    });
  }
  return sum * static_cast<double>(transform.powerScale()) / sineUnderHann;
}

std::vector<float> roundTrip(std::span<const float> samples, const SpectralGridConfig& config) {
  std::vector<float> result(samples.begin(), samples.end());
  const std::int64_t columnCount = config.columnCount(lengthOf(samples));
  if (columnCount == 0) return result;
  ColumnTransform transform(config);
  OverlapAdd output(transform.window(), 0, {0, lengthOf(samples)}, result);
  for (std::int64_t c = 0; c < columnCount; ++c) {
    const float* const frame = samples.data() + c * config.hop();
    transform.analyse(frame);
    // The signal's first and last samples stand under the foot of one window alone, which rounding is divided
    // by.
    const bool isAtEnd = c == 0 || c == columnCount - 1;
    output.add(isAtEnd ? transform.synthesiseExactly(frame) : transform.synthesise());
  }
  output.finish();
  return result;
}

std::vector<float> splicedAffectedSlice(std::span<const float> processed, std::span<const float> original,
                                        SampleRange affectedWithinSpan, std::int64_t crossfadeSamples) {
  VELLUM_REQUIRE(processed.size() == original.size(),
                 "SpectralEditKernel: splicedAffectedSlice takes signals of one length");
  const std::int64_t lower = std::max(affectedWithinSpan.lower, std::int64_t{0});
  const std::int64_t upper = std::min(affectedWithinSpan.upper, lengthOf(processed));
  if (upper <= lower) return {};
  std::vector<float> slice(processed.begin() + lower, processed.begin() + upper);
  const std::int64_t crossfade = std::clamp<std::int64_t>(crossfadeSamples, 0, (upper - lower) / 2);
  crossfadeEnds(slice, original.subspan(sizeOf(lower), sizeOf(crossfade)),
                original.subspan(sizeOf(upper - crossfade), sizeOf(crossfade)));
  return slice;
}

void crossfadeEnds(std::span<float> slice, std::span<const float> originalStart,
                   std::span<const float> originalEnd) {
  const std::size_t crossfade = originalStart.size();
  VELLUM_REQUIRE(originalEnd.size() == crossfade && crossfade <= slice.size() / 2,
                 "SpectralEditKernel: crossfadeEnds takes two ends of one length, at most half the slice's");
  const auto faded = [](double w, float original, float processed) {
    return static_cast<float>((1 - w) * static_cast<double>(original) + w * static_cast<double>(processed));
  };
  for (std::size_t i = 0; i < crossfade; ++i) {
    const double w =
        (1 - std::cos(static_cast<double>(i + 1) * std::numbers::pi / static_cast<double>(crossfade + 1))) /
        2;
    float& first = slice[i];
    float& last = slice[slice.size() - 1 - i];
    first = faded(w, originalStart[i], first);
    last = faded(w, originalEnd[crossfade - 1 - i], last);
  }
}

DisplayGrid displayMagnitudesDb(std::span<const float> samples, const SpectralGridConfig& config) {
  const std::int64_t columnCount = config.columnCount(lengthOf(samples));
  if (columnCount == 0) return {0, {}};
  return {columnCount, decibelsOfFrames(samples.data(), config.hop(), columnCount, config)};
}

std::vector<float> displayMagnitudesDbPacked(std::span<const float> windows, std::int64_t count,
                                             const SpectralGridConfig& config) {
  VELLUM_REQUIRE(count >= 0 && count <= lengthOf(windows) / config.fftSize,
                 "SpectralEditKernel: displayMagnitudesDbPacked takes fftSize samples for each frame");
  return decibelsOfFrames(windows.data(), config.fftSize, count, config);
}

}  // namespace vellum::SpectralEditKernel
