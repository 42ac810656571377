#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "VellumCore/Support/RawValue.hpp"
#include "VellumCore/Support/UUID.hpp"

// What a test file is to hold: for every channel a list of timed modules, each of which plays one source.
// Times are seconds, frequencies Hz, levels dB. Any record may hold any values; GeneratorSpec::validate tells
// which of them can be rendered.
namespace vellum {

enum class NoiseColor { white, pink, brown };

template <>
inline constexpr auto rawValueTable<NoiseColor> = rawValues<NoiseColor>({{NoiseColor::white, "white"},
                                                                         {NoiseColor::pink, "pink"},
                                                                         {NoiseColor::brown, "brown"}});

// How a sweep's frequency goes from its start to its end.
enum class SweepShape { linear, logarithmic };

template <>
inline constexpr auto rawValueTable<SweepShape> =
    rawValues<SweepShape>({{SweepShape::linear, "linear"}, {SweepShape::logarithmic, "logarithmic"}});

// A straight line in amplitude, or in dB.
enum class LevelSweepShape { linear, logarithmic };

template <>
inline constexpr auto rawValueTable<LevelSweepShape> = rawValues<LevelSweepShape>(
    {{LevelSweepShape::linear, "linear"}, {LevelSweepShape::logarithmic, "logarithmic"}});

enum class GeneratorBitDepth { int16, int24, float32 };

template <>
inline constexpr auto rawValueTable<GeneratorBitDepth> =
    rawValues<GeneratorBitDepth>({{GeneratorBitDepth::int16, "int16"},
                                  {GeneratorBitDepth::int24, "int24"},
                                  {GeneratorBitDepth::float32, "float32"}});

std::int64_t bits(GeneratorBitDepth bitDepth);  // per sample: 16, 24, 32
bool isFloat(GeneratorBitDepth bitDepth);

enum class GeneratorContainer { wav, aiff, caf };

template <>
inline constexpr auto rawValueTable<GeneratorContainer> = rawValues<GeneratorContainer>(
    {{GeneratorContainer::wav, "wav"}, {GeneratorContainer::aiff, "aiff"}, {GeneratorContainer::caf, "caf"}});

std::string_view fileExtension(GeneratorContainer container);  // without a point: "wav"

// The signal that a module plays.
struct GeneratorSource {
  struct Silence {
    friend bool operator==(const Silence&, const Silence&) = default;
  };
  struct Sine {
    double frequency;
    friend bool operator==(const Sine&, const Sine&) = default;
  };
  // Band-limited, as are the sawtooth and the triangle.
  struct Square {
    double frequency;
    friend bool operator==(const Square&, const Square&) = default;
  };
  struct Sawtooth {
    double frequency;
    friend bool operator==(const Sawtooth&, const Sawtooth&) = default;
  };
  struct Triangle {
    double frequency;
    friend bool operator==(const Triangle&, const Triangle&) = default;
  };
  struct Noise {
    NoiseColor color;
    friend bool operator==(const Noise&, const Noise&) = default;
  };
  // One sample, or a train of them: one at the start of each of the module's bursts.
  struct Impulse {
    friend bool operator==(const Impulse&, const Impulse&) = default;
  };
  struct Sweep {
    double start, end;
    SweepShape shape;
    friend bool operator==(const Sweep&, const Sweep&) = default;
  };

  std::variant<Silence, Sine, Square, Sawtooth, Triangle, Noise, Impulse, Sweep> value;

  // Of the sine, square, sawtooth and triangle. A sweep has none.
  std::optional<double> primaryFrequency() const;

  friend bool operator==(const GeneratorSource&, const GeneratorSource&) = default;
};

// A gain that changes over a module's whole length.
struct LevelSweep {
  float startDB, endDB;
  LevelSweepShape shape;

  friend bool operator==(const LevelSweep&, const LevelSweep&) = default;
};

// Switches a module on and off.
struct BurstGate {
  double onSeconds, offSeconds;  // of each cycle, on first
  std::int64_t count;            // of bursts; below 1: as many as the module is long
  double rampMilliseconds;       // of each edge

  friend bool operator==(const BurstGate&, const BurstGate&) = default;
};

// One source at one time on one channel.
struct GeneratorModule {
  UUID id;
  double start;  // from the file's start
  double duration;
  GeneratorSource source;
  float gainDB;  // of the peak; of noise, the RMS
  std::optional<LevelSweep> levelSweep = std::nullopt;
  std::optional<BurstGate> burst = std::nullopt;
  double fadeInSeconds, fadeOutSeconds;  // any: what is no length is no fade, what is too long is cut

  double end() const { return start + duration; }

  friend bool operator==(const GeneratorModule&, const GeneratorModule&) = default;
};

// One channel of the file. Modules that overlap add up.
struct GeneratorChannel {
  UUID id;
  std::string name;  // for people; may be empty
  std::vector<GeneratorModule> modules;

  friend bool operator==(const GeneratorChannel&, const GeneratorChannel&) = default;
};

// Why a specification cannot be rendered. Indices count from 0.
struct GeneratorSpecError {
  struct InvalidSampleRate {
    double sampleRate;
    friend bool operator==(const InvalidSampleRate&, const InvalidSampleRate&) = default;
  };
  struct TooManyChannels {
    std::int64_t channelCount;
    friend bool operator==(const TooManyChannels&, const TooManyChannels&) = default;
  };
  struct DurationTooLong {
    double seconds, capSeconds;
    friend bool operator==(const DurationTooLong&, const DurationTooLong&) = default;
  };
  struct NonFinite {
    std::string field;  // "Channel 2 module 1 fade in": these count from 1; or "Peak ceiling"
    friend bool operator==(const NonFinite&, const NonFinite&) = default;
  };
  struct FrequencyOutOfRange {
    std::int64_t channel, module;
    double frequency, nyquist;
    friend bool operator==(const FrequencyOutOfRange&, const FrequencyOutOfRange&) = default;
  };
  struct NonPositiveDuration {
    std::int64_t channel, module;
    double duration;
    friend bool operator==(const NonPositiveDuration&, const NonPositiveDuration&) = default;
  };
  struct NegativeStart {
    std::int64_t channel, module;
    double start;
    friend bool operator==(const NegativeStart&, const NegativeStart&) = default;
  };
  struct NoChannels {
    friend bool operator==(const NoChannels&, const NoChannels&) = default;
  };
  struct EmptyDuration {
    friend bool operator==(const EmptyDuration&, const EmptyDuration&) = default;
  };

  std::variant<InvalidSampleRate, TooManyChannels, DurationTooLong, NonFinite, FrequencyOutOfRange,
               NonPositiveDuration, NegativeStart, NoChannels, EmptyDuration>
      value;

  // The fault in one English sentence. Numbers have as few digits as read back as themselves, whole ones end
  // in ".0"; what is not finite is nan, inf or -inf. Channels and modules are numbered as they are stored,
  // from 0, except in NonFinite: on purpose.
  std::string description() const;

  friend bool operator==(const GeneratorSpecError&, const GeneratorSpecError&) = default;
};

// A whole test file.
struct GeneratorSpec {
  static constexpr double maxSampleRate = 1'000'000;
  static constexpr std::int64_t maxChannels = 128;
  static constexpr std::int64_t maxRenderFrames = 2'147'483'647;  // 2^31 - 1

  double sampleRate;
  GeneratorBitDepth bitDepth;
  GeneratorContainer container;
  std::vector<GeneratorChannel> channels;             // in the file's order
  std::optional<double> duration = std::nullopt;      // absent: up to the end of the last module
  std::optional<float> peakCeilingDB = std::nullopt;  // dBFS, over all channels; absent: none

  std::int64_t channelCount() const { return static_cast<std::int64_t>(channels.size()); }
  double nyquist() const { return sampleRate * 0.5; }

  // The file's length in seconds: `duration`, or else the latest end of a module. 0 where there is neither,
  // and for one that is negative or not a number; infinite where a duration is.
  double resolvedDuration() const;
  // The same in frames, rounded, halves away from zero. 0 where that is not finite or its magnitude is
  // 9e18 or more.
  std::int64_t frameCount() const;

  // The first fault, looked for in the rate and the number of channels, then module by module, then in the
  // peak ceiling and the length. Without one, frameCount() is 1 to maxRenderFrames, every level and time is
  // finite, and every frequency lies between 0 and nyquist(), both excluded. Not asked for: the sign and size
  // of levels and fades, the sign of a burst's times, its ramp and its count.
  std::optional<GeneratorSpecError> validate() const;

  friend bool operator==(const GeneratorSpec&, const GeneratorSpec&) = default;
};

}  // namespace vellum
