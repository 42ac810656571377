#include <VellumCore/LoudnessProcessor.hpp>
#include <cmath>
#include <cstdio>
#include <numbers>
#include <vector>

#include "NoLibraries.hpp"

// The integrated loudness of one second of 997 Hz at -20 dBFS on one channel.
int main() {
  constexpr int sampleRate = 48000;
  std::vector<float> tone;
  for (int n = 0; n < sampleRate; ++n)
    tone.push_back(static_cast<float>(0.1 * std::sin(2 * std::numbers::pi * 997 * n / sampleRate)));

  vellum::LoudnessProcessor meter({.sampleRate = sampleRate,
                                   .channelCount = 1,
                                   .precomputedSpeechHistory = std::nullopt,
                                   .channelWeights = std::nullopt});
  const float* const channels[] = {tone.data()};
  meter.process(channels, sampleRate);
  std::printf("%.1f LUFS\n", static_cast<double>(meter.integratedLUFS()));
}
