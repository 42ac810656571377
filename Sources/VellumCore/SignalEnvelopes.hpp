#pragma once

#include <cstdint>

#include "VellumCore/GeneratorSpec.hpp"

// What shapes a module of `frames` frames. Each works in place on the n frames of the module from frame
// `first` on; however a module is cut, its samples are the same.
namespace vellum {

// Gains in a straight line, of amplitude or of dB, from the first frame to the last, both exact. A single
// frame takes the start's. Gains are finite: at most the largest float.
class LevelEnvelope {
 public:
  LevelEnvelope(const LevelSweep& sweep, std::int64_t frames);
  void apply(float* x, std::int64_t first, std::int64_t n) const;
  float largestGain() const;

 private:
  LevelSweepShape shape_;
  float start_, end_;  // gains, or dB
  std::int64_t frames_;
};

// Bursts with raised-cosine edges, silence between them and after the last. Edges are at most half as long as
// the burst; a burst of no length is all silence.
class BurstEnvelope {
 public:
  BurstEnvelope(const BurstGate& gate, double sampleRate);
  void apply(float* x, std::int64_t first, std::int64_t n) const;

 private:
  std::int64_t on_, period_, ramp_;  // frames
  std::int64_t count_;               // below 1: without end
};

// Raised cosines from the first frame on and to the last. A fade of one frame does nothing, a fade longer
// than the module is cut to its length; where they overlap, both apply.
class FadeEnvelope {
 public:
  FadeEnvelope(double fadeInSeconds, double fadeOutSeconds, std::int64_t frames, double sampleRate);
  void apply(float* x, std::int64_t first, std::int64_t n) const;

 private:
  std::int64_t frames_, fadeIn_, fadeOut_;
};

}  // namespace vellum
