#include "VellumApp/ContainerLayout.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "VellumCore/AudioChannelLayout.hpp"
#include "VellumCore/Support/Require.hpp"

namespace vellum {
namespace {

constexpr ByteOrder little = ByteOrder::little, big = ByteOrder::big;
constexpr std::uint64_t sizeIsElsewhere = 0xFFFFFFFF;

bool isFloat(const ContainerLayout::Settings& settings) {
  return settings.format.coding == SampleCoding::float32;
}
std::int64_t frameBytes(const ContainerLayout::Settings& settings) {
  return settings.channelCount * bytesPerSample(settings.format.coding);
}
std::int64_t dataBytes(const ContainerLayout::Settings& settings) {
  return settings.frameCount * frameBytes(settings);
}
std::uint64_t bitsPerSample(const ContainerLayout::Settings& settings) {
  return static_cast<std::uint64_t>(8 * bytesPerSample(settings.format.coding));
}

void appendDouble(std::string& bytes, double value, ByteOrder order) {
  std::uint64_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  appendNumber(bytes, bits, 8, order);
}

// A RIFF or AIFF chunk, filled up to an even length.
void appendChunk(std::string& bytes, std::string_view id, std::string_view content, ByteOrder order) {
  bytes += id;
  appendNumber(bytes, content.size(), 4, order);
  bytes += content;
  if (content.size() % 2 == 1) bytes += '\0';
}

// --- WAV and RF64 ----------------------------------------------------------------------------------------

std::string formatChunk(const ContainerLayout::Settings& settings) {
  constexpr std::uint64_t pcm = 1, ieeeFloat = 3, extensible = 0xFFFE;
  using Labels = std::vector<AudioChannelLabel>;
  const Labels labels(settings.labels.begin(), settings.labels.end());
  const std::uint64_t tag = isFloat(settings) ? ieeeFloat : pcm;
  // Without a mask, one channel is mono and two are stereo.
  const bool isPlain =
      labels == Labels{42} || labels == Labels{1, 2} || (labels.empty() && settings.channelCount <= 2);
  const auto bytesPerFrame = static_cast<std::uint64_t>(frameBytes(settings));
  std::string format;
  appendNumber(format, isPlain ? tag : extensible, 2, little);
  appendNumber(format, static_cast<std::uint64_t>(settings.channelCount), 2, little);
  appendNumber(format, static_cast<std::uint64_t>(settings.sampleRate), 4, little);
  appendNumber(format, static_cast<std::uint64_t>(settings.sampleRate) * bytesPerFrame, 4, little);
  appendNumber(format, bytesPerFrame, 2, little);
  appendNumber(format, bitsPerSample(settings), 2, little);
  if (isPlain) {
    if (isFloat(settings)) appendNumber(format, 0, 2, little);  // length of the extension
    return format;
  }
  constexpr std::uint64_t extensionBytes = 22;
  appendNumber(format, extensionBytes, 2, little);
  appendNumber(format, bitsPerSample(settings), 2, little);
  appendNumber(format, speakerMask(settings.labels).value_or(0), 4, little);
  appendNumber(format, tag, 2, little);
  constexpr std::string_view restOfGUID("\x00\x00\x00\x00\x10\x00\x80\x00\x00\xAA\x00\x38\x9B\x71", 14);
  format += restOfGUID;
  return format;
}

// Readers of RF64 are met that do not step over the byte that fills up a chunk of odd length. It becomes part
// of the chunk: white space behind XML, a NUL behind anything else.
std::string evenContent(const AudioMetadata::Chunk& chunk) {
  if (chunk.bytes.size() % 2 == 0) return chunk.bytes;
  const bool isXML = chunk.id == "iXML" || chunk.id == "axml";
  return chunk.bytes + (isXML ? '\n' : '\0');
}

ContainerLayout layoutOfWAV(const ContainerLayout::Settings& settings) {
  const bool is64Bit = settings.format.container == Container::rf64;
  const auto data = static_cast<std::uint64_t>(dataBytes(settings));
  const auto frames = static_cast<std::uint64_t>(settings.frameCount);
  std::string body;  // behind ds64
  appendChunk(body, "fmt ", formatChunk(settings), little);
  if (isFloat(settings)) {
    std::string fact;
    appendNumber(fact, std::min(frames, sizeIsElsewhere), 4, little);
    appendChunk(body, "fact", fact, little);
  }
  for (const AudioMetadata::Chunk& chunk : settings.chunks)
    appendChunk(body, chunk.id, is64Bit ? evenContent(chunk) : chunk.bytes, little);
  body += "data";
  appendNumber(body, is64Bit ? sizeIsElsewhere : data, 4, little);

  ContainerLayout layout;
  layout.tail = std::string(data % 2, '\0');
  constexpr std::uint64_t waveBytes = 4, ds64Bytes = 28, chunkHeadBytes = 8;
  const std::uint64_t size =
      waveBytes + (is64Bit ? chunkHeadBytes + ds64Bytes : 0) + body.size() + data + layout.tail.size();
  layout.head = is64Bit ? "RF64" : "RIFF";
  appendNumber(layout.head, is64Bit ? sizeIsElsewhere : size, 4, little);
  layout.head += "WAVE";
  if (is64Bit) {
    std::string ds64;
    appendNumber(ds64, size, 8, little);
    appendNumber(ds64, data, 8, little);
    appendNumber(ds64, frames, 8, little);
    appendNumber(ds64, 0, 4, little);  // no other chunk is that large
    appendChunk(layout.head, "ds64", ds64, little);
  }
  layout.head += body;
  return layout;
}

// --- AIFF and CAF ----------------------------------------------------------------------------------------

// The number of a whole order, for readers that know these only; 0 for an order without one.
AudioChannelLayoutTag tagOf(std::span<const AudioChannelLabel> labels) {
  constexpr std::uint32_t firstNumber = 100, lastNumber = 200;
  for (std::uint32_t number = firstNumber; number <= lastNumber; ++number) {
    const AudioChannelLayoutTag tag =
        audioChannelLayoutTag(number, static_cast<std::uint32_t>(labels.size()));
    const auto layout = layoutForTag(tag);
    if (layout && std::equal(layout->labels.begin(), layout->labels.end(), labels.begin(), labels.end()))
      return tag;
  }
  return AudioChannelLayout::useChannelDescriptions;
}

// The chunk that AIFF calls CHAN and CAF chan: a number for the whole order, or one description per channel.
std::string channelChunk(std::span<const AudioChannelLabel> labels) {
  const AudioChannelLayoutTag tag = tagOf(labels);
  const bool isDescribed = tag == AudioChannelLayout::useChannelDescriptions;
  std::string chunk;
  appendNumber(chunk, tag, 4, big);
  appendNumber(chunk, 0, 4, big);  // bitmap
  appendNumber(chunk, isDescribed ? labels.size() : 0, 4, big);
  if (!isDescribed) return chunk;
  for (const AudioChannelLabel label : labels) {
    appendNumber(chunk, label, 4, big);
    chunk += std::string(16, '\0');  // flags and coordinates
  }
  return chunk;
}

// 80-bit extended, of a whole number from 1.
std::string extended(std::int64_t value) {
  const auto bits = static_cast<std::uint64_t>(value);
  const int exponent = 63 - std::countl_zero(bits);
  std::string bytes;
  appendNumber(bytes, static_cast<std::uint64_t>(16383 + exponent), 2, big);
  appendNumber(bytes, bits << (63 - exponent), 8, big);
  return bytes;
}

ContainerLayout layoutOfAIFF(const ContainerLayout::Settings& settings) {
  std::string common;
  appendNumber(common, static_cast<std::uint64_t>(settings.channelCount), 2, big);
  appendNumber(common, static_cast<std::uint64_t>(settings.frameCount), 4, big);
  appendNumber(common, bitsPerSample(settings), 2, big);
  common += extended(settings.sampleRate);
  std::string body;
  if (isFloat(settings)) {
    constexpr std::string_view name = "32-bit floating point";
    common += "fl32";
    appendNumber(common, name.size(), 1, big);
    common += name;
    constexpr std::uint64_t version = 0xA2805140;  // the only one
    std::string bytes;
    appendNumber(bytes, version, 4, big);
    appendChunk(body, "FVER", bytes, big);
  }
  appendChunk(body, "COMM", common, big);
  if (!settings.labels.empty()) appendChunk(body, "CHAN", channelChunk(settings.labels), big);
  for (const AudioMetadata::Chunk& chunk : settings.chunks) appendChunk(body, chunk.id, chunk.bytes, big);
  constexpr std::uint64_t offsetAndBlockBytes = 8, typeBytes = 4;
  const auto data = static_cast<std::uint64_t>(dataBytes(settings));
  body += "SSND";
  appendNumber(body, offsetAndBlockBytes + data, 4, big);
  appendNumber(body, 0, 8, big);

  ContainerLayout layout;
  layout.tail = std::string(data % 2, '\0');
  layout.head = "FORM";
  appendNumber(layout.head, typeBytes + body.size() + data + layout.tail.size(), 4, big);
  layout.head += isFloat(settings) ? "AIFC" : "AIFF";
  layout.head += body;
  return layout;
}

void appendCAFChunk(std::string& bytes, std::string_view id, std::string_view content) {
  bytes += id;
  appendNumber(bytes, content.size(), 8, big);
  bytes += content;
}

ContainerLayout layoutOfCAF(const ContainerLayout::Settings& settings) {
  constexpr std::uint64_t floatFlag = 1, littleEndianFlag = 2;
  std::string description;
  appendDouble(description, static_cast<double>(settings.sampleRate), big);
  description += "lpcm";
  appendNumber(description, littleEndianFlag | (isFloat(settings) ? floatFlag : 0), 4, big);
  appendNumber(description, static_cast<std::uint64_t>(frameBytes(settings)), 4, big);
  appendNumber(description, 1, 4, big);  // frames per packet
  appendNumber(description, static_cast<std::uint64_t>(settings.channelCount), 4, big);
  appendNumber(description, bitsPerSample(settings), 4, big);

  ContainerLayout layout;
  layout.head = "caff";
  appendNumber(layout.head, 1, 2, big);  // version
  appendNumber(layout.head, 0, 2, big);  // flags
  appendCAFChunk(layout.head, "desc", description);
  if (!settings.labels.empty()) appendCAFChunk(layout.head, "chan", channelChunk(settings.labels));
  for (const AudioMetadata::Chunk& chunk : settings.chunks)
    appendCAFChunk(layout.head, chunk.id, chunk.bytes);
  constexpr std::uint64_t editCountBytes = 4;
  layout.head += "data";
  appendNumber(layout.head, editCountBytes + static_cast<std::uint64_t>(dataBytes(settings)), 8, big);
  appendNumber(layout.head, 0, 4, big);
  return layout;
}

}  // namespace

ContainerLayout ContainerLayout::of(const Settings& settings) {
  VELLUM_REQUIRE(settings.format.container != Container::flac, "ContainerLayout: FLAC has none");
  switch (settings.format.container) {
    case Container::aiff:
      return layoutOfAIFF(settings);
    case Container::caf:
      return layoutOfCAF(settings);
    default:
      return layoutOfWAV(settings);
  }
}

ByteOrder sampleOrder(Container container) {
  return container == Container::aiff ? ByteOrder::big : ByteOrder::little;
}

std::optional<std::uint32_t> speakerMask(std::span<const AudioChannelLabel> labels) {
  constexpr std::array<AudioChannelLabel, 18> speakers = {1, 2, 3,  4,  33, 34, 7,  8,  9,
                                                          5, 6, 12, 13, 14, 15, 16, 17, 18};
  std::uint32_t mask = 0;
  for (const AudioChannelLabel label : labels) {
    const auto found = std::find(speakers.begin(), speakers.end(), label);
    const auto bit = std::uint32_t{1} << (found - speakers.begin());
    if (found == speakers.end() || bit <= mask) return {};
    mask |= bit;
  }
  return mask;
}

}  // namespace vellum
