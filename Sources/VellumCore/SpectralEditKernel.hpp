#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <variant>
#include <vector>

#include "VellumCore/SpectralGridConfig.hpp"
#include "VellumCore/SpectralMask.hpp"

// Editing a mono signal in the time-frequency plane: its short-time spectrum is taken, the cells that a mask
// selects get other levels, and the signal is put together again by weighted overlap-add.
//
// Column c is the frame at c hop() under a periodic Hann window; a signal shorter than one frame has none.
// Levels are dB in each cell, 0 dB for a full-scale sine at the bin's frequency, and -200 dB for anything
// below. They are 32-bit, good to 0.001 dB down to 110 dB below the frame's loudest cell.
//
// Stateless: calls may run on any threads.
namespace vellum::SpectralEditKernel {

struct Operation {
  // Adds a gain, at least -96 and at most 24 dB.
  struct Attenuate {
    float dB;
    friend bool operator==(const Attenuate&, const Attenuate&) = default;
  };
  // Brings cells to the bin's noise floor minus `dB`; below 0 counts as 0.
  struct EraseToFloor {
    float dB;
    friend bool operator==(const EraseToFloor&, const EraseToFloor&) = default;
  };
  // Gives cells the level between those that stand before and after them in their bin.
  struct Repair {
    friend bool operator==(const Repair&, const Repair&) = default;
  };

  std::variant<Attenuate, EraseToFloor, Repair> value;  // NaN stops the program

  friend bool operator==(const Operation&, const Operation&) = default;
};

// How far the operation fades out around what is selected. Both finite.
struct Feather {
  double timeMs, freqHz;
  friend bool operator==(const Feather&, const Feather&) = default;
};

// The feather in cells: at least one column and two bins, so that a single selected cell changes a block of
// 3 columns by 5 bins. Each axis is blurred by a moving mean over 2 r + 1 cells. A cell at the middle of a
// straight edge has therefore a weight of about a half to two thirds: a selection has to exceed what it is to
// remove by a radius.
struct Radii {
  std::int64_t columns, bins;
};
Radii radii(const Feather& feather, const SpectralGridConfig& config);

// The samples of the frames of these columns.
SampleRange affectedSampleRange(ClosedRange maskColumnRange, const SpectralGridConfig& config);

// What process() deals with: whoever holds only `read`, which starts at a column, and a mask rebased to it,
// gets the same samples in `changed` as from the whole signal.
//   read     the columns from which floor and neighbours are taken, and whatever overlaps `changed`
//   changed  the frames of every cell that has a weight
struct Reach {
  SampleRange read, changed;
};
// Absent where process() changes nothing.
std::optional<Reach> reach(ClosedRange maskColumnRange, const SpectralGridConfig& config,
                           const Feather& feather, std::int64_t sampleCount);

// The whole signal, with one operation on the cells of a mask; bins of the mask beyond the grid's do not
// count. Samples outside of reach().changed are the input's, to the bit. Inside, the result is what the whole
// signal's spectrum gives, within 1e-6 of full scale times the largest gain (1e-5 in the signal's first and
// last N / 4 samples, which stand under the foot of one window).
// Cost: the columns of reach(), once for `attenuate` and twice for the others. Memory: the result, for each
// bin up to 1,024 levels of its surroundings, however long the selection is, and for `repair` some 40 bytes
// per run of selected cells.
std::vector<float> process(std::span<const float> samples, const SpectralGridConfig& config,
                           const SpectralMask& mask, const Operation& operation, const Feather& feather);

// The same over the signal itself.
void processInPlace(std::span<float> samples, const SpectralGridConfig& config, const SpectralMask& mask,
                    const Operation& operation, const Feather& feather);

// The level of steady noise in each bin, in dB, over columns of the signal: what `eraseToFloor` goes by.
// Cells that the mask selects, and those of frames that are not finite, do not count. A bin in which all are
// selected gets what lies between the nearest ones that have others; where there is none of these, every cell
// counts. Of cells that are all equal it is their level; of noise it is 0.5 dB below its power, and up to 1.5
// dB above with something louder in a third of the columns. Empty where the signal has none of the columns.
std::vector<float> perBinFloor(std::span<const float> samples, const SpectralGridConfig& config,
                               const SpectralMask& mask, ClosedRange contextColumns);

// The power of the selected cells of all columns together; a column in which a full-scale sine is selected
// whole adds 1.
double selectedPower(std::span<const float> samples, const SpectralGridConfig& config,
                     const SpectralMask& mask);

// Taken apart and put together without an edit. Where the frames' squared windows add up to 0.001 or less (at
// the first and last samples, and behind the last whole frame) the input's samples are kept; elsewhere the
// result is within 1e-6 of a full-scale input.
std::vector<float> roundTrip(std::span<const float> samples, const SpectralGridConfig& config);

// The part of `processed` to write over `original`, which is as long, with raised-cosine crossfades from and
// to the original at its ends; each takes at most half the part. Empty where the span holds no sample.
std::vector<float> splicedAffectedSlice(std::span<const float> processed, std::span<const float> original,
                                        SampleRange affectedWithinSpan, std::int64_t crossfadeSamples);

// The crossfades alone, over a processed slice: from the original's samples at its start and to those at its
// end, as many of each as a crossfade is long, at most half the slice.
void crossfadeEnds(std::span<float> slice, std::span<const float> originalStart,
                   std::span<const float> originalEnd);

// Levels in dB, column after column with config.binCount() values each.
struct DisplayGrid {
  std::int64_t columns;
  std::vector<float> values;
};
DisplayGrid displayMagnitudesDb(std::span<const float> samples, const SpectralGridConfig& config);

// The same of frames that stand one behind the other in `windows`, fftSize samples each and not yet under a
// window: any columns of a signal, in any order, without the rest of it.
std::vector<float> displayMagnitudesDbPacked(std::span<const float> windows, std::int64_t count,
                                             const SpectralGridConfig& config);

}  // namespace vellum::SpectralEditKernel
