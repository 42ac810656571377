#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace vellum {

// Sum of squares of a stream of samples, squares and sum in 64 bit. However the stream is cut, the sum is the
// same to the last bit, and the one that the kernel makes of the whole: sample i of the stream goes to lane
// i mod 16, and the lanes are folded by halves when the sum is read.
class SumOfSquares {
 public:
  void add(const float* x, std::int64_t n);
  void addSilence(std::int64_t n);  // n samples of 0
  double value() const;             // NaN where a sample was

 private:
  std::array<double, 16> lanes_{};
  std::size_t next_ = 0;  // lane of the next sample
};

}  // namespace vellum
