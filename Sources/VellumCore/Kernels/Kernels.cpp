#include "VellumCore/Kernels/Kernels.hpp"

namespace vellum {

extern const KernelTable baselineKernels;
#ifdef VELLUM_KERNELS_AVX2
extern const KernelTable avx2Kernels;
#endif

KernelTables runnableKernels() {
#ifdef VELLUM_KERNELS_AVX2
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx2")) return {{&baselineKernels, &avx2Kernels}, 2};
#endif
  return {{&baselineKernels, nullptr}, 1};
}

const KernelTable& kernels() {
  static const KernelTable& best = []() -> const KernelTable& {
    const KernelTables runnable = runnableKernels();
    return *runnable.tables[runnable.count - 1];
  }();
  return best;
}

}  // namespace vellum
