#pragma once

#include <cstdint>

#if defined(__SANITIZE_ADDRESS__)
#define VELLUM_SANITIZED
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VELLUM_SANITIZED
#endif
#endif

namespace vellum::test {

// Counts every allocation of the process, the C library's included, while it lives. Other threads count too.
// Under a sanitizer, which has an allocator of its own, isAvailable is false and the count stays 0.
class AllocationCounter {
 public:
  AllocationCounter();
  std::int64_t count() const;

#ifdef VELLUM_SANITIZED
  static constexpr bool isAvailable = false;
#else
  static constexpr bool isAvailable = true;
#endif

 private:
  std::int64_t start_;
};

}  // namespace vellum::test
