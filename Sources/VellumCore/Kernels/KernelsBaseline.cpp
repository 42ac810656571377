#define VELLUM_VECTOR_BYTES 16
#include "VellumCore/Kernels/KernelLoops.hpp"

namespace vellum {

extern const KernelTable baselineKernels;
const KernelTable baselineKernels = tableNamed("baseline");

}  // namespace vellum
