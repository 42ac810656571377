#include "VellumApp/SurroundRendering.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <memory>
#include <utility>

#include "VellumApp/AudioFile.hpp"
#include "VellumApp/AudioFileWriter.hpp"
#include "VellumApp/MetadataForms.hpp"
#include "VellumApp/OutputFile.hpp"
#include "VellumApp/OutputFormat.hpp"
#include "VellumApp/PlanarBuffer.hpp"
#include "VellumCore/ChannelLevels.hpp"

namespace vellum::SurroundRendering {
namespace {

namespace fs = std::filesystem;

// --- Metadata --------------------------------------------------------------------------------------------

bool namesChannelMask(const std::string& entry) {
  return entry.starts_with("WAVEFORMATEXTENSIBLE_CHANNEL_MASK=");
}

// Takes out what describes the input's channels one by one: the audio definition model (ITU-R BS.2076) and
// its list of tracks, FLAC's speaker mask.
void clearChannels(AudioMetadata& metadata, std::vector<std::string>& notes) {
  const std::size_t erased = std::erase_if(metadata.chunks, [&](const AudioMetadata::Chunk& chunk) {
    return metadata.family == AudioMetadata::Family::riff && (chunk.id == "axml" || chunk.id == "chna");
  });
  if (erased > 0)
    notes.push_back("The audio definition model (axml, chna) is of the input's channels: left out");
  if (metadata.family != AudioMetadata::Family::flac) return;
  for (AudioMetadata::Chunk& chunk : metadata.chunks) {
    if (chunk.id != MetadataForms::vorbisCommentBlock) continue;
    MetadataForms::VorbisComments comments = MetadataForms::vorbisCommentsOf(chunk.bytes);
    if (std::erase_if(comments.entries, namesChannelMask) > 0) chunk.bytes = MetadataForms::bytesOf(comments);
  }
}

// --- Levels ----------------------------------------------------------------------------------------------

struct Level {
  float peak = 0;
  std::int64_t overs = 0, notFinite = 0;

  void add(const float* x, std::int64_t frameCount) {
    for (std::int64_t n = 0; n < frameCount; ++n) {
      const float magnitude = std::abs(x[n]);
      if (magnitude > peak) peak = magnitude;
      overs += magnitude > 1.0f ? 1 : 0;
      notFinite += magnitude <= std::numeric_limits<float>::max() ? 0 : 1;
    }
  }
};

// --- Routes ----------------------------------------------------------------------------------------------

using OutputRoutes = std::vector<std::vector<SurroundBake::Route>>;

OutputRoutes withGain(OutputRoutes outputRoutes, double gainDB) {
  const double factor = std::pow(10.0, gainDB / 20.0);
  for (auto& routes : outputRoutes)
    for (SurroundBake::Route& route : routes)
      route.gain = static_cast<float>(static_cast<double>(route.gain) * factor);
  return outputRoutes;
}

bool hasLabels(const RoutesDocument& document) {
  return std::any_of(document.outputs.begin(), document.outputs.end(),
                     [](const RoutesDocument::Output& output) { return output.label.has_value(); });
}

// Whether an output is one source as it is, or silence.
bool isPassedOn(const std::vector<SurroundBake::Route>& routes) {
  return routes.empty() || (routes.size() == 1 && routes[0].gain == 1 && !routes[0].useQuadrature);
}

// --- The work --------------------------------------------------------------------------------------------

class Job {
 public:
  Job(const Settings& settings, const GoOn& goOn)
      : settings_(settings),
        goOn_(goOn),
        item_(settings.outputs.items.front()),
        inputs_(settings.outputs.furtherInputs) {
    inputs_.push_back(item_.input);
  }

  std::optional<Result> run() {
    naming(item_.output, [&] {  // before anything takes time
      refuseImpossibleName(item_.output, settings_.outputs.format);
      OutputFile{outputSettings()};
    });
    naming(item_.input, [&] { open(); });
    naming(item_.output, [&] { refuseImpossibleFormat(); });
    if (!naming(item_.input, [&] { return count(); })) return {};
    naming(item_.output, [&] { openWriter(); });
    if (!naming(item_.input, [&] { return renderAll(); })) return {};
    naming(item_.output, [&] {
      writer_->finish();
      writer_->commit();
    });
    tellOutputs();
    return std::move(result_);
  }

 private:
  OutputFile::Settings outputSettings() const {
    return {.path = item_.output, .replacesExisting = settings_.outputs.replacesExisting, .inputs = inputs_};
  }

  std::int64_t outputCount() const { return static_cast<std::int64_t>(outputRoutes_.size()); }

  MeasureProgress progressAt(std::int64_t frame, std::optional<std::int64_t> total) const {
    MeasureProgress progress{static_cast<double>(frame) / result_.sampleRate, {}};
    if (total) progress.totalSec = static_cast<double>(*total) / result_.sampleRate;
    return progress;
  }

  void open() {
    const AudioFile file(item_.input);
    channelCount_ = file.channelCount();
    result_.sampleRate = file.sampleRate();
    result_.format = formatFor(file, item_.output, settings_.outputs.format);
    const auto labels = settings_.outputs.channelLabels.value_or(file.channelLabels());
    if (!labels.empty() && static_cast<std::int64_t>(labels.size()) != channelCount_)
      throw FileError(fmt::format("it has {} channel{}, but the layout is for {}", channelCount_,
                                  channelCount_ == 1 ? "" : "s", labels.size()));
    routing_ = routingFor(settings_.document, labels, channelCount_);
    outputRoutes_ = withGain(routing_.outputRoutes, settings_.gainDB);
    result_.sourceNames = channelNames(routing_.sourceLabels, channelCount_);
    for (const std::int64_t channel : routing_.unusedSources)
      result_.unusedNames.push_back(result_.sourceNames[static_cast<std::size_t>(channel)]);
    if (routing_.outputLabels.empty() && hasLabels(settings_.document))
      result_.notes.push_back("Not every output has a label: the channels are left without names");
    metadata_ = file.metadata();
    clearLoudness(metadata_);
    clearChannels(metadata_, result_.notes);
  }

  void refuseImpossibleFormat() const {
    if (const auto reason =
            reasonAgainst(result_.format, result_.sampleRate, outputCount(), 0, routing_.outputLabels))
      throw FileError(*reason);
  }

  // A file's header only claims a length, and the output's has to be right from the start.
  bool count() {
    AudioFile file(item_.input);
    const std::int64_t chunkFrames = framesPerChunk(channelCount_);
    const PlanarBuffer input(channelCount_, chunkFrames);
    const std::vector<const float*> chunk = input.constChannels();
    ChannelLevels levels(channelCount_);
    while (const std::int64_t frameCount = file.read(input.channels(), chunkFrames)) {
      levels.add(chunk, frameCount);
      if (!goOn_(Step::counting, progressAt(file.position(), file.claimedFrameCount()))) return false;
    }
    if (const std::int64_t notFinite = levels.nonFiniteSamples(); notFinite > 0)
      throw FileError(samplesAreNotFinite(notFinite) + ": it cannot be rendered");
    result_.frameCount = file.position();
    if (file.endWarning()) result_.notes.push_back(*file.endWarning());
    return true;
  }

  void openWriter() {
    writer_ =
        std::make_unique<AudioFileWriter>(AudioFileWriter::Settings{.output = outputSettings(),
                                                                    .format = result_.format,
                                                                    .sampleRate = result_.sampleRate,
                                                                    .channelCount = outputCount(),
                                                                    .channelLabels = routing_.outputLabels,
                                                                    .frameCount = result_.frameCount,
                                                                    .metadata = std::move(metadata_)});
    result_.notes.insert(result_.notes.end(), writer_->losses().begin(), writer_->losses().end());
  }

  bool renderAll() {
    AudioFile file(item_.input);
    const std::int64_t chunkFrames = framesPerChunk(std::max(channelCount_, outputCount()));
    const PlanarBuffer input(channelCount_, chunkFrames), output(outputCount(), chunkFrames);
    const std::vector<const float*> chunk = input.constChannels();
    SurroundBake::Stream stream(channelCount_, outputRoutes_);
    Sink sink(*this, output, settings_.isAligned ? stream.delayFrames() : 0);
    while (const std::int64_t frameCount = file.read(input.channels(), chunkFrames)) {
      if (!goOn_(Step::rendering, progressAt(file.position(), result_.frameCount))) return false;
      stream.process(chunk, frameCount, output.channels());
      sink.take(frameCount);
    }
    if (file.position() != result_.frameCount) throw FileError("it changed while it was read");
    (settings_.isAligned ? result_.removedDelayFrames : result_.delayFrames) = stream.delayFrames();
    if (settings_.isAligned) {
      // Silence behind the end brings out what the shifters still hold.
      for (float* const channel : input.channels()) std::fill_n(channel, chunkFrames, 0.0f);
      for (std::int64_t left = stream.delayFrames(); left > 0; left -= std::min(left, chunkFrames)) {
        stream.process(chunk, std::min(left, chunkFrames), output.channels());
        sink.take(std::min(left, chunkFrames));
      }
    }
    levels_ = sink.levels();
    result_.clippedSamples = sink.clippedSamples();
    std::int64_t notFinite = 0;
    for (const Level& level : levels_) notFinite += level.notFinite;
    if (notFinite > 0) throw FileError("with these gains, " + samplesAreNotFinite(notFinite));
    return true;
  }

  // Rounds and writes what was rendered into a buffer.
  class Sink {
   public:
    Sink(Job& job, const PlanarBuffer& rendered, std::int64_t framesToDrop)
        : job_(job),
          rendered_(rendered),
          toDrop_(framesToDrop),
          quantiser_({.coding = job.result_.format.coding,
                      .dither = job.settings_.outputs.dither,
                      .channelCount = job.outputCount()}),
          levels_(rendered.channels().size()) {}

    void take(std::int64_t frameCount) {
      const std::int64_t dropped = std::min(toDrop_, frameCount), kept = frameCount - dropped;
      toDrop_ -= dropped;
      if (kept == 0) return;
      ready_.clear();
      originals_.clear();
      for (std::size_t o = 0; o < levels_.size(); ++o) {
        float* const channel = rendered_.channels()[o] + dropped;
        levels_[o].add(channel, kept);
        ready_.push_back(channel);
        originals_.push_back(isPassedOn(job_.outputRoutes_[o]) ? channel : nullptr);
      }
      quantiser_.quantise(ready_, originals_, kept);
      written_.assign(ready_.begin(), ready_.end());
      naming(job_.item_.output, [&] { job_.writer_->write(written_, kept); });
    }

    const std::vector<Level>& levels() const { return levels_; }
    std::int64_t clippedSamples() const { return quantiser_.clippedSamples(); }

   private:
    Job& job_;
    const PlanarBuffer& rendered_;
    std::int64_t toDrop_;
    SampleQuantiser quantiser_;
    std::vector<Level> levels_;
    std::vector<float*> ready_;
    std::vector<const float*> originals_, written_;
  };

  void tellOutputs() {
    const std::vector<std::string> names = channelNames(routing_.outputLabels, outputCount());
    for (std::size_t o = 0; o < levels_.size(); ++o)
      result_.outputs.push_back({.name = names[o],
                                 .overs = levels_[o].overs,
                                 .peakDBFS = 20 * std::log10(static_cast<double>(levels_[o].peak))});
  }

  const Settings& settings_;
  const GoOn& goOn_;
  const DeliveryItem& item_;
  std::vector<fs::path> inputs_;
  std::int64_t channelCount_ = 0;
  Routing routing_;
  OutputRoutes outputRoutes_;
  AudioMetadata metadata_;
  std::unique_ptr<AudioFileWriter> writer_;
  std::vector<Level> levels_;
  Result result_{};
};

}  // namespace

std::optional<Result> render(const Settings& settings, const GoOn& goOn) {
  return Job(settings, goOn).run();
}

}  // namespace vellum::SurroundRendering
