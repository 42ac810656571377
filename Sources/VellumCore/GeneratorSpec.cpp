#include "VellumCore/GeneratorSpec.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <initializer_list>

namespace vellum {
namespace {

using Error = GeneratorSpecError;
using Fault = std::optional<GeneratorSpecError>;

// --- Words -----------------------------------------------------------------------------------------------

// As few digits as read back as this number, with an exponent only below 1e-4 and from 1e16 on.
std::string numberText(double value) {
  if (std::isnan(value)) return "nan";  // whatever its sign
  std::string text = fmt::format("{}", value);
  const bool isWhole = text.find_first_not_of("-0123456789") == text.npos;
  return isWhole ? text + ".0" : text;
}

// All digits of a number of any size: the cap of a rate near 0 is beyond every integer type.
std::string truncatedText(double value) {
  return std::isnan(value) ? "nan" : fmt::format("{:.0f}", std::trunc(value));
}

struct Description {
  std::string operator()(const Error::InvalidSampleRate& error) const {
    // "1 Hz": any rate above 0 is in fact taken.
    return fmt::format("Sample rate must be a finite value between 1 Hz and {} Hz (got {}).",
                       truncatedText(GeneratorSpec::maxSampleRate), numberText(error.sampleRate));
  }
  std::string operator()(const Error::TooManyChannels& error) const {
    return fmt::format("Channel count {} is over the {}-channel cap.", error.channelCount,
                       GeneratorSpec::maxChannels);
  }
  std::string operator()(const Error::DurationTooLong& error) const {
    return fmt::format("Length {} s is over the cap ({} s at this sample rate).", numberText(error.seconds),
                       truncatedText(error.capSeconds));
  }
  std::string operator()(const Error::NonFinite& error) const {
    return fmt::format("{} must be a finite number.", error.field);
  }
  std::string operator()(const Error::FrequencyOutOfRange& error) const {
    return fmt::format("Channel {} module {}: frequency {} Hz is outside (0, {}) Hz (Nyquist).",
                       error.channel, error.module, numberText(error.frequency), numberText(error.nyquist));
  }
  std::string operator()(const Error::NonPositiveDuration& error) const {
    return fmt::format("Channel {} module {}: duration must be positive (got {} s).", error.channel,
                       error.module, numberText(error.duration));
  }
  std::string operator()(const Error::NegativeStart& error) const {
    return fmt::format("Channel {} module {}: start time can't be negative (got {} s).", error.channel,
                       error.module, numberText(error.start));
  }
  std::string operator()(const Error::NoChannels&) const { return "The spec has no channels."; }
  std::string operator()(const Error::EmptyDuration&) const {
    return "The spec resolves to zero length: add a module or set a duration.";
  }
};

// --- Faults of one module --------------------------------------------------------------------------------

// Where a module stands, from 0, and what the sample rate leaves it.
struct Place {
  std::int64_t channel, module;
  double nyquist, capSeconds;
};

// The name of the first value that is not finite; empty where all are.
std::string_view nonFiniteField(const GeneratorModule& module) {
  struct Field {
    std::string_view name;
    bool isFinite;
  };
  const auto firstOf = [](std::initializer_list<Field> fields) {
    const auto found = std::find_if(fields.begin(), fields.end(), [](const Field& f) { return !f.isFinite; });
    return found == fields.end() ? std::string_view() : found->name;
  };
  std::string_view name = firstOf({{"start", std::isfinite(module.start)},
                                   {"duration", std::isfinite(module.duration)},
                                   {"level", std::isfinite(module.gainDB)},
                                   {"fade in", std::isfinite(module.fadeInSeconds)},
                                   {"fade out", std::isfinite(module.fadeOutSeconds)}});
  if (const auto& sweep = module.levelSweep; name.empty() && sweep)
    name = firstOf({{"level sweep start", std::isfinite(sweep->startDB)},
                    {"level sweep end", std::isfinite(sweep->endDB)}});
  if (const auto& burst = module.burst; name.empty() && burst)
    name = firstOf({{"burst on", std::isfinite(burst->onSeconds)},
                    {"burst off", std::isfinite(burst->offSeconds)},
                    {"burst ramp", std::isfinite(burst->rampMilliseconds)}});
  return name;
}

Fault frequencyFault(const GeneratorSource& source, const Place& place) {
  const auto faultOf = [&place](double frequency) -> Fault {
    if (frequency > 0 && frequency < place.nyquist) return {};  // not so for nan
    return {{Error::FrequencyOutOfRange{place.channel, place.module, frequency, place.nyquist}}};
  };
  if (const auto* sweep = std::get_if<GeneratorSource::Sweep>(&source.value)) {
    const Fault fault = faultOf(sweep->start);
    return fault ? fault : faultOf(sweep->end);
  }
  const auto frequency = source.primaryFrequency();
  return frequency ? faultOf(*frequency) : std::nullopt;
}

Fault moduleFault(const GeneratorModule& module, const Place& place) {
  // Counted from 1 here and from 0 below: texts that people know, kept as they are.
  if (const std::string_view field = nonFiniteField(module); !field.empty())
    return {{Error::NonFinite{
        fmt::format("Channel {} module {} {}", place.channel + 1, place.module + 1, field)}}};
  if (module.start < 0) return {{Error::NegativeStart{place.channel, place.module, module.start}}};
  if (module.duration <= 0)
    return {{Error::NonPositiveDuration{place.channel, place.module, module.duration}}};
  double longest = module.duration;
  if (module.burst) longest = std::max({longest, module.burst->onSeconds, module.burst->offSeconds});
  if (longest > place.capSeconds) return {{Error::DurationTooLong{longest, place.capSeconds}}};
  return frequencyFault(module.source, place);
}

}  // namespace

std::int64_t bits(GeneratorBitDepth bitDepth) {
  switch (bitDepth) {
    case GeneratorBitDepth::int16:
      return 16;
    case GeneratorBitDepth::int24:
      return 24;
    case GeneratorBitDepth::float32:
      break;
  }
  return 32;
}

bool isFloat(GeneratorBitDepth bitDepth) {
  return bitDepth == GeneratorBitDepth::float32;
}

std::string_view fileExtension(GeneratorContainer container) {
  return rawValue(container);
}

std::optional<double> GeneratorSource::primaryFrequency() const {
  return std::visit(
      [](const auto& source) -> std::optional<double> {
        if constexpr (requires { source.frequency; }) return source.frequency;
        return {};
      },
      value);
}

std::string GeneratorSpecError::description() const {
  return std::visit(Description{}, value);
}

double GeneratorSpec::resolvedDuration() const {
  std::optional<double> length = duration;
  if (!duration)
    for (const GeneratorChannel& channel : channels)
      for (const GeneratorModule& module : channel.modules)
        if (!length || module.end() > *length) length = module.end();
  return length && *length >= 0 ? *length : 0;  // not so for nan
}

std::int64_t GeneratorSpec::frameCount() const {
  const double frames = std::round(resolvedDuration() * sampleRate);
  return std::abs(frames) < 9e18 ? static_cast<std::int64_t>(frames) : 0;  // not so for nan
}

std::optional<GeneratorSpecError> GeneratorSpec::validate() const {
  if (!(sampleRate > 0 && sampleRate <= maxSampleRate)) return {{Error::InvalidSampleRate{sampleRate}}};
  if (channels.empty()) return {{Error::NoChannels{}}};
  if (channelCount() > maxChannels) return {{Error::TooManyChannels{channelCount()}}};

  const double capSeconds = static_cast<double>(maxRenderFrames) / sampleRate;
  for (std::int64_t c = 0; const GeneratorChannel& channel : channels) {
    for (std::int64_t m = 0; const GeneratorModule& module : channel.modules) {
      const Place place{.channel = c, .module = m, .nyquist = nyquist(), .capSeconds = capSeconds};
      if (Fault fault = moduleFault(module, place)) return fault;
      ++m;
    }
    ++c;
  }

  if (peakCeilingDB && !std::isfinite(*peakCeilingDB)) return {{Error::NonFinite{"Peak ceiling"}}};
  const double length = resolvedDuration();
  if (!std::isfinite(length) || length > capSeconds) return {{Error::DurationTooLong{length, capSeconds}}};
  if (frameCount() <= 0) return {{Error::EmptyDuration{}}};
  return {};
}

}  // namespace vellum
