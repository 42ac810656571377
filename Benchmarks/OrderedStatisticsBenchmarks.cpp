// One insertion and one look at the tail, as each gate does once per 100 ms block, with 10 minutes, 10 hours
// and 24 hours of blocks held.

#include "Audio.hpp"
#include "VellumCore/Support/OrderedStatistics.hpp"

namespace vellum::bench {
namespace {

enum class Order { random, rising, falling, equal };

double valueOf(Order order, std::mt19937& rng, std::int64_t k) {
  switch (order) {
    case Order::random:
      return std::exp(static_cast<double>(rng()) / 4294967296.0 * 12.0 - 14.0);
    case Order::rising:
      return 1e-6 + 1e-9 * static_cast<double>(k);
    case Order::falling:
      return 1.0 - 1e-9 * static_cast<double>(k);
    case Order::equal:
      return 0.01;
  }
  return 0;
}

void orderedStatistics(benchmark::State& state, Order order) {
  const std::int64_t held = state.range(0) * 600;  // blocks per minute
  std::mt19937 rng(5);
  OrderedStatistics<double> statistics;
  double sum = 0;
  const auto block = [&] {
    const double value = valueOf(order, rng, statistics.count());
    statistics.insert(value);
    sum += value;
    benchmark::DoNotOptimize(statistics.tailAbove(sum / static_cast<double>(statistics.count()) * 0.1));
  };
  for (std::int64_t k = 0; k < held; ++k) block();
  for (auto _ : state) block();
}

void overADay(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgName("minutes")->Arg(1)->Arg(10)->Arg(600)->Arg(1440)->Iterations(6000);
}

BENCHMARK_CAPTURE(orderedStatistics, random, Order::random)->Apply(overADay);
BENCHMARK_CAPTURE(orderedStatistics, rising, Order::rising)->Apply(overADay);
BENCHMARK_CAPTURE(orderedStatistics, falling, Order::falling)->Apply(overADay);
BENCHMARK_CAPTURE(orderedStatistics, equal, Order::equal)->Apply(overADay);

}  // namespace
}  // namespace vellum::bench
