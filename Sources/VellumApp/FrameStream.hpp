#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "VellumApp/AudioFile.hpp"
#include "VellumApp/PlanarBuffer.hpp"
#include "VellumCore/PowerSpectrum.hpp"

namespace vellum {

// Which of a file's channels are looked at, from 0, ascending; where none is wanted, all of them. Throws
// FileError where the file has no such channel.
std::vector<std::int64_t> channelsOf(const AudioFile& file, std::span<const std::int64_t> wanted);

// The frames from a section's start to its end, which is that of the file where none is asked for or it comes
// first. Files whose length is only known at their end are decoded up to it. Absent: `goOn` answered false.
// Throws FileError where nothing is left of the section.
struct FrameSection {
  std::int64_t from, to;
  std::optional<std::string>
      endWarning;  // why the file may end before its maker meant it to, if the section does
};
std::optional<FrameSection> sectionOf(AudioFile& file, std::optional<double> fromSec,
                                      std::optional<double> toSec, const std::function<bool()>& goOn);

// What is to be said of a section that was looked at: that the file ended before it, and why, and how many
// frames were left out for samples that are not finite.
std::vector<std::string> sectionWarnings(const FrameSection& section, double sampleRate,
                                         std::optional<double> toSec, std::int64_t brokenFrames,
                                         std::int64_t frameCount);

// Overlapping pieces of a file, one after the other, of some of its channels. What lies before the file's
// start or behind its end is silence. Memory depends on the pieces' size only.
class FrameStream {
 public:
  struct Settings {
    std::vector<std::int64_t> channels;  // from 0
    std::int64_t size, hop;              // 1 <= hop <= size
    std::int64_t start;                  // of the first piece, above -size; the file stands at max(start, 0)
    std::int64_t end;                    // silence from here on
  };
  FrameStream(AudioFile& file, const Settings& settings);

  // Moves on to the next piece, the first one at first. Returns how many of its samples come before the
  // file's end and the settings'.
  std::int64_t next();
  // The piece's samples of the k-th of the channels.
  const float* channel(std::size_t k) const { return pieces_.channels()[k]; }
  // The average of the power spectra of the piece's channels. False where one of its samples is not finite.
  bool averagePower(PowerSpectrum& spectrum, std::span<double> power) const;

 private:
  AudioFile* file_;
  Settings settings_;
  PlanarBuffer pieces_;
  std::vector<float*> readPointers_;  // one per channel of the file
  std::int64_t start_;
  std::int64_t filled_ = 0;  // samples of a piece up to the end
  bool isFirst_ = true, hasEnded_ = false;
};

}  // namespace vellum
