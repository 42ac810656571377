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
  tracks_.resize(spec.channels.size());
  for (std::size_t c = 0; c < tracks_.size(); ++c) {
    Track& track = tracks_[c];
    const auto& modules = spec.channels[c].modules;
    for (std::size_t m = 0; m < modules.size(); ++m) {
      const std::int64_t offset = framesOfSeconds(modules[m].start, spec.sampleRate);
      if (offset >= frames_) continue;
      track.byOffset.push_back(track.voices.size());
      track.voices.push_back({offset, {modules[m], spec.sampleRate, moduleSeed(c, m), harmonicCap}});
      unmeasuredOfModules_ += track.voices.back().signal.unmeasuredFrames();
    }
    std::stable_sort(track.byOffset.begin(), track.byOffset.end(), [&](std::size_t a, std::size_t b) {
      return track.voices[a].offset < track.voices[b].offset;
    });
    track.sounding.reserve(track.voices.size());
  }
  // A ceiling at the floor is none and needs no pass.
  if (spec.peakCeilingDB && flooredAmplitude(*spec.peakCeilingDB) > 0) peakCeilingDB_ = spec.peakCeilingDB;
  block_.resize(blockFrames);
  mix_.resize(blockFrames);
}

std::int64_t SignalStream::unmeasuredFrames() const {
  return unmeasuredOfModules_ + (peakCeilingDB_ ? frames_ - next_ : 0);
}

void SignalStream::measure(std::int64_t frames) {
  measureModules(frames);
  while (frames > 0 && peakCeilingDB_) {
    const std::int64_t run = std::min({frames, frames_ - next_, blockFrames});
    measureCeiling(run);
    frames -= run;
  }
}

// Takes what it does off `frames`.
void SignalStream::measureModules(std::int64_t& frames) {
  while (frames > 0 && unmeasuredOfModules_ > 0) {
    auto& voices = tracks_[measuredTrack_].voices;
    if (measuredVoice_ == voices.size()) {
      ++measuredTrack_;
      measuredVoice_ = 0;
      continue;
    }
    ModuleSignal& signal = voices[measuredVoice_].signal;
    const std::int64_t run = std::min(frames, signal.unmeasuredFrames());
    signal.measure(run);
    unmeasuredOfModules_ -= run;
    frames -= run;
    if (signal.unmeasuredFrames() == 0) ++measuredVoice_;
  }
}

void SignalStream::measureCeiling(std::int64_t n) {
  for (Track& track : tracks_) {
    mixTrack(track, mix_.data(), n);
    peak_ = std::max(peak_, kernels().peakMagnitude(mix_.data(), n));
  }
  next_ += n;
  if (next_ < frames_) return;
  gain_ = ceilingGain(peak_, *peakCeilingDB_);
  peakCeilingDB_.reset();
  next_ = 0;
  for (Track& track : tracks_) {
    for (Voice& voice : track.voices) voice.signal.rewind();
    track.nextToSound = 0;
    track.sounding.clear();
  }
}

// n frames from next_ on, at most a block.
void SignalStream::mixTrack(Track& track, float* mix, std::int64_t n) {
  std::fill_n(mix, n, 0.0f);
  auto& sounding = track.sounding;
  for (std::size_t& next = track.nextToSound; next < track.byOffset.size(); ++next) {
    const std::size_t place = track.byOffset[next];
    if (track.voices[place].offset >= next_ + n) break;
    sounding.insert(std::lower_bound(sounding.begin(), sounding.end(), place), place);
  }
  const auto isOver = [&](std::size_t place) {
    Voice& voice = track.voices[place];
    const std::int64_t begin = std::max(next_, voice.offset), end = voice.offset + voice.signal.frameCount();
    const std::int64_t run = std::min(next_ + n, end) - begin;
    if (run > 0) {
      float* const target = mix + (begin - next_);
      voice.signal.render(block_.data(), run);
      kernels().add(target, block_.data(), run);
      if (voice.signal.mayOverflow()) saturate(target, run);
    }
    return end <= next_ + n;
  };
  sounding.erase(std::remove_if(sounding.begin(), sounding.end(), isOver), sounding.end());
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
      mixTrack(tracks_[c], mix, run);
      if (gain_ < 1) kernels().scale(mix, gain_, run);
    }
    next_ += run;
    done += run;
  }
  return total;
}

}  // namespace vellum
