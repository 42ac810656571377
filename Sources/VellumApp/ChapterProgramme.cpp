#include "VellumApp/ChapterProgramme.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "VellumApp/AudioFile.hpp"
#include "VellumApp/DocumentText.hpp"
#include "VellumApp/PlanarBuffer.hpp"
#include "VellumCore/ChapterDetection.hpp"

namespace vellum {
namespace {

// The mean of the channels that count.
class MonoMix {
 public:
  explicit MonoMix(std::span<const float> weights) {
    for (std::size_t c = 0; c < weights.size(); ++c)
      if (weights[c] > 0) channels_.push_back(c);
  }

  // Valid until the next call.
  std::span<const float> of(std::span<const float* const> channelData, std::int64_t frameCount) {
    const auto size = static_cast<std::size_t>(frameCount);
    if (channels_.size() == 1) return {channelData[channels_.front()], size};
    mix_.assign(size, 0.0f);
    for (const std::size_t c : channels_)
      for (std::size_t n = 0; n < size; ++n) mix_[n] += channelData[c][n];
    if (!channels_.empty()) {
      const float share = 1.0f / static_cast<float>(channels_.size());
      for (float& sample : mix_) sample *= share;
    }
    return mix_;
  }

 private:
  std::vector<std::size_t> channels_;
  std::vector<float> mix_;
};

}  // namespace

std::optional<ChapterProgramme> scanProgramme(const std::filesystem::path& path, const ScanSettings& settings,
                                              const ScanGoOn& goOn) {
  MeasureSettings measured;
  measured.channelLabels = settings.channelLabels;
  std::optional<MonoMix> mix;
  std::optional<ChapterDetector::SilenceScanner> scanner;
  const auto tap = [&](const FileMeasurement& file, std::span<const float* const> channelData,
                       std::int64_t frameCount) {
    if (!scanner) {
      mix.emplace(file.meter.channelWeights());
      scanner.emplace(file.sampleRate, settings.detection);
    }
    scanner->add(mix->of(channelData, frameCount));
  };
  auto file = measureFile(path, measured, goOn, tap);
  if (!file) return {};
  const auto weights = file->meter.channelWeights();
  return ChapterProgramme{
      .path = path,
      .formatName = file->formatName,
      .sampleRate = file->sampleRate,
      .channelCount = file->channelCount,
      .fileChannels = file->fileChannels,
      .channelWeights = {weights.begin(), weights.end()},
      .figures = file->figures,
      .speechHistory = file->meter.history().speech,
      .detected = scanner ? scanner->chapters() : std::vector<Chapter>{},
      .warnings = file->warnings,
  };
}

// --- Measuring -------------------------------------------------------------------------------------------

ChapterSweep::ChapterSweep(const ChapterProgramme& programme, std::span<const Chapter> chapters)
    : programme_(programme),
      result_{.chapters = {chapters.begin(), chapters.end()}, .truePeakDBTP = {}},
      metered_(static_cast<std::size_t>(programme.channelCount)) {
  result_.truePeakDBTP.resize(chapters.size());
  for (std::size_t k = 0; k < chapters.size(); ++k) {
    result_.chapters[k].clearMeasurements();
    const auto frames =
        ChapterAnalyser::framesOf(chapters[k], programme.sampleRate, programme.figures.frameCount);
    if (frames.start < frames.end) waiting_.push_back({k, frames});
  }
  std::stable_sort(waiting_.begin(), waiting_.end(),
                   [](const Waiting& a, const Waiting& b) { return a.frames.start > b.frames.start; });
}

void ChapterSweep::start(const Waiting& waiting) {
  const Chapter& chapter = result_.chapters[waiting.chapter];
  Active active{.chapter = waiting.chapter,
                .end = waiting.frames.end,
                .meter = ChapterAnalyser::meterFor(chapter, {.sampleRate = programme_.sampleRate,
                                                             .channelCount = programme_.channelCount,
                                                             .speechHistory = programme_.speechHistory,
                                                             .channelWeights = programme_.channelWeights}),
                .peak = {}};
  if (chapter.durationSec() < ChapterAnalyser::minDurationForLUFS)
    active.peak.emplace(ChapterMeter::Settings{.sampleRate = programme_.sampleRate,
                                               .channelCount = programme_.channelCount,
                                               .speechHistory = {},
                                               .channelWeights = programme_.channelWeights,
                                               .measuresLoudness = true});
  active_.push_back(std::move(active));
}

void ChapterSweep::add(std::span<const float* const> channelData, std::int64_t frameCount) {
  for (const std::int64_t chunkEnd = position_ + frameCount; position_ < chunkEnd;) {
    while (!waiting_.empty() && waiting_.back().frames.start <= position_) {
      start(waiting_.back());
      waiting_.pop_back();
    }
    // Up to where the next chapter starts or ends.
    std::int64_t end = chunkEnd;
    if (!waiting_.empty()) end = std::min(end, waiting_.back().frames.start);
    for (const Active& active : active_) end = std::min(end, active.end);

    const std::int64_t offset = position_ - (chunkEnd - frameCount);
    for (std::size_t c = 0; c < metered_.size(); ++c)
      metered_[c] = channelData[static_cast<std::size_t>(programme_.fileChannels[c])] + offset;
    for (Active& active : active_) {
      active.meter.add(metered_, end - position_);
      if (active.peak) active.peak->add(metered_, end - position_);
    }
    position_ = end;
    const auto hasEnded = [&](const Active& active) { return active.end <= position_; };
    for (Active& active : active_)
      if (hasEnded(active)) conclude(active);
    std::erase_if(active_, hasEnded);
  }
}

void ChapterSweep::conclude(Active& active) {
  active.meter.finish();
  if (active.peak) active.peak->finish();
  Chapter& chapter = result_.chapters[active.chapter];
  chapter = ChapterAnalyser::measured(std::move(chapter), active.meter);
  result_.truePeakDBTP[active.chapter] =
      active.peak ? active.peak->metrics().truePeakDBTP : chapter.truePeakDBTP;
}

MeasuredChapters ChapterSweep::finish() {
  for (Active& active : active_) conclude(active);
  active_.clear();
  return std::move(result_);
}

std::optional<MeasuredChapters> measureChapters(const std::filesystem::path& path,
                                                const ChapterProgramme& programme,
                                                std::span<const Chapter> chapters, const ScanGoOn& goOn) {
  AudioFile file(path);
  if (file.channelCount() != programme.channelCount) throw FileError("it changed while it was read");
  const std::int64_t chunkFrames = framesPerChunk(file.channelCount());
  const PlanarBuffer buffer(file.channelCount(), chunkFrames);
  const std::vector<const float*> chunk = buffer.constChannels();
  ChapterSweep sweep(programme, chapters);
  for (;;) {
    if (!goOn(
            {static_cast<double>(sweep.frameCount()) / programme.sampleRate, programme.figures.durationSec}))
      return {};
    const std::int64_t frameCount = file.read(buffer.channels(), chunkFrames);
    if (frameCount == 0) break;
    sweep.add(chunk, frameCount);
  }
  if (sweep.frameCount() != programme.figures.frameCount) throw FileError("it changed while it was read");
  return sweep.finish();
}

// --- Reports ---------------------------------------------------------------------------------------------

ChapterFileFingerprint fingerprintOf(const ChapterProgramme& programme) {
  return ChapterFileFingerprint::make({.fileName = asInDocument(programme.path.filename().string()),
                                       .durationSec = programme.figures.durationSec,
                                       .sampleRate = programme.sampleRate,
                                       .channelCount = programme.channelCount});
}

std::vector<std::string> differencesFrom(const ChapterFileFingerprint& expected,
                                         const ChapterFileFingerprint& found) {
  std::vector<std::string> differences;
  const auto add = [&](std::string_view what, const auto& is, const auto& shouldBe, std::string_view unit) {
    if (is != shouldBe)
      differences.push_back(fmt::format("the {} is {}{}, not {}{}", what, is, unit, shouldBe, unit));
  };
  add("name", found.fileName, expected.fileName, "");
  if (found.durationCS != expected.durationCS)
    differences.push_back(fmt::format("the duration is {:.2f} s, not {:.2f} s",
                                      static_cast<double>(found.durationCS) / 100,
                                      static_cast<double>(expected.durationCS) / 100));
  add("sample rate", found.sampleRate, expected.sampleRate, " Hz");
  add("number of channels", found.channelCount, expected.channelCount, "");
  return differences;
}

std::vector<Chapter> inTimeOrder(std::vector<Chapter> chapters) {
  std::unordered_set<UUID> ids;
  for (Chapter& chapter : chapters)
    while (!ids.insert(chapter.id).second) chapter.id = UUID::random();
  std::stable_sort(chapters.begin(), chapters.end(),
                   [](const Chapter& a, const Chapter& b) { return a.startSec < b.startSec; });
  std::int64_t index = 0;
  for (Chapter& chapter : chapters) chapter.index = ++index;
  return chapters;
}

}  // namespace vellum
