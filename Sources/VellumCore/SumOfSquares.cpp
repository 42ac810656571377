#include "VellumCore/SumOfSquares.hpp"

#include "VellumCore/Kernels/Kernels.hpp"

namespace vellum {

namespace {

double squareOf(float x) {
  return static_cast<double>(x) * static_cast<double>(x);
}

}  // namespace

void SumOfSquares::add(const float* x, std::int64_t n) {
  static_assert(std::tuple_size_v<decltype(lanes_)> == laneCount);
  const auto addToNext = [&] {
    lanes_[next_] += squareOf(*x);
    next_ = (next_ + 1) % lanes_.size();
    ++x, --n;
  };
  while (n > 0 && next_ != 0) addToNext();
  for (; n >= laneCount; x += laneCount, n -= laneCount)
    for (std::size_t k = 0; k < lanes_.size(); ++k) lanes_[k] += squareOf(x[k]);
  while (n > 0) addToNext();
}

void SumOfSquares::addSilence(std::int64_t n) {
  next_ = (next_ + static_cast<std::size_t>(n)) % lanes_.size();
}

double SumOfSquares::value() const {
  auto folded = lanes_;
  for (std::size_t half = lanes_.size() / 2; half > 0; half /= 2)
    for (std::size_t k = 0; k < half; ++k) folded[k] += folded[k + half];
  return folded[0];
}

}  // namespace vellum
