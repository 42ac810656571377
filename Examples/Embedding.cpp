#include <VellumCore/LoudnessProcessor.hpp>

#include <cmath>
#include <cstdio>
#include <vector>

int main() {
  std::vector<float> left(480000), right(480000);  // your planar audio: here 10 s of a tone at 48 kHz
  for (std::size_t n = 0; n < left.size(); ++n)
    left[n] = right[n] = 0.0708f * std::sin(0.1308997f * static_cast<float>(n % 48));
  const float* channels[] = {left.data(), right.data()};
  vellum::LoudnessProcessor meter({48000, 2, std::nullopt, std::nullopt});
  meter.updateTruePeak(channels, 480000);  // chunks of any length, both calls for each
  meter.process(channels, 480000);
  meter.flushPartialBlock();
  std::printf("%.1f LUFS, %.1f dBTP\n", meter.integratedLUFS(), static_cast<double>(meter.truePeakDB()));
}
