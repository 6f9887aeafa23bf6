// Thread budget of the omkm libraries.
//
// A process-wide fixed count set by omkSetNumThreads overrides the OpenMP runtime's maximum;
// with no fixed count the budget is omp_get_max_threads(), read on every call so that
// OMP_NUM_THREADS and omp_set_num_threads take effect.
#include "omkcore.h"

#include <omp.h>

#include <atomic>

namespace {

// 0 = follow the OpenMP runtime; n >= 1 = fixed at n threads.
std::atomic<int> fixed{0};

// Both exported readers call this function directly rather than one calling the other through
// the dynamic symbol table, so an executable that defines its own ownGetNumThreads does not
// change what omkGetNumThreads reports.
int currentBudget() {
    const int n = fixed.load(std::memory_order_relaxed);
    return n > 0 ? n : omp_get_max_threads();
}

}  // namespace

extern "C" OMKCORE_API int ownGetNumThreads(void) { return currentBudget(); }

extern "C" OMKCORE_API OmkStatus omkSetNumThreads(int numThreads) {
    if (numThreads < 0) return omkStsBadSize;
    fixed.store(numThreads, std::memory_order_relaxed);
    return omkStsOk;
}

extern "C" OMKCORE_API OmkStatus omkGetNumThreads(int* pNumThreads) {
    if (pNumThreads == nullptr) return omkStsNullPtr;
    *pNumThreads = currentBudget();
    return omkStsOk;
}
