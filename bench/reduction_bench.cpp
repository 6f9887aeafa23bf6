// omkm_bench, small reductions and Gaxpy on packed arrays, next to a plain loop and Eigen:
//
//   BM_<who>_Dot_vava_32f/C        dot products of packed 3-vectors, pairwise
//   BM_<who>_Cross_vava_32f/C      cross products of packed 3-vectors, pairwise
//   BM_<who>_L2Norm_va_32f/C       norms of packed 3-vectors
//   BM_<who>_Gaxpy_mva_32f/C       y_k = A*x_k + b_k with one 4x4 matrix and packed 4-vectors
//
// <who> is omkm (budget of one thread, and the library's default budget), plain (a loop written
// as a user would, with the library's compiler flags) or eigen (fixed-size Eigen expressions over
// Map, when Eigen is found); C = 1000 and 1000000 objects. Each row is checked once before timing
// against a double-precision computation (within a few units in the last place) and reports
// time_per_obj.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <map>
#include <random>
#include <string>

#include "bench_common.h"
#include "omkcore.h"
#include "omkm.h"

#ifdef OMKM_BENCH_HAVE_EIGEN
#include <Eigen/Core>
#include <Eigen/Geometry>
#endif

namespace {

using namespace omkm_bench;

// Packed operands: a and b of `count` objects of `len` floats, a 4x4 matrix, room for results.
struct Data {
    int count = 0;
    Array<float> a, b, out;
    float m[16];
};

Data& data(int count) {
    static std::map<int, Data> cache;
    Data& d = cache[count];
    if (d.a) return d;
    d.count = count;
    const size_t n = size_t(count) * 4;
    d.a = alignedArray<float>(n);
    d.b = alignedArray<float>(n);
    d.out = alignedArray<float>(n);
    std::mt19937 gen(0x726564U);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    for (size_t i = 0; i < n; ++i) d.a[i] = u(gen), d.b[i] = u(gen), d.out[i] = 0.0f;
    for (float& v : d.m) v = u(gen);
    return d;
}

enum class Op { Dot, Cross, Norm, Gaxpy };
// Floats read and written per object (for bytes_per_second), and results written per object.
int objectFloats(Op op) { return op == Op::Gaxpy ? 12 : op == Op::Norm ? 4 : op == Op::Dot ? 7 : 9; }
int resultFloats(Op op) { return op == Op::Gaxpy ? 4 : op == Op::Cross ? 3 : 1; }

using Run = void (*)(Data&);

// ---- omkm ----
void omkmDot(Data& d) { omkmDotProduct_vava_32f(d.a.get(), 12, 4, d.b.get(), 12, 4, d.out.get(), 3, d.count); }
void omkmCross(Data& d) {
    omkmCrossProduct_vava_32f(d.a.get(), 12, 4, d.b.get(), 12, 4, d.out.get(), 12, 4, d.count);
}
void omkmNorm(Data& d) { omkmL2Norm_va_32f(d.a.get(), 12, 4, d.out.get(), 3, d.count); }
void omkmGaxpy(Data& d) {
    omkmGaxpy_mva_32f(d.m, 16, 4, 4, 4, d.a.get(), 16, 4, 4, d.b.get(), 16, 4, 4, d.out.get(), 16, 4, d.count);
}

// ---- plain loops ----
__attribute__((noinline)) void plainDot(Data& d) {
    for (int k = 0; k < d.count; ++k) {
        const float* x = d.a.get() + 3 * k;
        const float* y = d.b.get() + 3 * k;
        d.out[k] = x[0] * y[0] + x[1] * y[1] + x[2] * y[2];
    }
}
__attribute__((noinline)) void plainCross(Data& d) {
    for (int k = 0; k < d.count; ++k) {
        const float* x = d.a.get() + 3 * k;
        const float* y = d.b.get() + 3 * k;
        float* c = d.out.get() + 3 * k;
        c[0] = x[1] * y[2] - x[2] * y[1];
        c[1] = x[2] * y[0] - x[0] * y[2];
        c[2] = x[0] * y[1] - x[1] * y[0];
    }
}
__attribute__((noinline)) void plainNorm(Data& d) {
    for (int k = 0; k < d.count; ++k) {
        const float* x = d.a.get() + 3 * k;
        d.out[k] = std::sqrt(x[0] * x[0] + x[1] * x[1] + x[2] * x[2]);
    }
}
__attribute__((noinline)) void plainGaxpy(Data& d) {
    for (int k = 0; k < d.count; ++k) {
        const float* x = d.a.get() + 4 * k;
        const float* b = d.b.get() + 4 * k;
        float* y = d.out.get() + 4 * k;
        for (int i = 0; i < 4; ++i) {
            float t = b[i];
            for (int j = 0; j < 4; ++j) t += d.m[i * 4 + j] * x[j];
            y[i] = t;
        }
    }
}

// ---- Eigen ----
#ifdef OMKM_BENCH_HAVE_EIGEN
using V3 = Eigen::Vector3f;
using V4 = Eigen::Vector4f;
__attribute__((noinline)) void eigenDot(Data& d) {
    for (int k = 0; k < d.count; ++k)
        d.out[k] = Eigen::Map<const V3>(d.a.get() + 3 * k).dot(Eigen::Map<const V3>(d.b.get() + 3 * k));
}
__attribute__((noinline)) void eigenCross(Data& d) {
    for (int k = 0; k < d.count; ++k)
        Eigen::Map<V3>(d.out.get() + 3 * k) =
            Eigen::Map<const V3>(d.a.get() + 3 * k).cross(Eigen::Map<const V3>(d.b.get() + 3 * k));
}
__attribute__((noinline)) void eigenNorm(Data& d) {
    for (int k = 0; k < d.count; ++k) d.out[k] = Eigen::Map<const V3>(d.a.get() + 3 * k).norm();
}
__attribute__((noinline)) void eigenGaxpy(Data& d) {
    const Eigen::Map<const Eigen::Matrix<float, 4, 4, Eigen::RowMajor>> m(d.m);
    for (int k = 0; k < d.count; ++k)
        Eigen::Map<V4>(d.out.get() + 4 * k).noalias() =
            m * Eigen::Map<const V4>(d.a.get() + 4 * k) + Eigen::Map<const V4>(d.b.get() + 4 * k);
}
#endif

// ---- result check ----
std::string check(Data& d, Op op, Run run) {
    std::fill(d.out.get(), d.out.get() + size_t(d.count) * 4, std::numeric_limits<float>::quiet_NaN());
    run(d);
    for (int k = 0; k < d.count; ++k) {
        double want[4], size = 0;
        const float* x = d.a.get() + (op == Op::Gaxpy ? 4 : 3) * k;
        const float* y = d.b.get() + (op == Op::Gaxpy ? 4 : 3) * k;
        switch (op) {
        case Op::Dot: want[0] = double(x[0]) * y[0] + double(x[1]) * y[1] + double(x[2]) * y[2]; size = 3; break;
        case Op::Norm: want[0] = std::sqrt(double(x[0]) * x[0] + double(x[1]) * x[1] + double(x[2]) * x[2]); size = 3; break;
        case Op::Cross:
            want[0] = double(x[1]) * y[2] - double(x[2]) * y[1];
            want[1] = double(x[2]) * y[0] - double(x[0]) * y[2];
            want[2] = double(x[0]) * y[1] - double(x[1]) * y[0];
            size = 2;
            break;
        case Op::Gaxpy:
            for (int i = 0; i < 4; ++i) {
                want[i] = y[i];
                for (int j = 0; j < 4; ++j) want[i] += double(d.m[i * 4 + j]) * x[j];
            }
            size = 5;
            break;
        }
        const int r = resultFloats(op);
        for (int i = 0; i < r; ++i) {
            const double got = d.out[size_t(k) * (op == Op::Dot || op == Op::Norm ? 1 : r) + i];
            if (!(std::fabs(got - want[i]) <= 4 * size * std::numeric_limits<float>::epsilon()))
                return "object " + std::to_string(k) + " result " + std::to_string(i) + " is " + std::to_string(got) +
                       ", want " + std::to_string(want[i]);
        }
    }
    return {};
}

void BM_reduction(benchmark::State& state, const std::string& row, int count, Op op, Run run, int budget) {
    Data& d = data(count);
    const int threads = budget >= 0 ? applyBudget(budget) : 1;
    const std::string error = checkOnce(row, [&] { return check(d, op, run); });
    if (error.empty())
        for (auto _ : state) {
            run(d);
            benchmark::ClobberMemory();
        }
    if (budget >= 0) applyBudget(0);
    if (!error.empty()) {
        state.SkipWithError((row + ": " + error).c_str());
        return;
    }
    finishTraffic(state, count, size_t(objectFloats(op)) * sizeof(float), threads);
}

void add(const std::string& what, Op op, Run omkm, Run plain, Run eigen) {
    for (int count : {kInCache, kOutOfCache}) {
        const std::string c = "/" + std::to_string(count);
        auto row = [&](const std::string& name, Run run, int budget) {
            benchmark::RegisterBenchmark(name.c_str(), BM_reduction, name, count, op, run, budget)
                ->UseRealTime()
                ->Unit(benchmark::kMicrosecond);
        };
        row("BM_omkm_" + what + c + "/threads:1", omkm, 1);
        row("BM_omkm_" + what + c + "/threads:default", omkm, 0);
        row("BM_plain_" + what + c, plain, -1);
        if (eigen) row("BM_eigen_" + what + c, eigen, -1);
    }
}

bool registerAll() {
#ifdef OMKM_BENCH_HAVE_EIGEN
    add("Dot_vava_32f", Op::Dot, omkmDot, plainDot, eigenDot);
    add("Cross_vava_32f", Op::Cross, omkmCross, plainCross, eigenCross);
    add("L2Norm_va_32f", Op::Norm, omkmNorm, plainNorm, eigenNorm);
    add("Gaxpy_mva_32f", Op::Gaxpy, omkmGaxpy, plainGaxpy, eigenGaxpy);
#else
    add("Dot_vava_32f", Op::Dot, omkmDot, plainDot, nullptr);
    add("Cross_vava_32f", Op::Cross, omkmCross, plainCross, nullptr);
    add("L2Norm_va_32f", Op::Norm, omkmNorm, plainNorm, nullptr);
    add("Gaxpy_mva_32f", Op::Gaxpy, omkmGaxpy, plainGaxpy, nullptr);
#endif
    return true;
}

[[maybe_unused]] const bool registered = registerAll();

}  // namespace
