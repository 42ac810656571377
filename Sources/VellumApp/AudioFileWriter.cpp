#include "VellumApp/AudioFileWriter.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#include "VellumApp/ChannelMaps.hpp"
#include "VellumApp/ContainerLayout.hpp"
#include "VellumApp/FLACEncoder.hpp"
#include "VellumApp/MetadataForms.hpp"
#include "VellumApp/SampleQuantiser.hpp"
#include "VellumCore/LoudnessProcessor.hpp"
#include "VellumCore/Support/Require.hpp"

namespace vellum {
namespace {

using Labels = std::vector<AudioChannelLabel>;

struct AudioShape {
  double sampleRate;
  std::int64_t channelCount, frameCount;
  std::span<const AudioChannelLabel> labels;
};

// A length may be anything that a file claims: no more frames than make 2^60 bytes.
std::int64_t sensibleFrames(std::int64_t frameCount, std::int64_t frameBytes) {
  constexpr std::int64_t most = std::int64_t{1} << 60;
  return std::min(frameCount, most / std::max<std::int64_t>(1, frameBytes));
}

std::int64_t dataBytes(const AudioFileFormat& format, const AudioShape& shape) {
  const std::int64_t frameBytes = shape.channelCount * bytesPerSample(format.coding);
  return sensibleFrames(shape.frameCount, frameBytes) * frameBytes;
}

// --- What a container cannot take ------------------------------------------------------------------------

// Without the lines on standard error: nothing is measured here.
std::vector<float> weightsOf(std::span<const AudioChannelLabel> labels, std::int64_t channelCount) {
  if (labels.empty()) return LoudnessProcessor::staticChannelWeights(channelCount);
  std::vector<float> weights;
  for (const AudioChannelLabel label : labels)
    weights.push_back(ChannelOrder::ownWeight(label).value_or(1.0f));
  return weights;
}

// The labels that a written file is read back with.
Labels labelsAsRead(Container container, const AudioShape& shape) {
  if (container == Container::flac) return ChannelMaps::flacOrder(shape.channelCount);
  if (!ChannelMaps::isMap(shape.labels)) return {};
  const bool isWAV = container == Container::wav || container == Container::rf64;
  if (isWAV && !speakerMask(shape.labels)) return {};
  return {shape.labels.begin(), shape.labels.end()};
}

std::string orderText(std::span<const AudioChannelLabel> labels) {
  std::string text;
  for (const std::string& name : ChannelOrder::displayShortNames(labels))
    text += (text.empty() ? "" : " ") + name;
  return text;
}

std::string sizeText(std::int64_t bytes) {
  const auto tenths = std::llround(static_cast<double>(bytes) / 1e8);
  return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " GB";
}

std::optional<std::string> ownReasonAgainst(const AudioFileFormat& format, const AudioShape& shape) {
  constexpr std::int64_t mostChannels = 1024, mostFLACChannels = 8;
  const std::string name(nameOf(format.container));
  const bool isFLAC = format.container == Container::flac;
  if (isFLAC && format.coding == SampleCoding::float32) return "FLAC has no floating-point samples";
  if (const std::int64_t most = isFLAC ? mostFLACChannels : mostChannels; shape.channelCount > most)
    return name + " files have at most " + std::to_string(most) + " channels, and this has " +
           std::to_string(shape.channelCount);
  if (isFLAC && !FLACEncoder::takesSampleRate(static_cast<std::int64_t>(shape.sampleRate)))
    return "FLAC has no sample rate of " + std::to_string(static_cast<std::int64_t>(shape.sampleRate)) +
           " Hz";
  if (format.container == Container::aiff && dataBytes(format, shape) > largest32BitFile - mostHeadBytes)
    return "AIFF files end at 4 GiB, and this has " + sizeText(dataBytes(format, shape)) + " of samples";
  const Labels asRead = labelsAsRead(format.container, shape);
  if (weightsOf(shape.labels, shape.channelCount) != weightsOf(asRead, shape.channelCount))
    return shape.labels.empty()
               ? name +
                     " names every channel, and these have no names: their loudness would be read differently"
               : name + " cannot name channels in the order " + orderText(shape.labels) +
                     ": their loudness would be read differently";
  return {};
}

std::optional<std::string> reasonWithWayOut(const AudioFileFormat& format, const AudioShape& shape) {
  auto reason = ownReasonAgainst(format, shape);
  if (!reason) return {};
  std::string others;
  for (const Container other : {Container::wav, Container::aiff, Container::caf, Container::flac})
    if (!ownReasonAgainst({other, format.coding}, shape))
      others += (others.empty() ? "" : ", ") + std::string(nameOf(other));
  return others.empty() ? *reason : *reason + "; possible: " + others;
}

// How the names of channels change on the way through the file.
std::optional<std::string> lossOfNames(Container container, const AudioShape& shape) {
  const Labels labels(shape.labels.begin(), shape.labels.end()), asRead = labelsAsRead(container, shape);
  const bool areUsual = labels.empty() || labels == Labels{42} || labels == Labels{1, 2};
  if (areUsual || labels == asRead) return {};
  return std::string(nameOf(container)) +
         (asRead.empty() ? " cannot name the channels " + orderText(labels) + ": they are left without names"
                         : " names the channels " + orderText(asRead) + " instead of " + orderText(labels));
}

// --- Samples ---------------------------------------------------------------------------------------------

// The low bytes of each.
template <std::size_t width>
void store(std::span<const std::int32_t> values, ByteOrder order, char* out) {
  for (const std::int32_t value : values) {
    for (std::size_t k = 0; k < width; ++k)
      out[order == ByteOrder::little ? k : width - 1 - k] = static_cast<char>(value >> (8 * k) & 0xFF);
    out += width;
  }
}

}  // namespace

std::optional<std::string> reasonAgainst(const AudioFileFormat& format, double sampleRate,
                                         std::int64_t channelCount, std::int64_t frameCount,
                                         std::span<const AudioChannelLabel> labels) {
  return reasonWithWayOut(format, {sampleRate, channelCount, frameCount, labels});
}

struct AudioFileWriter::Encoder {
  AudioFileFormat format;
  std::int64_t sampleRate, channelCount, frameCount;
  Labels labels;  // as they are written: none where the container cannot name them
  MetadataForms::Spelling spelling;
  OutputFile file;
  std::unique_ptr<FLACEncoder> flac;
  std::size_t headBytes = 0;
  std::int64_t writtenFrames = 0;
  bool isFinished = false;
  double scale;                           // of integers
  std::vector<std::int32_t> interleaved;  // scratch: integers, or the bits of floats
  std::string bytes;                      // scratch

  explicit Encoder(const Settings& settings)
      : format(settings.format),
        sampleRate(static_cast<std::int64_t>(settings.sampleRate)),
        channelCount(settings.channelCount),
        frameCount(sensibleFrames(settings.frameCount, channelCount * bytesPerSample(format.coding))),
        labels(labelsToWrite(settings)),
        spelling(MetadataForms::spell(settings.metadata, settings.format.container)),
        file(settings.output),
        scale(std::ldexp(0.5, static_cast<int>(integerBits(format.coding)))) {
    if (const auto loss = lossOfNames(format.container, shapeOf(settings)))
      spelling.losses.insert(spelling.losses.begin(), *loss);
    if (format.container == Container::flac)
      startFLAC();
    else
      startContainer();
  }

  static AudioShape shapeOf(const Settings& settings) {
    return {settings.sampleRate, settings.channelCount, settings.frameCount, settings.channelLabels};
  }

  static Labels labelsToWrite(const Settings& settings) {
    VELLUM_REQUIRE(settings.sampleRate >= 1 && settings.channelCount >= 1 && settings.frameCount >= 0,
                   "AudioFileWriter: no such audio");
    VELLUM_REQUIRE(settings.channelLabels.empty() ||
                       static_cast<std::int64_t>(settings.channelLabels.size()) == settings.channelCount,
                   "AudioFileWriter: one label per channel, or none at all");
    const AudioShape shape = shapeOf(settings);
    if (const auto reason = reasonWithWayOut(settings.format, shape)) throw FileError(*reason);
    return labelsAsRead(settings.format.container, shape);
  }

  std::int64_t fileBytes(std::size_t head) const {
    return static_cast<std::int64_t>(head) + dataBytes(format, {0, channelCount, frameCount, {}}) + 1;
  }

  void startFLAC() {
    std::size_t head = 0;
    for (const AudioMetadata::Chunk& block : spelling.chunks) head += block.bytes.size();
    file.requireSpace(fileBytes(head));  // at most: the samples hardly ever fill it
    flac = std::make_unique<FLACEncoder>(
        FLACEncoder::Settings{file, format.coding, sampleRate, channelCount, spelling.chunks});
  }

  void startContainer() {
    std::string head = layout().head;
    const bool isLarge = fileBytes(head.size()) > largest32BitFile;
    if (isLarge && format.container == Container::aiff)
      throw FileError("AIFF files end at 4 GiB, and this is larger");
    if (isLarge && format.container == Container::wav) {
      format.container = Container::rf64;
      head = layout().head;
    }
    headBytes = head.size();
    file.requireSpace(fileBytes(headBytes));
    file.write(head);
  }

  ContainerLayout layout() const {
    return ContainerLayout::of({format, sampleRate, channelCount, frameCount, labels, spelling.chunks});
  }

  void writeSamples(std::span<const float* const> channelData, std::int64_t from, std::int64_t frames) {
    const auto channels = channelData.size();
    interleaved.resize(static_cast<std::size_t>(frames) * channels);
    for (std::size_t c = 0; c < channels; ++c) {
      const std::span<const float> samples(channelData[c] + from, static_cast<std::size_t>(frames));
      std::int32_t* const out = interleaved.data() + c;
      if (format.coding == SampleCoding::float32)
        for (std::size_t n = 0; n < samples.size(); ++n)
          std::memcpy(out + n * channels, &samples[n], sizeof samples[n]);
      else
        for (std::size_t n = 0; n < samples.size(); ++n)
          out[n * channels] = nearestInteger(static_cast<double>(samples[n]) * scale, scale);
    }
    if (flac) return flac->write(interleaved);
    const ByteOrder order = sampleOrder(format.container);
    bytes.resize(interleaved.size() * static_cast<std::size_t>(bytesPerSample(format.coding)));
    switch (bytesPerSample(format.coding)) {
      case 2:
        store<2>(interleaved, order, bytes.data());
        break;
      case 3:
        store<3>(interleaved, order, bytes.data());
        break;
      default:
        store<4>(interleaved, order, bytes.data());
    }
    file.write(bytes);
  }

  void finishContainer() {
    const bool isAsAnnounced = writtenFrames == frameCount;
    frameCount = writtenFrames;
    if (format.container != Container::rf64 && fileBytes(headBytes) > largest32BitFile)
      throw FileError("it became larger than was announced, and than its header can tell");
    const ContainerLayout complete = layout();
    file.write(complete.tail);
    if (!isAsAnnounced) file.writeAt(0, complete.head);
  }
};

AudioFileWriter::AudioFileWriter(const Settings& settings) : encoder_(std::make_unique<Encoder>(settings)) {}
AudioFileWriter::~AudioFileWriter() = default;
AudioFileWriter::AudioFileWriter(AudioFileWriter&&) noexcept = default;
AudioFileWriter& AudioFileWriter::operator=(AudioFileWriter&&) noexcept = default;

void AudioFileWriter::write(std::span<const float* const> channelData, std::int64_t frameCount) {
  constexpr std::int64_t samplesPerPiece = 16'384;
  VELLUM_REQUIRE(static_cast<std::int64_t>(channelData.size()) == encoder_->channelCount,
                 "AudioFileWriter: write takes one buffer per channel");
  VELLUM_REQUIRE(!encoder_->isFinished, "AudioFileWriter: write comes before finish");
  const std::int64_t pieceFrames = std::max<std::int64_t>(1, samplesPerPiece / encoder_->channelCount);
  for (std::int64_t done = 0; done < frameCount; done += pieceFrames) {
    const std::int64_t frames = std::min(pieceFrames, frameCount - done);
    encoder_->writeSamples(channelData, done, frames);
    encoder_->writtenFrames += frames;
  }
}

void AudioFileWriter::finish() {
  VELLUM_REQUIRE(!encoder_->isFinished, "AudioFileWriter: finish comes once");
  if (encoder_->flac)
    encoder_->flac->finish();
  else
    encoder_->finishContainer();
  encoder_->isFinished = true;
}

const std::filesystem::path& AudioFileWriter::temporaryPath() const {
  return encoder_->file.temporaryPath();
}

void AudioFileWriter::commit() {
  VELLUM_REQUIRE(encoder_->isFinished, "AudioFileWriter: commit comes after finish");
  encoder_->file.commit();
}

const std::vector<std::string>& AudioFileWriter::losses() const {
  return encoder_->spelling.losses;
}

}  // namespace vellum
