#include "VellumApp/SpectralEdit.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <numeric>
#include <string_view>
#include <utility>
#include <variant>

#include "VellumApp/AudioFile.hpp"
#include "VellumApp/AudioFileWriter.hpp"
#include "VellumApp/ChannelLayouts.hpp"
#include "VellumApp/OutputFile.hpp"
#include "VellumApp/OutputFormat.hpp"
#include "VellumApp/PlanarBuffer.hpp"
#include "VellumCore/SpectralEditKernel.hpp"
#include "VellumCore/SpectralWand.hpp"

namespace vellum {
namespace {

namespace fs = std::filesystem;
using Part = EditFault::Part;

std::size_t sizeOf(std::int64_t count) {
  return static_cast<std::size_t>(count);
}

// --- Seconds and Hz as columns and bins ------------------------------------------------------------------

// A column stands for the middle of its frame.
double columnAt(double seconds, const SpectralGridConfig& config) {
  return (seconds * config.sampleRate - static_cast<double>(config.fftSize) / 2) /
         static_cast<double>(config.hop());
}

double secondsAt(std::int64_t column, const SpectralGridConfig& config) {
  return static_cast<double>(column * config.hop() + config.fftSize / 2) / config.sampleRate;
}

double columnsIn(double seconds, const SpectralGridConfig& config) {
  return seconds * config.sampleRate / static_cast<double>(config.hop());
}

double binAt(double hz, const SpectralGridConfig& config) {
  return hz * static_cast<double>(config.fftSize) / config.sampleRate;
}

std::int64_t nearest(double value) {
  return std::llround(value);
}

// --- Shapes ----------------------------------------------------------------------------------------------

// What encloses a shape.
using Bounds = EditSelection::Rect;

Bounds boundsOf(const EditSelection::Rect& rect) {
  return rect;
}
Bounds boundsOf(const EditSelection::Polygon& polygon) {
  const EditSelection::Point& first = polygon.points.front();
  Bounds bounds = {first.sec, first.sec, first.hz, first.hz};
  for (const EditSelection::Point& point : polygon.points)
    bounds = {std::min(bounds.fromSec, point.sec), std::max(bounds.toSec, point.sec),
              std::min(bounds.lowHz, point.hz), std::max(bounds.highHz, point.hz)};
  return bounds;
}
Bounds boundsOf(const EditSelection::Ellipse& ellipse) {
  return {ellipse.atSec - ellipse.radiusSec, ellipse.atSec + ellipse.radiusSec, ellipse.hz - ellipse.radiusHz,
          ellipse.hz + ellipse.radiusHz};
}
Bounds boundsOf(const EditSelection::Wand& wand) {
  return {wand.atSec, wand.atSec, wand.hz, wand.hz};
}

// Why a shape selects nothing in a file; absent where it may.
std::optional<std::string> faultOf(const Bounds& bounds, double lengthSec, double frameSec,
                                   double sampleRate) {
  if (bounds.toSec - bounds.fromSec > lengthSec + frameSec)
    return fmt::format("it is {:.3f} s wide, and the file is {:.3f} s long", bounds.toSec - bounds.fromSec,
                       lengthSec);
  const auto extent = [](double from, double to, int decimals, std::string_view unit) {
    return from == to ? fmt::format("at {:.{}f} {}", from, decimals, unit)
                      : fmt::format("from {:.{}f} to {:.{}f} {}", from, decimals, to, decimals, unit);
  };
  if (bounds.toSec < 0 || bounds.fromSec > lengthSec)
    return fmt::format("it lies {}, outside of the file, which is {:.3f} s long",
                       extent(bounds.fromSec, bounds.toSec, 3, "s"), lengthSec);
  if (bounds.highHz < 0 || bounds.lowHz > sampleRate / 2)
    return fmt::format("it lies {}, outside of the file's 0 to {} Hz",
                       extent(bounds.lowHz, bounds.highHz, 0, "Hz"), sampleRate / 2);
  return {};
}

// The shapes that need no audio. The wand's cells are found elsewhere.
class Rasteriser {
 public:
  Rasteriser(const SpectralGridConfig& config, ClosedRange grid)
      : config_(config), grid_(grid), mask_(config.binCount()) {}

  SpectralMask draw(const EditSelection& selection) {
    std::visit([&](const auto& shape) { drawShape(shape); }, selection.shape);
    return std::move(mask_);
  }

 private:
  // From the nearest column and bin to the nearest; the first and last columns stand for the half frames
  // before and behind them.
  void drawShape(const EditSelection::Rect& rect) {
    const auto column = [&](double seconds) {
      return std::clamp(nearest(columnAt(seconds, config_)), grid_.lower, grid_.upper);
    };
    const ClosedRange bins = {nearest(binAt(rect.lowHz, config_)), nearest(binAt(rect.highHz, config_))};
    mask_.rasterizeRect({column(rect.fromSec), column(rect.toSec)}, bins, CombineMode::replace);
  }

  // Cells count by their centres there, half a cell further than their indices.
  void drawShape(const EditSelection::Polygon& polygon) {
    std::vector<SpectralMask::Vertex> vertices;
    for (const EditSelection::Point& point : polygon.points)
      vertices.push_back({columnAt(point.sec, config_) + 0.5, binAt(point.hz, config_) + 0.5});
    mask_.rasterizePolygon(vertices, CombineMode::replace);
  }

  // Around the nearest cell, so that it has one whatever its size.
  void drawShape(const EditSelection::Ellipse& ellipse) {
    mask_.stampEllipse(std::round(columnAt(ellipse.atSec, config_)), std::round(binAt(ellipse.hz, config_)),
                       columnsIn(ellipse.radiusSec, config_), binAt(ellipse.radiusHz, config_),
                       CombineMode::replace);
  }

  void drawShape(const EditSelection::Wand&) {}

  const SpectralGridConfig& config_;
  ClosedRange grid_;
  SpectralMask mask_;
};

// --- Masks -----------------------------------------------------------------------------------------------

template <typename Action>
void forEachRun(const SpectralMask& mask, std::int64_t column, const Action& action) {
  std::optional<ClosedRange> run;
  mask.forEachSelectedBin(column, [&](std::int64_t bin) {
    if (run && run->upper + 1 != bin) action(*std::exchange(run, std::nullopt));
    run = run ? ClosedRange{run->lower, bin} : ClosedRange{bin, bin};
  });
  if (run) action(*run);
}

void add(SpectralMask& mask, const SpectralMask& other) {
  for (const std::int64_t column : other.storedColumns())
    forEachRun(other, column, [&](ClosedRange bins) { mask.insert(column, bins); });
}

// Every cell takes those around it along. Columns outside of the grid are left out.
SpectralMask grown(const SpectralMask& mask, const EditSelection::Growth& growth, ClosedRange grid) {
  SpectralMask result(mask.binCount());
  const auto columns = mask.columnRange();
  if (!columns) return result;
  std::vector<std::int64_t> counts(sizeOf(mask.binCount()));  // selected cells in the columns around one
  const auto count = [&](std::int64_t column, std::int64_t change) {
    mask.forEachSelectedBin(column, [&](std::int64_t bin) { counts[sizeOf(bin)] += change; });
  };
  const ClosedRange reached = {std::max(columns->lower - growth.columns, grid.lower),
                               std::min(columns->upper + growth.columns, grid.upper)};
  const auto first = std::max(reached.lower - growth.columns, columns->lower);
  for (std::int64_t c = first; c <= reached.lower + growth.columns; ++c) count(c, 1);
  for (std::int64_t c = reached.lower; c <= reached.upper; ++c) {
    for (std::int64_t b = 0; b < mask.binCount(); ++b)
      if (counts[sizeOf(b)] > 0) {
        const std::int64_t from = b;
        while (b < mask.binCount() && counts[sizeOf(b)] > 0) ++b;
        result.insert(c, {from - growth.bins, b - 1 + growth.bins});
      }
    count(c - growth.columns, -1);
    count(c + 1 + growth.columns, 1);
  }
  return result;
}

void combine(SpectralMask& mask, const SpectralMask& shape, CombineMode mode) {
  if (mode == CombineMode::replace) mask.removeAll();
  if (mode == CombineMode::subtract)
    mask.subtract(shape);
  else
    add(mask, shape);
}

double decibelsOf(double power) {
  return power > 0 ? 10 * std::log10(power) : -std::numeric_limits<double>::infinity();
}

}  // namespace

// --- Selecting -------------------------------------------------------------------------------------------

std::vector<std::int64_t> SpectralEditor::channelsOf(const EditStep& step, std::size_t index) const {
  std::vector<std::int64_t> channels(sizeOf(source_.channelCount));
  std::iota(channels.begin(), channels.end(), std::int64_t{0});
  if (step.channels.empty()) return channels;
  for (std::size_t k = 0; k < step.channels.size(); ++k)
    if (step.channels[k] >= source_.channelCount)
      throw EditFault(Part::channels, fmt::format("steps[{}].channels[{}]", index, k),
                      fmt::format("there is no channel {}: it has {}, counted from 0", step.channels[k],
                                  source_.channelCount));
  std::erase_if(channels, [&](std::int64_t channel) {
    return std::find(step.channels.begin(), step.channels.end(), channel) == step.channels.end();
  });
  return channels;
}

std::optional<std::vector<float>> SpectralEditor::read(std::int64_t channel, SampleRange frames) const {
  std::vector<float> samples(sizeOf(frames.upper - frames.lower));
  if (!source_.read(channel, frames.lower, samples)) return {};
  overlay(channel, frames.lower, samples);
  return samples;
}

std::optional<SpectralMask> SpectralEditor::wandMask(const EditSelection::Wand& wand,
                                                     std::span<const std::int64_t> channels,
                                                     const SpectralGridConfig& config) const {
  const std::int64_t last = config.columnCount(source_.frameCount) - 1;
  const std::int64_t seed = std::clamp<std::int64_t>(nearest(columnAt(wand.atSec, config)), 0, last);
  const auto reach = static_cast<std::int64_t>(columnsIn(wand.reachSec, config));
  const ClosedRange columns = {std::max<std::int64_t>(seed - reach, 0), std::min(seed + reach, last)};
  std::vector<float> loudest;
  for (const std::int64_t channel : channels) {
    const auto samples = read(channel, SpectralEditKernel::affectedSampleRange(columns, config));
    if (!samples) return {};
    std::vector<float> values = SpectralEditKernel::displayMagnitudesDb(*samples, config).values;
    if (loudest.empty()) loudest.swap(values);
    for (std::size_t k = 0; k < values.size(); ++k) loudest[k] = std::max(loudest[k], values[k]);
  }
  SpectralMask mask(config.binCount());
  for (const SpectralWand::Cell& cell :
       SpectralWand::grow(loudest, columns.upper - columns.lower + 1, config.binCount(), seed - columns.lower,
                          config.bin(wand.hz), wand.toleranceDB, reach, wand.mostCells))
    mask.insert(columns.lower + cell.column, {cell.bin, cell.bin});
  return mask;
}

std::optional<SpectralMask> SpectralEditor::maskOf(const EditSelection& selection, const EditStep& step,
                                                   std::span<const std::int64_t> channels,
                                                   const SpectralGridConfig& config,
                                                   const std::string& place) const {
  const Bounds bounds = std::visit([](const auto& shape) { return boundsOf(shape); }, selection.shape);
  if (const auto fault =
          faultOf(bounds, static_cast<double>(source_.frameCount) / source_.sampleRate,
                  static_cast<double>(config.fftSize) / source_.sampleRate, source_.sampleRate))
    throw EditFault(Part::selection, place, *fault);

  const ClosedRange grid = {0, config.columnCount(source_.frameCount) - 1};
  std::optional<SpectralMask> mask;
  auto growth = selection.grow.value_or(EditSelection::Growth{0, 0});
  if (const auto* wand = std::get_if<EditSelection::Wand>(&selection.shape)) {
    mask = wandMask(*wand, channels, config);
    if (!mask) return {};
    const SpectralEditKernel::Radii radii = SpectralEditKernel::radii(step.feather, config);
    if (!selection.grow) growth = {radii.columns, radii.bins};
  } else {
    mask = Rasteriser(config, grid).draw(selection);
  }
  return grown(*mask, growth, grid);
}

std::optional<SpectralEditor::Selected> SpectralEditor::select(const EditStep& step,
                                                               std::size_t index) const {
  const SpectralGridConfig config(step.fftSize, source_.sampleRate);
  const std::vector<std::int64_t> channels = channelsOf(step, index);
  if (config.columnCount(source_.frameCount) == 0)
    throw EditFault(Part::step, fmt::format("steps[{}]", index),
                    fmt::format("the file has {} frames, less than the FFT size of {}", source_.frameCount,
                                step.fftSize));
  Selected selected{config, SpectralMask(config.binCount())};
  for (std::size_t k = 0; k < step.selection.size(); ++k) {
    const std::string place = fmt::format("steps[{}].selection[{}]", index, k);
    const auto shape = maskOf(step.selection[k], step, channels, config, place);
    if (!shape) return {};
    combine(selected.mask, *shape, step.selection[k].mode);
  }
  return selected;
}

// --- Applying --------------------------------------------------------------------------------------------

std::optional<SpectralEditor::Edited> SpectralEditor::apply(const EditStep& step, std::size_t index) {
  const auto selected = select(step, index);
  if (!selected) return {};
  const auto& [config, mask] = *selected;
  Edited edited{.name = step.name,
                .cells = mask.selectedCellCount(),
                .extent = {},
                .channels = channelsOf(step, index),
                .levelBeforeDB = decibelsOf(0),
                .levelAfterDB = decibelsOf(0)};
  const auto columns = mask.columnRange(), bins = mask.binRange();
  if (!columns || !bins) return edited;
  const auto reach = SpectralEditKernel::reach(*columns, config, step.feather, source_.frameCount);
  if (!reach) return edited;
  edited.extent = Edited::Extent{.fromSec = secondsAt(columns->lower, config),
                                 .toSec = secondsAt(columns->upper, config),
                                 .lowHz = config.frequency(bins->lower),
                                 .highHz = config.frequency(bins->upper),
                                 .changed = reach->changed};

  const std::int64_t firstColumn = config.column(reach->read.lower);
  const SpectralMask local = mask.rebased(
      {firstColumn, firstColumn + config.columnCount(reach->read.upper - reach->read.lower) - 1});
  const SampleRange changed = {reach->changed.lower - reach->read.lower,
                               reach->changed.upper - reach->read.lower};
  const auto crossfade =
      std::min(nearest(step.crossfadeMs / 1000 * config.sampleRate), (changed.upper - changed.lower) / 2);
  double before = 0, after = 0;
  std::vector<Patch> patches;
  for (const std::int64_t channel : edited.channels) {
    auto samples = read(channel, reach->read);
    if (!samples) return {};
    before += SpectralEditKernel::selectedPower(*samples, config, local);
    const auto first = samples->begin() + changed.lower, end = samples->begin() + changed.upper;
    const std::vector<float> originalStart(first, first + crossfade), originalEnd(end - crossfade, end);
    // In place: a selection may be as long as the file.
    SpectralEditKernel::processInPlace(*samples, config, local, step.operation, step.feather);
    SpectralEditKernel::crossfadeEnds({first, end}, originalStart, originalEnd);
    after += SpectralEditKernel::selectedPower(*samples, config, local);
    samples->erase(end, samples->end());
    samples->erase(samples->begin(), first);
    patches.push_back({channel, reach->changed.lower, std::move(*samples)});
  }
  std::move(patches.begin(), patches.end(), std::back_inserter(patches_));
  const auto cellColumns = static_cast<double>(mask.storedColumns().size() * edited.channels.size());
  edited.levelBeforeDB = decibelsOf(before / cellColumns);
  edited.levelAfterDB = decibelsOf(after / cellColumns);
  return edited;
}

void SpectralEditor::overlay(std::int64_t channel, std::int64_t firstFrame, std::span<float> samples) const {
  const std::int64_t end = firstFrame + static_cast<std::int64_t>(samples.size());
  for (const Patch& patch : patches_) {
    if (patch.channel != channel) continue;
    const std::int64_t from = std::max(firstFrame, patch.firstFrame);
    const std::int64_t to = std::min(end, patch.firstFrame + static_cast<std::int64_t>(patch.samples.size()));
    if (from < to)
      std::copy_n(patch.samples.begin() + (from - patch.firstFrame), to - from,
                  samples.begin() + (from - firstFrame));
  }
}

// --- Files -----------------------------------------------------------------------------------------------

namespace {

using Stage = SpectralEditProgress::Stage;

// A file as the source of an editor.
class FileSource {
 public:
  FileSource(const fs::path& path, const SpectralEditGoOn& goOn) : path_(path), file_(path), goOn_(goOn) {}

  AudioFile& file() { return file_; }
  std::int64_t frameCount() const { return frameCount_; }

  // A file's header only claims a length, and selections and the output's header need the true one.
  bool count() {
    const std::vector<float*> nowhere(sizeOf(file_.channelCount()), nullptr);
    while (file_.read(nowhere, framesPerChunk(file_.channelCount())) > 0)
      if (!goOn(Stage::reading, file_.position(), file_.claimedFrameCount())) return false;
    frameCount_ = file_.position();
    if (frameCount_ == 0) throw FileError("it holds no audio");
    return true;
  }

  // After count().
  SpectralEditor editor() {
    return SpectralEditor(
        {.sampleRate = file_.sampleRate(),
         .channelCount = file_.channelCount(),
         .frameCount = frameCount_,
         .read = [this](std::int64_t channel, std::int64_t firstFrame, std::span<float> samples) {
           return naming(path_, [&] { return read(channel, firstFrame, samples); });
         }});
  }

  void beginStep(std::size_t step) { step_ = step; }
  bool goOn(Stage stage, std::int64_t frame, std::optional<std::int64_t> total) const {
    MeasureProgress done{static_cast<double>(frame) / file_.sampleRate(), {}};
    if (total) done.totalSec = static_cast<double>(*total) / file_.sampleRate();
    return goOn_({stage, step_, done});
  }

 private:
  bool read(std::int64_t channel, std::int64_t firstFrame, std::span<float> samples) {
    const auto total = static_cast<std::int64_t>(samples.size());
    const auto isToGoOn = [&](std::int64_t done) { return goOn(Stage::editing, done, total); };
    if (!file_.seekTo(firstFrame, [&] { return isToGoOn(0); })) return false;
    std::vector<float*> buffers(sizeOf(file_.channelCount()), nullptr);
    for (std::int64_t done = 0; done < total;) {
      buffers[sizeOf(channel)] = samples.data() + done;
      const std::int64_t got =
          file_.read(buffers, std::min(framesPerChunk(file_.channelCount()), total - done));
      if (got == 0) throw FileError("it changed while it was read");
      done += got;
      if (!isToGoOn(done)) return false;
    }
    const auto notFinite =
        std::count_if(samples.begin(), samples.end(), [](float sample) { return !std::isfinite(sample); });
    if (notFinite > 0) throw FileError(samplesAreNotFinite(notFinite) + ": it cannot be edited there");
    return true;
  }

  fs::path path_;
  AudioFile file_;
  const SpectralEditGoOn& goOn_;
  std::int64_t frameCount_ = 0;
  std::size_t step_ = 0;
};

class FileEdit {
 public:
  FileEdit(const SpectralEditSettings& settings, const SpectralEditGoOn& goOn)
      : settings_(settings),
        goOn_(goOn),
        item_(settings.outputs.items.front()),
        inputs_(settings.outputs.furtherInputs) {
    inputs_.push_back(item_.input);
  }

  std::optional<SpectralEditResult> run() {
    naming(item_.output, [&] {  // before anything takes time
      refuseImpossibleName(item_.output, settings_.outputs.format);
      if (!settings_.outputs.isDryRun) OutputFile{outputSettings()};
    });
    naming(item_.input, [&] { open(); });
    if (!naming(item_.input, [&] { return count(); })) return {};
    naming(item_.output, [&] { refuseImpossibleFormat(); });
    SpectralEditor editor = source_->editor();
    for (std::size_t k = 0; k < settings_.script.steps.size(); ++k) {
      source_->beginStep(k);
      auto edited = editor.apply(settings_.script.steps[k], k);
      if (!edited) return {};
      result_.steps.push_back(std::move(*edited));
    }
    if (!settings_.outputs.isDryRun && !write(editor)) return {};
    return std::move(result_);
  }

 private:
  OutputFile::Settings outputSettings() const {
    return {.path = item_.output, .replacesExisting = settings_.outputs.replacesExisting, .inputs = inputs_};
  }

  void open() {
    source_ = std::make_unique<FileSource>(item_.input, goOn_);
    const AudioFile& file = source_->file();
    channelCount_ = file.channelCount();
    result_.sampleRate = file.sampleRate();
    result_.format = formatFor(file, item_.output, settings_.outputs.format);
    labels_ = settings_.outputs.channelLabels.value_or(file.channelLabels());
    if (!labels_.empty() && static_cast<std::int64_t>(labels_.size()) != channelCount_)
      throw FileError(fmt::format("it has {} channel{}, but the layout is for {}", channelCount_,
                                  channelCount_ == 1 ? "" : "s", labels_.size()));
    if (!labels_.empty()) result_.channelNames = ChannelLayouts::names(labels_, channelCount_);
    metadata_ = file.metadata();
  }

  bool count() {
    if (!source_->count()) return false;
    result_.frameCount = source_->frameCount();
    if (const auto& warning = source_->file().endWarning()) result_.notes.push_back(*warning);
    return true;
  }

  void refuseImpossibleFormat() const {
    if (const auto reason =
            reasonAgainst(result_.format, result_.sampleRate, channelCount_, result_.frameCount, labels_))
      throw FileError(*reason);
  }

  bool write(const SpectralEditor& editor) {
    if (editor.hasPatches()) clearLoudness(metadata_);
    auto writer = naming(item_.output, [&] {
      return std::make_unique<AudioFileWriter>(AudioFileWriter::Settings{.output = outputSettings(),
                                                                         .format = result_.format,
                                                                         .sampleRate = result_.sampleRate,
                                                                         .channelCount = channelCount_,
                                                                         .channelLabels = labels_,
                                                                         .frameCount = result_.frameCount,
                                                                         .metadata = std::move(metadata_)});
    });
    result_.notes.insert(result_.notes.end(), writer->losses().begin(), writer->losses().end());
    if (!naming(item_.input, [&] { return copyEdited(editor, *writer); })) return false;
    naming(item_.output, [&] {
      writer->finish();
      writer->commit();
    });
    return true;
  }

  bool copyEdited(const SpectralEditor& editor, AudioFileWriter& writer) {
    const std::int64_t chunkFrames = framesPerChunk(channelCount_);
    const PlanarBuffer original(channelCount_, chunkFrames), edited(channelCount_, chunkFrames);
    const std::vector<const float*> before = original.constChannels(), after = edited.constChannels();
    SampleQuantiser quantiser(
        {.coding = result_.format.coding, .dither = settings_.outputs.dither, .channelCount = channelCount_});
    AudioFile& file = source_->file();
    if (!file.seekTo(0)) return false;
    while (const std::int64_t frameCount = file.read(original.channels(), chunkFrames)) {
      const std::int64_t firstFrame = file.position() - frameCount;
      if (!source_->goOn(Stage::writing, firstFrame, result_.frameCount)) return false;
      for (std::int64_t c = 0; c < channelCount_; ++c) {
        float* const samples = edited.channels()[sizeOf(c)];
        std::copy_n(before[sizeOf(c)], frameCount, samples);
        editor.overlay(c, firstFrame, {samples, sizeOf(frameCount)});
      }
      quantiser.quantise(edited.channels(), before, frameCount);
      naming(item_.output, [&] { writer.write(after, frameCount); });
    }
    if (file.position() != result_.frameCount) throw FileError("it changed while it was read");
    result_.clippedSamples = quantiser.clippedSamples();
    return true;
  }

  const SpectralEditSettings& settings_;
  const SpectralEditGoOn& goOn_;
  const DeliveryItem& item_;
  std::vector<fs::path> inputs_;
  std::unique_ptr<FileSource> source_;
  std::int64_t channelCount_ = 0;
  std::vector<AudioChannelLabel> labels_;
  AudioMetadata metadata_;
  SpectralEditResult result_{};
};

}  // namespace

std::optional<SpectralEditResult> editFile(const SpectralEditSettings& settings,
                                           const SpectralEditGoOn& goOn) {
  return FileEdit(settings, goOn).run();
}

std::optional<std::vector<StepSelection>> selectInFile(const fs::path& path, const EditScript& script,
                                                       const SpectralEditGoOn& goOn) {
  const auto source = naming(path, [&] { return std::make_unique<FileSource>(path, goOn); });
  if (!naming(path, [&] { return source->count(); })) return {};
  SpectralEditor editor = source->editor();
  std::vector<StepSelection> selections;
  for (std::size_t k = 0; k < script.steps.size(); ++k) {
    source->beginStep(k);
    auto selected = editor.select(script.steps[k], k);
    if (!selected) return {};
    selections.push_back({script.steps[k].name, selected->config, std::move(selected->mask)});
    const bool isLast = k + 1 == script.steps.size();
    if (!isLast && !editor.apply(script.steps[k], k)) return {};  // a wand sees what the steps before left
  }
  return selections;
}

std::vector<EditSelection::Rect> areasOf(const SpectralMask& mask, const SpectralGridConfig& config) {
  struct Area {
    ClosedRange columns, bins;
  };
  std::vector<Area> areas;
  std::vector<std::size_t> open, next;  // those that reach the column before, by their bins
  for (const std::int64_t column : mask.storedColumns()) {
    std::size_t k = 0;
    forEachRun(mask, column, [&](ClosedRange bins) {
      while (k < open.size() && areas[open[k]].bins.lower < bins.lower) ++k;
      const bool goesOn =
          k < open.size() && areas[open[k]].bins == bins && areas[open[k]].columns.upper == column - 1;
      next.push_back(goesOn ? open[k] : areas.size());
      if (goesOn)
        areas[open[k]].columns.upper = column;
      else
        areas.push_back({{column, column}, bins});
    });
    open.swap(next);
    next.clear();
  }
  const double halfColumn = static_cast<double>(config.hop()) / 2 / config.sampleRate;
  const double halfBin = config.frequency(1) / 2;
  std::vector<EditSelection::Rect> rects;
  for (const Area& area : areas)
    rects.push_back({secondsAt(area.columns.lower, config) - halfColumn,
                     secondsAt(area.columns.upper, config) + halfColumn,
                     config.frequency(area.bins.lower) - halfBin,
                     config.frequency(area.bins.upper) + halfBin});
  return rects;
}

}  // namespace vellum
