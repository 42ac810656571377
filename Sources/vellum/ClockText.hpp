#pragma once

#include <string>

namespace vellum {

// "3:07" and "1:02:03"; with tenths "3:07.4". Not negative; whole seconds are cut off, tenths rounded.
std::string clockText(double seconds);
std::string clockTextWithTenths(double seconds);

}  // namespace vellum
