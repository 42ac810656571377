#pragma once

#include <sndfile.h>

#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "Support/Signals.hpp"

namespace vellum::test {

// A kind of audio file as libsndfile writes it.
struct FileKind {
  std::string extension;
  int format;  // SF_FORMAT_... of container and coding
  bool isLossy = false;
};

inline const std::vector<FileKind>& fixedWidthKinds() {
  static const std::vector<FileKind> kinds = {
      {"16.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16},     {"24.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_24},
      {"32.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_32},     {"float.wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT},
      {"double.wav", SF_FORMAT_WAV | SF_FORMAT_DOUBLE}, {"wavex.wav", SF_FORMAT_WAVEX | SF_FORMAT_PCM_24},
      {"rf64", SF_FORMAT_RF64 | SF_FORMAT_PCM_24},      {"w64", SF_FORMAT_W64 | SF_FORMAT_PCM_24},
      {"aiff", SF_FORMAT_AIFF | SF_FORMAT_PCM_24},      {"caf", SF_FORMAT_CAF | SF_FORMAT_PCM_24},
  };
  return kinds;
}

inline const FileKind flac{"flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_24};
inline const FileKind vorbis{"ogg", SF_FORMAT_OGG | SF_FORMAT_VORBIS, true};
inline const FileKind opus{"opus", SF_FORMAT_OGG | SF_FORMAT_OPUS, true};
inline const FileKind mp3{"mp3", SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III, true};
inline const FileKind floatWAV{"wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT};

inline std::vector<FileKind> allKinds() {
  std::vector<FileKind> kinds = fixedWidthKinds();
  kinds.insert(kinds.end(), {flac, vorbis, opus, mp3});
  return kinds;
}

struct WriteSettings {
  double quality = 0.9;          // of lossy codings, 0 to 1
  bool variableBitRate = false;  // of MP3
  std::vector<int> channelMap;   // SF_CHANNEL_MAP_..., one per channel
};

inline void writeAudio(const std::filesystem::path& path, const Audio& audio, int sampleRate,
                       const FileKind& kind, const WriteSettings& settings = {}) {
  SF_INFO info{};
  info.samplerate = sampleRate;
  info.channels = static_cast<int>(audio.channels.size());
  info.format = kind.format;
  SNDFILE* const file = sf_open(path.c_str(), SFM_WRITE, &info);
  if (!file) throw std::runtime_error("cannot write " + path.string() + ": " + sf_strerror(nullptr));
  sf_command(file, SFC_SET_CLIPPING, nullptr, SF_TRUE);
  if (kind.isLossy) {
    double quality = settings.quality;
    sf_command(file, SFC_SET_VBR_ENCODING_QUALITY, &quality, sizeof quality);
    if (kind.format == mp3.format) {
      int mode = settings.variableBitRate ? SF_BITRATE_MODE_VARIABLE : SF_BITRATE_MODE_CONSTANT;
      sf_command(file, SFC_SET_BITRATE_MODE, &mode, sizeof mode);
      double level = 1 - settings.quality;
      sf_command(file, SFC_SET_COMPRESSION_LEVEL, &level, sizeof level);
    }
  }
  if (!settings.channelMap.empty()) {
    std::vector<int> map = settings.channelMap;
    if (sf_command(file, SFC_SET_CHANNEL_MAP_INFO, map.data(), static_cast<int>(map.size() * sizeof(int))) !=
        SF_TRUE)
      throw std::runtime_error("this kind of file takes no such channel map: " + path.string());
  }
  std::vector<float> interleaved;
  for (std::int64_t n = 0; n < audio.frameCount(); ++n)
    for (const auto& channel : audio.channels) interleaved.push_back(channel[static_cast<std::size_t>(n)]);
  const sf_count_t written = sf_writef_float(file, interleaved.data(), audio.frameCount());
  if (sf_close(file) != 0 || written != audio.frameCount())
    throw std::runtime_error("cannot write " + path.string());
}

// The whole file as libsndfile decodes it from start to end.
inline Audio readAudio(const std::filesystem::path& path) {
  SF_INFO info{};
  SNDFILE* const file = sf_open(path.c_str(), SFM_READ, &info);
  if (!file) throw std::runtime_error("cannot read " + path.string() + ": " + sf_strerror(nullptr));
  Audio audio;
  audio.channels.resize(static_cast<std::size_t>(info.channels));
  std::vector<float> interleaved(1024 * audio.channels.size());
  for (sf_count_t frames; (frames = sf_readf_float(file, interleaved.data(), 1024)) > 0;)
    for (std::size_t n = 0; n < static_cast<std::size_t>(frames) * audio.channels.size(); ++n)
      audio.channels[n % audio.channels.size()].push_back(interleaved[n]);
  sf_close(file);
  return audio;
}

// Frames `from` to `to`.
inline Audio cut(const Audio& audio, std::int64_t from, std::int64_t to) {
  Audio part;
  for (const auto& channel : audio.channels)
    part.channels.emplace_back(channel.begin() + from, channel.begin() + to);
  return part;
}

}  // namespace vellum::test
