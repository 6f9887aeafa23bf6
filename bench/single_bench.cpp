// The per-call cost of the single-object members: one call per object over 256 objects that stay
// in cache, against the same operation written with Eigen's fixed-size types, which the compiler
// inlines into the loop. Rows BM_SingleCall_<op>_<n>/<who> give ns per object; the ratio omkm / Eigen
// is the price of a library call (checks, the dispatch to the straight-line kernel, no inlining).
//   Add      omkmAdd_mm_32f                                   a + b
//   Mul      omkmMul_mm_32f                                   a * b
//   Invert   omkmInvert_m_32f                                 a.inverse()
//   LUSolve  omkmLUDecomp_m_32f + omkmLUBackSubst_mv_32f      a.partialPivLu().solve(b)
//   Transform omkmAffineTransform_m4v3_32f (4x4 only)         the row vector (p, 1) times M
//   Floor    omkmAdd_mm_32f with a null destination: the call and its first check, nothing else;
//            the least any checked single-object call costs (no Eigen row)
#include <cstring>
#include <string>
#include <vector>

#include "bench_common.h"
#include "omkm.h"

#ifdef OMKM_BENCH_HAVE_EIGEN
#include <Eigen/Dense>
#endif

namespace {

using namespace omkm_bench;

constexpr int kObjects = 256;

// Well-conditioned matrices (diagonally dominant) and right-hand sides, packed.
struct Objects {
    int n;
    std::vector<float> a, b, v, d, buf;
    std::vector<int> idx;
    explicit Objects(int order) : n(order) {
        const size_t nn = size_t(n) * n;
        a.resize(nn * kObjects), b.resize(nn * kObjects), d.resize(nn * kObjects), v.resize(size_t(n) * kObjects);
        buf.resize(2 * nn + 64), idx.resize(size_t(n) * kObjects);
        for (size_t i = 0; i < a.size(); ++i) {
            a[i] = float((i * 7919) % 17) / 17.0f - 0.5f;
            b[i] = float((i * 104729) % 13) / 13.0f - 0.5f;
        }
        for (int k = 0; k < kObjects; ++k)
            for (int i = 0; i < n; ++i) a[nn * k + size_t(i) * n + i] += float(n);
        for (size_t i = 0; i < v.size(); ++i) v[i] = float(i % 11) / 11.0f;
    }
};

enum class Op { Add, Mul, Invert, LUSolve, Transform, Floor };

int omkmCall(Op op, Objects& o) {
    const int n = o.n, e = int(sizeof(float)), row = n * e;
    const size_t nn = size_t(n) * n;
    int st = 0;
    for (int k = 0; k < kObjects; ++k) {
        const float* a = o.a.data() + nn * k;
        const float* b = o.b.data() + nn * k;
        float* d = o.d.data() + nn * k;
        switch (op) {
            case Op::Add: st |= omkmAdd_mm_32f(a, row, e, b, row, e, d, row, e, n, n); break;
            case Op::Mul: st |= omkmMul_mm_32f(a, row, e, n, n, b, row, e, n, n, d, row, e); break;
            case Op::Invert: st |= omkmInvert_m_32f(a, row, e, o.buf.data(), d, row, e, n); break;
            case Op::LUSolve: {
                int* idx = o.idx.data() + size_t(n) * k;
                st |= omkmLUDecomp_m_32f(a, row, e, idx, d, row, e, n);
                st |= omkmLUBackSubst_mv_32f(d, row, e, idx, o.v.data() + size_t(n) * k, e, o.b.data() + nn * k, e, n);
                break;
            }
            case Op::Transform:
                st |= omkmAffineTransform_m4v3_32f(a, o.v.data() + size_t(4) * k, d);
                break;
            case Op::Floor:
                st |= omkmAdd_mm_32f(a, row, e, b, row, e, nullptr, row, e, n, n) == omkStsNullPtr ? 0 : 1;
                break;
        }
    }
    return st;
}

#ifdef OMKM_BENCH_HAVE_EIGEN
template <int N>
int eigenCall(Op op, Objects& o) {
    using M = Eigen::Matrix<float, N, N, Eigen::RowMajor>;
    using V = Eigen::Matrix<float, N, 1>;
    const size_t nn = size_t(N) * N;
    for (int k = 0; k < kObjects; ++k) {
        Eigen::Map<const M> a(o.a.data() + nn * k), b(o.b.data() + nn * k);
        Eigen::Map<M> d(o.d.data() + nn * k);
        switch (op) {
            case Op::Add: d.noalias() = a + b; break;
            case Op::Mul: d.noalias() = a * b; break;
            case Op::Invert: d = a.inverse(); break;
            case Op::LUSolve:
                Eigen::Map<V>(o.b.data() + nn * k) = a.partialPivLu().solve(Eigen::Map<const V>(o.v.data() + size_t(N) * k));
                break;
            case Op::Floor: break;
            case Op::Transform:
                if constexpr (N == 4) {
                    const float* p = o.v.data() + size_t(4) * k;
                    Eigen::Map<Eigen::Matrix<float, 1, 4>>(o.d.data() + nn * k) =
                        Eigen::Matrix<float, 1, 4>(p[0], p[1], p[2], 1.0f) * a;
                }
                break;
        }
    }
    return 0;
}
#endif

void BM_SingleCall(benchmark::State& state, Op op, int n, bool library) {
    Objects o(n);
    int (*eigen)(Op, Objects&) = nullptr;
#ifdef OMKM_BENCH_HAVE_EIGEN
    eigen = n == 3 ? eigenCall<3> : eigenCall<4>;
#endif
    if (!library && !eigen) {
        state.SkipWithError("Eigen not built");
        return;
    }
    for (auto _ : state) {
        if ((library ? omkmCall(op, o) : eigen(op, o)) != 0) {
            state.SkipWithError("status");
            break;
        }
        benchmark::ClobberMemory();
    }
    finishTraffic(state, kObjects, 0, 1);
}

const int registered = [] {
    const struct {
        const char* name;
        Op op;
    } ops[] = {{"Add", Op::Add}, {"Mul", Op::Mul}, {"Invert", Op::Invert}, {"LUSolve", Op::LUSolve},
               {"Transform", Op::Transform}, {"Floor", Op::Floor}};
    for (const auto& o : ops)
        for (int n : {3, 4}) {
            if ((o.op == Op::Transform || o.op == Op::Floor) && n == 3) continue;
            for (bool library : {true, false}) {
                if (o.op == Op::Floor && !library) continue;
                const std::string name = std::string("BM_SingleCall_") + o.name + "_" + std::to_string(n) + "/" +
                                         (library ? "omkm" : "eigen");
                benchmark::RegisterBenchmark(name.c_str(), BM_SingleCall, o.op, n, library);
            }
        }
    return 0;
}();

}  // namespace
