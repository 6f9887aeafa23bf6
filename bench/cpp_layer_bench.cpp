// The cost of the C++ interface (omkm.hpp) over the direct C call: each workload is written twice,
// once with the export named and every stride, size and count computed by hand, once through the
// overloaded name on the same memory. Rows BM_CppLayer_<workload>/c and /cpp give ns per call (the
// single-object rows loop over 256 objects in cache, one call each; the array rows make one call
// over 1,000 records in cache), on a budget of one thread, so the pair differs only in the layer.
//   Mul_m4      omkmMul_mm_32f on float[4][4]                            omkm::mul(a, b, d)
//   Invert_m3   omkmInvert_m_64f with the caller's scratch               omkm::invert(a, d) (stack scratch)
//   LUSolve_m3  omkmLUDecomp_m_64f + omkmLUBackSubst_mv_64f              omkm::lu_decomp + omkm::lu_solve
//   Mul_mama_m3 omkmMul_mama_32f on a member of 1,000 records            omkm::mul(field, field, field)
//   Add_mam_m3  omkmAdd_mam_32f, one matrix added to a member of records omkm::add(field, m, field)
//   EigSym_ma_m3 omkmEigenValuesVectorsSym_ma_64f, 1,000 records         omkm::eigen_sym(field, values, field)
#include <array>
#include <string>
#include <vector>

#include "bench_common.h"
#include "omkm.hpp"

namespace {

using namespace omkm_bench;

constexpr int kSingles = 256, kRecords = 1000;

struct Body {
    int id;
    float pose[3][3], step[3][3], next[3][3];
    double inertia[3][3], axes[3][3];
};

struct Singles {
    std::vector<std::array<std::array<float, 4>, 4>> a, b, d;
    std::vector<std::array<std::array<double, 3>, 3>> m, f;
    std::vector<std::array<double, 3>> v, x;
    std::vector<std::array<int, 3>> piv;
    float corr[3][3] = {{0.5f, 0.25f, 0.0f}, {0.25f, 0.5f, 0.125f}, {0.0f, 0.125f, 0.5f}};
    Singles() : a(kSingles), b(kSingles), d(kSingles), m(kSingles), f(kSingles), v(kSingles), x(kSingles), piv(kSingles) {
        for (int k = 0; k < kSingles; ++k)
            for (int i = 0; i < 4; ++i)
                for (int j = 0; j < 4; ++j) {
                    a[k][i][j] = float((k * 16 + i * 4 + j) % 17) / 17.0f - 0.5f;
                    b[k][i][j] = float((k * 13 + i * 5 + j) % 13) / 13.0f - 0.5f;
                    if (i < 3 && j < 3) m[k][i][j] = (i == j ? 3.0 : 0.0) + double((k + i * 3 + j) % 7) / 7.0;
                    if (i < 3 && j == 0) v[k][i] = double(k % 11 + i) / 11.0;
                }
    }
};

std::vector<Body> records() {
    std::vector<Body> r(kRecords);
    for (int k = 0; k < kRecords; ++k)
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) {
                r[k].pose[i][j] = float((k + 3 * i + j) % 9) / 9.0f;
                r[k].step[i][j] = float((2 * k + i + 5 * j) % 7) / 7.0f;
                r[k].inertia[i][j] = r[k].inertia[j][i] = (i == j ? 2.0 : 0.0) + double((k + i + j) % 5) / 10.0;
            }
    return r;
}

enum class W { Mul_m4, Invert_m3, LUSolve_m3, Mul_mama_m3, Add_mam_m3, EigSym_ma_m3 };

// One pass of the workload; a nonzero return is a status the run reports.
int pass(W w, bool layer, Singles& s, std::vector<Body>& r, std::vector<double>& buf, std::vector<double>& values) {
    int st = 0;
    const int f4 = int(sizeof(float)), d8 = int(sizeof(double)), rec = int(sizeof(Body));
    switch (w) {
        case W::Mul_m4:
            for (int k = 0; k < kSingles; ++k)
                st |= layer ? int(omkm::mul(s.a[k], s.b[k], s.d[k]))
                            : omkmMul_mm_32f(&s.a[k][0][0], 4 * f4, f4, 4, 4, &s.b[k][0][0], 4 * f4, f4, 4, 4,
                                             &s.d[k][0][0], 4 * f4, f4);
            break;
        case W::Invert_m3:
            for (int k = 0; k < kSingles; ++k)
                st |= layer ? int(omkm::invert(s.m[k], s.f[k]))
                            : omkmInvert_m_64f(&s.m[k][0][0], 3 * d8, d8, buf.data(), &s.f[k][0][0], 3 * d8, d8, 3);
            break;
        case W::LUSolve_m3:
            for (int k = 0; k < kSingles; ++k) {
                if (layer) {
                    st |= int(omkm::lu_decomp(s.m[k], s.piv[k], s.f[k]));
                    st |= int(omkm::lu_solve(s.f[k], s.piv[k], s.v[k], s.x[k]));
                } else {
                    st |= omkmLUDecomp_m_64f(&s.m[k][0][0], 3 * d8, d8, s.piv[k].data(), &s.f[k][0][0], 3 * d8, d8, 3);
                    st |= omkmLUBackSubst_mv_64f(&s.f[k][0][0], 3 * d8, d8, s.piv[k].data(), s.v[k].data(), d8,
                                                 s.x[k].data(), d8, 3);
                }
            }
            break;
        case W::Mul_mama_m3:
            st = layer ? int(omkm::mul(omkm::field(r, &Body::pose), omkm::field(r, &Body::step),
                                       omkm::field(r, &Body::next)))
                       : omkmMul_mama_32f(&r[0].pose[0][0], rec, 3 * f4, f4, 3, 3, &r[0].step[0][0], rec, 3 * f4, f4,
                                          3, 3, &r[0].next[0][0], rec, 3 * f4, f4, kRecords);
            break;
        case W::Add_mam_m3:
            st = layer ? int(omkm::add(omkm::field(r, &Body::next), s.corr, omkm::field(r, &Body::next)))
                       : omkmAdd_mam_32f(&r[0].next[0][0], rec, 3 * f4, f4, &s.corr[0][0], 3 * f4, f4,
                                         &r[0].next[0][0], rec, 3 * f4, f4, 3, 3, kRecords);
            break;
        case W::EigSym_ma_m3:
            st = layer ? int(omkm::eigen_sym(omkm::field(r, &Body::inertia), values, omkm::field(r, &Body::axes)))
                       : omkmEigenValuesVectorsSym_ma_64f(&r[0].inertia[0][0], rec, 3 * d8, d8, buf.data(),
                                                          &r[0].axes[0][0], rec, 3 * d8, d8, values.data(), 3,
                                                          kRecords);
            break;
    }
    return st;
}

void BM_CppLayer(benchmark::State& state, W w, bool layer) {
    const int threads = applyBudget(1);
    Singles s;
    std::vector<Body> r = records();
    std::vector<double> buf(64), values(3 * kRecords);
    for (auto _ : state) {
        if (pass(w, layer, s, r, buf, values) != 0) {
            state.SkipWithError("status");
            break;
        }
        benchmark::ClobberMemory();
    }
    const bool single = w == W::Mul_m4 || w == W::Invert_m3 || w == W::LUSolve_m3;
    finishTraffic(state, single ? kSingles : kRecords, 0, threads);
    applyBudget(0);
}

const int registered = [] {
    const struct {
        const char* name;
        W w;
    } rows[] = {{"Mul_m4", W::Mul_m4},           {"Invert_m3", W::Invert_m3},   {"LUSolve_m3", W::LUSolve_m3},
                {"Mul_mama_m3", W::Mul_mama_m3}, {"Add_mam_m3", W::Add_mam_m3}, {"EigSym_ma_m3", W::EigSym_ma_m3}};
    for (const auto& row : rows)
        for (bool layer : {false, true})
            benchmark::RegisterBenchmark((std::string("BM_CppLayer_") + row.name + (layer ? "/cpp" : "/c")).c_str(),
                                         BM_CppLayer, row.w, layer);
    return 0;
}();

}  // namespace
