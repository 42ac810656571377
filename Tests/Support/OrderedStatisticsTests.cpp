#include "VellumCore/Support/OrderedStatistics.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

namespace vellum {
namespace {

// The definition: a sorted vector, added up from scratch.
template <typename Value>
struct PlainStatistics {
  std::vector<Value> values;

  void insert(Value value) { values.insert(std::lower_bound(values.begin(), values.end(), value), value); }
  std::int64_t firstAbove(Value threshold) const {
    return std::upper_bound(values.begin(), values.end(), threshold) - values.begin();
  }
  long double sumAbove(Value threshold) const {
    long double sum = 0;
    for (auto k = static_cast<std::size_t>(firstAbove(threshold)); k < values.size(); ++k) sum += values[k];
    return sum;
  }
};

template <typename Value>
void expectEqual(const OrderedStatistics<Value>& fast, const PlainStatistics<Value>& plain, Value threshold,
                 const std::string& where) {
  ASSERT_EQ(fast.count(), static_cast<std::int64_t>(plain.values.size())) << where;
  const auto tail = fast.tailAbove(threshold);
  ASSERT_EQ(tail.firstRank, plain.firstAbove(threshold)) << where;
  const auto sum = static_cast<double>(plain.sumAbove(threshold));
  ASSERT_NEAR(tail.sum, sum, 1e-11 * std::abs(sum)) << where;
}

enum class Order { random, rising, falling, equal, fewLevels };
constexpr Order everyOrder[] = {Order::random, Order::rising, Order::falling, Order::equal, Order::fewLevels};

template <typename Value>
Value valueOf(Order order, std::mt19937& rng, int k) {
  switch (order) {
    case Order::random:
      return static_cast<Value>(std::exp(std::uniform_real_distribution(-14.0, 0.0)(rng)));
    case Order::rising:
      return static_cast<Value>(0.001 + 1e-5 * k);
    case Order::falling:
      return static_cast<Value>(1.0 - 1e-5 * k);
    case Order::equal:
      return static_cast<Value>(0.25);
    case Order::fewLevels:
      return static_cast<Value>(1 + rng() % 5);
  }
  return 0;
}

template <typename Value>
class OrderedStatisticsOf : public testing::Test {};
using ValueTypes = testing::Types<float, double>;
TYPED_TEST_SUITE(OrderedStatisticsOf, ValueTypes);

// 40,000 values fill more than one branch (128 leaves of at most 256 values) in every order.
TYPED_TEST(OrderedStatisticsOf, EqualsASortedVectorInEveryOrderOfArrival) {
  for (const Order order : everyOrder) {
    std::mt19937 rng(static_cast<unsigned>(order) + 1);
    OrderedStatistics<TypeParam> fast;
    PlainStatistics<TypeParam> plain;
    for (int k = 0; k < 40000; ++k) {
      const auto value = valueOf<TypeParam>(order, rng, k);
      fast.insert(value);
      plain.insert(value);
      if (k % 1009 != 0) continue;
      const std::string where =
          "order " + std::to_string(static_cast<int>(order)) + ", value " + std::to_string(k);
      expectEqual(fast, plain, plain.values[rng() % plain.values.size()], where);  // equal to an element
      expectEqual(fast, plain, static_cast<TypeParam>(valueOf<TypeParam>(Order::random, rng, 0)), where);
    }
    for (std::size_t rank = 0; rank < plain.values.size(); ++rank)
      ASSERT_EQ(fast.valueAt(static_cast<std::int64_t>(rank)), plain.values[rank]) << "rank " << rank;
  }
}

TYPED_TEST(OrderedStatisticsOf, ThresholdsOutsideTheValuesTakeAllOrNothing) {
  OrderedStatistics<TypeParam> statistics;
  for (int k = 1; k <= 1000; ++k) statistics.insert(static_cast<TypeParam>(k));
  EXPECT_EQ(statistics.tailAbove(0).firstRank, 0);
  EXPECT_EQ(statistics.tailAbove(0).sum, 500500.0);
  EXPECT_EQ(statistics.tailAbove(1000).firstRank, 1000);
  EXPECT_EQ(statistics.tailAbove(1000).sum, 0.0);
  EXPECT_EQ(statistics.tailAbove(999).firstRank, 999);
  EXPECT_EQ(statistics.tailAbove(999).sum, 1000.0);
}

TYPED_TEST(OrderedStatisticsOf, EmptyHasAnEmptyTail) {
  OrderedStatistics<TypeParam> statistics;
  EXPECT_TRUE(statistics.isEmpty());
  EXPECT_EQ(statistics.tailAbove(0).firstRank, 0);
  EXPECT_EQ(statistics.tailAbove(0).sum, 0.0);
}

TYPED_TEST(OrderedStatisticsOf, ClearedFillsAnewLikeTheFirstTime) {
  OrderedStatistics<TypeParam> statistics;
  for (int run = 0; run < 3; ++run) {
    std::mt19937 rng(11);
    PlainStatistics<TypeParam> plain;
    statistics.clear();
    EXPECT_TRUE(statistics.isEmpty());
    for (int k = 0; k < 5000; ++k) {
      const auto value = valueOf<TypeParam>(run == 1 ? Order::falling : Order::random, rng, k);
      statistics.insert(value);
      plain.insert(value);
    }
    expectEqual(statistics, plain, plain.values[2500], "run " + std::to_string(run));
    EXPECT_EQ(statistics.valueAt(0), plain.values.front());
    EXPECT_EQ(statistics.valueAt(4999), plain.values.back());
  }
}

TYPED_TEST(OrderedStatisticsOf, RankOutOfRangeAndNaNStopTheProgram) {
  OrderedStatistics<TypeParam> statistics;
  EXPECT_DEATH((void)statistics.valueAt(0), "rank out of range");
  statistics.insert(1);
  EXPECT_DEATH((void)statistics.valueAt(1), "rank out of range");
  EXPECT_DEATH((void)statistics.valueAt(-1), "rank out of range");
  EXPECT_DEATH(statistics.insert(std::numeric_limits<TypeParam>::quiet_NaN()), "must not be NaN");
}

// Shrinks to the shortest sequence of insertions and clearings that tells the two apart.
RC_GTEST_PROP(OrderedStatistics, EqualsASortedVectorAfterAnySequenceOfOperations, ()) {
  constexpr int clearing = -1;
  const auto operations = *rc::gen::container<std::vector<int>>(
      rc::gen::weightedElement<int>({{1, clearing}, {60, 0}, {60, 1}, {60, 2}, {60, 500}, {60, 999}}));
  const auto threshold = static_cast<double>(*rc::gen::inRange(-1, 1001));
  const int repeat = *rc::gen::inRange(1, 200);  // long enough to split leaves
  OrderedStatistics<double> fast;
  PlainStatistics<double> plain;
  for (const int operation : operations) {
    if (operation == clearing) {
      fast.clear();
      plain.values.clear();
      continue;
    }
    for (int k = 0; k < repeat; ++k) {
      const double value = operation + k % 3;
      fast.insert(value);
      plain.insert(value);
    }
  }
  RC_ASSERT(fast.count() == static_cast<std::int64_t>(plain.values.size()));
  RC_ASSERT(fast.tailAbove(threshold).firstRank == plain.firstAbove(threshold));
  RC_ASSERT(fast.tailAbove(threshold).sum ==
            static_cast<double>(plain.sumAbove(threshold)));  // whole numbers
  for (std::size_t rank = 0; rank < plain.values.size(); ++rank)
    RC_ASSERT(fast.valueAt(static_cast<std::int64_t>(rank)) == plain.values[rank]);
}

}  // namespace
}  // namespace vellum
