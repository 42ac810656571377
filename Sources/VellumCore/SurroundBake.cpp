#include "VellumCore/SurroundBake.hpp"

#include <algorithm>
#include <cstddef>

#include "VellumCore/Kernels/Kernels.hpp"
#include "VellumCore/Support/Require.hpp"

namespace vellum::SurroundBake {
namespace {

constexpr std::int64_t taps = 2 * quadratureDelayFrames + 1;
constexpr std::int64_t blockFrames = 8192;  // bounds the scratch of each source

}  // namespace

std::vector<std::vector<float>> render(std::span<const std::vector<float>> source,
                                       std::span<const std::vector<Route>> outputRoutes,
                                       [[maybe_unused]] double sampleRate) {
  const std::size_t frames = source.empty() ? 0 : source.front().size();
  std::vector<std::vector<float>> outputs(outputRoutes.size(), std::vector<float>(frames));
  if (frames == 0) return outputs;
  Stream stream(static_cast<std::int64_t>(source.size()), outputRoutes);
  std::vector<const float*> from;
  for (std::size_t s = 0; s < source.size(); ++s) {
    VELLUM_REQUIRE(source[s].size() >= frames || !stream.isRouted(static_cast<std::int64_t>(s)),
                   "SurroundBake: no source of a route may be shorter than the first");
    from.push_back(source[s].data());
  }
  std::vector<float*> to;
  for (std::vector<float>& channel : outputs) to.push_back(channel.data());
  stream.process(from, static_cast<std::int64_t>(frames), to);
  return outputs;
}

Stream::Stream(std::int64_t sourceCount, std::span<const std::vector<Route>> outputRoutes)
    : sourceCount_(std::max<std::int64_t>(sourceCount, 0)), isDelayed_(false) {
  isRouted_.resize(static_cast<std::size_t>(sourceCount_));
  std::vector<bool> isShifted(isRouted_.size());
  for (const std::vector<Route>& routes : outputRoutes) {
    std::vector<Route>& kept = outputRoutes_.emplace_back();
    for (const Route& route : routes) {
      isDelayed_ = isDelayed_ || route.useQuadrature;
      if (route.source < 0 || route.source >= sourceCount_) continue;
      kept.push_back(route);
      isRouted_[static_cast<std::size_t>(route.source)] = true;
      if (route.useQuadrature) isShifted[static_cast<std::size_t>(route.source)] = true;
    }
  }
  if (!isDelayed_) return;
  feeds_.reserve(isShifted.size());
  for (std::size_t s = 0; s < isShifted.size(); ++s)
    feeds_.push_back({.shifter = HilbertPhaseShifter(taps, blockFrames),
                      .reference = std::vector<float>(isRouted_[s] ? blockFrames : 0),
                      .quadrature = std::vector<float>(isShifted[s] ? blockFrames : 0)});
}

void Stream::process(std::span<const float* const> source, std::int64_t frameCount,
                     std::span<float* const> outputs) {
  VELLUM_REQUIRE(static_cast<std::int64_t>(source.size()) == sourceCount_,
                 "SurroundBake: process takes one pointer per source");
  VELLUM_REQUIRE(outputs.size() == outputRoutes_.size(),
                 "SurroundBake: process takes one pointer per output");
  for (std::int64_t offset = 0; offset < frameCount; offset += blockFrames) {
    const std::int64_t n = std::min(blockFrames, frameCount - offset);
    shiftBlock(source, offset, n);
    for (std::size_t o = 0; o < outputs.size(); ++o) {
      float* const out = outputs[o] + offset;
      std::fill_n(out, n, 0.0f);
      for (const Route& route : outputRoutes_[o])
        kernels().multiplyAdd(out, route.gain, feedOf(route, source, offset), n);
    }
  }
}

void Stream::shiftBlock(std::span<const float* const> source, std::int64_t offset, std::int64_t n) {
  for (std::size_t s = 0; s < feeds_.size(); ++s) {
    Feed& feed = feeds_[s];
    if (!isRouted_[s]) continue;
    feed.shifter.process(source[s] + offset, n, feed.reference.data(),
                         feed.quadrature.empty() ? nullptr : feed.quadrature.data());
  }
}

const float* Stream::feedOf(const Route& route, std::span<const float* const> source,
                            std::int64_t offset) const {
  const auto s = static_cast<std::size_t>(route.source);
  if (!isDelayed_) return source[s] + offset;
  return route.useQuadrature ? feeds_[s].quadrature.data() : feeds_[s].reference.data();
}

}  // namespace vellum::SurroundBake
