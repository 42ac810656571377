#include "VellumCore/SignalStream.hpp"

#include <algorithm>

#include "VellumCore/Kernels/Kernels.hpp"
#include "VellumCore/SignalArithmetic.hpp"
#include "VellumCore/Support/Require.hpp"

namespace vellum {

namespace {

constexpr std::int64_t blockFrames = 4096;

}  // namespace

SignalStream::SignalStream(const GeneratorSpec& spec, std::optional<std::int64_t> harmonicCap) {
  const std::int64_t frames = spec.frameCount();
  if (frames < 1 || !(spec.sampleRate > 0) || spec.channels.empty()) return;
  frames_ = frames;
  channelCount_ = spec.channelCount();
  voices_.resize(spec.channels.size());
  for (std::size_t c = 0; c < voices_.size(); ++c) {
    const auto& modules = spec.channels[c].modules;
    for (std::size_t m = 0; m < modules.size(); ++m) {
      const std::int64_t offset = framesOfSeconds(modules[m].start, spec.sampleRate);
      if (offset >= frames_) continue;
      voices_[c].push_back({offset, {modules[m], spec.sampleRate, moduleSeed(c, m), harmonicCap}});
    }
  }
  // A ceiling at the floor is none and needs no pass.
  if (spec.peakCeilingDB && flooredAmplitude(*spec.peakCeilingDB) > 0) peakCeilingDB_ = spec.peakCeilingDB;
  block_.resize(blockFrames);
  mix_.resize(blockFrames);
}

std::int64_t SignalStream::unmeasuredFrames() const {
  std::int64_t frames = peakCeilingDB_ ? frames_ - next_ : 0;
  for (const auto& voices : voices_)
    for (const Voice& voice : voices) frames += voice.signal.unmeasuredFrames();
  return frames;
}

void SignalStream::measure(std::int64_t frames) {
  for (auto& voices : voices_)
    for (Voice& voice : voices) {
      const std::int64_t run = std::min(frames, voice.signal.unmeasuredFrames());
      voice.signal.measure(run);
      frames -= run;
    }
  while (frames > 0 && peakCeilingDB_) {
    const std::int64_t run = std::min({frames, frames_ - next_, blockFrames});
    measureCeiling(run);
    frames -= run;
  }
}

void SignalStream::measureCeiling(std::int64_t n) {
  for (auto& voices : voices_) {
    mixChannel(voices, mix_.data(), n);
    peak_ = std::max(peak_, kernels().peakMagnitude(mix_.data(), n));
  }
  next_ += n;
  if (next_ < frames_) return;
  gain_ = ceilingGain(peak_, *peakCeilingDB_);
  peakCeilingDB_.reset();
  next_ = 0;
  for (auto& voices : voices_)
    for (Voice& voice : voices) voice.signal.rewind();
}

// n frames from next_ on, at most a block.
void SignalStream::mixChannel(std::vector<Voice>& voices, float* mix, std::int64_t n) {
  std::fill_n(mix, n, 0.0f);
  for (Voice& voice : voices) {
    const std::int64_t begin = std::max(next_, voice.offset);
    const std::int64_t run = std::min(next_ + n, voice.offset + voice.signal.frameCount()) - begin;
    if (run < 1) continue;
    voice.signal.render(block_.data(), run);
    kernels().add(mix + (begin - next_), block_.data(), run);
  }
}

std::int64_t SignalStream::render(std::span<float* const> channels, std::int64_t frameCount) {
  VELLUM_REQUIRE(static_cast<std::int64_t>(channels.size()) == channelCount_,
                 "SignalStream: render takes one pointer per channel");
  measure(unmeasuredFrames());
  const std::int64_t total = std::clamp<std::int64_t>(frameCount, 0, frames_ - next_);
  for (std::int64_t done = 0; done < total;) {
    const std::int64_t run = std::min(total - done, blockFrames);
    for (std::size_t c = 0; c < channels.size(); ++c) {
      // What nobody wants is made all the same: noise goes on from its last sample.
      float* const mix = channels[c] ? channels[c] + done : mix_.data();
      mixChannel(voices_[c], mix, run);
      if (gain_ < 1) kernels().scale(mix, gain_, run);
    }
    next_ += run;
    done += run;
  }
  return total;
}

}  // namespace vellum
