#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "VellumCore/GeneratorSpec.hpp"
#include "VellumCore/ModuleSignal.hpp"

namespace vellum {

// SignalGenerator::render in pieces of any length: the same samples, in the memory of one short block and
// some 400 bytes per module. Time is that of the modules that sound, however many do not. Life: construct
// (measure | render)*; one thread at a time. Nothing but the constructor allocates.
//
// Three things cannot be told at the first sample, and need a pass ahead: the RMS of a noise module, the peak
// of a band-limited shape's, and with a peak ceiling the peak of the whole file. measure() makes that pass
// step by step, for callers who show progress or let it be stopped; without it the first render() takes as
// long. Documents without any of the three have no such pass.
class SignalStream {
 public:
  explicit SignalStream(const GeneratorSpec& spec, std::optional<std::int64_t> harmonicCap = std::nullopt);

  // Both are 0 where SignalGenerator::render gives no channels.
  std::int64_t channelCount() const { return channelCount_; }
  std::int64_t frameCount() const { return frames_; }
  std::int64_t position() const { return peakCeilingDB_ ? 0 : next_; }  // the next frame

  // Frames that the pass ahead has still to go through, of modules and, for a ceiling, of the file.
  std::int64_t unmeasuredFrames() const;
  void measure(std::int64_t frames);  // at most so many more

  // The next frames, up to frameCount of them, into one array per channel; a null pointer is a channel that
  // is not wanted. Returns how many there were: 0 at the end.
  std::int64_t render(std::span<float* const> channels, std::int64_t frameCount);

 private:
  struct Voice {
    std::int64_t offset;  // of its first frame in the file
    ModuleSignal signal;
  };
  // Modules are added up in the document's order, and come in by their offsets.
  struct Track {
    std::vector<Voice> voices;          // in the document's order
    std::vector<std::size_t> byOffset;  // places in `voices`
    std::size_t nextToSound = 0;        // place in `byOffset`
    std::vector<std::size_t> sounding;  // places in `voices`, ascending
  };

  void mixTrack(Track& track, float* mix, std::int64_t n);
  void measureCeiling(std::int64_t n);
  void measureModules(std::int64_t& frames);

  std::int64_t frames_ = 0, channelCount_ = 0;
  std::vector<Track> tracks_;  // of each channel
  // The pass ahead: frames of modules to go, and the module that it has come to.
  std::int64_t unmeasuredOfModules_ = 0;
  std::size_t measuredTrack_ = 0, measuredVoice_ = 0;
  std::optional<float> peakCeilingDB_;  // until the pass for it is through
  std::int64_t next_ = 0;               // frame of the pass or, after it, of the result
  float peak_ = 0, gain_ = 1;
  std::vector<float> block_, mix_;
};

}  // namespace vellum
