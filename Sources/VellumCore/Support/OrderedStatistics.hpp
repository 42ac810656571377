#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "VellumCore/Support/Require.hpp"

namespace vellum {

// A growing multiset of numbers in ascending order that answers by rank and by threshold.
//
// Three levels: the set is a list of branches, a branch a list of leaves, a leaf up to 256 sorted values;
// each level keeps the largest value, the count and the sum of what hangs below it. insert, valueAt and
// tailAbove cost well under a microsecond whether a minute or a day of 100 ms blocks is held, where a sorted
// array would move and add up everything above the new value.
//
// Values must not be NaN. Sums are 64-bit. clear() keeps the storage for the next programme.
template <typename Value>
class OrderedStatistics {
 public:
  // The values greater than a threshold: where they begin and what they add up to.
  struct Tail {
    std::int64_t firstRank = 0;  // == count() when there are none
    double sum = 0;
  };

  // Puts `value` before the first element that is not less (lower bound).
  void insert(Value value) {
    VELLUM_REQUIRE(value == value, "OrderedStatistics: a value must not be NaN");
    if (branches_.empty()) branches_.push_back(newBranch());
    const std::size_t b = firstNotLess(std::span<const Value>(branchGreatest_), value);
    insertInto(b, value);
    ++count_;
  }

  std::int64_t count() const { return count_; }
  bool isEmpty() const { return count_ == 0; }

  // The value of a rank, 0 the smallest. 0 <= rank < count().
  Value valueAt(std::int64_t rank) const {
    VELLUM_REQUIRE(rank >= 0 && rank < count_, "OrderedStatistics: rank out of range");
    std::size_t b = 0;
    while (rank >= branches_[b]->count) rank -= branches_[b++]->count;
    const Branch& branch = *branches_[b];
    std::size_t l = 0;
    while (rank >= branch.counts[l]) rank -= branch.counts[l++];
    return branch.leaves[l]->values[static_cast<std::size_t>(rank)];
  }

  // The values greater than `threshold`; equal ones stay out.
  Tail tailAbove(Value threshold) const {
    Tail tail;
    std::size_t b = 0;
    for (; b < branches_.size() && !(branchGreatest_[b] > threshold); ++b)
      tail.firstRank += branches_[b]->count;
    if (b == branches_.size()) return tail;
    const Branch& branch = *branches_[b];
    std::size_t l = 0;
    for (; !(branch.greatest[l] > threshold); ++l) tail.firstRank += branch.counts[l];
    const std::span<const Value> leaf = valuesOf(branch, l);
    const auto first = std::upper_bound(leaf.begin(), leaf.end(), threshold);
    tail.firstRank += first - leaf.begin();
    tail.sum = sumOf(std::span<const Value>(first, leaf.end()));
    for (++l; l < branch.leafCount; ++l) tail.sum += branch.sums[l];
    for (++b; b < branches_.size(); ++b) tail.sum += branches_[b]->sum;
    return tail;
  }

  void clear() {
    for (BranchPointer& branch : branches_) {
      while (branch->leafCount > 0) spareLeaves_.push_back(std::move(branch->leaves[--branch->leafCount]));
      spareBranches_.push_back(std::move(branch));
    }
    branches_.clear();
    branchGreatest_.clear();
    count_ = 0;
  }

 private:
  static constexpr std::size_t leafCapacity = 256, branchCapacity = 128;

  struct Leaf {
    std::array<Value, leafCapacity> values;
  };
  using LeafPointer = std::unique_ptr<Leaf>;

  // Leaf k holds counts[k] values, the last of them greatest[k]. Only a new branch's first leaf may be empty.
  struct Branch {
    std::size_t leafCount = 0;
    std::int64_t count = 0;
    double sum = 0;
    std::array<Value, branchCapacity> greatest;
    std::array<std::int64_t, branchCapacity> counts;
    std::array<double, branchCapacity> sums;
    std::array<LeafPointer, branchCapacity> leaves;
  };
  using BranchPointer = std::unique_ptr<Branch>;

  // First of the ascending values that is not less than `value`, or the last of them.
  static std::size_t firstNotLess(std::span<const Value> greatest, Value value) {
    if (greatest.empty()) return 0;
    const auto found = std::lower_bound(greatest.begin(), greatest.end() - 1, value);
    return static_cast<std::size_t>(found - greatest.begin());
  }

  static std::span<const Value> valuesOf(const Branch& branch, std::size_t leaf) {
    return std::span<const Value>(branch.leaves[leaf]->values)
        .first(static_cast<std::size_t>(branch.counts[leaf]));
  }

  // Four partial sums: one would wait for itself at every addition.
  static double sumOf(std::span<const Value> values) {
    double partial[4] = {};
    std::size_t i = 0;
    for (; i + 4 <= values.size(); i += 4)
      for (std::size_t k = 0; k < 4; ++k) partial[k] += static_cast<double>(values[i + k]);
    for (std::size_t k = 0; i < values.size(); ++i, ++k) partial[k] += static_cast<double>(values[i]);
    return (partial[0] + partial[2]) + (partial[1] + partial[3]);
  }

  LeafPointer newLeaf() {
    if (spareLeaves_.empty()) return std::make_unique<Leaf>();
    LeafPointer leaf = std::move(spareLeaves_.back());
    spareLeaves_.pop_back();
    return leaf;
  }

  BranchPointer newBranch() {
    if (spareBranches_.empty()) return std::make_unique<Branch>();
    BranchPointer branch = std::move(spareBranches_.back());
    spareBranches_.pop_back();
    branch->count = 0;
    branch->sum = 0;
    return branch;
  }

  void insertInto(std::size_t b, Value value) {
    Branch* branch = branches_[b].get();
    if (branch->leafCount == 0) openLeaf(*branch, 0);
    std::size_t l = firstNotLess(std::span<const Value>(branch->greatest).first(branch->leafCount), value);
    if (branch->counts[l] == static_cast<std::int64_t>(leafCapacity)) {
      if (branch->leafCount == branchCapacity) return splitBranch(b, value);
      const bool atTheEnd =
          b + 1 == branches_.size() && l + 1 == branch->leafCount && value > branch->greatest[l];
      // Rising values fill a fresh leaf instead of leaving half-empty ones behind.
      if (atTheEnd)
        openLeaf(*branch, l + 1);
      else
        splitLeaf(*branch, l);
      if (atTheEnd || value > branch->greatest[l]) ++l;
    }
    insertIntoLeaf(*branch, l, value);
    if (branchGreatest_.size() <= b) branchGreatest_.resize(b + 1);
    branchGreatest_[b] = branch->greatest[branch->leafCount - 1];
  }

  static void insertIntoLeaf(Branch& branch, std::size_t l, Value value) {
    std::array<Value, leafCapacity>& values = branch.leaves[l]->values;
    const auto end = values.begin() + branch.counts[l];
    const auto place = std::lower_bound(values.begin(), end, value);
    std::move_backward(place, end, end + 1);
    *place = value;
    ++branch.counts[l];
    branch.sums[l] += static_cast<double>(value);
    branch.greatest[l] = values[static_cast<std::size_t>(branch.counts[l] - 1)];
    ++branch.count;
    branch.sum += static_cast<double>(value);
  }

  // Makes room for an empty leaf at place l.
  void openLeaf(Branch& branch, std::size_t l) {
    const auto shift = [&](auto& list) {
      std::move_backward(list.begin() + static_cast<std::ptrdiff_t>(l),
                         list.begin() + static_cast<std::ptrdiff_t>(branch.leafCount),
                         list.begin() + static_cast<std::ptrdiff_t>(branch.leafCount + 1));
    };
    shift(branch.greatest);
    shift(branch.counts);
    shift(branch.sums);
    shift(branch.leaves);
    branch.leaves[l] = newLeaf();
    branch.counts[l] = 0;
    branch.sums[l] = 0;
    ++branch.leafCount;
  }

  // Moves the upper half of a full leaf into a new one behind it.
  void splitLeaf(Branch& branch, std::size_t l) {
    openLeaf(branch, l + 1);
    constexpr std::size_t half = leafCapacity / 2;
    const std::array<Value, leafCapacity>& lower = branch.leaves[l]->values;
    std::copy(lower.begin() + half, lower.end(), branch.leaves[l + 1]->values.begin());
    branch.counts[l] = branch.counts[l + 1] = half;
    for (const std::size_t k : {l, l + 1}) {
      branch.greatest[k] = branch.leaves[k]->values[half - 1];
      branch.sums[k] = sumOf(valuesOf(branch, k));
    }
  }

  // Makes room in a full branch by moving its upper half (nothing, where values only rise) into a new one
  // behind it, then inserts.
  void splitBranch(std::size_t b, Value value) {
    BranchPointer upper = newBranch();
    Branch& lower = *branches_[b];
    const bool rising = b + 1 == branches_.size() && value > lower.greatest[branchCapacity - 1];
    const std::size_t kept = rising ? branchCapacity : branchCapacity / 2;
    for (std::size_t l = kept; l < branchCapacity; ++l) {
      const std::size_t to = upper->leafCount++;
      upper->greatest[to] = lower.greatest[l];
      upper->counts[to] = lower.counts[l];
      upper->sums[to] = lower.sums[l];
      upper->leaves[to] = std::move(lower.leaves[l]);
    }
    lower.leafCount = kept;
    recount(lower);
    recount(*upper);
    branchGreatest_[b] = lower.greatest[kept - 1];
    const auto next = static_cast<std::ptrdiff_t>(b + 1);
    branchGreatest_.insert(branchGreatest_.begin() + next,
                           rising ? value : upper->greatest[upper->leafCount - 1]);
    branches_.insert(branches_.begin() + next, std::move(upper));
    insertInto(value > branchGreatest_[b] ? b + 1 : b, value);
  }

  static void recount(Branch& branch) {
    branch.count = 0;
    branch.sum = 0;
    for (std::size_t l = 0; l < branch.leafCount; ++l) {
      branch.count += branch.counts[l];
      branch.sum += branch.sums[l];
    }
  }

  std::vector<BranchPointer> branches_;
  std::vector<Value> branchGreatest_;  // the greatest value of each branch, ascending
  std::int64_t count_ = 0;
  std::vector<LeafPointer> spareLeaves_;
  std::vector<BranchPointer> spareBranches_;
};

}  // namespace vellum
