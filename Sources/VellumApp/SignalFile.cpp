#include "VellumApp/SignalFile.hpp"

#include <fmt/format.h>

#include <cmath>
#include <span>
#include <utility>

#include "VellumApp/AudioFileWriter.hpp"
#include "VellumApp/ChannelMaps.hpp"
#include "VellumApp/ContainerLayout.hpp"
#include "VellumApp/PlanarBuffer.hpp"
#include "VellumCore/ChannelOrder.hpp"
#include "VellumCore/SignalStream.hpp"

namespace vellum::SignalFile {
namespace {

namespace fs = std::filesystem;
using Labels = std::vector<AudioChannelLabel>;

Container containerOf(GeneratorContainer container) {
  switch (container) {
    case GeneratorContainer::wav:
      return Container::wav;
    case GeneratorContainer::aiff:
      return Container::aiff;
    case GeneratorContainer::caf:
      break;
  }
  return Container::caf;
}

SampleCoding codingOf(GeneratorBitDepth bitDepth) {
  switch (bitDepth) {
    case GeneratorBitDepth::int16:
      return SampleCoding::pcm16;
    case GeneratorBitDepth::int24:
      return SampleCoding::pcm24;
    case GeneratorBitDepth::float32:
      break;
  }
  return SampleCoding::float32;
}

std::optional<std::string> reasonAgainst(const GeneratorSpec& spec,
                                         std::span<const AudioChannelLabel> labels) {
  return vellum::reasonAgainst({containerOf(spec.container), codingOf(spec.bitDepth)}, spec.sampleRate,
                               spec.channelCount(), spec.frameCount(), labels);
}

// Of the channels' names; none where one of them is no place, or a place stands there twice.
Labels labelsOf(const GeneratorSpec& spec) {
  Labels labels;
  for (const GeneratorChannel& channel : spec.channels) {
    const auto label = ChannelOrder::labelOfShortName(channel.name);
    if (!label) return {};
    labels.push_back(*label);
  }
  return ChannelMaps::isMap(labels) ? labels : Labels{};
}

bool measure(SignalStream& stream, double sampleRate, const GoOn& goOn) {
  constexpr std::int64_t chunkFrames = 262'144;
  const std::int64_t total = stream.unmeasuredFrames();
  const auto seconds = [&](std::int64_t frames) { return static_cast<double>(frames) / sampleRate; };
  for (std::int64_t left = total; left > 0; left = stream.unmeasuredFrames()) {
    if (!goOn(Step::measuring, {seconds(total - left), seconds(total)})) return false;
    stream.measure(chunkFrames);
  }
  return true;
}

}  // namespace

std::optional<std::string> faultOf(const GeneratorSpec& spec) {
  if (const auto error = spec.validate()) return error->description();
  if (spec.sampleRate != std::floor(spec.sampleRate))
    return fmt::format("sampleRate: audio files have whole sample rates, and {} Hz is none", spec.sampleRate);
  return reasonAgainst(spec, {});
}

bool isFittingName(const fs::path& path, GeneratorContainer container) {
  if (!path.has_extension()) return true;
  auto byName = containerOfExtension(path);
  if (byName == Container::rf64) byName = Container::wav;
  return byName == containerOf(container);
}

AudioFileFormat formatOf(const GeneratorSpec& spec, const fs::path& path) {
  const Container container = containerOf(spec.container);
  const SampleCoding coding = codingOf(spec.bitDepth);
  const std::int64_t bytes = spec.channelCount() * spec.frameCount() * bytesPerSample(coding);
  const bool isRF64 = container == Container::wav && (containerOfExtension(path) == Container::rf64 ||
                                                      bytes > largest32BitFile - mostHeadBytes);
  return {isRF64 ? Container::rf64 : container, coding};
}

std::optional<Result> write(const GeneratorSpec& spec, const Settings& settings, const GoOn& goOn) {
  if (const auto fault = faultOf(spec)) throw FileError(*fault);
  const AudioFileFormat format = formatOf(spec, settings.output.path);
  const std::int64_t channelCount = spec.channelCount();
  Result result{};
  Labels labels = labelsOf(spec);
  if (const auto reason = reasonAgainst(spec, labels)) {
    result.notes.push_back(*reason + "; the channels are left without names");
    labels.clear();
  }
  AudioFileWriter writer({.output = settings.output,
                          .format = format,
                          .sampleRate = spec.sampleRate,
                          .channelCount = channelCount,
                          .channelLabels = std::move(labels),
                          .frameCount = spec.frameCount(),
                          .metadata = {}});
  for (const std::string& loss : writer.losses()) result.notes.push_back(loss);

  SignalStream stream(spec, settings.harmonicCap);
  if (!measure(stream, spec.sampleRate, goOn)) return {};
  SampleQuantiser quantiser(
      {.coding = format.coding, .dither = settings.dither, .channelCount = channelCount});
  const std::int64_t chunkFrames = framesPerChunk(channelCount);
  const PlanarBuffer chunk(channelCount, chunkFrames);
  const std::vector<const float*> rendered = chunk.constChannels();
  const double totalSec = static_cast<double>(stream.frameCount()) / spec.sampleRate;
  for (;;) {
    if (!goOn(Step::rendering, {static_cast<double>(stream.position()) / spec.sampleRate, totalSec}))
      return {};
    const std::int64_t frameCount = stream.render(chunk.channels(), chunkFrames);
    if (frameCount == 0) break;
    quantiser.quantise(chunk.channels(), {}, frameCount);
    writer.write(rendered, frameCount);
  }
  writer.finish();
  writer.commit();
  result.clippedSamples = quantiser.clippedSamples();
  return result;
}

}  // namespace vellum::SignalFile
