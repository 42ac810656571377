#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <random>
#include <span>
#include <vector>

namespace vellum::test {

inline double amplitudeOf(double dB) {
  return std::pow(10.0, dB / 20.0);
}

// Planar audio for tests: channels of one length.
struct Audio {
  std::vector<std::vector<float>> channels;

  Audio() = default;
  Audio(std::size_t channelCount, std::int64_t frameCount)
      : channels(channelCount, std::vector<float>(static_cast<std::size_t>(frameCount))) {}

  std::int64_t frameCount() const {
    return channels.empty() ? 0 : static_cast<std::int64_t>(channels[0].size());
  }

  // One pointer per channel, `offset` frames in.
  std::vector<const float*> pointers(std::int64_t offset = 0) const {
    std::vector<const float*> list;
    for (const auto& channel : channels) list.push_back(channel.data() + offset);
    return list;
  }

  void append(const Audio& next) {
    if (channels.empty()) channels.resize(next.channels.size());
    for (std::size_t c = 0; c < channels.size(); ++c)
      channels[c].insert(channels[c].end(), next.channels[c].begin(), next.channels[c].end());
  }
};

// frameCount samples of amplitude sin(2 pi frequency (n + start) / rate + phase), computed in 64 bit.
inline std::vector<float> sine(double sampleRate, std::int64_t frameCount, double frequencyHz,
                               double amplitude, double phase = 0, std::int64_t start = 0) {
  std::vector<float> samples(static_cast<std::size_t>(frameCount));
  for (std::int64_t n = 0; n < frameCount; ++n) {
    const double cycles = frequencyHz * static_cast<double>(n + start) / sampleRate;
    samples[static_cast<std::size_t>(n)] = static_cast<float>(
        amplitude * std::sin(2 * std::numbers::pi * (cycles - std::floor(cycles)) + phase));
  }
  return samples;
}

// The same sine in every channel.
inline Audio sineAudio(std::size_t channelCount, double sampleRate, double seconds, double frequencyHz,
                       double peakDBFS) {
  const auto frames = static_cast<std::int64_t>(std::llround(seconds * sampleRate));
  Audio audio;
  audio.channels.assign(channelCount, sine(sampleRate, frames, frequencyHz, amplitudeOf(peakDBFS)));
  return audio;
}

// A number in [low, high), the same for a seed on every machine.
inline double uniform(std::mt19937& rng, double low, double high) {
  return low + (high - low) * static_cast<double>(rng()) / 4294967296.0;
}

// Uniform white noise in [-amplitude, amplitude), the same for a seed on every machine.
inline std::vector<float> noise(std::mt19937& rng, std::int64_t frameCount, double amplitude) {
  std::vector<float> samples(static_cast<std::size_t>(frameCount));
  for (float& sample : samples)
    sample = static_cast<float>((static_cast<double>(rng()) / 2147483648.0 - 1.0) * amplitude);
  return samples;
}

inline Audio noiseAudio(std::mt19937& rng, std::size_t channelCount, std::int64_t frameCount,
                        double amplitude) {
  Audio audio;
  for (std::size_t c = 0; c < channelCount; ++c) audio.channels.push_back(noise(rng, frameCount, amplitude));
  return audio;
}

// Random chunk lengths that add up to frameCount: single frames, short and long chunks, some of them empty.
inline std::vector<std::int64_t> randomSplits(std::mt19937& rng, std::int64_t frameCount) {
  std::vector<std::int64_t> splits;
  while (frameCount > 0) {
    const std::int64_t largest[] = {0, 1, 13, 997, 4800, 30000};
    const std::int64_t limit = largest[rng() % 6];
    const std::int64_t n =
        std::min<std::int64_t>(limit > 0 ? 1 + static_cast<std::int64_t>(rng()) % limit : 0, frameCount);
    splits.push_back(n);
    frameCount -= n;
  }
  return splits;
}

// Chunks of one length, the last one shorter.
inline std::vector<std::int64_t> equalSplits(std::int64_t frameCount, std::int64_t chunk) {
  std::vector<std::int64_t> splits;
  for (; frameCount > 0; frameCount -= splits.back()) splits.push_back(std::min(chunk, frameCount));
  return splits;
}

// Feeds a LoudnessProcessor as applications do: the true peak first, then the chunk itself.
template <typename Meter>
void feed(Meter& meter, const Audio& audio, std::span<const std::int64_t> splits) {
  std::int64_t offset = 0;
  for (std::int64_t n : splits) {
    const auto pointers = audio.pointers(offset);
    meter.updateTruePeak(pointers, n);
    meter.process(pointers, n);
    offset += n;
  }
}

template <typename Meter>
void feed(Meter& meter, const Audio& audio, std::int64_t chunk = 4800) {
  feed(meter, audio, equalSplits(audio.frameCount(), chunk));
}

}  // namespace vellum::test
