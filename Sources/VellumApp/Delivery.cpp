#include "VellumApp/Delivery.hpp"

#include <algorithm>
#include <memory>
#include <set>
#include <system_error>
#include <utility>

#include "VellumApp/AlbumFigures.hpp"
#include "VellumApp/AudioFile.hpp"
#include "VellumApp/AudioFileWriter.hpp"
#include "VellumApp/OutputFile.hpp"
#include "VellumApp/TargetFigures.hpp"

namespace vellum {
namespace {

using DeliverySearch::Attempt;
using DeliverySearch::Trial;
using Stage = DeliveryProgress::Stage;
namespace fs = std::filesystem;

// Renders the files of one delivery, round by round.
class Workshop {
 public:
  Workshop(const DeliveryOutputs& outputs, const DeliveryGoOn& goOn) : outputs_(outputs), goOn_(goOn) {
    for (const DeliveryItem& item : outputs.items) inputs_.push_back(item.input);
    inputs_.insert(inputs_.end(), outputs.furtherInputs.begin(), outputs.furtherInputs.end());
  }

  // Measures the inputs and settles the formats. False: interrupted.
  bool open() {
    refuseImpossibleOutputs();
    for (std::size_t k = 0; k < outputs_.items.size(); ++k)
      if (!naming(inputs_[k], [&] { return openItem(k); })) return false;
    for (const Job& job : jobs_) refuseImpossibleFormat(job);
    return true;
  }

  LoudnessMeasurement before() const {
    std::vector<AlbumPart> parts;
    for (const Job& job : jobs_) parts.push_back({job.input.figures, job.input.meter.history()});
    return albumMeasurement(parts);
  }

  // Renders every file and measures what came of it. Absent: interrupted.
  std::optional<Trial> tryOut(double gainDB, const std::optional<LimiterSettings>& limiter) {
    ++round_;
    std::vector<Measured> measured;
    double reductionDB = 0;
    for (std::size_t k = 0; k < jobs_.size(); ++k) {
      Job& job = jobs_[k];
      job.writer.reset();  // the last round's, so that both need not fit the disk
      const RenderSettings settings{gainDB, limiter, job.result.format.coding, outputs_.dither};
      auto after = outputs_.isDryRun ? rehearse(k, settings) : write(k, settings);
      if (!after) return {};
      if (const std::int64_t count = after->figures.nonFiniteSamples; count > 0)
        throw NamedFileError(inputs_[k], FileError("with this gain, " + samplesAreNotFinite(count)));
      job.result.after = loudnessMeasurement(after->figures);
      reductionDB = std::max(reductionDB, job.result.largestReductionDB);
      measured.push_back(std::move(*after));
    }
    std::vector<AlbumPart> parts;
    for (const Measured& part : measured) parts.push_back({part.figures, part.meter.history()});
    return Trial{albumMeasurement(parts), reductionDB};
  }

  // Gives the files of the last round their names.
  void commit() {
    for (Job& job : jobs_)
      if (job.writer) naming(job.result.item.output, [&] { job.writer->commit(); });
  }

  std::vector<DeliveredFile> results() const {
    std::vector<DeliveredFile> files;
    for (const Job& job : jobs_) files.push_back(job.result);
    return files;
  }

 private:
  struct Job {
    DeliveredFile result;
    FileMeasurement input;
    std::vector<AudioChannelLabel> channelLabels;  // in the file's order
    AudioMetadata metadata;
    std::unique_ptr<AudioFileWriter> writer = nullptr;  // of the last round
  };
  struct Measured {
    ProgrammeMeter meter;
    ProgrammeFigures figures;
  };

  MeasureSettings measureSettings() const {
    MeasureSettings settings;
    settings.channelLabels = outputs_.channelLabels;
    return settings;
  }

  auto progressOf(Stage stage, std::size_t item) const {
    return [this, stage, item](const MeasureProgress& progress) {
      return goOn_({stage, round_, item, progress});
    };
  }

  // Before anything takes time.
  void refuseImpossibleOutputs() const {
    std::set<fs::path> places;
    for (const DeliveryItem& item : outputs_.items)
      naming(item.output, [&] {
        std::error_code unknown;  // then opening it will tell
        const fs::path place = fs::weakly_canonical(item.output, unknown);
        if (!unknown && !places.insert(place).second) throw FileError("it would be written twice");
        refuseImpossibleName(item.output, outputs_.format);
        if (!outputs_.isDryRun)
          OutputFile({.path = item.output, .replacesExisting = outputs_.replacesExisting, .inputs = inputs_});
      });
  }

  void refuseImpossibleFormat(const Job& job) const {
    const auto reason = reasonAgainst(job.result.format, job.input.sampleRate, job.input.channelCount,
                                      job.input.figures.frameCount, job.channelLabels);
    if (reason) throw NamedFileError(job.result.item.output, FileError(*reason));
  }

  bool openItem(std::size_t k) {
    AudioFile file(inputs_[k]);
    const AudioFileFormat format = formatFor(file, outputs_.items[k].output, outputs_.format);
    auto input = measureFile(inputs_[k], measureSettings(), progressOf(Stage::measuring, k));
    if (!input) return false;
    if (const std::int64_t count = input->figures.nonFiniteSamples; count > 0)
      throw FileError(samplesAreNotFinite(count) + ": it cannot be rendered");
    DeliveredFile result{.item = outputs_.items[k],
                         .format = format,
                         .before = loudnessMeasurement(input->figures),
                         .after = {},
                         .notes = input->warnings};
    jobs_.push_back({.result = std::move(result),
                     .input = std::move(*input),
                     .channelLabels = outputs_.channelLabels.value_or(file.channelLabels()),
                     .metadata = file.metadata()});
    return true;
  }

  auto renderProgress(std::size_t k) const {
    return [tell = progressOf(Stage::rendering, k), sampleRate = jobs_[k].input.sampleRate,
            totalSec = jobs_[k].input.figures.durationSec](std::int64_t frames) {
      return tell({static_cast<double>(frames) / sampleRate, totalSec});
    };
  }

  // Renders into the meter alone.
  std::optional<Measured> rehearse(std::size_t k, const RenderSettings& settings) {
    Job& job = jobs_[k];
    const auto weights = job.input.meter.channelWeights();
    ProgrammeMeter meter({.sampleRate = job.input.sampleRate,
                          .channelCount = job.input.channelCount,
                          .channelWeights = std::vector<float>(weights.begin(), weights.end())});
    std::vector<const float*> metered(static_cast<std::size_t>(job.input.channelCount));
    const auto feed = [&](std::span<const float* const> channelData, std::int64_t frameCount) {
      for (std::size_t c = 0; c < metered.size(); ++c)
        metered[c] = channelData[static_cast<std::size_t>(job.input.fileChannels[c])];
      meter.feed(metered, frameCount);
    };
    if (!renderInto(k, settings, feed)) return {};
    ProgrammeFigures figures = meter.finish();
    return Measured{std::move(meter), std::move(figures)};
  }

  // Renders into a file without a name yet, and measures that.
  std::optional<Measured> write(std::size_t k, const RenderSettings& settings) {
    Job& job = jobs_[k];
    const fs::path& output = job.result.item.output;
    const bool changesLevels = settings.gainDB != 0 || settings.limiter;
    naming(output, [&] {
      AudioMetadata metadata = job.metadata;
      if (changesLevels) clearLoudness(metadata);
      job.writer = std::make_unique<AudioFileWriter>(AudioFileWriter::Settings{
          .output = {.path = output, .replacesExisting = outputs_.replacesExisting, .inputs = inputs_},
          .format = job.result.format,
          .sampleRate = job.input.sampleRate,
          .channelCount = job.input.channelCount,
          .channelLabels = job.channelLabels,
          .frameCount = job.input.figures.frameCount,
          .metadata = std::move(metadata)});
    });
    job.result.notes = job.input.warnings;
    job.result.notes.insert(job.result.notes.end(), job.writer->losses().begin(), job.writer->losses().end());

    const auto put = [&](std::span<const float* const> channelData, std::int64_t frameCount) {
      naming(output, [&] { job.writer->write(channelData, frameCount); });
    };
    if (!renderInto(k, settings, put)) return {};
    return naming(output, [&]() -> std::optional<Measured> {
      job.writer->finish();
      auto written = measureFile(job.writer->temporaryPath(), {}, progressOf(Stage::verifying, k));
      if (!written) return {};
      return Measured{std::move(written->meter), std::move(written->figures)};
    });
  }

  bool renderInto(std::size_t k, const RenderSettings& settings, const RenderSink& sink) {
    const auto rendered =
        naming(inputs_[k], [&] { return render(inputs_[k], settings, sink, renderProgress(k)); });
    if (!rendered) return false;
    if (rendered->frameCount != jobs_[k].input.figures.frameCount)
      throw NamedFileError(inputs_[k], FileError("it changed while it was read"));
    jobs_[k].result.largestReductionDB = rendered->largestReductionDB;
    jobs_[k].result.clippedSamples = rendered->clippedSamples;
    return true;
  }

  const DeliveryOutputs& outputs_;
  const DeliveryGoOn& goOn_;
  std::vector<fs::path> inputs_;  // the items', then those that are only not to be replaced
  std::vector<Job> jobs_;
  int round_ = 0;
};

// The delivery of a finished search: written where there is no obstacle.
Delivery conclude(Workshop& workshop, const LoudnessMeasurement& before, DeliverySearch::Outcome outcome) {
  if (!outcome.obstacle) workshop.commit();
  Delivery delivery{.before = before,
                    .after = {},
                    .rounds = std::move(outcome.rounds),
                    .files = workshop.results(),
                    .obstacle = std::move(outcome.obstacle)};
  if (!delivery.rounds.empty()) delivery.after = delivery.rounds.back().trial.figures;
  return delivery;
}

}  // namespace

std::optional<Delivery> deliver(const DeliverySettings& settings, const DeliveryGoOn& goOn) {
  Workshop workshop(settings.outputs, goOn);
  if (!workshop.open()) return {};
  const LoudnessMeasurement before = workshop.before();
  auto outcome = DeliverySearch::run({.target = settings.target, .maxReductionDB = settings.maxReductionDB},
                                     before, [&](const Attempt& attempt) {
                                       std::optional<LimiterSettings> limiter;
                                       if (attempt.limiterCeilingDBTP)
                                         limiter = {.ceilingDBTP = *attempt.limiterCeilingDBTP};
                                       return workshop.tryOut(attempt.gainDB, limiter);
                                     });
  if (!outcome) return {};
  return conclude(workshop, before, std::move(*outcome));
}

std::optional<Delivery> limit(const LimitSettings& settings, const DeliveryGoOn& goOn) {
  constexpr std::size_t mostRounds = 8;
  constexpr double marginDB = 0.01;  // so that rounding does not ask for another round
  Workshop workshop(settings.outputs, goOn);
  if (!workshop.open()) return {};

  const double allowedDBTP = settings.limiter.ceilingDBTP;
  DeliverySearch::Outcome outcome;
  LimiterSettings limiter = settings.limiter;
  for (;;) {
    const std::optional<Trial> trial = workshop.tryOut(settings.gainDB, limiter);
    if (!trial) return {};
    outcome.rounds.push_back({{settings.gainDB, limiter.ceilingDBTP}, *trial});
    const double excessDB = static_cast<double>(trial->figures.truePeakDBTP) - allowedDBTP;
    if (!settings.isExact || excessDB <= 0) break;
    if (outcome.rounds.size() == mostRounds) {
      outcome.obstacle = "the true peak stays above the ceiling";
      break;
    }
    limiter.ceilingDBTP -= excessDB + marginDB;
  }
  return conclude(workshop, workshop.before(), std::move(outcome));
}

}  // namespace vellum
