#include "Support/AllocationCounter.hpp"

#include <atomic>
#include <cstddef>

namespace {

std::atomic<std::int64_t> allocations{0};

}  // namespace

#ifndef VELLUM_SANITIZED
// glibc's own allocator under its second name; ours stands in front of it for the whole test program.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);

void* malloc(std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_calloc(count, size);
}
void* realloc(void* memory, std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_realloc(memory, size);
}
}
#endif

namespace vellum::test {

AllocationCounter::AllocationCounter() : start_(allocations.load()) {}
std::int64_t AllocationCounter::count() const {
  return allocations.load() - start_;
}

}  // namespace vellum::test
