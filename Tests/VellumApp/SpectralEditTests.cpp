#include "VellumApp/SpectralEdit.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Support/AudioFiles.hpp"
#include "Support/Signals.hpp"
#include "Support/TemporaryFolder.hpp"
#include "VellumCore/SpectralEditKernel.hpp"

namespace vellum {
namespace {

using namespace test;
using SpectralEditKernel::Operation;

constexpr double rate = 48000;

std::size_t at(std::int64_t index) {
  return static_cast<std::size_t>(index);
}

EditSelection selection(decltype(EditSelection::shape) shape, CombineMode mode = CombineMode::add,
                        std::optional<EditSelection::Growth> grow = {}) {
  return {.shape = std::move(shape), .mode = mode, .grow = grow};
}

EditStep step(std::vector<EditSelection> selections, Operation operation = {Operation::Attenuate{-20}},
              std::vector<std::int64_t> channels = {}) {
  return {.name = "",
          .selection = std::move(selections),
          .operation = operation,
          .feather = {10, 50},
          .fftSize = 2048,
          .crossfadeMs = 5,
          .channels = std::move(channels)};
}

// A source in memory that remembers the most that was read at a time.
struct Memory {
  Audio audio;
  std::int64_t mostFrames = 0;

  SpectralEditor::Source source() {
    return {.sampleRate = rate,
            .channelCount = static_cast<std::int64_t>(audio.channels.size()),
            .frameCount = audio.frameCount(),
            .read = [this](std::int64_t channel, std::int64_t firstFrame, std::span<float> samples) {
              mostFrames = std::max(mostFrames, static_cast<std::int64_t>(samples.size()));
              std::copy_n(audio.channels[at(channel)].begin() + firstFrame, samples.size(), samples.begin());
              return true;
            }};
  }
};

Memory noiseInMemory(std::size_t channels, double seconds, unsigned seed = 1) {
  std::mt19937 rng(seed);
  return {noiseAudio(rng, channels, static_cast<std::int64_t>(seconds * rate), 0.1)};
}

SpectralMask selected(Memory& memory, const EditStep& edit) {
  return SpectralEditor(memory.source()).select(edit, 0)->mask;
}

// The middle of a column's frame, the frequency of a bin.
double timeOf(std::int64_t column) {
  return static_cast<double>(column * 512 + 1024) / rate;
}
double frequencyOf(std::int64_t bin) {
  return static_cast<double>(bin) * rate / 2048;
}

SpectralMask rectangle(ClosedRange columns, ClosedRange bins) {
  SpectralMask mask(1025);
  mask.rasterizeRect(columns, bins, CombineMode::replace);
  return mask;
}

// --- Selections ------------------------------------------------------------------------------------------

TEST(SpectralEditor, ARectangleGoesFromTheNearestCellToTheNearest) {
  Memory memory = noiseInMemory(1, 3);
  const auto rect = [&](double from, double to, double low, double high) {
    return selected(memory, step({selection(EditSelection::Rect{from, to, low, high})}));
  };
  const double column = 512 / rate, bin = rate / 2048;
  EXPECT_EQ(rect(timeOf(40), timeOf(60), frequencyOf(10), frequencyOf(20)), rectangle({40, 60}, {10, 20}));
  EXPECT_EQ(rect(timeOf(40) + 0.45 * column, timeOf(60) - 0.45 * column, frequencyOf(10) + 0.45 * bin,
                 frequencyOf(20) - 0.45 * bin),
            rectangle({40, 60}, {10, 20}));
  EXPECT_EQ(rect(timeOf(40) + 0.55 * column, timeOf(60) - 0.55 * column, frequencyOf(10) + 0.55 * bin,
                 frequencyOf(20) - 0.55 * bin),
            rectangle({41, 59}, {11, 19}));
  // However thin, it has a cell.
  EXPECT_EQ(rect(timeOf(40), timeOf(40), 0, 0), rectangle({40, 40}, {0, 0}));
  // Before the first frame's middle and behind the last one's there is no nearer column.
  const std::int64_t last = (144'000 - 2048) / 512;
  EXPECT_EQ(rect(0, 0.001, 0, 1e6), rectangle({0, 0}, {0, 1024}));
  EXPECT_EQ(rect(-0.02, 3.02, -50, 100), rectangle({0, last}, {0, 4}));
  EXPECT_EQ(rect(3, 3, 0, 0), rectangle({last, last}, {0, 0}));
}

TEST(SpectralEditor, APolygonTakesTheCellsWhoseMiddlesItEncloses) {
  Memory memory = noiseInMemory(1, 3);
  const double column = 512 / rate, bin = rate / 2048;
  const double from = timeOf(40) - 0.4 * column, to = timeOf(60) + 0.4 * column;
  const double low = frequencyOf(10) - 0.4 * bin, high = frequencyOf(20) + 0.4 * bin;
  EXPECT_EQ(
      selected(memory,
               step({selection(EditSelection::Polygon{{{from, low}, {to, low}, {to, high}, {from, high}}})})),
      rectangle({40, 60}, {10, 20}));
  const SpectralMask triangle = selected(
      memory,
      step({selection(EditSelection::Polygon{
          {{timeOf(40), frequencyOf(10)}, {timeOf(80), frequencyOf(10)}, {timeOf(40), frequencyOf(50)}}})}));
  for (std::int64_t c = 35; c < 90; ++c)
    for (std::int64_t b = 5; b < 60; ++b) {
      const std::int64_t beyond = (c - 40) + (b - 10) - 40;
      if (beyond == 0 || c == 80) continue;  // on the edge, by the mask's own rule
      EXPECT_EQ(triangle.contains(c, b), c >= 40 && b >= 10 && beyond < 0) << c << " " << b;
    }
}

TEST(SpectralEditor, AnEllipseLiesAroundTheNearestCell) {
  Memory memory = noiseInMemory(1, 3);
  const double column = 512 / rate, bin = rate / 2048;
  const SpectralMask ellipse =
      selected(memory, step({selection(EditSelection::Ellipse{
                           timeOf(60) + 0.3 * column, frequencyOf(30) - 0.3 * bin, 10 * column, 5 * bin})}));
  for (std::int64_t c = 45; c < 75; ++c)
    for (std::int64_t b = 20; b < 40; ++b) {
      const double u = static_cast<double>(c - 60) / 10, v = static_cast<double>(b - 30) / 5;
      if (std::abs(u * u + v * v - 1) < 1e-9) continue;  // on the edge
      EXPECT_EQ(ellipse.contains(c, b), u * u + v * v < 1) << c << " " << b;
    }
  EXPECT_EQ(selected(memory, step({selection(EditSelection::Ellipse{timeOf(60), frequencyOf(30), 0, 0})})),
            rectangle({60, 60}, {30, 30}));
}

TEST(SpectralEditor, SelectionsAreCombinedInTheirOrder) {
  Memory memory = noiseInMemory(1, 3);
  const auto rect = [](ClosedRange columns, ClosedRange bins, CombineMode mode) {
    return selection(EditSelection::Rect{timeOf(columns.lower), timeOf(columns.upper),
                                         frequencyOf(bins.lower), frequencyOf(bins.upper)},
                     mode);
  };
  SpectralMask expected = rectangle({40, 60}, {10, 20});
  expected.rasterizeRect({55, 70}, {15, 30}, CombineMode::add);
  expected.rasterizeRect({50, 58}, {12, 17}, CombineMode::subtract);
  EXPECT_EQ(selected(memory, step({rect({5, 9}, {1, 3}, CombineMode::add),
                                   rect({40, 60}, {10, 20}, CombineMode::replace),
                                   rect({55, 70}, {15, 30}, CombineMode::add),
                                   rect({50, 58}, {12, 17}, CombineMode::subtract)})),
            expected);
}

// Against every cell's own surroundings.
TEST(SpectralEditor, GrowthTakesTheCellsAroundEachCell) {
  Memory memory = noiseInMemory(1, 1);
  const std::vector<EditSelection::Point> star = {{timeOf(20), frequencyOf(10)},
                                                  {timeOf(40), frequencyOf(60)},
                                                  {timeOf(60), frequencyOf(10)},
                                                  {timeOf(15), frequencyOf(40)},
                                                  {timeOf(65), frequencyOf(40)}};
  const SpectralMask plain = selected(memory, step({selection(EditSelection::Polygon{star})}));
  for (const EditSelection::Growth growth : {EditSelection::Growth{0, 0}, EditSelection::Growth{3, 2},
                                             EditSelection::Growth{0, 4}, EditSelection::Growth{80, 0}}) {
    const SpectralMask grown =
        selected(memory, step({selection(EditSelection::Polygon{star}, CombineMode::add, growth)}));
    SpectralMask expected(1025);
    const std::int64_t last = (48'000 - 2048) / 512;
    for (const std::int64_t c : plain.storedColumns())
      plain.forEachSelectedBin(c, [&](std::int64_t b) {
        for (std::int64_t k = std::max<std::int64_t>(c - growth.columns, 0);
             k <= std::min(c + growth.columns, last); ++k)
          expected.insert(k, {b - growth.bins, b + growth.bins});
      });
    EXPECT_EQ(grown, expected) << growth.columns << " " << growth.bins;
  }
}

TEST(SpectralEditor, TheWandFindsABeepAndGrowsByTheFeather) {
  Memory memory = noiseInMemory(2, 6);
  const std::vector<float> beep = sine(rate, 24'000, frequencyOf(100), 0.5);
  for (std::size_t n = 0; n < beep.size(); ++n) memory.audio.channels[1][96'000 + n] += beep[n];
  const EditSelection::Wand wand = {2.25, frequencyOf(100), 20, 5, 200'000};
  const SpectralMask bare =
      selected(memory, step({selection(wand, CombineMode::add, EditSelection::Growth{0, 0})}));
  // Half of the first and last frames holds the beep, and a Hann window's main lobe is 4 bins wide.
  ASSERT_TRUE(bare.columnRange());
  EXPECT_NEAR(static_cast<double>(bare.columnRange()->lower), 96'000.0 / 512 - 2, 2);
  EXPECT_NEAR(static_cast<double>(bare.columnRange()->upper), 120'000.0 / 512 - 2, 2);
  EXPECT_LE(bare.binRange()->lower, 99);
  EXPECT_GE(bare.binRange()->upper, 101);
  EXPECT_GE(bare.binRange()->lower, 94);
  EXPECT_LE(bare.binRange()->upper, 106);

  const SpectralMask usual = selected(memory, step({selection(wand)}));  // 1 column and 2 bins
  EXPECT_EQ(usual, selected(memory, step({selection(wand, CombineMode::add, EditSelection::Growth{1, 2})})));
  EXPECT_EQ(usual.columnRange()->lower, bare.columnRange()->lower - 1);
  EXPECT_EQ(usual.binRange()->upper, bare.binRange()->upper + 2);

  // Only the channels that the step is about are looked at.
  EXPECT_GT(selected(memory, step({selection(wand)}, {Operation::Repair{}}, {0})).selectedCellCount(),
            5 * usual.selectedCellCount());
}

TEST(SpectralEditor, TheWandsReachAndItsCellsAreLimited) {
  Memory memory = noiseInMemory(1, 6);
  memory.audio.channels[0] = sine(rate, 288'000, 1000, 0.5);
  const auto wand = [&](double reachSec, std::int64_t mostCells) {
    return selected(memory, step({selection(EditSelection::Wand{3, 1000, 10, reachSec, mostCells},
                                            CombineMode::add, EditSelection::Growth{0, 0})}));
  };
  const std::int64_t seed = std::llround((3 * rate - 1024) / 512);
  EXPECT_EQ(wand(1, 200'000).columnRange(), (ClosedRange{seed - 93, seed + 93}));  // 93.75
  EXPECT_EQ(wand(0, 200'000).columnRange(), (ClosedRange{seed, seed}));
  EXPECT_EQ(wand(1, 17).selectedCellCount(), 17);
  memory.mostFrames = 0;
  wand(1, 200'000);
  EXPECT_LE(memory.mostFrames, 2 * 93 * 512 + 2048);
  // At the file's very ends the nearest column is the seed.
  for (const double sec : {0.0, 6.0})
    EXPECT_GT(
        selected(memory, step({selection(EditSelection::Wand{sec, 1000, 10, 1, 9999})})).selectedCellCount(),
        100);
}

// --- Faults ----------------------------------------------------------------------------------------------

TEST(SpectralEditor, WhatDoesNotFitTheFileIsTold) {
  Memory memory = noiseInMemory(2, 2);
  SpectralEditor editor(memory.source());
  const auto faultOf = [&](const EditStep& edit) -> std::string {
    try {
      editor.select(edit, 3);
    } catch (const EditFault& fault) {
      return fault.what();
    }
    return "none";
  };
  const auto rect = [&](double from, double to, double low, double high) {
    return faultOf(step({selection(EditSelection::Wand{1, 100, 3, 1, 9}),
                         selection(EditSelection::Rect{from, to, low, high})}));
  };
  const std::string second = "steps[3].selection[1]: ";
  EXPECT_EQ(rect(-0.02, 2.02, 0, 1000), "none");
  EXPECT_EQ(rect(-0.02, 2.03, 0, 1000), second + "it is 2.050 s wide, and the file is 2.000 s long");
  EXPECT_EQ(rect(2.1, 3, 0, 1000),
            second + "it lies from 2.100 to 3.000 s, outside of the file, which is 2.000 s long");
  EXPECT_EQ(rect(-2, -0.1, 0, 1000),
            second + "it lies from -2.000 to -0.100 s, outside of the file, which is 2.000 s long");
  EXPECT_EQ(rect(1, 2, 24'001, 25'000),
            second + "it lies from 24001 to 25000 Hz, outside of the file's 0 to 24000 Hz");
  EXPECT_EQ(rect(1, 2, -9, -1), second + "it lies from -9 to -1 Hz, outside of the file's 0 to 24000 Hz");
  const auto only = [&](decltype(EditSelection::shape) shape) { return faultOf(step({selection(shape)})); };
  const std::string first = "steps[3].selection[0]: ";
  EXPECT_EQ(only(EditSelection::Wand{2.5, 100, 3, 1, 9}),
            first + "it lies at 2.500 s, outside of the file, which is 2.000 s long");
  EXPECT_EQ(only(EditSelection::Wand{1, 30'000, 3, 1, 9}),
            first + "it lies at 30000 Hz, outside of the file's 0 to 24000 Hz");
  EXPECT_EQ(only(EditSelection::Ellipse{1, 100, 1.1, 9}),
            first + "it is 2.200 s wide, and the file is 2.000 s long");
  EXPECT_EQ(only(EditSelection::Ellipse{1e6, 100, 1, 9}),
            first + "it lies from 999999.000 to 1000001.000 s, outside of the file, which is 2.000 s long");
  EXPECT_EQ(only(EditSelection::Polygon{{{-1e6, 0}, {1e6, 0}, {1, 9}}}),
            first + "it is 2000000.000 s wide, and the file is 2.000 s long");
  EXPECT_EQ(faultOf(step({selection(EditSelection::Rect{0, 1, 0, 1})}, {Operation::Repair{}}, {1, 2})),
            "steps[3].channels[1]: there is no channel 2: it has 2, counted from 0");

  memory.audio = Audio(1, 2047);
  SpectralEditor brief(memory.source());
  try {
    brief.select(step({selection(EditSelection::Rect{0, 0.01, 0, 1})}), 0);
    FAIL() << "no fault";
  } catch (const EditFault& fault) {
    EXPECT_EQ(fault.what(),
              std::string("steps[0]: the file has 2047 frames, less than the FFT size of 2048"));
  }
}

// --- Edits -----------------------------------------------------------------------------------------------

// What the whole signal gives, spliced as the patch is.
std::vector<float> wholeResult(const std::vector<float>& samples, const EditStep& edit,
                               const SpectralMask& mask) {
  const SpectralGridConfig config(edit.fftSize, rate);
  const auto processed = SpectralEditKernel::process(samples, config, mask, edit.operation, edit.feather);
  const auto reach = SpectralEditKernel::reach(*mask.columnRange(), config, edit.feather,
                                               static_cast<std::int64_t>(samples.size()));
  const auto slice = SpectralEditKernel::splicedAffectedSlice(processed, samples, reach->changed,
                                                              std::llround(edit.crossfadeMs / 1000 * rate));
  std::vector<float> result = samples;
  std::copy(slice.begin(), slice.end(), result.begin() + reach->changed.lower);
  return result;
}

TEST(SpectralEditor, APieceOfTheFileGivesWhatTheWholeDoes) {
  Memory memory = noiseInMemory(2, 12);
  for (const Operation& operation : {Operation{Operation::Attenuate{-20}},
                                     Operation{Operation::EraseToFloor{0}}, Operation{Operation::Repair{}}})
    for (const double from : {0.0, 5.0, 11.5})
      for (const std::int64_t fftSize : {256, 2048}) {
        EditStep edit = step({selection(EditSelection::Rect{from, from + 0.5, 300, 3000})}, operation);
        edit.fftSize = fftSize;
        SpectralEditor editor(memory.source());
        memory.mostFrames = 0;
        const SpectralMask mask = editor.select(edit, 0)->mask;
        ASSERT_TRUE(editor.apply(edit, 0));
        EXPECT_LT(memory.mostFrames, 24'000 + 210 * fftSize / 4 + 2 * fftSize);  // and not 576,000
        for (std::int64_t c = 0; c < 2; ++c) {
          std::vector<float> result = memory.audio.channels[at(c)];
          editor.overlay(c, 0, result);
          ASSERT_EQ(result, wholeResult(memory.audio.channels[at(c)], edit, mask)) << from << " " << fftSize;
          EXPECT_NE(result, memory.audio.channels[at(c)]);
        }
      }
}

TEST(SpectralEditor, ALaterStepWorksOnWhatEarlierOnesLeft) {
  Memory memory = noiseInMemory(1, 4);
  const EditStep first = step({selection(EditSelection::Rect{1, 2, 300, 3000})});
  const EditStep second =
      step({selection(EditSelection::Rect{1.5, 2.5, 2000, 6000})}, {Operation::EraseToFloor{6}});
  SpectralEditor editor(memory.source());
  const SpectralMask masks[] = {editor.select(first, 0)->mask, editor.select(second, 1)->mask};
  editor.apply(first, 0);
  editor.apply(second, 1);
  std::vector<float> result = memory.audio.channels[0];
  editor.overlay(0, 0, result);
  EXPECT_EQ(result, wholeResult(wholeResult(memory.audio.channels[0], first, masks[0]), second, masks[1]));
  // In pieces of any length too.
  std::mt19937 rng(1);
  std::vector<float> pieces = memory.audio.channels[0];
  std::int64_t offset = 0;
  for (const std::int64_t n : randomSplits(rng, memory.audio.frameCount())) {
    editor.overlay(0, offset, std::span(pieces).subspan(at(offset), at(n)));
    offset += n;
  }
  EXPECT_EQ(pieces, result);
}

TEST(SpectralEditor, OnlyTheChosenChannelsChange) {
  Memory memory = noiseInMemory(3, 2);
  SpectralEditor editor(memory.source());
  const auto edited = editor.apply(
      step({selection(EditSelection::Rect{0.5, 1, 300, 3000})}, {Operation::Attenuate{-20}}, {2, 0}), 0);
  EXPECT_EQ(edited->channels, (std::vector<std::int64_t>{0, 2}));
  for (const std::int64_t c : {0, 1, 2}) {
    std::vector<float> result = memory.audio.channels[at(c)];
    editor.overlay(c, 0, result);
    EXPECT_EQ(result == memory.audio.channels[at(c)], c == 1) << c;
  }
}

TEST(SpectralEditor, WhatWasSelectedAndHowItsLevelChangedIsTold) {
  Memory memory;
  memory.audio.channels = {sine(rate, 192'000, frequencyOf(64), 0.1)};
  SpectralEditor editor(memory.source());
  const EditStep edit =
      step({selection(EditSelection::Rect{timeOf(100), timeOf(200), frequencyOf(54), frequencyOf(74)})});
  const auto edited = editor.apply(edit, 0);
  ASSERT_TRUE(edited && edited->extent);
  EXPECT_EQ(edited->cells, 101 * 21);
  EXPECT_NEAR(edited->extent->fromSec, timeOf(100), 1e-9);
  EXPECT_NEAR(edited->extent->toSec, timeOf(200), 1e-9);
  EXPECT_EQ(edited->extent->lowHz, frequencyOf(54));
  EXPECT_EQ(edited->extent->highHz, frequencyOf(74));
  EXPECT_EQ(edited->extent->changed, (SampleRange{99 * 512, 201 * 512 + 2048}));
  EXPECT_NEAR(edited->levelBeforeDB, -20, 0.01);
  // The first and last columns get two thirds of the gain, and overlap with columns that get less.
  EXPECT_LT(edited->levelAfterDB, -38);
  EXPECT_GT(edited->levelAfterDB, -40.01);

  const auto nothing =
      editor.apply(step({selection(EditSelection::Rect{1, 2, 100, 200}),
                         selection(EditSelection::Rect{0.9, 2.1, 50, 250}, CombineMode::subtract)}),
                   1);
  ASSERT_TRUE(nothing);
  EXPECT_EQ(nothing->cells, 0);
  EXPECT_FALSE(nothing->extent);
}

TEST(SpectralEditor, AnInterruptionLeavesNoHalfStep) {
  Memory memory = noiseInMemory(2, 2);
  SpectralEditor::Source source = memory.source();
  int reads = 0;
  source.read = [&, read = source.read](std::int64_t channel, std::int64_t firstFrame,
                                        std::span<float> samples) {
    return ++reads < 2 && read(channel, firstFrame, samples);
  };
  SpectralEditor editor(source);
  EXPECT_FALSE(editor.apply(step({selection(EditSelection::Rect{0.5, 1, 300, 3000})}), 0));
  EXPECT_EQ(reads, 2);
  EXPECT_FALSE(editor.hasPatches());
}

// --- Files -----------------------------------------------------------------------------------------------

SpectralEditSettings settings(const std::filesystem::path& input, const std::filesystem::path& output,
                              std::vector<EditStep> steps) {
  return {.script = {.description = "", .steps = std::move(steps)},
          .outputs = {.items = {{input, output}},
                      .format = {},
                      .dither = Dither::tpdf,
                      .replacesExisting = false,
                      .isDryRun = false,
                      .channelLabels = {}}};
}

bool always(const SpectralEditProgress&) {
  return true;
}

TEST(EditFile, SamplesThatNoStepReachesAreTheInputs) {
  const TemporaryFolder folder;
  const Memory memory = noiseInMemory(2, 4);
  for (const FileKind& kind : {FileKind{"16.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16},
                               FileKind{"24.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_24},
                               FileKind{"float.wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT}, flac,
                               FileKind{"24.aiff", SF_FORMAT_AIFF | SF_FORMAT_PCM_24}}) {
    const auto in = folder / ("in." + kind.extension), out = folder / ("out." + kind.extension);
    writeAudio(in, memory.audio, 48000, kind);
    const auto result = editFile(
        settings(in, out,
                 {step({selection(EditSelection::Rect{1, 2, 300, 3000})}, {Operation::Attenuate{-20}}, {1})}),
        always);
    ASSERT_TRUE(result);
    ASSERT_TRUE(result->steps.at(0).extent);
    const auto [lower, upper] = result->steps[0].extent->changed;
    const Audio before = readAudio(in), after = readAudio(out);
    ASSERT_EQ(after.frameCount(), before.frameCount());
    EXPECT_EQ(after.channels[0], before.channels[0]) << kind.extension;
    std::int64_t changed = 0;
    for (std::int64_t n = 0; n < before.frameCount(); ++n)
      if (n < lower || n >= upper)
        ASSERT_EQ(after.channels[1][at(n)], before.channels[1][at(n)]) << kind.extension << " " << n;
      else
        changed += after.channels[1][at(n)] != before.channels[1][at(n)];
    EXPECT_GT(changed, (upper - lower) / 2);
  }
}

// Its decoder starts again for every step and for the writing.
TEST(EditFile, ALossyFileIsEditedAsItDecodes) {
  const TemporaryFolder folder;
  writeAudio(folder / "in.ogg", noiseInMemory(2, 4).audio, 48000, vorbis);
  const Memory decoded{readAudio(folder / "in.ogg")};
  const EditStep first = step({selection(EditSelection::Rect{2, 3, 300, 3000})});
  const EditStep second =
      step({selection(EditSelection::Rect{1, 1.5, 2000, 6000})}, {Operation::Repair{}}, {0});
  auto edit = settings(folder / "in.ogg", folder / "out.wav", {first, second});
  edit.outputs.format = {.container = Container::wav, .coding = SampleCoding::float32};
  ASSERT_TRUE(editFile(edit, always));
  Memory memory = decoded;
  const SpectralMask masks[] = {selected(memory, first), selected(memory, second)};
  const Audio out = readAudio(folder / "out.wav");
  EXPECT_EQ(out.channels[0],
            wholeResult(wholeResult(decoded.audio.channels[0], first, masks[0]), second, masks[1]));
  EXPECT_EQ(out.channels[1], wholeResult(decoded.audio.channels[1], first, masks[0]));
}

TEST(EditFile, TheFileHoldsWhatTheWholeSignalGives) {
  const TemporaryFolder folder;
  Memory memory = noiseInMemory(2, 4);
  writeAudio(folder / "in.wav", memory.audio, 48000, floatWAV);
  const EditStep first =
      step({selection(EditSelection::Rect{1, 2, 300, 3000})}, {Operation::EraseToFloor{0}});
  const EditStep second =
      step({selection(EditSelection::Rect{1.5, 3, 2000, 6000})}, {Operation::Repair{}}, {0});
  const SpectralMask masks[] = {selected(memory, first), selected(memory, second)};
  ASSERT_TRUE(editFile(settings(folder / "in.wav", folder / "out.wav", {first, second}), always));
  const Audio out = readAudio(folder / "out.wav");
  const std::vector<float> right = wholeResult(memory.audio.channels[1], first, masks[0]);
  const std::vector<float> left =
      wholeResult(wholeResult(memory.audio.channels[0], first, masks[0]), second, masks[1]);
  EXPECT_EQ(out.channels[0], left);
  EXPECT_EQ(out.channels[1], right);
}

TEST(EditFile, InterruptedOrFaultyItLeavesNothing) {
  const TemporaryFolder folder;
  writeAudio(folder / "in.wav", noiseInMemory(1, 2).audio, 48000, floatWAV);
  const auto edit = settings(folder / "in.wav", folder / "out.wav",
                             {step({selection(EditSelection::Rect{0.5, 1, 300, 3000})})});
  for (const auto stage : {SpectralEditProgress::Stage::reading, SpectralEditProgress::Stage::editing,
                           SpectralEditProgress::Stage::writing}) {
    EXPECT_FALSE(
        editFile(edit, [&](const SpectralEditProgress& progress) { return progress.stage != stage; }));
    EXPECT_EQ(folder.names(), std::vector<std::string>{"in.wav"});
  }
  EXPECT_THROW(editFile(settings(folder / "in.wav", folder / "out.wav",
                                 {step({selection(EditSelection::Rect{5, 6, 300, 3000})})}),
                        always),
               EditFault);
  EXPECT_EQ(folder.names(), std::vector<std::string>{"in.wav"});
  auto dry = edit;
  dry.outputs.isDryRun = true;
  ASSERT_TRUE(editFile(dry, always));
  EXPECT_EQ(folder.names(), std::vector<std::string>{"in.wav"});
}

TEST(EditFile, SamplesThatAreNotFiniteAreRefusedWhereAStepReads) {
  const TemporaryFolder folder;
  Memory memory = noiseInMemory(1, 8);
  memory.audio.channels[0][1000] = std::numeric_limits<float>::quiet_NaN();
  writeAudio(folder / "in.wav", memory.audio, 48000, floatWAV);
  const auto at = [&](double from) {
    return settings(folder / "in.wav", folder / ("out" + std::to_string(from) + ".wav"),
                    {step({selection(EditSelection::Rect{from, from + 0.5, 300, 3000})})});
  };
  EXPECT_TRUE(editFile(at(5), always));
  try {
    editFile(at(0), always);
    FAIL() << "no error";
  } catch (const NamedFileError& error) {
    EXPECT_EQ(error.what(),
              (folder / "in.wav").string() + ": 1 sample is not finite: it cannot be edited there");
  }
}

// --- Previews --------------------------------------------------------------------------------------------

TEST(SelectInFile, EachStepSelectsInWhatTheOnesBeforeLeft) {
  const TemporaryFolder folder;
  Memory memory = noiseInMemory(1, 4);
  const std::vector<float> beep = sine(rate, 24'000, frequencyOf(100), 0.5);
  for (std::size_t n = 0; n < beep.size(); ++n) memory.audio.channels[0][96'000 + n] += beep[n];
  writeAudio(folder / "in.wav", memory.audio, 48000, floatWAV);
  const EditStep wand = step({selection(EditSelection::Wand{2.25, frequencyOf(100), 20, 5, 200'000})});
  EditStep gone = step({selection(EditSelection::Rect{1, 3, 2000, 3000})}, {Operation::EraseToFloor{0}});
  gone.name = "gone";
  const auto selections =
      selectInFile(folder / "in.wav", {.description = "", .steps = {wand, gone, wand}}, always);
  ASSERT_TRUE(selections);
  ASSERT_EQ(selections->size(), 3u);
  EXPECT_EQ(selections->at(0).mask, selected(memory, wand));
  EXPECT_EQ(selections->at(1).mask, selected(memory, gone));
  EXPECT_EQ(selections->at(1).name, "gone");
  EXPECT_EQ(selections->at(1).config, SpectralGridConfig(2048, rate));
  // Without the beep, its point is as quiet as anything.
  EXPECT_GT(selections->at(2).mask.selectedCellCount(), 5 * selections->at(0).mask.selectedCellCount());
  EXPECT_EQ(folder.names(), std::vector<std::string>{"in.wav"});
  EXPECT_FALSE(selectInFile(folder / "in.wav", {.description = "", .steps = {wand}},
                            [](const SpectralEditProgress&) { return false; }));
  EXPECT_THROW(selectInFile(folder / "none.wav", {.description = "", .steps = {wand}}, always),
               NamedFileError);
}

TEST(AreasOf, EveryCellIsInExactlyOneArea) {
  const SpectralGridConfig config(64, 48000);
  std::mt19937 rng(3);
  for (int trial = 0; trial < 30; ++trial) {
    SpectralMask mask(33);
    for (int shape = 0; shape < 12; ++shape) {
      const auto c = static_cast<std::int64_t>(rng() % 40), b = static_cast<std::int64_t>(rng() % 33);
      mask.rasterizeRect({c, c + static_cast<std::int64_t>(rng() % 9)},
                         {b, b + static_cast<std::int64_t>(rng() % 9)},
                         rng() % 3 == 0 ? CombineMode::subtract : CombineMode::add);
    }
    const auto areas = areasOf(mask, config);
    for (std::int64_t c = -1; c < 60; ++c)
      for (std::int64_t b = 0; b < 33; ++b) {
        const double sec = static_cast<double>(c * 16 + 32) / 48000, hz = 750.0 * static_cast<double>(b);
        const auto holding = std::count_if(areas.begin(), areas.end(), [&](const EditSelection::Rect& area) {
          return area.fromSec < sec && sec < area.toSec && area.lowHz < hz && hz < area.highHz;
        });
        ASSERT_EQ(holding, mask.contains(c, b) ? 1 : 0) << c << " " << b;
      }
  }
  SpectralMask block(33);
  block.rasterizeRect({5, 30}, {3, 9}, CombineMode::add);
  EXPECT_EQ(areasOf(block, config).size(), 1u);
  block.rasterizeRect({17, 17}, {3, 9}, CombineMode::subtract);
  EXPECT_EQ(areasOf(block, config).size(), 2u);
}

}  // namespace
}  // namespace vellum
