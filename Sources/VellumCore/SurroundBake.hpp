#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "VellumCore/HilbertPhaseShifter.hpp"

// Renders a set of source channels into a set of output channels through a matrix of routes.
namespace vellum::SurroundBake {

// One feed into an output.
struct Route {
  std::int64_t source;  // channel, from 0; one that does not exist feeds nothing
  float gain;           // linear
  bool useQuadrature;   // the source 90 degrees ahead (HilbertPhaseShifter) instead of as it is
  friend bool operator==(const Route&, const Route&) = default;
};

// How late a render is in which any route asks for quadrature, whether or not its source exists. All outputs
// are then equally late, those that are fed by plain routes too.
constexpr std::int64_t quadratureDelayFrames = 50;

// One output per list of routes, in order, each the sum of its feeds in the routes' order, in 32 bit. As long
// as the first source; the others that are routed have to be at least as long. A late render begins with
// silence and lacks the sources' last quadratureDelayFrames. `sampleRate` is not used.
std::vector<std::vector<float>> render(std::span<const std::vector<float>> source,
                                       std::span<const std::vector<Route>> outputRoutes, double sampleRate);

// The same in pieces, for programmes that are not in memory: any split gives the same samples.
// Life: construct, process*; one thread at a time. process() allocates nothing. Separate streams share
// nothing.
class Stream {
 public:
  Stream(std::int64_t sourceCount, std::span<const std::vector<Route>> outputRoutes);

  // 0, or quadratureDelayFrames. What the last frames lack comes with as many frames of silence behind them.
  std::int64_t delayFrames() const { return isDelayed_ ? quadratureDelayFrames : 0; }

  // Whether any output takes the source. Others are not read.
  bool isRouted(std::int64_t source) const { return isRouted_[static_cast<std::size_t>(source)]; }

  // The next frames: one pointer per source, and one per output to as many frames, which are written. No
  // output may be a source's array.
  void process(std::span<const float* const> source, std::int64_t frameCount,
               std::span<float* const> outputs);

 private:
  // A block of a source on its way to the outputs, of a delayed render.
  struct Feed {
    HilbertPhaseShifter shifter;
    std::vector<float> reference, quadrature;  // no quadrature where no route asks for it
  };

  void shiftBlock(std::span<const float* const> source, std::int64_t offset, std::int64_t n);
  const float* feedOf(const Route& route, std::span<const float* const> source, std::int64_t offset) const;

  std::int64_t sourceCount_;
  std::vector<std::vector<Route>> outputRoutes_;  // without those whose source does not exist
  std::vector<bool> isRouted_;                    // one per source
  bool isDelayed_;
  std::vector<Feed> feeds_;  // one per source; none where nothing is delayed
};

}  // namespace vellum::SurroundBake
