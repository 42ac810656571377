// Delivery targets: the verdict on one target, and the document that holds the user's choice.

#include <cstddef>
#include <cstdint>
#include <string>

#include <benchmark/benchmark.h>

#include "VellumCore/Json/LoudnessTargetDocuments.hpp"
#include "VellumCore/LoudnessTargetEvaluation.hpp"

namespace vellum::bench {
namespace {

enum class Work { verdict, verdictAndTooltip };

// Every built-in target in turn; the figures meet some and fail others.
void evaluation(benchmark::State& state, Work work) {
  const auto& targets = LoudnessTargetCatalog::all();
  const LoudnessMeasurement measurement{.integratedLUFS = -22.9f,
                                        .dialogGatedLUFS = -24.3f,
                                        .truePeakDBTP = -1.4f,
                                        .noiseFloorDBRMS = -57.2f,
                                        .maxShortTermLUFS = -16.8f,
                                        .rmsDBFS = -21.5f};
  for (auto _ : state)
    for (const LoudnessTarget& target : targets) {
      const LoudnessTargetEvaluation result = LoudnessTargetEvaluator::evaluate(target, measurement);
      benchmark::DoNotOptimize(&result);
      if (work == Work::verdictAndTooltip) {
        const std::string text = LoudnessTargetEvaluator::tooltipText(result, measurement);
        benchmark::DoNotOptimize(text.data());
      }
    }
  state.counters["per_target"] =
      benchmark::Counter(static_cast<double>(state.iterations()) * static_cast<double>(targets.size()),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK_CAPTURE(evaluation, verdict, Work::verdict);
BENCHMARK_CAPTURE(evaluation, verdictAndTooltip, Work::verdictAndTooltip);

// The default selection with `customCount` targets of the user's own.
LoudnessTargetSelection selectionWith(std::int64_t customCount) {
  LoudnessTargetSelection selection = LoudnessTargetSelection::defaultValue();
  const auto& builtIn = LoudnessTargetCatalog::all();
  for (std::int64_t k = 0; k < customCount; ++k) {
    LoudnessTarget target = builtIn[static_cast<std::size_t>(k) % builtIn.size()];
    target.id = std::string(LoudnessTargetSelection::customIDPrefix) + std::to_string(k);
    selection.customTargets.push_back(target);
  }
  return selection;
}

void readSelection(benchmark::State& state) {
  const std::string text = Json::documentText(selectionWith(state.range(0))).value();
  for (auto _ : state) {
    const LoudnessTargetSelection selection = Json::parseLoudnessTargetSelection(text);
    benchmark::DoNotOptimize(&selection);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(readSelection)->ArgName("customTargets")->Arg(0)->Arg(100);

void writeSelection(benchmark::State& state) {
  const LoudnessTargetSelection selection = selectionWith(state.range(0));
  std::size_t size = 0;
  for (auto _ : state) {
    const auto text = Json::documentText(selection);
    size = text->size();
    benchmark::DoNotOptimize(text->data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(size));
}
BENCHMARK(writeSelection)->ArgName("customTargets")->Arg(0)->Arg(100);

}  // namespace
}  // namespace vellum::bench
