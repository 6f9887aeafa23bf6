// The parallel driver: splits `count` objects into contiguous slices over an OpenMP team and runs
// the same serial kernel on each slice. Every family uses it; none opens a parallel region itself.
#pragma once
#include <omp.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "omkcore.h"
#include "omkm.h"
#include "frame/operand_views.h"

namespace omk {

// The split of `count` objects over a team: `chunk` objects each, and one more for the first `rem`
// threads, so the slices follow each other in thread order.
struct Slice {
    int32_t first, count;
};
struct Split {
    int32_t team, chunk, rem;
    static constexpr Split over(int32_t count, int32_t team) { return {team, count / team, count % team}; }
    constexpr Slice of(int32_t t) const {
        return t < rem ? Slice{(chunk + 1) * t, chunk + 1} : Slice{(chunk + 1) * rem + (t - rem) * chunk, chunk};
    }
};

// Runs body(first, m, scratch) over all objects and returns the first non-zero status any slice
// stored (omkStsOk when none failed).
//
// The thread budget is asked twice: once to decide (fewer than two threads, or fewer objects than
// threads, runs body(0, count, nullptr) on the calling thread) and once to size the team. The
// split uses the team the runtime actually grants; inside an enclosing parallel region that is a
// team of one, which computes everything serially.
//
// With scratchPerThread > 0, the calling thread takes one block of budget * scratchPerThread bytes
// from the OpenMP allocator before the region and frees it after; thread t gets its own part. If
// the block cannot be had, the call runs serially, where the body uses the caller's buffer.
template <class Body>
OmkStatus runOverObjects(int32_t count, Body&& body, size_t scratchPerThread = 0) {
    const int budget = ownGetNumThreads();
    if (budget < 2 || count < budget) return body(int32_t(0), count, static_cast<char*>(nullptr));

    int requested = ownGetNumThreads();
    if (requested < 1) requested = 1;
    char* scratch = nullptr;
    if (scratchPerThread > 0) {
        scratch = static_cast<char*>(omp_alloc(size_t(requested) * scratchPerThread, omp_default_mem_alloc));
        if (scratch == nullptr) return body(int32_t(0), count, static_cast<char*>(nullptr));
    }

    OmkStatus result = omkStsOk;
#pragma omp parallel num_threads(requested)
    {
        // Every thread derives the split over the team the runtime granted from the team size it
        // sees, which all threads of the team see alike: the same slices a published split would
        // give, without a barrier before the work.
        const int32_t t = omp_get_thread_num();
        const Slice s = Split::over(count, omp_get_num_threads()).of(t);
        const OmkStatus st = body(s.first, s.count, scratch ? scratch + size_t(t) * scratchPerThread : nullptr);
        if (st != omkStsOk) {
#pragma omp critical(omk_status_merge)
            if (result == omkStsOk) result = st;
        }
    }
    if (scratch) omp_free(scratch, omp_default_mem_alloc);
    return result;
}

// Runs run(first, m) over `count` objects: on the calling thread, or over the parallel driver's
// slices, where each slice runs serially and the first non-zero status stored wins. A slice stops
// at its first failing object, so the serial path leaves the objects after a failure untouched.
template <class Run>
OmkStatus overObjects(bool parallel, int32_t count, Run&& run) {
    if (!parallel) return run(int32_t(0), count);
    return runOverObjects(count, [&](int32_t first, int32_t m, char*) { return run(first, m); });
}

// Runs body(first, m, scratch) serially with the caller's buffer as scratch, or over the driver
// where each thread gets its own part of bytesPerThread (rounded up to whole cache lines, so the
// parts share none); when the driver runs serially after all, the caller's buffer serves again.
template <class T, class Body>
OmkStatus overObjectsWithScratch(bool parallel, int32_t count, T* buffer, size_t bytesPerThread, Body&& body) {
    auto run = [&](int32_t first, int32_t m, char* block) -> OmkStatus {
        return body(first, m, block ? reinterpret_cast<T*>(block) : buffer);
    };
    if (!parallel) return run(int32_t(0), count, nullptr);
    return runOverObjects(count, run, (bytesPerThread + 63) / 64 * 64);
}

// Runs kernel(packed, first, m) serially or over the driver, `packed` a std::bool_constant that
// says whether every element view of the call has packed columns.
template <class... V, class Kernel>
OmkStatus overObjectsPacked(bool parallel, int32_t count, Kernel&& kernel, const V&... views) {
    if constexpr (((V::kLayout == Layout::Strided) && ...)) {
        if ((unitColumns(views) && ...))
            return overObjects(parallel, count, [&](int32_t first, int32_t m) {
                return kernel(std::true_type{}, first, m);
            });
    }
    return overObjects(parallel, count, [&](int32_t first, int32_t m) { return kernel(std::false_type{}, first, m); });
}

}  // namespace omk
