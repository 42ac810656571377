#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <random>
#include <vector>

#include "Support/AudioFiles.hpp"
#include "Support/RealAudio.hpp"
#include "Support/Signals.hpp"

namespace vellum::test {

// A spoken programme whose chapters are known: recorded prompts one after the other, with short pauses inside
// of chapters and long ones between them.
struct Audiobook {
  static constexpr int sampleRate = 8000;

  Audio audio;
  std::vector<double> borderSec;  // middles of the pauses between chapters

  std::size_t chapterCount() const { return borderSec.size() + 1; }
};

// The prompts without what is below -55 dBFS at their ends.
inline std::vector<std::vector<float>> trimmedPrompts() {
  const auto threshold = static_cast<float>(amplitudeOf(-55));
  const auto isSound = [&](float sample) { return std::fabs(sample) >= threshold; };
  std::vector<std::vector<float>> prompts;
  for (const std::string& file : promptFiles()) {
    const std::vector<float> samples = readAudio(file).channels.at(0);
    const auto first = std::find_if(samples.begin(), samples.end(), isSound);
    const auto last = std::find_if(samples.rbegin(), samples.rend(), isSound).base();
    if (first < last) prompts.emplace_back(first, last);
  }
  return prompts;
}

inline double rmsDB(const std::vector<float>& samples) {
  const double energy = std::inner_product(samples.begin(), samples.end(), samples.begin(), 0.0,
                                           std::plus<>(), [](float a, float b) { return double(a) * b; });
  return 10 * std::log10(energy / static_cast<double>(samples.size()));
}

// `seconds` of speech or a little more, in chapters of 3 to 6 minutes, with pauses of 2.5 to 5 s between them
// and of 0.1 to 0.6 s inside.
//   gainDB  of the chapters, again and again
inline Audiobook audiobook(double seconds, const std::vector<double>& gainDB, unsigned seed = 1) {
  constexpr double rate = Audiobook::sampleRate;
  const std::vector<std::vector<float>> prompts = trimmedPrompts();
  std::mt19937 rng(seed);
  Audiobook book;
  std::vector<float>& samples = book.audio.channels.emplace_back();
  const auto secondsSoFar = [&] { return static_cast<double>(samples.size()) / rate; };
  const auto pause = [&](double sec) {
    samples.resize(samples.size() + static_cast<std::size_t>(std::llround(sec * rate)));
  };

  double chapterEnd = uniform(rng, 180, 360);
  for (std::size_t k = 0; !prompts.empty() && secondsSoFar() < seconds; ++k) {
    const auto gain = static_cast<float>(amplitudeOf(gainDB[book.borderSec.size() % gainDB.size()]));
    for (const float sample : prompts[k % prompts.size()]) samples.push_back(gain * sample);
    if (secondsSoFar() < chapterEnd || seconds - secondsSoFar() < 60) {
      pause(uniform(rng, 0.1, 0.6));
      continue;
    }
    const double start = secondsSoFar();
    pause(uniform(rng, 2.5, 5));
    book.borderSec.push_back((start + secondsSoFar()) / 2);
    chapterEnd = secondsSoFar() + uniform(rng, 180, 360);
  }
  return book;
}

}  // namespace vellum::test
