#pragma once

#include <cstdint>
#include <optional>
#include <variant>

#include "VellumCore/GeneratorSpec.hpp"
#include "VellumCore/SignalEnvelopes.hpp"
#include "VellumCore/SignalSources.hpp"
#include "VellumCore/SumOfSquares.hpp"

namespace vellum {

// The signal of one module, from its first frame to its last, in pieces of any length.
// Life: construct (measure | render | rewind)*; one thread at a time. Only the constructor allocates.
//
// Noise is brought to its RMS and band-limited shapes to their peak over the whole module, so these have to
// be gone through once before their first sample can be told: measure() does that, and render() does what is
// left of it. A module that is rendered whole in one call is measured on the way.
class ModuleSignal {
 public:
  ModuleSignal(const GeneratorModule& module, double sampleRate, std::uint64_t seed,
               std::optional<std::int64_t> harmonicCap);

  std::int64_t frameCount() const { return frames_; }
  std::int64_t unmeasuredFrames() const { return isMeasured() ? 0 : frames_ - measured_; }
  void measure(std::int64_t frames);  // at most so many more

  // Whether levels are so high that the sum of such modules may leave 32 bit. Samples themselves never do:
  // what would be larger than the largest float is that.
  bool mayOverflow() const { return mayOverflow_; }

  // The next n frames, silent after the last.
  void render(float* x, std::int64_t n);
  void rewind() { position_ = 0; }

 private:
  enum class Leveling { none, peak, rms };  // what the source is brought to `amplitude_` by

  bool isMeasured() const { return leveling_ == Leveling::none || measured_ == frames_; }
  void renderSource(float* x, std::int64_t first, std::int64_t n);
  void measure(const float* x, std::int64_t n);
  float level() const;

  std::int64_t frames_;
  float amplitude_;
  std::variant<SilentSource, SineSource, BandlimitedSource, NoiseSource, SweepSource, ImpulseSource> source_;
  Leveling leveling_ = Leveling::none;
  std::optional<LevelEnvelope> levelEnvelope_;
  std::optional<BurstEnvelope> burstEnvelope_;
  FadeEnvelope fadeEnvelope_;
  bool mayOverflow_;

  std::int64_t measured_ = 0;  // frames
  float peak_ = 0;
  SumOfSquares squares_;
  std::int64_t position_ = 0;
};

}  // namespace vellum
