#include "VellumApp/Rendering.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <vector>

#include "VellumApp/AudioFile.hpp"
#include "VellumApp/PlanarBuffer.hpp"
#include "VellumCore/TruePeakLimiterDSP.hpp"

namespace vellum {
namespace {

// Gain and limiting, with the limiter's latency taken out again: what comes out stands beside the samples
// that it was made of.
class Chain {
 public:
  Chain(const RenderSettings& settings, double sampleRate, std::int64_t channelCount,
        std::int64_t chunkFrames)
      : gain_(static_cast<float>(std::pow(10.0, settings.gainDB / 20.0))),
        curve_(settings.curve),
        latency_(0),
        output_(channelCount, chunkFrames) {
    if (settings.limiter) {
      limiter_.emplace(
          TruePeakLimiterDSP::Settings{.sampleRate = sampleRate,
                                       .channelCount = channelCount,
                                       .ceilingDB = static_cast<float>(settings.limiter->ceilingDBTP),
                                       .lookaheadMs = static_cast<float>(settings.limiter->lookaheadMs),
                                       .releaseMs = static_cast<float>(settings.limiter->releaseMs),
                                       .maxFrameCount = chunkFrames});
      latency_ = limiter_->lookaheadFrames();
    }
    const std::vector<float> line(static_cast<std::size_t>(latency_ + chunkFrames));
    delayed_.assign(static_cast<std::size_t>(channelCount), line);
    if (curve_) delayedGain_ = delayedLimiting_ = line;
    toDrop_ = latency_;
  }

  double largestReductionDB() const {
    return limiter_ ? std::max(0.0, -20.0 * std::log10(static_cast<double>(limiter_->smallestGain()))) : 0.0;
  }

  // Takes a chunk and hands on the frames that are ready, which are as many once the latency has passed.
  //   handOn(output, original, frameCount): output may be changed; original is null, or NaN, where a gain
  //   changed it
  template <typename HandOn>
  void process(std::span<const float* const> input, std::int64_t frameCount, const HandOn& handOn) {
    for (std::size_t c = 0; c < input.size(); ++c) {
      std::copy_n(input[c], frameCount, delayed_[c].begin() + latency_);
      float* const out = output_.channels()[c];
      for (std::int64_t n = 0; n < frameCount; ++n) out[n] = gain_ * input[c][n];
    }
    if (curve_) applyCurve(frameCount);
    if (limiter_) limiter_->process(output_.channels(), frameCount);
    if (curve_) confineLimiter(frameCount);

    const std::int64_t dropped = std::min(toDrop_, frameCount);
    toDrop_ -= dropped;
    std::vector<float*> ready;
    std::vector<const float*> original;
    for (std::size_t c = 0; c < input.size(); ++c) {
      ready.push_back(output_.channels()[c] + dropped);
      original.push_back(gain_ == 1 ? delayed_[c].data() + dropped : nullptr);
    }
    if (frameCount > dropped) handOn(ready, original, frameCount - dropped);
    for (auto& line : delayed_) advance(line, frameCount);
    if (curve_) {
      advance(delayedGain_, frameCount);
      advance(delayedLimiting_, frameCount);
    }
    inputFrames_ += frameCount;
  }

 private:
  using Line = std::vector<float>;  // the last `latency` frames, then the chunk

  void advance(Line& line, std::int64_t frameCount) const {
    std::copy_n(line.begin() + frameCount, latency_, line.begin());
  }

  // The limiter's input: the gained frames, and silence where it is not to work, so that peaks there change
  // nothing elsewhere.
  void applyCurve(std::int64_t frameCount) {
    const auto size = static_cast<std::size_t>(frameCount);
    const std::span<float> gain{delayedGain_.data() + latency_, size};
    const std::span<float> limiting{delayedLimiting_.data() + latency_, size};
    curve_(inputFrames_, gain, limiting);
    for (float* const out : output_.channels())
      for (std::size_t n = 0; n < size; ++n) out[n] = limiter_ && limiting[n] == 0 ? 0.0f : out[n] * gain[n];
  }

  // Blends what the limiter made with the gained frames, of which it may have seen nothing.
  void confineLimiter(std::int64_t frameCount) {
    constexpr float changed = std::numeric_limits<float>::quiet_NaN();
    for (std::size_t c = 0; c < delayed_.size(); ++c) {
      float* const out = output_.channels()[c];
      for (std::size_t n = 0; n < static_cast<std::size_t>(frameCount); ++n) {
        const float gain = delayedGain_[n], limiting = limiter_ ? delayedLimiting_[n] : 0;
        const float gained = gain_ * delayed_[c][n] * gain;
        if (limiting < 1) out[n] = limiting > 0 ? gained + limiting * (out[n] - gained) : gained;
        if (gain != 1)
          delayed_[c][n] = changed;  // or silence would stay without dither between gained frames
      }
    }
  }

  float gain_;
  GainCurve curve_;
  std::int64_t latency_, toDrop_ = 0, inputFrames_ = 0;
  std::optional<TruePeakLimiterDSP> limiter_;
  PlanarBuffer output_;
  std::vector<Line> delayed_;  // per channel: the input
  Line delayedGain_, delayedLimiting_;
};

}  // namespace

std::optional<RenderResult> render(const std::filesystem::path& path, const RenderSettings& settings,
                                   const RenderSink& sink, const std::function<bool(std::int64_t)>& goOn) {
  AudioFile file(path);
  const std::int64_t channelCount = file.channelCount();
  const std::int64_t chunkFrames = framesPerChunk(channelCount);
  const PlanarBuffer input(channelCount, chunkFrames);
  const std::vector<const float*> chunk = input.constChannels();
  Chain chain(settings, file.sampleRate(), channelCount, chunkFrames);
  SampleQuantiser quantiser(
      {.coding = settings.coding, .dither = settings.dither, .channelCount = channelCount});

  std::int64_t rendered = 0;
  const auto handOn = [&](std::span<float* const> output, std::span<const float* const> original,
                          std::int64_t frameCount) {
    quantiser.quantise(output, original, frameCount);
    sink(std::vector<const float*>(output.begin(), output.end()), frameCount);
    rendered += frameCount;
  };

  while (const std::int64_t frameCount = file.read(input.channels(), chunkFrames)) {
    if (!goOn(rendered)) return {};
    chain.process(chunk, frameCount, handOn);
  }
  // Silence behind the end brings out what the limiter still holds.
  for (float* const channel : input.channels()) std::fill_n(channel, chunkFrames, 0.0f);
  while (rendered < file.position())
    chain.process(chunk, std::min(chunkFrames, file.position() - rendered), handOn);

  return RenderResult{.frameCount = rendered,
                      .largestReductionDB = chain.largestReductionDB(),
                      .clippedSamples = quantiser.clippedSamples()};
}

}  // namespace vellum
