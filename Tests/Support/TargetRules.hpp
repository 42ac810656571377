#pragma once

#include <optional>
#include <string>
#include <vector>

// The built-in targets and what they say, written down a second time and by hand: what the command prints is
// compared with this.
namespace vellum::test {

struct TargetRule {
  std::string id, name;
  std::string figure;  // as `vellum measure --json` names it
  std::string unit, label, deltaUnit;
  float reference;
  std::optional<float> tolerance;  // of a compliance target
  float ceiling;
  bool isSymmetric = false;  // a normalising outlet that also turns up
  bool isDefault = false;    // of its mode
  std::optional<float> maxNoiseFloor, maxShortTerm;

  std::string mode() const { return id.substr(0, id.find('.')); }
};

inline TargetRule normalising(std::string id, std::string name, float reference, float ceiling,
                              bool isSymmetric, bool isDefault) {
  return {id, name,    "integratedLUFS", "LUFS",    "Loudness", "LU", reference,
          {}, ceiling, isSymmetric,      isDefault, {},         {}};
}

inline TargetRule dialogue(TargetRule rule) {
  rule.figure = "speechGatedLUFS";
  rule.unit = "LKFS";
  return rule;
}

inline TargetRule compliance(std::string id, std::string name, float reference, float tolerance,
                             float ceiling, bool isDefault) {
  TargetRule rule = normalising(id, name, reference, ceiling, false, isDefault);
  rule.tolerance = tolerance;
  return rule;
}

inline std::vector<TargetRule> targetRules() {
  TargetRule acx = compliance("podcast.acx", "ACX (Audiobook)", -20.5f, 2.5f, -3, false);
  acx.figure = "rmsDBFS";
  acx.unit = "dB RMS";
  acx.label = "RMS";
  acx.deltaUnit = "dB";
  acx.maxNoiseFloor = -60.0f;
  TargetRule shortForm =
      compliance("broadcast.ebuR128S1", "EBU R128 S1 (EU, short-form)", -23, 0.2f, -1, false);
  shortForm.maxShortTerm = -18.0f;
  return {
      normalising("music.spotify", "Spotify", -14, -1, true, true),
      normalising("music.appleMusic", "Apple Music", -16, -1, false, true),
      normalising("music.youtube", "YouTube", -14, -1, false, true),
      normalising("music.tidal", "Tidal", -14, -1, false, true),
      normalising("music.amazonMusic", "Amazon Music", -14, -2, true, false),
      normalising("music.deezer", "Deezer", -15, -1, true, false),
      normalising("music.soundcloud", "SoundCloud", -14, -1, true, false),
      normalising("music.aesTD1008", "AES TD1008 (streaming)", -18, -1, true, false),
      dialogue(normalising("podcast.apple", "Apple Podcasts", -16, -1, false, true)),
      dialogue(normalising("podcast.spotify", "Spotify (Podcast)", -14, -1, true, true)),
      acx,
      dialogue(compliance("vod.netflix", "Netflix", -27, 2, -2, true)),
      dialogue(compliance("vod.primeVideo", "Prime Video", -27, 2, -2, true)),
      dialogue(compliance("vod.appleTV", "Apple TV+", -27, 2, -2, true)),
      dialogue(compliance("vod.disneyPlus", "Disney+", -27, 2, -2, false)),
      dialogue(compliance("vod.max", "Max", -27, 2, -2, true)),
      compliance("broadcast.ebuR128", "EBU R128 (EU)", -23, 0.5f, -1, true),
      compliance("broadcast.ebuR128Live", "EBU R128 (EU, live)", -23, 1, -1, false),
      shortForm,
      dialogue(compliance("broadcast.atscA85", "ATSC A/85 (CALM Act)", -24, 2, -2, true)),
      compliance("broadcast.aribB32", "ARIB TR-B32 (Japan)", -24, 1, -1, false),
      compliance("broadcast.op59", "OP-59 (Australia)", -24, 1, -1, false),
  };
}

}  // namespace vellum::test
