// Pieces shared by the rows of omkm_bench: aligned operand storage, the thread budget of a row,
// the reported counters and the STREAM-like add that gives the memory limit of a row.
#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "omkcore.h"

namespace omkm_bench {

// Object counts of every case: 1000 keeps the operands in the per-core L2 cache, 1000000 puts them
// far beyond the last-level cache.
constexpr int kInCache = 1000;
constexpr int kOutOfCache = 1000000;

struct FreeDeleter {
    void operator()(void* p) const { std::free(p); }
};

template <class T>
using Array = std::unique_ptr<T[], FreeDeleter>;

// 64-byte aligned storage for n elements of T (the size is rounded up to a multiple of 64 bytes,
// as aligned_alloc requires).
template <class T>
Array<T> alignedArray(size_t n) {
    const size_t bytes = (n * sizeof(T) + 63) / 64 * 64;
    T* p = static_cast<T*>(std::aligned_alloc(64, bytes));
    if (p == nullptr) {
        std::fprintf(stderr, "omkm_bench: aligned_alloc of %zu bytes failed\n", bytes);
        std::exit(2);
    }
    return Array<T>(p);
}

// Budget 0 is the library's default (the OpenMP runtime's maximum); n >= 1 fixes it to n.
inline int applyBudget(int budget) {
    omkSetNumThreads(budget);
    int actual = 0;
    omkGetNumThreads(&actual);
    return actual;
}

// bytes_per_second from the bytes each object moves, items as objects, time_per_obj as wall seconds
// per object.
inline void finishTraffic(benchmark::State& state, size_t objects, size_t bytesPerObject, int threads) {
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(objects) * int64_t(bytesPerObject));
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(objects));
    state.counters["time_per_obj"] = benchmark::Counter(
        double(objects), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    state.counters["threads"] = threads;
}

// The same with two reads and one write of objectBytes per object (the STREAM convention; write-
// allocate traffic is not counted).
inline void finish(benchmark::State& state, size_t objects, size_t objectBytes, int threads) {
    finishTraffic(state, objects, 3 * objectBytes, threads);
}

// STREAM "add": c[i] = a[i] + b[i], on one thread or split statically over an OpenMP team.
template <class T>
__attribute__((noinline)) void streamAdd(const T* a, const T* b, T* c, size_t n, int threads) {
    if (threads <= 1) {
        for (size_t i = 0; i < n; ++i) c[i] = a[i] + b[i];
        return;
    }
#pragma omp parallel for num_threads(threads) schedule(static)
    for (ptrdiff_t i = 0; i < ptrdiff_t(n); ++i) c[i] = a[i] + b[i];
}

// Runs `check` the first time a row asks and remembers its message (empty: the row is right).
inline std::string checkOnce(const std::string& row, const std::function<std::string()>& check) {
    static std::map<std::string, std::string> done;
    auto it = done.find(row);
    if (it == done.end()) it = done.emplace(row, check()).first;
    return it->second;
}

}  // namespace omkm_bench
