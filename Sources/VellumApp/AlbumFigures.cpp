#include "VellumApp/AlbumFigures.hpp"

#include <algorithm>
#include <cmath>
#include <optional>
#include <vector>

#include "VellumApp/TargetFigures.hpp"
#include "VellumCore/GatedLoudness.hpp"
#include "VellumCore/Support/Require.hpp"

namespace vellum {
namespace {

std::optional<float> higher(std::optional<float> a, std::optional<float> b) {
  if (!a || !b) return a ? a : b;
  return std::max(*a, *b);
}

std::optional<float> meanRMSDBFS(std::span<const AlbumPart> parts) {
  double energy = 0, frames = 0;
  for (const AlbumPart& part : parts) {
    if (!std::isfinite(part.figures.rmsDBFS)) continue;  // silence
    const auto length = static_cast<double>(part.figures.frameCount);
    energy += length * std::pow(10.0, static_cast<double>(part.figures.rmsDBFS) / 10.0);
    frames += length;
  }
  if (frames == 0) return {};
  return static_cast<float>(10.0 * std::log10(energy / frames));
}

}  // namespace

LoudnessMeasurement albumMeasurement(std::span<const AlbumPart> parts) {
  VELLUM_REQUIRE(!parts.empty(), "albumMeasurement: takes one programme at least");
  LoudnessMeasurement album = loudnessMeasurement(parts.front().figures);
  if (parts.size() == 1) return album;

  std::vector<double> blockPowers;
  std::vector<bool> speech;
  for (const AlbumPart& part : parts) {
    blockPowers.insert(blockPowers.end(), part.history.blockPower.begin(), part.history.blockPower.end());
    speech.insert(speech.end(), part.history.speech.begin(), part.history.speech.end());
    speech.resize(blockPowers.size());

    const LoudnessMeasurement own = loudnessMeasurement(part.figures);
    album.truePeakDBTP = std::max(album.truePeakDBTP, own.truePeakDBTP);
    album.noiseFloorDBRMS = higher(album.noiseFloorDBRMS, own.noiseFloorDBRMS);
    album.maxShortTermLUFS = higher(album.maxShortTermLUFS, own.maxShortTermLUFS);
  }
  album.integratedLUFS =
      static_cast<float>(GatedLoudness::integratedLUFS(blockPowers, [](std::int64_t) { return true; }));
  album.dialogGatedLUFS = static_cast<float>(GatedLoudness::integratedLUFS(
      blockPowers, [&](std::int64_t block) { return speech[static_cast<std::size_t>(block)]; }));
  album.rmsDBFS = meanRMSDBFS(parts);
  return album;
}

}  // namespace vellum
