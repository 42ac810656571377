#include "VellumCore/LoudnessTargets.hpp"

#include <array>
#include <cstddef>
#include <utility>

namespace vellum {
namespace {

struct ModeTexts {
  std::string_view displayName, shortName;
  bool showsSpeechGated, showsNoiseFloor, showsMargin;
};

const ModeTexts& textsOf(LoudnessTargetMode mode) {
  static constexpr std::array<ModeTexts, 4> texts = {{{"Music / Streaming", "Music", false, false, true},
                                                      {"Podcast / Spoken Word", "Podcast", true, true, false},
                                                      {"VOD", "VOD", true, false, false},
                                                      {"Broadcast", "Broadcast", true, false, true}}};
  return texts[static_cast<std::size_t>(mode)];
}

}  // namespace

std::string_view id(LoudnessTargetMode mode) {
  return rawValue(mode);
}
std::string_view displayName(LoudnessTargetMode mode) {
  return textsOf(mode).displayName;
}
std::string_view shortName(LoudnessTargetMode mode) {
  return textsOf(mode).shortName;
}
bool showsSpeechGated(LoudnessTargetMode mode) {
  return textsOf(mode).showsSpeechGated;
}
bool showsNoiseFloor(LoudnessTargetMode mode) {
  return textsOf(mode).showsNoiseFloor;
}
bool showsMargin(LoudnessTargetMode mode) {
  return textsOf(mode).showsMargin;
}
bool showsDynamicRange(LoudnessTargetMode mode) {
  return showsMargin(mode);
}

std::string_view unit(LoudnessSource source) {
  switch (source) {
    case LoudnessSource::integrated:
      return "LUFS";
    case LoudnessSource::dialogGated:
      return "LKFS";
    case LoudnessSource::rms:
      break;
  }
  return "dB RMS";
}
std::string_view metricLabel(LoudnessSource source) {
  return source == LoudnessSource::rms ? "RMS" : "Loudness";
}
std::string_view deltaUnit(LoudnessSource source) {
  return source == LoudnessSource::rms ? "dB" : "LU";
}

float LoudnessTreatment::referenceLUFS() const {
  return std::visit([](const auto& rule) { return rule.referenceLUFS; }, value);
}
float LoudnessTreatment::truePeakCeilingDBTP() const {
  return std::visit([](const auto& rule) { return rule.truePeakCeilingDBTP; }, value);
}

namespace LoudnessTargetCatalog {
namespace {

using enum LoudnessSource;
using enum BoostBehaviour;

LoudnessTarget normalising(const char* id, const char* name, LoudnessTargetMode mode, LoudnessSource source,
                           float reference, float ceiling, BoostBehaviour boost) {
  return {id, name, mode, source, {LoudnessTreatment::Penalty{reference, ceiling, boost}}, {}};
}

LoudnessTarget passOrFail(const char* id, const char* name, LoudnessTargetMode mode, LoudnessSource source,
                          float reference, float tolerance, float ceiling,
                          std::vector<ExtraCriterion> extraCriteria = {}) {
  return {id,
          name,
          mode,
          source,
          {LoudnessTreatment::Compliance{reference, tolerance, ceiling}},
          std::move(extraCriteria)};
}

}  // namespace

const std::vector<LoudnessTarget>& music() {
  static const std::vector<LoudnessTarget> targets = {
      normalising("music.spotify", "Spotify", LoudnessTargetMode::music, integrated, -14, -1, symmetric),
      normalising("music.appleMusic", "Apple Music", LoudnessTargetMode::music, integrated, -16, -1,
                  turnsDownOnly),
      normalising("music.youtube", "YouTube", LoudnessTargetMode::music, integrated, -14, -1, turnsDownOnly),
      normalising("music.tidal", "Tidal", LoudnessTargetMode::music, integrated, -14, -1, turnsDownOnly),
      normalising("music.amazonMusic", "Amazon Music", LoudnessTargetMode::music, integrated, -14, -2,
                  symmetric),  // the only ceiling of -2 among the music services
      normalising("music.deezer", "Deezer", LoudnessTargetMode::music, integrated, -15, -1, symmetric),
      normalising("music.soundcloud", "SoundCloud", LoudnessTargetMode::music, integrated, -14, -1,
                  symmetric),
      normalising("music.aesTD1008", "AES TD1008 (streaming)", LoudnessTargetMode::music, integrated, -18, -1,
                  symmetric),
  };
  return targets;
}

const std::vector<LoudnessTarget>& podcast() {
  static const std::vector<LoudnessTarget> targets = {
      normalising("podcast.apple", "Apple Podcasts", LoudnessTargetMode::podcast, dialogGated, -16, -1,
                  turnsDownOnly),
      normalising("podcast.spotify", "Spotify (Podcast)", LoudnessTargetMode::podcast, dialogGated, -14, -1,
                  symmetric),
      passOrFail("podcast.acx", "ACX (Audiobook)", LoudnessTargetMode::podcast, rms, -20.5f, 2.5f, -3,
                 {{ExtraCriterion::NoiseFloor{-60}}}),
  };
  return targets;
}

const std::vector<LoudnessTarget>& vod() {
  const auto target = [](const char* id, const char* name) {
    return passOrFail(id, name, LoudnessTargetMode::vod, dialogGated, -27, 2, -2);
  };
  static const std::vector<LoudnessTarget> targets = {
      target("vod.netflix", "Netflix"),   target("vod.primeVideo", "Prime Video"),
      target("vod.appleTV", "Apple TV+"), target("vod.disneyPlus", "Disney+"),
      target("vod.max", "Max"),
  };
  return targets;
}

const std::vector<LoudnessTarget>& broadcast() {
  static const std::vector<LoudnessTarget> targets = {
      passOrFail("broadcast.ebuR128", "EBU R128 (EU)", LoudnessTargetMode::broadcast, integrated, -23, 0.5f,
                 -1),
      passOrFail("broadcast.ebuR128Live", "EBU R128 (EU, live)", LoudnessTargetMode::broadcast, integrated,
                 -23, 1, -1),
      passOrFail("broadcast.ebuR128S1", "EBU R128 S1 (EU, short-form)", LoudnessTargetMode::broadcast,
                 integrated, -23, 0.2f, -1, {{ExtraCriterion::MaxShortTerm{-18}}}),
      passOrFail("broadcast.atscA85", "ATSC A/85 (CALM Act)", LoudnessTargetMode::broadcast, dialogGated, -24,
                 2, -2),
      passOrFail("broadcast.aribB32", "ARIB TR-B32 (Japan)", LoudnessTargetMode::broadcast, integrated, -24,
                 1, -1),
      passOrFail("broadcast.op59", "OP-59 (Australia)", LoudnessTargetMode::broadcast, integrated, -24, 1,
                 -1),
  };
  return targets;
}

const std::vector<LoudnessTarget>& all() {
  static const std::vector<LoudnessTarget> targets = [] {
    std::vector<LoudnessTarget> joined;
    for (const LoudnessTargetMode mode : allCases<LoudnessTargetMode>())
      joined.insert(joined.end(), LoudnessTargetCatalog::targets(mode).begin(),
                    LoudnessTargetCatalog::targets(mode).end());
    return joined;
  }();
  return targets;
}

const std::vector<LoudnessTarget>& targets(LoudnessTargetMode mode) {
  switch (mode) {
    case LoudnessTargetMode::music:
      return music();
    case LoudnessTargetMode::podcast:
      return podcast();
    case LoudnessTargetMode::vod:
      return vod();
    case LoudnessTargetMode::broadcast:
      break;
  }
  return broadcast();
}

const LoudnessTarget* target(std::string_view id) {
  for (const LoudnessTarget& target : all())
    if (target.id == id) return &target;
  return nullptr;
}

const std::vector<std::string>& defaultSelectedIDs(LoudnessTargetMode mode) {
  static const std::array<std::vector<std::string>, 4> ids = {
      {{"music.spotify", "music.appleMusic", "music.youtube", "music.tidal"},
       {"podcast.apple", "podcast.spotify"},
       {"vod.netflix", "vod.primeVideo", "vod.appleTV", "vod.max"},
       {"broadcast.ebuR128", "broadcast.atscA85"}}};
  return ids[static_cast<std::size_t>(mode)];
}

}  // namespace LoudnessTargetCatalog
}  // namespace vellum
