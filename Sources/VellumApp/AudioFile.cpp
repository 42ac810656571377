#include "VellumApp/AudioFile.hpp"

#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string_view>
#include <utility>

#include "VellumApp/ChannelMaps.hpp"
#include "VellumApp/Descriptor.hpp"
#include "VellumApp/MetadataForms.hpp"
#include "VellumApp/RegularFile.hpp"
#include "VellumApp/TimeText.hpp"
#include "VellumCore/LoudnessProcessor.hpp"
#include "VellumCore/Support/Require.hpp"

namespace vellum {
namespace {

constexpr const char* notOurAudio =
    "it is not audio that this program reads (WAV, RF64, W64, AIFF, CAF, FLAC, Ogg Vorbis, Opus, MP3)";

// The bytes of a file, as libsndfile wants them.
struct Source {
  Descriptor file;
  std::int64_t size = 0;
  int readError = 0;  // errno of a read that failed

  std::int64_t position() const { return ::lseek(file.get(), 0, SEEK_CUR); }
};

Source openSource(const std::filesystem::path& path) {
  Source source;
  source.file = openRegularFile(path);
  struct stat status;
  if (::fstat(source.file.get(), &status) != 0)
    throw FileError("it cannot be opened: " + systemErrorText(errno));
  if (status.st_size == 0) throw FileError("the file is empty");
  source.size = status.st_size;
  return source;
}

sf_count_t sourceLength(void* user) {
  return static_cast<Source*>(user)->size;
}

// Only the MP3 decoder asks for the end: it divides the size by the first packet's bit rate and takes the
// result for the length, which ends a file of variable bit rate that does not tell its length far too early.
// Refused that, it decodes what there is.
sf_count_t sourceSeek(sf_count_t offset, int whence, void* user) {
  return whence == SEEK_END ? -1 : ::lseek(static_cast<Source*>(user)->file.get(), offset, whence);
}

sf_count_t sourceRead(void* bytes, sf_count_t count, void* user) {
  Source& source = *static_cast<Source*>(user);
  sf_count_t done = 0;
  while (done < count) {
    const ssize_t got =
        ::read(source.file.get(), static_cast<char*>(bytes) + done, static_cast<std::size_t>(count - done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) source.readError = errno;
    if (got <= 0) break;
    done += got;
  }
  return done;
}

sf_count_t sourceWrite(const void*, sf_count_t, void*) {
  return 0;
}
sf_count_t sourceTell(void* user) {
  return static_cast<Source*>(user)->position();
}

struct CloseSndfile {
  void operator()(SNDFILE* file) const { sf_close(file); }
};
using Sndfile = std::unique_ptr<SNDFILE, CloseSndfile>;

Sndfile openSndfile(Source& source, SF_INFO& info) {
  static std::mutex mutex;  // libsndfile keeps the reason of a failed open in one place for all threads
  const std::lock_guard lock(mutex);
  SF_VIRTUAL_IO functions{sourceLength, sourceSeek, sourceRead, sourceWrite, sourceTell};
  Sndfile file(sf_open_virtual(&functions, SFM_READ, &info, &source));
  if (!file) {
    if (source.readError != 0) throw FileError("it cannot be read: " + systemErrorText(source.readError));
    throw FileError(sf_error(nullptr) == SF_ERR_UNRECOGNISED_FORMAT
                        ? notOurAudio
                        : "it is damaged, cut short, or encoded in a way that this program does not read");
  }
  return file;
}

struct Format {
  int container, coding;  // SF_FORMAT_...

  bool isFLAC() const { return container == SF_FORMAT_FLAC; }
  bool isOgg() const { return container == SF_FORMAT_OGG; }
  bool isMPEG() const { return container == SF_FORMAT_MPEG; }
  bool isWAVE() const {
    return container == SF_FORMAT_WAV || container == SF_FORMAT_WAVEX || container == SF_FORMAT_RF64 ||
           container == SF_FORMAT_W64;
  }
};

std::string_view containerName(const Format& format) {
  switch (format.container) {
    case SF_FORMAT_WAV:
    case SF_FORMAT_WAVEX:
      return "WAV";
    case SF_FORMAT_RF64:
      return "RF64";
    case SF_FORMAT_W64:
      return "W64";
    case SF_FORMAT_AIFF:
      return "AIFF";
    case SF_FORMAT_CAF:
      return "CAF";
    case SF_FORMAT_FLAC:
      return "FLAC";
    case SF_FORMAT_OGG:
      return "Ogg";
    case SF_FORMAT_MPEG:
      return "MPEG";
    default:
      return {};
  }
}

AudioMetadata::Family familyOf(const Format& format) {
  if (format.isWAVE()) return AudioMetadata::Family::riff;
  switch (format.container) {
    case SF_FORMAT_AIFF:
      return AudioMetadata::Family::aiff;
    case SF_FORMAT_CAF:
      return AudioMetadata::Family::caf;
    case SF_FORMAT_FLAC:
      return AudioMetadata::Family::flac;
    default:
      return AudioMetadata::Family::none;
  }
}

// Tags as far as libsndfile reads them.
std::map<AudioTag, std::string> tagsOf(SNDFILE* file) {
  constexpr std::array<std::pair<int, AudioTag>, 10> words = {{
      {SF_STR_TITLE, AudioTag::title},
      {SF_STR_ARTIST, AudioTag::artist},
      {SF_STR_ALBUM, AudioTag::album},
      {SF_STR_DATE, AudioTag::date},
      {SF_STR_COMMENT, AudioTag::comment},
      {SF_STR_GENRE, AudioTag::genre},
      {SF_STR_TRACKNUMBER, AudioTag::trackNumber},
      {SF_STR_COPYRIGHT, AudioTag::copyright},
      {SF_STR_LICENSE, AudioTag::license},
      {SF_STR_SOFTWARE, AudioTag::software},
  }};
  std::map<AudioTag, std::string> tags;
  for (const auto& [word, tag] : words)
    if (const char* text = sf_get_string(file, word); text && *text) tags.emplace(tag, text);
  return tags;
}

struct Coding {
  int coding;  // SF_FORMAT_...
  std::string_view name;
  std::int64_t bytesPerSample;  // 0 where samples have no fixed width
};

constexpr std::array<Coding, 20> codings = {{
    {SF_FORMAT_PCM_S8, "8-bit", 1},
    {SF_FORMAT_PCM_U8, "8-bit", 1},
    {SF_FORMAT_PCM_16, "16-bit", 2},
    {SF_FORMAT_PCM_24, "24-bit", 3},
    {SF_FORMAT_PCM_32, "32-bit", 4},
    {SF_FORMAT_FLOAT, "32-bit float", 4},
    {SF_FORMAT_DOUBLE, "64-bit float", 8},
    {SF_FORMAT_ULAW, "mu-law", 1},
    {SF_FORMAT_ALAW, "A-law", 1},
    {SF_FORMAT_ALAC_16, "ALAC 16-bit", 0},
    {SF_FORMAT_ALAC_20, "ALAC 20-bit", 0},
    {SF_FORMAT_ALAC_24, "ALAC 24-bit", 0},
    {SF_FORMAT_ALAC_32, "ALAC 32-bit", 0},
    {SF_FORMAT_IMA_ADPCM, "IMA ADPCM", 0},
    {SF_FORMAT_MS_ADPCM, "Microsoft ADPCM", 0},
    {SF_FORMAT_VORBIS, "Vorbis", 0},
    {SF_FORMAT_OPUS, "Opus", 0},
    {SF_FORMAT_MPEG_LAYER_I, "layer 1", 0},
    {SF_FORMAT_MPEG_LAYER_II, "layer 2", 0},
    {SF_FORMAT_MPEG_LAYER_III, "layer 3", 0},
}};

const Coding* findCoding(int coding) {
  const auto found =
      std::find_if(codings.begin(), codings.end(), [=](const Coding& c) { return c.coding == coding; });
  return found == codings.end() ? nullptr : &*found;
}

// Width of integers that 32-bit floats hold exactly, 0 for any other coding.
std::int64_t exactIntegerBits(int coding) {
  switch (coding) {
    case SF_FORMAT_PCM_S8:
    case SF_FORMAT_PCM_U8:
      return 8;
    case SF_FORMAT_PCM_16:
    case SF_FORMAT_ALAC_16:
      return 16;
    case SF_FORMAT_PCM_24:
    case SF_FORMAT_ALAC_20:
    case SF_FORMAT_ALAC_24:
      return 24;
    default:
      return 0;
  }
}

bool isLossless(int coding) {
  return exactIntegerBits(coding) > 0 || coding == SF_FORMAT_PCM_32 || coding == SF_FORMAT_ALAC_32 ||
         coding == SF_FORMAT_FLOAT || coding == SF_FORMAT_DOUBLE;
}

std::optional<Container> writableContainer(const Format& format) {
  switch (format.container) {
    case SF_FORMAT_WAV:
    case SF_FORMAT_WAVEX:
    case SF_FORMAT_W64:
      return Container::wav;
    case SF_FORMAT_RF64:
      return Container::rf64;
    case SF_FORMAT_AIFF:
      return Container::aiff;
    case SF_FORMAT_CAF:
      return Container::caf;
    case SF_FORMAT_FLAC:
      return Container::flac;
    default:
      return {};
  }
}

std::string formatNameOf(const Format& format) {
  if (format.coding == SF_FORMAT_MPEG_LAYER_III) return "MP3";
  std::string name(containerName(format));
  if (const Coding* coding = findCoding(format.coding)) name.append(" ").append(coding->name);
  return name;
}

// An entry of a WAVE file's channel map in our labels: "rear" is the speaker mask's back pair, "side" the
// surround pair.
struct MapEntry {
  int entry;  // SF_CHANNEL_MAP_...
  AudioChannelLabel label;
};

constexpr std::array<MapEntry, 22> mapEntries = {{
    {SF_CHANNEL_MAP_MONO, 42},
    {SF_CHANNEL_MAP_LEFT, 1},
    {SF_CHANNEL_MAP_FRONT_LEFT, 1},
    {SF_CHANNEL_MAP_RIGHT, 2},
    {SF_CHANNEL_MAP_FRONT_RIGHT, 2},
    {SF_CHANNEL_MAP_CENTER, 3},
    {SF_CHANNEL_MAP_FRONT_CENTER, 3},
    {SF_CHANNEL_MAP_LFE, 4},
    {SF_CHANNEL_MAP_FRONT_LEFT_OF_CENTER, 7},
    {SF_CHANNEL_MAP_FRONT_RIGHT_OF_CENTER, 8},
    {SF_CHANNEL_MAP_REAR_CENTER, 9},
    {SF_CHANNEL_MAP_REAR_LEFT, 33},
    {SF_CHANNEL_MAP_REAR_RIGHT, 34},
    {SF_CHANNEL_MAP_SIDE_LEFT, 5},
    {SF_CHANNEL_MAP_SIDE_RIGHT, 6},
    {SF_CHANNEL_MAP_TOP_CENTER, 12},
    {SF_CHANNEL_MAP_TOP_FRONT_LEFT, 13},
    {SF_CHANNEL_MAP_TOP_FRONT_CENTER, 14},
    {SF_CHANNEL_MAP_TOP_FRONT_RIGHT, 15},
    {SF_CHANNEL_MAP_TOP_REAR_LEFT, 16},
    {SF_CHANNEL_MAP_TOP_REAR_CENTER, 17},
    {SF_CHANNEL_MAP_TOP_REAR_RIGHT, 18},
}};

// Labels from a WAVE file's channel map; none if an entry is unknown or stands there twice.
ChannelMaps::Labels labelsOfMap(SNDFILE* file, int channelCount) {
  std::vector<int> map(static_cast<std::size_t>(channelCount));
  const int bytes = static_cast<int>(map.size() * sizeof(int));
  if (sf_command(file, SFC_GET_CHANNEL_MAP_INFO, map.data(), bytes) != SF_TRUE) return {};
  ChannelMaps::Labels labels;
  for (const int wanted : map) {
    const auto found = std::find_if(mapEntries.begin(), mapEntries.end(),
                                    [=](const MapEntry& known) { return known.entry == wanted; });
    if (found == mapEntries.end()) return {};
    labels.push_back(found->label);
  }
  return ChannelMaps::isMap(labels) ? labels : ChannelMaps::Labels{};
}

std::uint64_t littleEndian(const unsigned char* bytes, int count) {
  std::uint64_t value = 0;
  for (int k = count - 1; k >= 0; --k) value = value << 8 | bytes[k];
  return value;
}

// Bytes of the tags (ID3v1, APE) at the end of an MP3 file. The decoder takes them for damage.
std::int64_t endTagBytes(const Source& source) {
  constexpr std::int64_t id3Bytes = 128, apeFooterBytes = 32;
  std::int64_t bytes = 0;
  const auto startsWith = [&](std::int64_t bytesBeforeEnd, std::string_view word, auto& block) {
    return ::pread(source.file.get(), block.data(), block.size(), source.size - bytesBeforeEnd) ==
               static_cast<ssize_t>(block.size()) &&
           std::memcmp(block.data(), word.data(), word.size()) == 0;
  };
  std::array<unsigned char, 3> id3;
  if (startsWith(id3Bytes, "TAG", id3)) bytes = id3Bytes;
  std::array<unsigned char, apeFooterBytes> ape;
  if (startsWith(bytes + apeFooterBytes, "APETAGEX", ape)) {
    const bool hasHeader = ape[23] & 0x80;
    bytes += static_cast<std::int64_t>(littleEndian(&ape[12], 4)) + (hasHeader ? apeFooterBytes : 0);
  }
  return bytes;
}

struct Chunk {
  std::int64_t size;
  std::vector<unsigned char> start;  // its first bytes
};

std::optional<Chunk> findChunk(SNDFILE* file, const char* id, std::size_t wantedBytes) {
  SF_CHUNK_INFO info{};
  std::memcpy(info.id, id, 4);
  info.id_size = 4;
  SF_CHUNK_ITERATOR* const iterator = sf_get_chunk_iterator(file, &info);
  if (!iterator || sf_get_chunk_size(iterator, &info) != SF_ERR_NO_ERROR) return {};
  Chunk chunk{info.datalen, std::vector<unsigned char>(std::min<std::size_t>(info.datalen, wantedBytes))};
  info.datalen = static_cast<unsigned>(chunk.start.size());
  info.data = chunk.start.data();
  if (wantedBytes > 0 && sf_get_chunk_data(iterator, &info) != SF_ERR_NO_ERROR) return {};
  return chunk;
}

// Labels from the chunk that AIFF calls CHAN and CAF chan. libsndfile reads only some of its forms.
ChannelMaps::Labels labelsOfChunk(SNDFILE* file, const char* id, int channelCount) {
  const auto chunk = findChunk(file, id, ChannelMaps::channelChunkBytes(channelCount));
  if (!chunk) return {};
  const std::string bytes(chunk->start.begin(), chunk->start.end());
  return ChannelMaps::labelsOfChannelChunk(bytes, channelCount);
}

// One label per channel; none where the file does not tell.
ChannelMaps::Labels labelsOf(SNDFILE* file, const Format& format, int channelCount) {
  switch (format.container) {
    case SF_FORMAT_FLAC:
      return ChannelMaps::flacOrder(channelCount);
    case SF_FORMAT_OGG:
      return ChannelMaps::vorbisOrder(channelCount);
    case SF_FORMAT_AIFF:
      return labelsOfChunk(file, "CHAN", channelCount);
    case SF_FORMAT_CAF:
      return labelsOfChunk(file, "chan", channelCount);
    default:
      return labelsOfMap(file, channelCount);
  }
}

// Writers that cannot go back to their header leave a size near one of these there.
bool isPlaceholder(std::int64_t bytes) {
  constexpr std::array<std::int64_t, 3> marks = {0x7F000000, 0x80000000, 0x100000000};
  return std::any_of(marks.begin(), marks.end(),
                     [=](std::int64_t mark) { return std::abs(bytes - mark) <= 0x10000; });
}

// Bytes of audio by the header of a file of fixed sample width, where it tells.
std::optional<std::int64_t> claimedBytes(SNDFILE* file, const Format& format, const Source& source,
                                         std::int64_t heldBytes) {
  constexpr std::uint64_t absurd = std::uint64_t{1} << 60;
  std::optional<std::int64_t> bytes;
  switch (format.container) {
    case SF_FORMAT_WAV:
    case SF_FORMAT_WAVEX:
      if (const auto chunk = findChunk(file, "data", 0)) bytes = chunk->size;
      break;
    case SF_FORMAT_AIFF:
      if (const auto chunk = findChunk(file, "SSND", 0)) bytes = chunk->size - 8;  // offset and block size
      break;
    case SF_FORMAT_RF64:
      if (const auto chunk = findChunk(file, "ds64", 16); chunk && chunk->start.size() == 16)
        if (const auto size = littleEndian(&chunk->start[8], 8); size < absurd)
          bytes = static_cast<std::int64_t>(size);
      break;
    case SF_FORMAT_W64: {
      // Its chunks cannot be asked for: the size of the whole file stands at the same place in all of them.
      std::array<unsigned char, 8> field{};
      if (::pread(source.file.get(), field.data(), field.size(), 16) == static_cast<ssize_t>(field.size()))
        if (const auto size = littleEndian(field.data(), 8); size < absurd)
          bytes = heldBytes + std::max<std::int64_t>(0, static_cast<std::int64_t>(size) - source.size);
      break;
    }
    default:
      bytes = heldBytes;
  }
  return bytes && isPlaceholder(*bytes) ? std::nullopt : bytes;
}

// Frames by the file's own word. The decoder cuts its count down to what a file of fixed sample width holds.
std::optional<std::int64_t> claimedFrames(SNDFILE* file, const SF_INFO& info, const Format& format,
                                          const Source& source) {
  constexpr std::int64_t absurd = std::int64_t{1} << 60;
  if (info.frames >= absurd) return {};
  const Coding* coding = findCoding(format.coding);
  if (format.isFLAC() || !coding || coding->bytesPerSample == 0) return info.frames;
  const std::int64_t frameBytes = coding->bytesPerSample * info.channels;
  const auto bytes = claimedBytes(file, format, source, info.frames * frameBytes);
  if (!bytes) return {};
  return std::max(*bytes / frameBytes, std::int64_t{info.frames});
}

}  // namespace

struct AudioFile::Decoder {
  std::filesystem::path path;
  Source source;
  SF_INFO info{};
  Sndfile file;
  Format format{};
  std::string formatName;
  std::optional<std::int64_t> claimedFrameCount;
  std::vector<AudioChannelLabel> labels;

  std::int64_t position = 0;
  bool isAtEnd = false;
  bool hasFailed = false;  // the decoder met something that it cannot decode
  std::optional<std::string> endWarning;
  std::vector<float> interleaved;  // scratch

  explicit Decoder(std::filesystem::path filePath) : path(std::move(filePath)), source(openSource(path)) {
    file = openSndfile(source, info);
    format = {info.format & SF_FORMAT_TYPEMASK, info.format & SF_FORMAT_SUBMASK};
    if (containerName(format).empty()) throw FileError(notOurAudio);
    if (info.samplerate < LoudnessProcessor::lowestSampleRate ||
        info.samplerate > LoudnessProcessor::highestSampleRate)
      throw FileError("its sample rate of " + std::to_string(info.samplerate) +
                      " Hz is outside of 5 to 1,000,000 Hz");
    formatName = formatNameOf(format);
    claimedFrameCount = claimedFrames(file.get(), info, format, source);
    labels = labelsOf(file.get(), format, info.channels);
  }

  std::int64_t channelCount() const { return info.channels; }
  std::string timeText(std::int64_t frames) const {
    return secondsText(static_cast<double>(frames) / info.samplerate);
  }

  // A decoder that fails drops what it was asked for in that call, so MP3 is asked for one packet at a time.
  std::int64_t framesPerPiece() const {
    constexpr std::int64_t samplesPerPiece = 16'384, packetFrames = 1'152;
    return format.isMPEG() ? packetFrames : std::max<std::int64_t>(1, samplesPerPiece / channelCount());
  }

  // Decodes up to one piece into `interleaved`; 0 at the end of what can be decoded.
  std::int64_t decodePiece(std::int64_t frameCount) {
    if (isAtEnd || hasFailed) return 0;
    const std::int64_t wanted = std::min(frameCount, framesPerPiece());
    interleaved.resize(static_cast<std::size_t>(wanted * channelCount()));
    const std::int64_t got =
        std::max<std::int64_t>(0, sf_readf_float(file.get(), interleaved.data(), wanted));
    hasFailed = sf_error(file.get()) != SF_ERR_NO_ERROR;
    position += got;
    return got;
  }

  void deinterleave(std::span<float* const> channelData, std::int64_t offset, std::int64_t frameCount) const {
    for (std::size_t c = 0; c < channelData.size(); ++c) {
      if (!channelData[c]) continue;
      const float* in = interleaved.data() + c;
      float* const out = channelData[c] + offset;
      for (std::int64_t n = 0; n < frameCount; ++n, in += channelData.size()) out[n] = *in;
    }
  }

  // Nothing more can be decoded: the proper end, an early end, or damage.
  void reachEnd() {
    isAtEnd = true;
    if (source.readError != 0) throw FileError("it cannot be read: " + systemErrorText(source.readError));
    const std::int64_t endBytes = format.isMPEG() ? endTagBytes(source) : 0;
    const std::int64_t leftBytes = std::max<std::int64_t>(0, source.size - endBytes - source.position());
    const bool isWhole = claimedFrameCount && position >= *claimedFrameCount;
    if (hasFailed && !isWhole && leftBytes > 0)
      throw FileError("it is damaged: it cannot be decoded beyond " + timeText(position));
    const bool isCut = hasFailed && !isWhole && endBytes == 0;
    endWarning = describeEnd(isCut, leftBytes);
  }

  std::optional<std::string> describeEnd(bool isCut, std::int64_t leftBytes) const {
    constexpr std::int64_t slackBytes = 4'096, mp3SlackFrames = 2 * 1'152;
    const bool isStream = format.isOgg() || format.isMPEG();
    if (isStream && leftBytes > slackBytes)
      return "decoding ended after " + timeText(position) + ", the last " + std::to_string(leftBytes) +
             " bytes of the file were not read";
    if (isCut && !claimedFrameCount)
      return "the file is cut short: it ends after " + timeText(position) + " in the middle of a packet";
    if (format.isOgg() && !claimedFrameCount)
      return "the file has no end mark and may be cut short: it holds " + timeText(position);
    if (claimedFrameCount && position < *claimedFrameCount - (format.isMPEG() ? mp3SlackFrames : 0))
      return "the file is shorter than its header says: it holds " + timeText(position) + " of " +
             timeText(*claimedFrameCount);
    if (position == 0 && source.size > slackBytes)
      return "the header says that there is no audio, but the file is " + std::to_string(source.size) +
             " bytes long";
    return {};
  }

  // Samples of fixed width, and FLAC, decode the same from wherever one starts.
  bool seeksToTheSample() const {
    const Coding* coding = findCoding(format.coding);
    return format.isFLAC() || (coding && coding->bytesPerSample > 0);
  }

  // False where the decoder has to come to the frame by decoding.
  bool seekDirectly(std::int64_t frame) {
    if (!seeksToTheSample() || frame >= info.frames) return false;
    if (sf_seek(file.get(), frame, SEEK_SET) != frame) return false;
    position = frame;
    isAtEnd = hasFailed = false;
    endWarning.reset();
    return true;
  }
};

AudioFile::AudioFile(const std::filesystem::path& path) : decoder_(std::make_unique<Decoder>(path)) {}
AudioFile::~AudioFile() = default;
AudioFile::AudioFile(AudioFile&&) noexcept = default;
AudioFile& AudioFile::operator=(AudioFile&&) noexcept = default;

double AudioFile::sampleRate() const {
  return decoder_->info.samplerate;
}
std::int64_t AudioFile::channelCount() const {
  return decoder_->channelCount();
}
const std::string& AudioFile::formatName() const {
  return decoder_->formatName;
}
std::optional<std::int64_t> AudioFile::claimedFrameCount() const {
  return decoder_->claimedFrameCount;
}
const std::vector<AudioChannelLabel>& AudioFile::channelLabels() const {
  return decoder_->labels;
}
bool AudioFile::isLossy() const {
  return !isLossless(decoder_->format.coding);
}
std::int64_t AudioFile::integerBits() const {
  return exactIntegerBits(decoder_->format.coding);
}
std::optional<AudioFileFormat> AudioFile::writableFormat() const {
  const auto container = writableContainer(decoder_->format);
  if (!container || isLossy()) return {};
  const std::int64_t bits = integerBits();
  const SampleCoding coding = bits == 0   ? SampleCoding::float32
                              : bits > 16 ? SampleCoding::pcm24
                                          : SampleCoding::pcm16;
  return AudioFileFormat{*container, coding};
}
AudioMetadata AudioFile::metadata() const {
  const AudioMetadata::Family family = familyOf(decoder_->format);
  AudioMetadata metadata = MetadataForms::read(decoder_->source.file.get(), family);
  if (family == AudioMetadata::Family::none) metadata.tags = tagsOf(decoder_->file.get());
  return metadata;
}
std::int64_t AudioFile::position() const {
  return decoder_->position;
}
const std::optional<std::string>& AudioFile::endWarning() const {
  return decoder_->endWarning;
}

std::int64_t AudioFile::read(std::span<float* const> channelData, std::int64_t frameCount) {
  VELLUM_REQUIRE(static_cast<std::int64_t>(channelData.size()) == channelCount(),
                 "AudioFile: read takes one buffer per channel");
  std::int64_t done = 0;
  while (done < frameCount) {
    const std::int64_t got = decoder_->decodePiece(frameCount - done);
    if (got == 0) {
      if (done == 0 && !decoder_->isAtEnd) decoder_->reachEnd();
      break;
    }
    decoder_->deinterleave(channelData, done, got);
    done += got;
  }
  return done;
}

bool AudioFile::seekTo(std::int64_t frame, const std::function<bool()>& goOn) {
  if (decoder_->seekDirectly(frame)) return true;
  if (decoder_->seeksToTheSample() || frame < decoder_->position)
    decoder_ = std::make_unique<Decoder>(decoder_->path);  // from the start
  while (decoder_->position < frame) {
    if (!goOn()) return false;
    if (decoder_->decodePiece(frame - decoder_->position) == 0) break;
  }
  return true;
}

}  // namespace vellum
