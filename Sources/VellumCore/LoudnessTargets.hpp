#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "VellumCore/Support/RawValue.hpp"

// Delivery targets: what one outlet demands of a file's loudness, and the built-in outlets.
namespace vellum {

// The group that a target belongs to.
enum class LoudnessTargetMode { music, podcast, vod, broadcast };

template <>
inline constexpr auto rawValueTable<LoudnessTargetMode> =
    rawValues<LoudnessTargetMode>({{LoudnessTargetMode::music, "music"},
                                   {LoudnessTargetMode::podcast, "podcast"},
                                   {LoudnessTargetMode::vod, "vod"},
                                   {LoudnessTargetMode::broadcast, "broadcast"}});

std::string_view id(LoudnessTargetMode mode);           // its raw value
std::string_view displayName(LoudnessTargetMode mode);  // "Music / Streaming"
std::string_view shortName(LoudnessTargetMode mode);    // "Music"

// Which readouts belong to a mode.
bool showsSpeechGated(LoudnessTargetMode mode);
bool showsNoiseFloor(LoudnessTargetMode mode);
bool showsMargin(LoudnessTargetMode mode);  // of the true peak
bool showsDynamicRange(LoudnessTargetMode mode);

// The measured figure that a target judges.
enum class LoudnessSource { integrated, dialogGated, rms };

template <>
inline constexpr auto rawValueTable<LoudnessSource> =
    rawValues<LoudnessSource>({{LoudnessSource::integrated, "integrated"},
                               {LoudnessSource::dialogGated, "dialogGated"},
                               {LoudnessSource::rms, "rms"}});

std::string_view unit(LoudnessSource source);         // "LUFS"; dialogue-gated figures say "LKFS", on purpose
std::string_view metricLabel(LoudnessSource source);  // "Loudness", "RMS"
std::string_view deltaUnit(LoudnessSource source);    // "LU", "dB"

// What a normalising service does to a file quieter than its reference: turns it up, or plays it as it is.
enum class BoostBehaviour { symmetric, turnsDownOnly };

template <>
inline constexpr auto rawValueTable<BoostBehaviour> = rawValues<BoostBehaviour>(
    {{BoostBehaviour::symmetric, "symmetric"}, {BoostBehaviour::turnsDownOnly, "turnsDownOnly"}});

// How an outlet treats loudness. Levels are in LUFS, LU and dBTP; for a target judged by RMS the "LUFS" are
// dB RMS.
struct LoudnessTreatment {
  // A service that normalises playback.
  struct Penalty {
    float referenceLUFS;
    float truePeakCeilingDBTP;
    BoostBehaviour boostBehaviour;
    friend bool operator==(const Penalty&, const Penalty&) = default;
  };
  // An outlet that refuses what is not within reference +- tolerance.
  struct Compliance {
    float referenceLUFS;
    float toleranceLU;
    float truePeakCeilingDBTP;
    friend bool operator==(const Compliance&, const Compliance&) = default;
  };

  std::variant<Penalty, Compliance> value;

  float referenceLUFS() const;
  float truePeakCeilingDBTP() const;
  friend bool operator==(const LoudnessTreatment&, const LoudnessTreatment&) = default;
};

// A further ceiling that a target imposes.
struct ExtraCriterion {
  struct NoiseFloor {
    float maxDBRMS;
    friend bool operator==(const NoiseFloor&, const NoiseFloor&) = default;
  };
  struct MaxShortTerm {
    float maxLUFS;
    friend bool operator==(const MaxShortTerm&, const MaxShortTerm&) = default;
  };

  std::variant<NoiseFloor, MaxShortTerm> value;

  friend bool operator==(const ExtraCriterion&, const ExtraCriterion&) = default;
};

// One outlet's loudness rule.
struct LoudnessTarget {
  std::string id;    // "music.spotify"; the record's identity
  std::string name;  // of the service, as texts show it
  LoudnessTargetMode mode;
  LoudnessSource source;
  LoudnessTreatment treatment;
  std::vector<ExtraCriterion> extraCriteria;  // judged in this order

  friend bool operator==(const LoudnessTarget&, const LoudnessTarget&) = default;
};

// The built-in targets. Built once on first use, then never changed: any thread may read them.
namespace LoudnessTargetCatalog {

const std::vector<LoudnessTarget>& music();
const std::vector<LoudnessTarget>& podcast();
const std::vector<LoudnessTarget>& vod();
const std::vector<LoudnessTarget>& broadcast();
const std::vector<LoudnessTarget>& all();  // the four, one after the other

const std::vector<LoudnessTarget>& targets(LoudnessTargetMode mode);

// The target with exactly this id, or null.
const LoudnessTarget* target(std::string_view id);

// The ids of a mode that are chosen where the user chose none.
const std::vector<std::string>& defaultSelectedIDs(LoudnessTargetMode mode);

}  // namespace LoudnessTargetCatalog
}  // namespace vellum
