#pragma once

#include <unistd.h>

#include <string>
#include <system_error>
#include <utility>

namespace vellum {

// Owns an open file descriptor; -1 holds none.
class Descriptor {
 public:
  explicit Descriptor(int descriptor = -1) : descriptor_(descriptor) {}
  ~Descriptor() { close(); }
  Descriptor(Descriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }

  explicit operator bool() const { return descriptor_ >= 0; }
  int get() const { return descriptor_; }
  // 0, or -1 with errno set.
  int close() { return descriptor_ >= 0 ? ::close(std::exchange(descriptor_, -1)) : 0; }

 private:
  int descriptor_;
};

// The system's text for an errno value.
inline std::string systemErrorText(int error) {
  return std::generic_category().message(error);
}

}  // namespace vellum
