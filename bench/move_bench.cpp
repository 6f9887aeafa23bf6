// omkm_bench, data movement and scaled sums against what users write today:
//
//   BM_<who>_Transpose_32f/N            one N x N packed float matrix transposed into another
//                                       (N = 64, 1024, 4096): omkmTranspose_m_32f, a plain loop,
//                                       Eigen transpose() into a new matrix
//   BM_<who>_CopyAoS_32f/C              C 4x4 float matrices from an array of structs (96-byte
//                                       records, matrix at byte 16) into a packed array:
//                                       omkmCopy_ma_32f_SS, a plain loop, memcpy per record
//   BM_<who>_Saxpy_vava_32f/16/C        y = a*x + b on C packed length-16 vectors:
//                                       omkmSaxpy_vava_32f (one thread), a plain loop with std::fma,
//                                       Eigen a*x + y on mapped arrays
//   BM_memcpy_copy/256MiB               memcpy of 256 MiB: the copy bandwidth (read + write)
//
// bytes_per_second counts what each row must read and write (transpose and copy: 2x the matrix;
// Saxpy: two reads and one write). Every row is checked once before timing.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <random>
#include <string>

#include "bench_common.h"
#include "omkm.h"

#ifdef OMKM_BENCH_HAVE_EIGEN
#include <Eigen/Core>
#endif

namespace {

using namespace omkm_bench;

template <class Body>
void timed(benchmark::State& state, const std::string& name, const std::function<std::string()>& check,
           Body&& body, size_t objects, size_t bytesPerObject) {
    const int threads = applyBudget(1);
    const std::string error = checkOnce(name, check);
    if (error.empty())
        for (auto _ : state) {
            body();
            benchmark::ClobberMemory();
        }
    applyBudget(0);
    if (!error.empty()) {
        state.SkipWithError((name + ": " + error).c_str());
        return;
    }
    finishTraffic(state, objects, bytesPerObject, threads);
}

// ---- transpose ----
struct Square {
    int n = 0;
    Array<float> a, t;
};
Square& square(int n) {
    static std::map<int, Square> cache;
    Square& s = cache[n];
    if (s.a) return s;
    s.n = n;
    s.a = alignedArray<float>(size_t(n) * n);
    s.t = alignedArray<float>(size_t(n) * n);
    for (size_t i = 0; i < size_t(n) * n; ++i) s.a[i] = float(i % 9973) * 0.5f;
    return s;
}
std::string checkTranspose(Square& s, const std::function<void()>& run) {
    std::memset(s.t.get(), 0xff, size_t(s.n) * s.n * sizeof(float));
    run();
    for (int i = 0; i < s.n; ++i)
        for (int j = 0; j < s.n; ++j)
            if (s.t[size_t(j) * s.n + i] != s.a[size_t(i) * s.n + j]) return "element differs";
    return {};
}

void transposeRow(const std::string& who, int n) {
    Square* s = &square(n);
    std::function<void()> run;
    if (who == "omkm") {
        run = [s] { omkmTranspose_m_32f(s->a.get(), 4 * s->n, 4, s->n, s->n, s->t.get(), 4 * s->n, 4); };
    } else if (who == "plain") {
        run = [s] {
            const int m = s->n;
            for (int i = 0; i < m; ++i)
                for (int j = 0; j < m; ++j) s->t[size_t(j) * m + i] = s->a[size_t(i) * m + j];
        };
    }
#ifdef OMKM_BENCH_HAVE_EIGEN
    else {
        run = [s] {
            using M = Eigen::Matrix<float, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;
            Eigen::Map<M>(s->t.get(), s->n, s->n) = Eigen::Map<const M>(s->a.get(), s->n, s->n).transpose();
        };
    }
#endif
    const std::string name = "BM_" + who + "_Transpose_32f/" + std::to_string(n);
    benchmark::RegisterBenchmark(name.c_str(), [name, s, run](benchmark::State& st) {
        timed(st, name, [s, run] { return checkTranspose(*s, run); }, run, 1, 8 * size_t(s->n) * s->n);
    })->UseRealTime()->Unit(benchmark::kMicrosecond);
}

// ---- copy out of an array of structs ----
struct Record {
    float id[4];
    float m[16];
    float extra[4];
};
static_assert(sizeof(Record) == 96, "record layout");
struct Records {
    Array<Record> r;
    Array<float> packed;
    int count = 0;
};
Records& records() {
    static Records s;
    if (s.r) return s;
    s.count = kOutOfCache;
    s.r = alignedArray<Record>(size_t(s.count));
    s.packed = alignedArray<float>(size_t(s.count) * 16);
    for (int k = 0; k < s.count; ++k)
        for (int q = 0; q < 16; ++q) s.r[k].m[q] = float(k) + 0.25f * q;
    return s;
}
std::string checkCopy(Records& s, const std::function<void()>& run) {
    std::memset(s.packed.get(), 0, size_t(s.count) * 16 * sizeof(float));
    run();
    for (int k = 0; k < s.count; ++k)
        if (std::memcmp(s.packed.get() + 16 * size_t(k), s.r[k].m, 64) != 0) return "matrix differs";
    return {};
}
void copyRow(const std::string& who) {
    Records* s = &records();
    std::function<void()> run;
    if (who == "omkm")
        run = [s] { omkmCopy_ma_32f_SS(s->r[0].m, 96, 16, 4, s->packed.get(), 64, 16, 4, 4, 4, s->count); };
    else if (who == "plain")
        run = [s] {
            for (int k = 0; k < s->count; ++k)
                for (int q = 0; q < 16; ++q) s->packed[16 * size_t(k) + q] = s->r[k].m[q];
        };
    else
        run = [s] {
            for (int k = 0; k < s->count; ++k) std::memcpy(s->packed.get() + 16 * size_t(k), s->r[k].m, 64);
        };
    const std::string name = "BM_" + who + "_CopyAoS_32f/" + std::to_string(s->count);
    benchmark::RegisterBenchmark(name.c_str(), [name, s, run](benchmark::State& st) {
        timed(st, name, [s, run] { return checkCopy(*s, run); }, run, size_t(s->count), 128);
    })->UseRealTime()->Unit(benchmark::kMicrosecond);
}

// ---- Saxpy ----
struct Vectors {
    int count = 0;
    Array<float> x, y, d;
};
Vectors& vectors(int count) {
    static std::map<int, Vectors> cache;
    Vectors& v = cache[count];
    if (v.x) return v;
    v.count = count;
    const size_t n = size_t(count) * 16;
    v.x = alignedArray<float>(n);
    v.y = alignedArray<float>(n);
    v.d = alignedArray<float>(n);
    std::mt19937 gen(0x5a7U + unsigned(count));
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    for (size_t i = 0; i < n; ++i) v.x[i] = u(gen), v.y[i] = u(gen);
    return v;
}
constexpr float kScale = 1.0f / 3.0f;
std::string checkSaxpy(Vectors& v, const std::function<void()>& run) {
    std::memset(v.d.get(), 0, size_t(v.count) * 16 * sizeof(float));
    run();
    for (size_t i = 0; i < size_t(v.count) * 16; ++i)
        if (!(std::fabs(v.d[i] - std::fma(kScale, v.x[i], v.y[i])) <= 1e-6f)) return "element differs";
    return {};
}
void saxpyRow(const std::string& who, int count) {
    Vectors* v = &vectors(count);
    std::function<void()> run;
    if (who == "omkm")
        run = [v] { omkmSaxpy_vava_32f(v->x.get(), 64, 4, kScale, v->y.get(), 64, 4, v->d.get(), 64, 4, 16, v->count); };
    else if (who == "plain")
        run = [v] {
            for (size_t i = 0; i < size_t(v->count) * 16; ++i) v->d[i] = std::fma(kScale, v->x[i], v->y[i]);
        };
#ifdef OMKM_BENCH_HAVE_EIGEN
    else
        run = [v] {
            const Eigen::Index n = Eigen::Index(v->count) * 16;
            Eigen::Map<Eigen::ArrayXf>(v->d.get(), n) =
                kScale * Eigen::Map<const Eigen::ArrayXf>(v->x.get(), n) + Eigen::Map<const Eigen::ArrayXf>(v->y.get(), n);
        };
#endif
    const std::string name = "BM_" + who + "_Saxpy_vava_32f/16/" + std::to_string(count);
    benchmark::RegisterBenchmark(name.c_str(), [name, v, run](benchmark::State& st) {
        timed(st, name, [v, run] { return checkSaxpy(*v, run); }, run, size_t(v->count), 3 * 64);
    })->UseRealTime()->Unit(benchmark::kMicrosecond);
}

void BM_memcpyCopy(benchmark::State& state) {
    constexpr size_t kBytes = size_t(256) << 20;
    static Array<char> a = alignedArray<char>(kBytes), b = alignedArray<char>(kBytes);
    std::memset(a.get(), 1, kBytes);
    std::memset(b.get(), 2, kBytes);
    for (auto _ : state) {
        std::memcpy(b.get(), a.get(), kBytes);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(2 * kBytes));
}

bool registerAll() {
    const char* whos[] = {"omkm", "plain",
#ifdef OMKM_BENCH_HAVE_EIGEN
                          "eigen"
#endif
    };
    for (int n : {64, 1024, 4096})
        for (const char* w : whos) transposeRow(w, n);
    for (const char* w : {"omkm", "plain", "memcpy"}) copyRow(w);
    for (int c : {kInCache, kOutOfCache})
        for (const char* w : whos) saxpyRow(w, c);
    benchmark::RegisterBenchmark("BM_memcpy_copy/256MiB", BM_memcpyCopy)->UseRealTime()->Unit(benchmark::kMicrosecond);
    return true;
}

[[maybe_unused]] const bool registered = registerAll();

}  // namespace
