#define VELLUM_VECTOR_BYTES 32
#include "VellumCore/Kernels/KernelLoops.hpp"

namespace vellum {

extern const KernelTable avx2Kernels;
const KernelTable avx2Kernels = tableNamed("avx2");

}  // namespace vellum
