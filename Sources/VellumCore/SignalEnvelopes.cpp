#include "VellumCore/SignalEnvelopes.hpp"

#include <algorithm>

#include "VellumCore/Kernels/Kernels.hpp"
#include "VellumCore/SignalArithmetic.hpp"

namespace vellum {

// --- Level -----------------------------------------------------------------------------------------------

LevelEnvelope::LevelEnvelope(const LevelSweep& sweep, std::int64_t frames)
    : shape_(sweep.shape), start_(sweep.startDB), end_(sweep.endDB), frames_(frames) {
  if (shape_ == LevelSweepShape::linear) {
    start_ = flooredAmplitude(sweep.startDB);
    end_ = flooredAmplitude(sweep.endDB);
  }
}

float LevelEnvelope::largestGain() const {
  float gain = std::max(start_, end_);
  if (shape_ == LevelSweepShape::linear) return gain;
  kernels().decibelsToGains(&gain, 1);
  saturate(&gain, 1);
  return gain;
}

void LevelEnvelope::apply(float* x, std::int64_t first, std::int64_t n) const {
  constexpr std::int64_t block = 512;
  float gains[block];
  const double start = static_cast<double>(start_), rise = static_cast<double>(end_) - start;
  const double last = static_cast<double>(std::max<std::int64_t>(frames_ - 1, 1));
  for (std::int64_t done = 0; done < n; done += block) {
    const std::int64_t run = std::min(n - done, block), from = first + done;
    for (std::int64_t i = 0; i < run; ++i)
      gains[i] = static_cast<float>(start + rise * static_cast<double>(from + i) / last);
    // Rounding may keep the line from ending where it should.
    if (from + run == frames_ && frames_ > 1) gains[run - 1] = end_;
    if (shape_ == LevelSweepShape::logarithmic) {
      kernels().decibelsToGains(gains, run);
      saturate(gains, run);
    }
    kernels().multiply(x + done, gains, x + done, run);
  }
}

// --- Bursts ----------------------------------------------------------------------------------------------

BurstEnvelope::BurstEnvelope(const BurstGate& gate, double sampleRate)
    : on_(framesOfSeconds(gate.onSeconds, sampleRate)),
      period_(on_ + framesOfSeconds(gate.offSeconds, sampleRate)),
      ramp_(std::min(on_ / 2, framesOfSeconds(gate.rampMilliseconds / 1000, sampleRate))),
      count_(gate.count) {}

void BurstEnvelope::apply(float* x, std::int64_t first, std::int64_t n) const {
  if (on_ < 1) {
    std::fill_n(x, n, 0.0f);
    return;
  }
  for (std::int64_t i = 0; i < n;) {
    const std::int64_t p = (first + i) % period_;  // frames since this burst began
    const bool isOver = count_ >= 1 && (first + i) / period_ >= count_;
    const auto runTo = [&](std::int64_t border) { return std::min(n - i, border - p); };
    std::int64_t run = 0;
    if (isOver || p >= on_) {
      run = isOver ? n - i : runTo(period_);
      std::fill_n(x + i, run, 0.0f);
    } else if (p < ramp_) {
      run = runTo(ramp_);
      kernels().raisedCosine(p, 1, ramp_, x + i, run);
    } else if (p < on_ - ramp_) {
      run = runTo(on_ - ramp_);
    } else {
      run = runTo(on_);
      kernels().raisedCosine(on_ - 1 - p, -1, ramp_, x + i, run);
    }
    i += run;
  }
}

// --- Fades -----------------------------------------------------------------------------------------------

FadeEnvelope::FadeEnvelope(double fadeInSeconds, double fadeOutSeconds, std::int64_t frames,
                           double sampleRate)
    : frames_(frames),
      fadeIn_(std::min(frames, framesOfSeconds(fadeInSeconds, sampleRate))),
      fadeOut_(std::min(frames, framesOfSeconds(fadeOutSeconds, sampleRate))) {}

void FadeEnvelope::apply(float* x, std::int64_t first, std::int64_t n) const {
  if (fadeIn_ >= 2 && first < fadeIn_)
    kernels().raisedCosine(first, 1, fadeIn_ - 1, x, std::min(n, fadeIn_ - first));
  if (fadeOut_ >= 2 && first + n > frames_ - fadeOut_) {
    const std::int64_t from = std::max(first, frames_ - fadeOut_);
    kernels().raisedCosine(frames_ - 1 - from, -1, fadeOut_ - 1, x + (from - first), first + n - from);
  }
}

}  // namespace vellum
