#include "VellumApp/ChapterLeveling.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <numeric>
#include <utility>
#include <variant>

#include "VellumApp/OutputFormat.hpp"

namespace vellum {

// --- The curve -------------------------------------------------------------------------------------------

namespace {

float linearOf(double dB) {
  return static_cast<float>(std::pow(10.0, dB / 20.0));
}

}  // namespace

GainRamps::GainRamps(std::span<const ChapterAnalyser::LevelingGain> gains, double sampleRate) {
  const auto wholeRamp = static_cast<std::int64_t>(std::llround(rampSec * sampleRate));
  for (const auto& [start, end, gainDB] : gains)
    pieces_.push_back({.start = start,
                       .end = end,
                       .rampFrames = std::min(wholeRamp, (end - start) / 2),
                       .startDB = 0,
                       .gainDB = static_cast<double>(gainDB),
                       .endDB = 0,
                       .startLimiting = 0,
                       .limiting = gainDB > 0 ? 1.0f : 0.0f,
                       .endLimiting = 0,
                       .gain = linearOf(static_cast<double>(gainDB))});
  for (std::size_t k = 1; k < pieces_.size(); ++k) {
    Piece &left = pieces_[k - 1], &right = pieces_[k];
    if (left.end != right.start) continue;
    left.endDB = right.startDB = (left.gainDB + right.gainDB) / 2;
    left.endLimiting = right.startLimiting = std::min(left.limiting, right.limiting);
  }
}

void GainRamps::fill(std::int64_t firstFrame, std::span<float> gain, std::span<float> limiting) const {
  std::fill(gain.begin(), gain.end(), 1.0f);
  std::fill(limiting.begin(), limiting.end(), 0.0f);
  const std::int64_t endFrame = firstFrame + static_cast<std::int64_t>(gain.size());
  auto piece = std::upper_bound(pieces_.begin(), pieces_.end(), firstFrame,
                                [](std::int64_t frame, const Piece& other) { return frame < other.end; });
  for (; piece != pieces_.end() && piece->start < endFrame; ++piece) {
    const std::int64_t last = std::min(piece->end, endFrame);
    for (std::int64_t frame = std::max(piece->start, firstFrame); frame < last; ++frame) {
      const auto n = static_cast<std::size_t>(frame - firstFrame);
      const std::int64_t fromStart = frame - piece->start, toEnd = piece->end - 1 - frame;
      const std::int64_t distance = std::min(fromStart, toEnd);
      if (distance >= piece->rampFrames) {
        gain[n] = piece->gain;
        limiting[n] = piece->limiting;
        continue;
      }
      const bool isAtStart = fromStart < toEnd;
      const double phase = (static_cast<double>(distance) + 0.5) / static_cast<double>(piece->rampFrames);
      const double share = 0.5 - 0.5 * std::cos(std::numbers::pi * phase);
      const double borderDB = isAtStart ? piece->startDB : piece->endDB;
      const float borderLimiting = isAtStart ? piece->startLimiting : piece->endLimiting;
      gain[n] = linearOf(borderDB + share * (piece->gainDB - borderDB));
      limiting[n] = borderLimiting + static_cast<float>(share) * (piece->limiting - borderLimiting);
    }
  }
}

// --- What is lacking -------------------------------------------------------------------------------------

std::optional<float> levelOf(const ChapterAnalyser::LevelTarget& target, std::span<const Chapter> chapters,
                             ChapterConsistencyMetric metric) {
  if (const auto* fixed = std::get_if<ChapterAnalyser::LevelTarget::Fixed>(&target.value))
    return fixed->value;
  return ChapterAnalyser::median(chapters, metric);
}

std::vector<std::optional<ChapterAnalyser::LevelingGain>> gainsTo(std::optional<float> level,
                                                                  std::span<const Chapter> chapters,
                                                                  ChapterConsistencyMetric metric,
                                                                  const ChapterProgramme& programme) {
  std::vector<std::optional<ChapterAnalyser::LevelingGain>> gains(chapters.size());
  if (!level) return gains;
  for (std::size_t k = 0; k < chapters.size(); ++k)
    for (const auto& gain : ChapterAnalyser::levelingGains({.chapters = chapters.subspan(k, 1),
                            .metric = metric,
                            .target = {ChapterAnalyser::LevelTarget::Fixed{*level}},
                            .sampleRate = programme.sampleRate,
                            .totalFrames = programme.figures.frameCount}))
      gains[k] = gain;
  return gains;
}

// --- The search ------------------------------------------------------------------------------------------

namespace {

bool isFinite(const std::optional<float>& level) {
  return level && std::isfinite(*level);
}

class Search {
 public:
  Search(const ChapterProgramme& programme, const MeasuredChapters& before, const LevelingSettings& settings)
      : programme_(programme), before_(before), settings_(settings) {
    const std::size_t count = before.chapters.size();
    result_.target = levelOf(settings.target, before.chapters, settings.metric);
    result_.neededDB.resize(count);
    result_.gainDB.resize(count);
    result_.after = before;
    const auto gains = gainsTo(result_.target, before.chapters, settings.metric, programme);
    for (std::size_t k = 0; k < count; ++k) {
      if (!gains[k]) continue;
      const auto& [start, end, gainDB] = *gains[k];
      result_.neededDB[k] = gainDB;
      if (std::fabs(gainDB) <= Leveling::mostGainDB)
        gained_.push_back({k, start, end, static_cast<double>(gainDB), {}, false});
    }
    std::stable_sort(gained_.begin(), gained_.end(),
                     [](const Gained& a, const Gained& b) { return a.start < b.start; });
    refuseOverlaps();
  }

  std::optional<Leveling> run(const LevelingGoOn& goOn) {
    constexpr int mostRounds = 10;
    while (!gained_.empty() && result_.rounds < mostRounds) {
      if (result_.rounds > 0 && !correct()) break;
      ++result_.rounds;
      result_.gains = gains();
      if (!rehearse(goOn)) return {};
    }
    // Those of the last round, not what would be tried next.
    for (std::size_t k = 0; k < gained_.size(); ++k)
      result_.gainDB[gained_[k].chapter] = result_.gains[k].gainDB;
    return std::move(result_);
  }

 private:
  struct Round {
    double gainDB, level;
  };
  struct Gained {
    std::size_t chapter;
    std::int64_t start, end;
    double gainDB;
    std::optional<Round> last;
    bool isHeld;  // by the limiter: a larger gain hardly raises it
  };

  // A gain counts for its chapter alone.
  void refuseOverlaps() const {
    std::vector<std::size_t> order(before_.chapters.size());
    std::iota(order.begin(), order.end(), 0);
    const auto framesOf = [&](std::size_t k) {
      return ChapterAnalyser::framesOf(before_.chapters[k], programme_.sampleRate,
                                       programme_.figures.frameCount);
    };
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
      return before_.chapters[a].startSec < before_.chapters[b].startSec;
    });
    const auto isGained = [&](std::size_t k) {
      return result_.neededDB[k] && std::fabs(*result_.neededDB[k]) <= Leveling::mostGainDB;
    };
    std::optional<std::size_t> last;  // of the chapters so far, the one that ends last
    for (const std::size_t k : order) {
      const auto [start, end] = framesOf(k);
      if (start >= end) continue;
      if (last && start < framesOf(*last).end && (isGained(k) || isGained(*last)))
        throw FileError(fmt::format("chapters {} and {} overlap: they cannot be leveled apart",
                                    before_.chapters[*last].index, before_.chapters[k].index));
      if (!last || end > framesOf(*last).end) last = k;
    }
  }

  std::vector<ChapterAnalyser::LevelingGain> gains() const {
    std::vector<ChapterAnalyser::LevelingGain> gains;
    for (const Gained& gained : gained_)
      gains.push_back({gained.start, gained.end, static_cast<float>(gained.gainDB)});
    return gains;
  }

  // False where nothing is left to correct.
  bool correct() {
    constexpr double nearEnough = 0.05;  // dB: half of the tolerance
    constexpr double marginDB = 0.03;    // so that the next round does not miss the ceiling by a hair
    bool isNear = true;
    double excessDB = 0;
    for (Gained& gained : gained_) {
      const auto level = ChapterAnalyser::value(result_.after.chapters[gained.chapter], settings_.metric);
      if (isFinite(level)) {
        const double errorDB = static_cast<double>(*result_.target) - static_cast<double>(*level);
        const double gainDB = correctedGain(gained, static_cast<double>(*level), errorDB);
        if (std::fabs(errorDB) > nearEnough && gainDB != gained.gainDB) isNear = false;
        gained.last = Round{gained.gainDB, static_cast<double>(*level)};
        gained.gainDB = gainDB;
      }
      const auto& peak = result_.after.truePeakDBTP[gained.chapter];
      if (gained.gainDB > 0 && peak)
        excessDB = std::max(excessDB, static_cast<double>(*peak) - settings_.ceilingDBTP);
    }
    if (excessDB > 0) {
      if (!result_.limiter)
        result_.limiter = LimiterSettings{.ceilingDBTP = settings_.ceilingDBTP};
      else
        result_.limiter->ceilingDBTP -= excessDB + marginDB;
    }
    return !isNear || excessDB > 0;
  }

  static double correctedGain(Gained& gained, double level, double errorDB) {
    constexpr double leastSlope = 0.2, clearStepDB = 0.5, smallestStepDB = 0.1;
    constexpr auto most = static_cast<double>(Leveling::mostGainDB);
    // How much of a gain arrives, by the last two rounds: all of it, or less under the limiter. The limiter's
    // ceiling may have moved meanwhile, so a small step tells little.
    const double stepDB = gained.last ? gained.gainDB - gained.last->gainDB : 0;
    double slope = 1;
    if (std::fabs(stepDB) >= smallestStepDB) slope = (level - gained.last->level) / stepDB;
    if (stepDB >= clearStepDB && slope < leastSlope) gained.isHeld = true;
    if (gained.isHeld && errorDB > 0) return gained.gainDB;  // more would only flatten it
    return std::clamp(gained.gainDB + errorDB / std::clamp(slope, leastSlope, 1.0), -most, most);
  }

  bool rehearse(const LevelingGoOn& goOn) {
    ChapterSweep sweep(programme_, before_.chapters);
    const auto sink = [&](std::span<const float* const> channelData, std::int64_t frameCount) {
      sweep.add(channelData, frameCount);
    };
    const auto tell = [&](std::int64_t frames) {
      return goOn(result_.rounds,
                  {static_cast<double>(frames) / programme_.sampleRate, programme_.figures.durationSec});
    };
    const auto rendered =
        render(programme_.path, renderingOf(result_, settings_, programme_.sampleRate), sink, tell);
    if (!rendered) return false;
    if (rendered->frameCount != programme_.figures.frameCount)
      throw FileError("it changed while it was read");
    result_.largestReductionDB = rendered->largestReductionDB;
    result_.after = sweep.finish();
    return true;
  }

  const ChapterProgramme& programme_;
  const MeasuredChapters& before_;
  const LevelingSettings& settings_;
  std::vector<Gained> gained_;  // by start
  Leveling result_;
};

}  // namespace

std::optional<Leveling> level(const ChapterProgramme& programme, const MeasuredChapters& before,
                              const LevelingSettings& settings, const LevelingGoOn& goOn) {
  if (const std::int64_t count = programme.figures.nonFiniteSamples; count > 0)
    throw FileError(samplesAreNotFinite(count) + ": it cannot be rendered");
  return Search(programme, before, settings).run(goOn);
}

RenderSettings renderingOf(const Leveling& leveling, const LevelingSettings& settings, double sampleRate) {
  RenderSettings rendering{.gainDB = 0,
                           .limiter = leveling.limiter,
                           .coding = settings.coding,
                           .dither = settings.dither,
                           .curve = {}};
  if (!leveling.gains.empty())
    rendering.curve = [ramps = GainRamps(leveling.gains, sampleRate)](
                          std::int64_t firstFrame, std::span<float> gain, std::span<float> limiting) {
      ramps.fill(firstFrame, gain, limiting);
    };
  return rendering;
}

std::vector<LevelingMiss> missesOf(const Leveling& leveling, const LevelingSettings& settings,
                                   const MeasuredChapters& after) {
  std::vector<LevelingMiss> misses;
  for (std::size_t k = 0; k < after.chapters.size(); ++k) {
    if (!leveling.neededDB[k]) continue;
    if (!leveling.gainDB[k]) {
      misses.push_back(
          {k, fmt::format("it would need a gain of {:+.1f} dB, and at most {:.0f} dB are applied",
                          *leveling.neededDB[k], Leveling::mostGainDB)});
      continue;
    }
    const auto level = ChapterAnalyser::value(after.chapters[k], settings.metric);
    const float distance = isFinite(level) ? std::fabs(*level - *leveling.target) : HUGE_VALF;
    const bool isLimited = leveling.limiter && *leveling.gainDB[k] > 0;
    if (!isFinite(level))
      misses.push_back({k, fmt::format("it has no {} after its gain", label(settings.metric))});
    else if (distance > Leveling::toleranceDB)
      misses.push_back({k, fmt::format("it ends at {:.2f} {}, {:.2f} {} from the target{}", *level,
                                       unit(settings.metric), distance, shortUnit(settings.metric),
                                       isLimited ? ", held back by the limiter" : "")});
    const auto& peak = after.truePeakDBTP[k];
    if (*leveling.gainDB[k] > 0 && peak && static_cast<double>(*peak) > settings.ceilingDBTP)
      misses.push_back({k, fmt::format("its true peak stays at {:.2f} dBTP, above the ceiling of {} dBTP",
                                       *peak, settings.ceilingDBTP)});
  }
  return misses;
}

}  // namespace vellum
