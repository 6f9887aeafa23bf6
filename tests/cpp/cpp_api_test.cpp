// The C++ interface (omkm.hpp): which export each overload reaches and with which arguments, the
// bits against the direct C call, the results against plain loops where the reading of a
// transposed operand matters, and the checks the layer makes itself.
#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#if __cplusplus >= 202002L
#include <span>
#endif
#include <utility>
#include <string>
#include <vector>

// Every C call of the header is recorded (export name, arguments) and then made.
namespace rec {
struct Log {
    int calls = 0;
    std::string name;
    std::vector<long long> args;
};
inline Log log;
inline long long word(const void* p) { return static_cast<long long>(reinterpret_cast<std::uintptr_t>(p)); }
inline long long word(int v) { return v; }
inline long long word(float v) {
    std::int32_t b;
    std::memcpy(&b, &v, 4);
    return b;
}
inline long long word(double v) {
    long long b;
    std::memcpy(&b, &v, 8);
    return b;
}
template <class F, class... A>
int note(const char* name, F fn, A... a) {
    ++log.calls;
    log.name = name;
    log.args = {word(a)...};
    return fn(a...);
}
}  // namespace rec
#define OMKM_HPP_INVOKE(name, fn, ...) ::rec::note(name, fn, __VA_ARGS__)
#include "omkm.hpp"

namespace omkm {
// Statuses by name in the failure messages.
inline void PrintTo(status s, std::ostream* os) { *os << to_string(s) << " (" << static_cast<int>(s) << ")"; }
}  // namespace omkm

namespace {

using omkm::status;
using omkm::transposed;

template <class... A>
std::vector<long long> args(A... a) {
    return {rec::word(a)...};
}

// Records, one member per operand shape the rows use.
struct R {
    float m23[2][3];
    float m34[3][4];
    float m24[2][4];
    float m32[3][2];
    float n23[2][3];
    float s33[3][3];
    float t33[3][3];
    float u33[3][3];
    float v3[3];
    float w3[3];
    float u3[3];
    float v2[2];
    float k;
    std::array<float, 4> q, q2;  // flat 2x2
    int tag;
};
constexpr int kRec = static_cast<int>(sizeof(R));
constexpr int F4 = 4;

struct Data {
    std::vector<R> r = std::vector<R>(3);
    float a23[2][3], b34[3][4], c24[2][4], d32[3][2], e23[2][3], m33[3][3], x3[3], y3[3], z3[3], x2[2], out1 = 0;
    std::array<std::array<float, 3>, 2> arr23{};
    std::array<float, 4> flat22{};
    std::vector<float> outs = std::vector<float>(3);
    std::vector<double> g = std::vector<double>(48), h = std::vector<double>(32);
    std::vector<std::array<double, 9>> f9 = std::vector<std::array<double, 9>>(4), f9out = f9;
    std::vector<R*> rp;  // the records out of order, for the layout description
    double t22[2][2][2] = {{{4, 1}, {2, 3}}, {{5, 2}, {1, 1}}}, t22out[2][2][2] = {};
    const double* tin[2] = {&t22[1][0][0], &t22[0][0][0]};
    double* tout[2] = {&t22out[0][0][0], &t22out[1][0][0]};
    int piv3[3] = {2, 0, 1};  // row orders for the LU solvers
    std::vector<std::array<int, 3>> pivs = std::vector<std::array<int, 3>>(3, {1, 2, 0});
    std::vector<float> vals = std::vector<float>(9), im = std::vector<float>(9), buf = std::vector<float>(64);
    // element pointers (the _P description) of the first record's members, an array reaching the
    // next record kRec bytes further, and of single objects
    float *pm23[6], *pn23[6], *pm32[6], *pt33[9], *pu33[9], *ps33[9], *pv3[3], *pu3[3], *pw3[3], *pv2[2], *pa23[6], *px3[3],
        *px2[2];
    const float* pd32[6];
    Data() {
        auto table = [](auto* first, int n, auto** t) {
            for (int i = 0; i < n; ++i) t[i] = first + i;
        };
        table(&r[0].m23[0][0], 6, pm23);
        table(&r[0].n23[0][0], 6, pn23);
        table(&r[0].m32[0][0], 6, pm32);
        table(&r[0].t33[0][0], 9, pt33);
        table(&r[0].u33[0][0], 9, pu33);
        table(&r[0].s33[0][0], 9, ps33);
        table(r[0].v3, 3, pv3);
        table(r[0].u3, 3, pu3);
        table(r[0].w3, 3, pw3);
        table(r[0].v2, 2, pv2);
        table(&a23[0][0], 6, pa23);
        table(x3, 3, px3);
        table(x2, 2, px2);
        table(static_cast<const float*>(&d32[0][0]), 6, pd32);
        float f = 0.25f;
        auto fill = [&](float* p, int n) {
            for (int i = 0; i < n; ++i, f += 0.375f) p[i] = std::fmod(f, 5.0f) - 2.0f;
        };
        for (R& x : r) {
            fill(&x.m23[0][0], 6);
            fill(&x.m34[0][0], 12);
            fill(&x.m32[0][0], 6);
            fill(&x.n23[0][0], 6);
            fill(x.v3, 3);
            fill(x.u3, 3);
            fill(x.w3, 3);
            fill(x.v2, 2);
            x.k = f;
            f += 1.0f;
            fill(&x.s33[0][0], 9);
            for (int i = 0; i < 3; ++i) x.s33[i][i] += 6.0f;  // well away from singular
            for (int i = 0; i < 3; ++i)
                for (int j = 0; j < i; ++j) x.s33[j][i] = x.s33[i][j];  // symmetric, for eigen_sym
        }
        fill(&a23[0][0], 6);
        fill(&b34[0][0], 12);
        fill(&d32[0][0], 6);
        fill(&e23[0][0], 6);
        fill(&m33[0][0], 9);
        for (int i = 0; i < 3; ++i) m33[i][i] += 6.0f;
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < i; ++j) m33[j][i] = m33[i][j];
        fill(x3, 3);
        fill(y3, 3);
        fill(x2, 2);
        fill(&arr23[0][0], 6);
        fill(flat22.data(), 4);
        for (R& x : r) fill(x.q.data(), 4);
        rp = {&r[2], &r[0], &r[1]};
        for (std::size_t k = 0; k < f9.size(); ++k)
            for (int i = 0; i < 9; ++i) f9[k][i] = std::cos(0.7 * static_cast<double>(k * 9 + i));
        for (std::size_t i = 0; i < g.size(); ++i) g[i] = 1.0 + 0.5 * static_cast<double>((i * 7) % 11);
    }
};

// The scratch the layer allocates itself is only known from the record.
const void* recorded_pointer(std::size_t i) {
    return rec::log.args.size() > i ? reinterpret_cast<const void*>(static_cast<std::uintptr_t>(rec::log.args[i]))
                                    : nullptr;
}

struct Row {
    const char* what;
    std::function<status(Data&)> call;
    const char* export_name;
    std::function<std::vector<long long>(Data&)> expected;
};

#define ROW(what, call, name, ...)                                                          \
    Row {                                                                                   \
        what, [](Data& d) { return call; }, name, [](Data& d) { return args(__VA_ARGS__); } \
    }

const std::vector<Row>& rows() {
    using omkm::field;
    static const std::vector<Row> t = {
        // ---- Mul: stored width and height per source, the destination's strides only
        ROW("C arrays, m*m", omkm::mul(d.a23, d.b34, d.c24), "omkmMul_mm_32f", &d.a23[0][0], 12, F4, 3, 2, &d.b34[0][0],
            16, F4, 4, 3, &d.c24[0][0], 16, F4),
        ROW("std::array matrix times a transposed one, m*t",
            omkm::mul(d.arr23, transposed(d.e23), omkm::mat<2, 2>(d.flat22)), "omkmMul_mt_32f", d.arr23[0].data(), 12,
            F4, 3, 2, &d.e23[0][0], 12, F4, 3, 2, d.flat22.data(), 8, F4),
        ROW("t*m", omkm::mul(transposed(d.d32), d.m33, d.a23), "omkmMul_tm_32f", &d.d32[0][0], 8, F4, 2, 3,
            &d.m33[0][0], 12, F4, 3, 3, &d.a23[0][0], 12, F4),
        ROW("t*t", omkm::mul(transposed(d.d32), transposed(d.e23), omkm::mat<2, 2>(d.flat22)), "omkmMul_tt_32f",
            &d.d32[0][0], 8, F4, 2, 3, &d.e23[0][0], 12, F4, 3, 2, d.flat22.data(), 8, F4),
        ROW("m*v", omkm::mul(d.a23, d.x3, d.x2), "omkmMul_mv_32f", &d.a23[0][0], 12, F4, 3, 2, d.x3, F4, 3, d.x2, F4),
        ROW("t*v", omkm::mul(transposed(d.d32), d.x3, d.x2), "omkmMul_tv_32f", &d.d32[0][0], 8, F4, 2, 3, d.x3, F4, 3,
            d.x2, F4),
        ROW("one matrix times each of an array, mma", omkm::mul(d.a23, field(d.r, &R::m34), field(d.r, &R::m24)),
            "omkmMul_mma_32f", &d.a23[0][0], 12, F4, 3, 2, &d.r[0].m34[0][0], kRec, 16, F4, 4, 3, &d.r[0].m24[0][0],
            kRec, 16, F4, 3),
        ROW("mta", omkm::mul(d.m33, transposed(field(d.r, &R::n23)), field(d.r, &R::m32)), "omkmMul_mta_32f",
            &d.m33[0][0], 12, F4, 3, 3, &d.r[0].n23[0][0], kRec, 12, F4, 3, 2, &d.r[0].m32[0][0], kRec, 8, F4, 3),
        ROW("each of an array times one, mam", omkm::mul(field(d.r, &R::m23), d.b34, field(d.r, &R::m24)),
            "omkmMul_mam_32f", &d.r[0].m23[0][0], kRec, 12, F4, 3, 2, &d.b34[0][0], 16, F4, 4, 3, &d.r[0].m24[0][0],
            kRec, 16, F4, 3),
        ROW("tat", omkm::mul(transposed(field(d.r, &R::m23)), transposed(d.d32), field(d.r, &R::s33)),
            "omkmMul_tat_32f", &d.r[0].m23[0][0], kRec, 12, F4, 3, 2, &d.d32[0][0], 8, F4, 2, 3, &d.r[0].s33[0][0],
            kRec, 12, F4, 3),
        ROW("pairwise, mama", omkm::mul(field(d.r, &R::m23), field(d.r, &R::m34), field(d.r, &R::m24)),
            "omkmMul_mama_32f", &d.r[0].m23[0][0], kRec, 12, F4, 3, 2, &d.r[0].m34[0][0], kRec, 16, F4, 4, 3,
            &d.r[0].m24[0][0], kRec, 16, F4, 3),
        ROW("tama", omkm::mul(transposed(field(d.r, &R::m32)), field(d.r, &R::s33), field(d.r, &R::n23)),
            "omkmMul_tama_32f", &d.r[0].m32[0][0], kRec, 8, F4, 2, 3, &d.r[0].s33[0][0], kRec, 12, F4, 3, 3,
            &d.r[0].n23[0][0], kRec, 12, F4, 3),
        ROW("tata", omkm::mul(transposed(field(d.r, &R::m23)), transposed(field(d.r, &R::m32)), field(d.r, &R::s33)),
            "omkmMul_tata_32f", &d.r[0].m23[0][0], kRec, 12, F4, 3, 2, &d.r[0].m32[0][0], kRec, 8, F4, 2, 3,
            &d.r[0].s33[0][0], kRec, 12, F4, 3),
        ROW("mva", omkm::mul(d.a23, field(d.r, &R::v3), field(d.r, &R::v2)), "omkmMul_mva_32f", &d.a23[0][0], 12, F4, 3,
            2, d.r[0].v3, kRec, F4, 3, d.r[0].v2, kRec, F4, 3),
        ROW("tav", omkm::mul(transposed(field(d.r, &R::m32)), d.x3, field(d.r, &R::v2)), "omkmMul_tav_32f",
            &d.r[0].m32[0][0], kRec, 8, F4, 2, 3, d.x3, F4, 3, d.r[0].v2, kRec, F4, 3),
        ROW("mava", omkm::mul(field(d.r, &R::m23), field(d.r, &R::v3), field(d.r, &R::v2)), "omkmMul_mava_32f",
            &d.r[0].m23[0][0], kRec, 12, F4, 3, 2, d.r[0].v3, kRec, F4, 3, d.r[0].v2, kRec, F4, 3),
        ROW("mat", omkm::mul(field(d.r, &R::m32), transposed(d.d32), field(d.r, &R::s33)), "omkmMul_mat_32f",
            &d.r[0].m32[0][0], kRec, 8, F4, 2, 3, &d.d32[0][0], 8, F4, 2, 3, &d.r[0].s33[0][0], kRec, 12, F4, 3),
        ROW("tam", omkm::mul(transposed(field(d.r, &R::m23)), d.arr23, field(d.r, &R::s33)), "omkmMul_tam_32f",
            &d.r[0].m23[0][0], kRec, 12, F4, 3, 2, d.arr23[0].data(), 12, F4, 3, 2, &d.r[0].s33[0][0], kRec, 12, F4, 3),
        ROW("tma", omkm::mul(transposed(d.d32), field(d.r, &R::m34), field(d.r, &R::m24)), "omkmMul_tma_32f",
            &d.d32[0][0], 8, F4, 2, 3, &d.r[0].m34[0][0], kRec, 16, F4, 4, 3, &d.r[0].m24[0][0], kRec, 16, F4, 3),
        ROW("tta", omkm::mul(transposed(d.d32), transposed(field(d.r, &R::m23)), field<2, 2>(d.r, &R::q)),
            "omkmMul_tta_32f", &d.d32[0][0], 8, F4, 2, 3, &d.r[0].m23[0][0], kRec, 12, F4, 3, 2, d.r[0].q.data(), kRec,
            8, F4, 3),
        ROW("mav", omkm::mul(field(d.r, &R::m23), d.x3, field(d.r, &R::v2)), "omkmMul_mav_32f", &d.r[0].m23[0][0], kRec,
            12, F4, 3, 2, d.x3, F4, 3, d.r[0].v2, kRec, F4, 3),
        ROW("tva", omkm::mul(transposed(d.d32), field(d.r, &R::v3), field(d.r, &R::v2)), "omkmMul_tva_32f",
            &d.d32[0][0], 8, F4, 2, 3, d.r[0].v3, kRec, F4, 3, d.r[0].v2, kRec, F4, 3),
        ROW("tava", omkm::mul(transposed(field(d.r, &R::m32)), field(d.r, &R::v3), field(d.r, &R::v2)),
            "omkmMul_tava_32f", &d.r[0].m32[0][0], kRec, 8, F4, 2, 3, d.r[0].v3, kRec, F4, 3, d.r[0].v2, kRec, F4, 3),
        // ---- element pointers (_P): the pointer table and the ROI shift, stride0 for an array; every
        // matrix and vector operand so, an array of constants strided
        ROW("Mul tm by element pointers: the stored sizes",
            omkm::mul(transposed(omkm::pointer_matrix(d.pd32, 3, 2)), omkm::pointer_matrix(d.ps33, 3, 3),
                      omkm::pointer_matrix(d.pa23, 2, 3)),
            "omkmMul_tm_32f_P", d.pd32, 0, 2, 3, d.ps33, 0, 3, 3, d.pa23, 0),
        ROW("Mul mva by element pointers",
            omkm::mul(omkm::pointer_matrix(d.pa23, 2, 3), omkm::pointer_vectors(d.pv3, 3, 3, kRec),
                      omkm::pointer_vectors(d.pv2, 3, 2, kRec)),
            "omkmMul_mva_32f_P", d.pa23, 0, 3, 2, d.pv3, 0, kRec, 3, d.pv2, 0, kRec, 3),
        ROW("Mul mava by element pointers",
            omkm::mul(omkm::pointer_matrices(d.pm23, 3, 2, 3, kRec), omkm::pointer_vectors(d.pv3, 3, 3, kRec),
                      omkm::pointer_vectors(d.pv2, 3, 2, kRec)),
            "omkmMul_mava_32f_P", d.pm23, 0, kRec, 3, 2, d.pv3, 0, kRec, 3, d.pv2, 0, kRec, 3),
        ROW("Add mam by element pointers",
            omkm::add(omkm::pointer_matrices(d.pm23, 3, 2, 3, kRec), omkm::pointer_matrix(d.pa23, 2, 3),
                      omkm::pointer_matrices(d.pn23, 3, 2, 3, kRec)),
            "omkmAdd_mam_32f_P", d.pm23, 0, kRec, d.pa23, 0, d.pn23, 0, kRec, 3, 2, 3),
        ROW("Add vv by element pointers, a ROI shift",
            omkm::add(omkm::pointer_vector(d.px3, 2, 4), omkm::pointer_vector(d.px3, 2), omkm::pointer_vector(d.px2, 2)),
            "omkmAdd_vv_32f_P", d.px3, 4, d.px3, 0, d.px2, 0, 2),
        ROW("Add vca by element pointers, the constants strided",
            omkm::add(omkm::pointer_vector(d.px3, 3), field(d.r, &R::k), omkm::pointer_vectors(d.pw3, 3, 3, kRec)),
            "omkmAdd_vca_32f_P", d.px3, 0, &d.r[0].k, kRec, d.pw3, 0, kRec, 3, 3),
        ROW("Sub mt by element pointers",
            omkm::sub(omkm::pointer_matrix(d.pa23, 2, 3), transposed(omkm::pointer_matrix(d.pd32, 3, 2)),
                      omkm::pointer_matrix(d.pn23, 2, 3)),
            "omkmSub_mt_32f_P", d.pa23, 0, d.pd32, 0, d.pn23, 0, 3, 2),
        ROW("Sub cva by element pointers",
            omkm::sub(0.5f, omkm::pointer_vectors(d.pv3, 3, 3, kRec), omkm::pointer_vectors(d.pw3, 3, 3, kRec)),
            "omkmSub_cva_32f_P", d.pv3, 0, kRec, 0.5f, d.pw3, 0, kRec, 3, 3),
        ROW("scale tc by element pointers",
            omkm::scale(transposed(omkm::pointer_matrix(d.pd32, 3, 2)), 2.0f, omkm::pointer_matrix(d.pa23, 2, 3)),
            "omkmMul_tc_32f_P", d.pd32, 0, 2.0f, d.pa23, 0, 3, 2),
        ROW("Mul vaca by element pointers",
            omkm::mul(omkm::pointer_vectors(d.pv3, 3, 3, kRec), field(d.r, &R::k),
                      omkm::pointer_vectors(d.pw3, 3, 3, kRec)),
            "omkmMul_vaca_32f_P", d.pv3, 0, kRec, &d.r[0].k, kRec, d.pw3, 0, kRec, 3, 3),
        ROW("dot vava by element pointers",
            omkm::dot(omkm::pointer_vectors(d.pv3, 3, 3, kRec), omkm::pointer_vectors(d.pu3, 3, 3, kRec), d.outs),
            "omkmDotProduct_vava_32f_P", d.pv3, 0, kRec, d.pu3, 0, kRec, d.outs.data(), 3, 3),
        ROW("cross vva by element pointers",
            omkm::cross(omkm::pointer_vector(d.px3, 3), omkm::pointer_vectors(d.pv3, 3, 3, kRec),
                        omkm::pointer_vectors(d.pw3, 3, 3, kRec)),
            "omkmCrossProduct_vva_32f_P", d.px3, 0, d.pv3, 0, kRec, d.pw3, 0, kRec, 3),
        ROW("norm of each vector by element pointers", omkm::norm(omkm::pointer_vectors(d.pv3, 3, 3, kRec), d.outs),
            "omkmL2Norm_va_32f_P", d.pv3, 0, kRec, d.outs.data(), 3, 3),
        ROW("Frobenius norm by element pointers", omkm::norm(omkm::pointer_matrix(d.pa23, 2, 3), d.out1),
            "omkmFrobNorm_m_32f_P", d.pa23, 0, 3, 2, &d.out1),
        ROW("det of each by element pointers",
            omkm::det(omkm::pointer_matrices(d.ps33, 3, 3, 3, kRec), d.outs, &d.c24[0][0]), "omkmDet_ma_32f_P",
            d.ps33, 0, kRec, 3, &d.c24[0][0], d.outs.data(), 3),
        ROW("invert by element pointers",
            omkm::invert(omkm::pointer_matrix(d.ps33, 3, 3), omkm::pointer_matrix(d.pt33, 3, 3), &d.c24[0][0]),
            "omkmInvert_m_32f_P", d.ps33, 0, &d.c24[0][0], d.pt33, 0, 3),
        ROW("LU ma by element pointers",
            omkm::lu_decomp(omkm::pointer_matrices(d.ps33, 3, 3, 3, kRec), d.pivs,
                            omkm::pointer_matrices(d.pt33, 3, 3, 3, kRec)),
            "omkmLUDecomp_ma_32f_P", d.ps33, 0, kRec, d.pivs[0].data(), d.pt33, 0, kRec, 3, 3),
        ROW("LU solve mv by element pointers",
            omkm::lu_solve(omkm::pointer_matrix(d.ps33, 3, 3), d.piv3, omkm::pointer_vector(d.px3, 3),
                           omkm::pointer_vector(d.pv3, 3)),
            "omkmLUBackSubst_mv_32f_P", d.ps33, 0, d.piv3, d.px3, 0, d.pv3, 0, 3),
        ROW("Cholesky solve mava by element pointers",
            omkm::cholesky_solve(omkm::pointer_matrices(d.ps33, 3, 3, 3, kRec), omkm::pointer_vectors(d.pv3, 3, 3, kRec),
                                 omkm::pointer_vectors(d.pw3, 3, 3, kRec)),
            "omkmCholeskyBackSubst_mava_32f_P", d.ps33, 0, kRec, d.pv3, 0, kRec, d.pw3, 0, kRec, 3, 3),
        ROW("QR m by element pointers, own scratch",
            omkm::qr(omkm::pointer_matrix(d.pd32, 3, 2), omkm::pointer_matrix(d.pm32, 3, 2)), "omkmQRDecomp_m_32f_P",
            d.pd32, 0, recorded_pointer(2), d.pm32, 0, 2, 3),
        ROW("QR solve mva by element pointers, a buffer",
            omkm::qr_solve(omkm::pointer_matrix(d.pd32, 3, 2), omkm::pointer_vectors(d.pv3, 3, 3, kRec),
                           omkm::pointer_vectors(d.pv2, 3, 2, kRec), &d.c24[0][0]),
            "omkmQRBackSubst_mva_32f_P", d.pd32, 0, &d.c24[0][0], d.pv3, 0, kRec, d.pv2, 0, kRec, 2, 3, 3),
        ROW("eigenvalues m by element pointers", omkm::eigen_sym(omkm::pointer_matrix(d.ps33, 3, 3), d.x3),
            "omkmEigenValuesSym_m_32f_P", d.ps33, 0, recorded_pointer(2), d.x3, 3),
        ROW("eigenvectors ma by element pointers, a buffer",
            omkm::eigen_sym(omkm::pointer_matrices(d.ps33, 3, 3, 3, kRec), d.vals,
                            omkm::pointer_matrices(d.pt33, 3, 3, 3, kRec), &d.c24[0][0]),
            "omkmEigenValuesVectorsSym_ma_32f_P", d.ps33, 0, kRec, &d.c24[0][0], d.pt33, 0, kRec, d.vals.data(), 3, 3),
        ROW("eigenvalues m by element pointers, general",
            omkm::eigen(omkm::pointer_matrix(d.ps33, 3, 3), d.x3, d.y3, d.buf.data()), "omkmEigenValues_m_32f_P",
            d.ps33, 0, d.x3, d.y3, 3, d.buf.data()),
        ROW("right eigenvectors m by element pointers",
            omkm::eigen(omkm::pointer_matrix(d.ps33, 3, 3), d.x3, d.y3, omkm::pointer_matrix(d.pt33, 3, 3),
                        d.buf.data()),
            "omkmEigenValuesVectorsRight_m_32f_P", d.ps33, 0, d.pt33, 0, d.x3, d.y3, 3, d.buf.data()),
        ROW("left and right eigenvectors ma by element pointers",
            omkm::eigen_left_right(omkm::pointer_matrices(d.ps33, 3, 3, 3, kRec), d.vals, d.im,
                                   omkm::pointer_matrices(d.pt33, 3, 3, 3, kRec),
                                   omkm::pointer_matrices(d.pu33, 3, 3, 3, kRec), d.buf.data()),
            "omkmEigenValuesVectors_ma_32f_P", d.ps33, 0, kRec, d.pt33, 0, kRec, d.pu33, 0, kRec, d.vals.data(),
            d.im.data(), 3, 3, d.buf.data()),
        ROW("scale vaca", omkm::scale(field(d.r, &R::v3), field(d.r, &R::k), field(d.r, &R::w3)), "omkmMul_vaca_32f",
            d.r[0].v3, kRec, F4, &d.r[0].k, kRec, d.r[0].w3, kRec, F4, 3, 3),
        // ---- Copy: each side in its own description, then the sizes and the count
        ROW("copy SS", omkm::copy(field(d.r, &R::m23), field(d.r, &R::n23)), "omkmCopy_ma_32f_SS", &d.r[0].m23[0][0],
            kRec, 12, F4, &d.r[0].n23[0][0], kRec, 12, F4, 3, 2, 3),
        ROW("copy one matrix: an array of one", omkm::copy(d.a23, d.e23), "omkmCopy_ma_32f_SS", &d.a23[0][0], F4, 12,
            F4, &d.e23[0][0], F4, 12, F4, 3, 2, 1),
        ROW("copy PL", omkm::copy(omkm::pointer_matrices(d.pm23, 3, 2, 3, kRec), field(d.rp, &R::n23)),
            "omkmCopy_ma_32f_PL", d.pm23, 0, kRec, d.rp.data(), int(offsetof(R, n23)), 12, F4, 3, 2, 3),
        ROW("copy LS of vectors", omkm::copy(field(d.rp, &R::v3), field(d.r, &R::w3)), "omkmCopy_va_32f_LS", d.rp.data(),
            int(offsetof(R, v3)), F4, d.r[0].w3, kRec, F4, 3, 3),
        ROW("copy SP of vectors", omkm::copy(field(d.r, &R::v3), omkm::pointer_vectors(d.pw3, 3, 3, kRec)),
            "omkmCopy_va_32f_SP", d.r[0].v3, kRec, F4, d.pw3, 0, kRec, 3, 3),
        ROW("copy PP of one vector", omkm::copy(omkm::pointer_vector(d.px3, 3), omkm::pointer_vector(d.pw3, 3)),
            "omkmCopy_va_32f_PP", d.px3, 0, F4, d.pw3, 0, F4, 3, 1),
        ROW("copy LS, double", omkm::copy(omkm::matrix_table(d.tin, 2, 2, 2, 16, 8), omkm::strided_matrices(d.h.data(), 2, 2, 2, 32, 16, 8)),
            "omkmCopy_ma_64f_LS", d.tin, 0, 16, 8, d.h.data(), 32, 16, 8, 2, 2, 2),
        // ---- Extract: the source, the dense destination, the sizes of the operand as used
        ROW("extract t", omkm::extract(transposed(d.d32), d.buf), "omkmExtract_t_32f", &d.d32[0][0], 8, F4,
            d.buf.data(), 3, 2),
        ROW("extract v into a C array", omkm::extract(d.x3, d.y3), "omkmExtract_v_32f", d.x3, F4, d.y3, 3),
        ROW("extract ma", omkm::extract(field(d.r, &R::m23), d.buf), "omkmExtract_ma_32f", &d.r[0].m23[0][0], kRec, 12,
            F4, d.buf.data(), 3, 2, 3),
        ROW("extract ta through pointers", omkm::extract(transposed(field(d.rp, &R::m32)), d.buf),
            "omkmExtract_ta_32f_L", d.rp.data(), int(offsetof(R, m32)), 8, F4, d.buf.data(), 3, 2, 3),
        ROW("extract va by element pointers", omkm::extract(omkm::pointer_vectors(d.pv3, 3, 3, kRec), d.buf.data()),
            "omkmExtract_va_32f_P", d.pv3, 0, kRec, d.buf.data(), 3, 3),
        ROW("extract m by element pointers", omkm::extract(omkm::pointer_matrix(d.pd32, 3, 2), d.buf),
            "omkmExtract_m_32f_P", d.pd32, 0, d.buf.data(), 2, 3),
        // ---- LoadIdentity and Transpose
        ROW("identity of one matrix", omkm::load_identity(d.m33), "omkmLoadIdentity_ma_32f", &d.m33[0][0], F4, 12, F4,
            3, 3, 1),
        ROW("identity through pointers", omkm::load_identity(field(d.rp, &R::t33)), "omkmLoadIdentity_ma_32f_L",
            d.rp.data(), int(offsetof(R, t33)), 12, F4, 3, 3, 3),
        ROW("identity by element pointers", omkm::load_identity(omkm::pointer_matrices(d.pt33, 3, 3, 3, kRec)),
            "omkmLoadIdentity_ma_32f_P", d.pt33, 0, kRec, 3, 3, 3),
        ROW("transpose m: the source's width and height", omkm::transpose(d.a23, d.d32), "omkmTranspose_m_32f",
            &d.a23[0][0], 12, F4, 3, 2, &d.d32[0][0], 8, F4),
        ROW("transpose ma", omkm::transpose(field(d.r, &R::m23), field(d.r, &R::m32)), "omkmTranspose_ma_32f",
            &d.r[0].m23[0][0], kRec, 12, F4, 3, 2, &d.r[0].m32[0][0], kRec, 8, F4, 3),
        ROW("transpose ma through pointers", omkm::transpose(field(d.rp, &R::m23), field(d.rp, &R::m32)),
            "omkmTranspose_ma_32f_L", d.rp.data(), int(offsetof(R, m23)), 12, F4, 3, 2, d.rp.data(),
            int(offsetof(R, m32)), 8, F4, 3),
        ROW("transpose m by element pointers",
            omkm::transpose(omkm::pointer_matrix(d.pa23, 2, 3), omkm::pointer_matrix(d.pm32, 3, 2)),
            "omkmTranspose_m_32f_P", d.pa23, 0, 3, 2, d.pm32, 0),
        ROW("transpose ma by element pointers",
            omkm::transpose(omkm::pointer_matrices(d.pm23, 3, 2, 3, kRec), omkm::pointer_matrices(d.pm32, 3, 3, 2, kRec)),
            "omkmTranspose_ma_32f_P", d.pm23, 0, kRec, 3, 2, d.pm32, 0, kRec, 3),
        // ---- Saxpy and LComb: each scale after its vector
        ROW("saxpy vv", omkm::saxpy(d.x3, 2.0f, d.y3, d.z3), "omkmSaxpy_vv_32f", d.x3, F4, 2.0f, d.y3, F4, d.z3, F4, 3),
        ROW("saxpy vav", omkm::saxpy(field(d.r, &R::v3), 0.5f, d.x3, field(d.r, &R::w3)), "omkmSaxpy_vav_32f",
            d.r[0].v3, kRec, F4, 0.5f, d.x3, F4, d.r[0].w3, kRec, F4, 3, 3),
        ROW("saxpy vva through pointers", omkm::saxpy(d.x3, 0.5f, field(d.rp, &R::v3), field(d.rp, &R::w3)),
            "omkmSaxpy_vva_32f_L", d.x3, F4, 0.5f, d.rp.data(), int(offsetof(R, v3)), F4, d.rp.data(),
            int(offsetof(R, w3)), F4, 3, 3),
        ROW("saxpy vava by element pointers",
            omkm::saxpy(omkm::pointer_vectors(d.pv3, 3, 3, kRec), 0.5f, omkm::pointer_vectors(d.pu3, 3, 3, kRec),
                        omkm::pointer_vectors(d.pw3, 3, 3, kRec)),
            "omkmSaxpy_vava_32f_P", d.pv3, 0, kRec, 0.5f, d.pu3, 0, kRec, d.pw3, 0, kRec, 3, 3),
        ROW("saxpy vv, double, an int scale converted",
            omkm::saxpy(omkm::vec<4>(d.g.data()), 2, omkm::vec<4>(d.g.data() + 4), omkm::vec<4>(d.h.data())),
            "omkmSaxpy_vv_64f", d.g.data(), 8, 2.0, d.g.data() + 4, 8, d.h.data(), 8, 4),
        ROW("lcomb vv", omkm::lcomb(d.x3, 2.0f, d.y3, 3.0f, d.z3), "omkmLComb_vv_32f", d.x3, F4, 2.0f, d.y3, F4, 3.0f,
            d.z3, F4, 3),
        ROW("lcomb vav", omkm::lcomb(field(d.r, &R::v3), 2.0f, d.x3, 0.5f, field(d.r, &R::w3)), "omkmLComb_vav_32f",
            d.r[0].v3, kRec, F4, 2.0f, d.x3, F4, 0.5f, d.r[0].w3, kRec, F4, 3, 3),
        ROW("lcomb vava through pointers",
            omkm::lcomb(field(d.rp, &R::v3), 2.0f, field(d.rp, &R::u3), 0.5f, field(d.rp, &R::w3)),
            "omkmLComb_vava_32f_L", d.rp.data(), int(offsetof(R, v3)), F4, 2.0f, d.rp.data(), int(offsetof(R, u3)), F4,
            0.5f, d.rp.data(), int(offsetof(R, w3)), F4, 3, 3),
        ROW("lcomb vv by element pointers",
            omkm::lcomb(omkm::pointer_vector(d.px3, 3), 2.0f, omkm::pointer_vector(d.pv3, 3), 0.5f,
                        omkm::pointer_vector(d.pw3, 3)),
            "omkmLComb_vv_32f_P", d.px3, 0, 2.0f, d.pv3, 0, 0.5f, d.pw3, 0, 3),
        // ---- Gaxpy: the matrix with its width and height, x and b each with its length, y
        ROW("gaxpy mv", omkm::gaxpy(d.a23, d.x3, d.x2, d.r[0].v2), "omkmGaxpy_mv_32f", &d.a23[0][0], 12, F4, 3, 2, d.x3,
            F4, 3, d.x2, F4, 2, d.r[0].v2, F4),
        ROW("gaxpy mva", omkm::gaxpy(d.d32, field(d.r, &R::v2), field(d.r, &R::u3), field(d.r, &R::w3)),
            "omkmGaxpy_mva_32f", &d.d32[0][0], 8, F4, 2, 3, d.r[0].v2, kRec, F4, 2, d.r[0].u3, kRec, F4, 3, d.r[0].w3,
            kRec, F4, 3),
        ROW("gaxpy mvav through pointers: one b strided", omkm::gaxpy(d.d32, field(d.rp, &R::v2), d.x3, field(d.rp, &R::w3)),
            "omkmGaxpy_mvav_32f_L", &d.d32[0][0], 8, F4, 2, 3, d.rp.data(), int(offsetof(R, v2)), F4, 2, d.x3, F4, 3,
            d.rp.data(), int(offsetof(R, w3)), F4, 3),
        ROW("gaxpy mva by element pointers",
            omkm::gaxpy(omkm::pointer_matrix(d.pd32, 3, 2), omkm::pointer_vectors(d.pv2, 3, 2, kRec),
                        omkm::pointer_vectors(d.pu3, 3, 3, kRec), omkm::pointer_vectors(d.pw3, 3, 3, kRec)),
            "omkmGaxpy_mva_32f_P", d.pd32, 0, 2, 3, d.pv2, 0, kRec, 2, d.pu3, 0, kRec, 3, d.pw3, 0, kRec, 3),
        // ---- Trace: widthHeight, the results, the count
        ROW("trace m", omkm::trace(d.m33, d.out1), "omkmTrace_m_32f", &d.m33[0][0], 12, F4, 3, &d.out1),
        ROW("trace ma", omkm::trace(field(d.r, &R::s33), d.outs), "omkmTrace_ma_32f", &d.r[0].s33[0][0], kRec, 12, F4, 3,
            d.outs.data(), 3),
        ROW("trace ma through pointers", omkm::trace(field(d.rp, &R::s33), d.outs.data()), "omkmTrace_ma_32f_L",
            d.rp.data(), int(offsetof(R, s33)), 12, F4, 3, d.outs.data(), 3),
        ROW("trace m by element pointers", omkm::trace(omkm::pointer_matrix(d.ps33, 3, 3), d.out1),
            "omkmTrace_m_32f_P", d.ps33, 0, 3, &d.out1),
        ROW("trace ma by element pointers", omkm::trace(omkm::pointer_matrices(d.ps33, 3, 3, 3, kRec), d.outs),
            "omkmTrace_ma_32f_P", d.ps33, 0, kRec, 3, d.outs.data(), 3),
        // ---- Add and Sub: the result's width and height once, after the destination
        ROW("Add mm", omkm::add(d.a23, d.arr23, d.e23), "omkmAdd_mm_32f", &d.a23[0][0], 12, F4, d.arr23[0].data(), 12,
            F4, &d.e23[0][0], 12, F4, 3, 2),
        ROW("Add tm: width and height are the result's", omkm::add(transposed(d.d32), d.a23, d.e23), "omkmAdd_tm_32f",
            &d.d32[0][0], 8, F4, &d.a23[0][0], 12, F4, &d.e23[0][0], 12, F4, 3, 2),
        ROW("Add mat", omkm::add(field(d.r, &R::m23), transposed(d.d32), field(d.r, &R::n23)), "omkmAdd_mat_32f",
            &d.r[0].m23[0][0], kRec, 12, F4, &d.d32[0][0], 8, F4, &d.r[0].n23[0][0], kRec, 12, F4, 3, 2, 3),
        ROW("Add tama", omkm::add(transposed(field(d.r, &R::m32)), field(d.r, &R::m23), field(d.r, &R::n23)),
            "omkmAdd_tama_32f", &d.r[0].m32[0][0], kRec, 8, F4, &d.r[0].m23[0][0], kRec, 12, F4, &d.r[0].n23[0][0],
            kRec, 12, F4, 3, 2, 3),
        ROW("Add vc", omkm::add(d.x3, 1.5f, d.y3), "omkmAdd_vc_32f", d.x3, F4, 1.5f, d.y3, F4, 3),
        ROW("Add vav", omkm::add(field(d.r, &R::v3), d.x3, field(d.r, &R::w3)), "omkmAdd_vav_32f", d.r[0].v3, kRec, F4,
            d.x3, F4, d.r[0].w3, kRec, F4, 3, 3),
        ROW("Add vca: a constant per record", omkm::add(d.x3, field(d.r, &R::k), field(d.r, &R::w3)), "omkmAdd_vca_32f",
            d.x3, F4, &d.r[0].k, kRec, d.r[0].w3, kRec, F4, 3, 3),
        ROW("Add vaca", omkm::add(field(d.r, &R::v3), field(d.r, &R::k), field(d.r, &R::w3)), "omkmAdd_vaca_32f",
            d.r[0].v3, kRec, F4, &d.r[0].k, kRec, d.r[0].w3, kRec, F4, 3, 3),
        ROW("Sub mt", omkm::sub(d.a23, transposed(d.d32), d.e23), "omkmSub_mt_32f", &d.a23[0][0], 12, F4, &d.d32[0][0],
            8, F4, &d.e23[0][0], 12, F4, 3, 2),
        ROW("Sub mma", omkm::sub(d.a23, field(d.r, &R::m23), field(d.r, &R::n23)), "omkmSub_mma_32f", &d.a23[0][0], 12,
            F4, &d.r[0].m23[0][0], kRec, 12, F4, &d.r[0].n23[0][0], kRec, 12, F4, 3, 2, 3),
        ROW("Sub mata", omkm::sub(field(d.r, &R::m23), transposed(field(d.r, &R::m32)), field(d.r, &R::n23)),
            "omkmSub_mata_32f", &d.r[0].m23[0][0], kRec, 12, F4, &d.r[0].m32[0][0], kRec, 8, F4, &d.r[0].n23[0][0],
            kRec, 12, F4, 3, 2, 3),
        ROW("Sub cv: the vector first in the list", omkm::sub(2.0f, d.x3, d.y3), "omkmSub_cv_32f", d.x3, F4, 2.0f, d.y3,
            F4, 3),
        ROW("Sub vva", omkm::sub(d.x3, field(d.r, &R::v3), field(d.r, &R::w3)), "omkmSub_vva_32f", d.x3, F4, d.r[0].v3,
            kRec, F4, d.r[0].w3, kRec, F4, 3, 3),
        ROW("Sub cva", omkm::sub(0.5f, field(d.r, &R::v3), field(d.r, &R::w3)), "omkmSub_cva_32f", d.r[0].v3, kRec, F4,
            0.5f, d.r[0].w3, kRec, F4, 3, 3),
        ROW("Sub cav", omkm::sub(field(d.r, &R::k), d.x3, field(d.r, &R::w3)), "omkmSub_cav_32f", d.x3, F4, &d.r[0].k,
            kRec, d.r[0].w3, kRec, F4, 3, 3),
        ROW("Sub cava", omkm::sub(field(d.r, &R::k), field(d.r, &R::v3), field(d.r, &R::w3)), "omkmSub_cava_32f",
            d.r[0].v3, kRec, F4, &d.r[0].k, kRec, d.r[0].w3, kRec, F4, 3, 3),
        // ---- Mul by a constant: the result's width and height, the vector first before constants
        ROW("Mul tc", omkm::mul(transposed(d.d32), 2.0f, d.a23), "omkmMul_tc_32f", &d.d32[0][0], 8, F4, 2.0f,
            &d.a23[0][0], 12, F4, 3, 2),
        ROW("Mul mac", omkm::mul(field(d.r, &R::m23), 0.5f, field(d.r, &R::n23)), "omkmMul_mac_32f", &d.r[0].m23[0][0],
            kRec, 12, F4, 0.5f, &d.r[0].n23[0][0], kRec, 12, F4, 3, 2, 3),
        ROW("Mul vca", omkm::mul(d.x3, field(d.r, &R::k), field(d.r, &R::w3)), "omkmMul_vca_32f", d.x3, F4, &d.r[0].k,
            kRec, d.r[0].w3, kRec, F4, 3, 3),
        ROW("Mul vaca through pointers", omkm::mul(field(d.rp, &R::v3), field(d.rp, &R::k), field(d.rp, &R::w3)),
            "omkmMul_vaca_32f_L", d.rp.data(), int(offsetof(R, v3)), F4, d.rp.data(), int(offsetof(R, k)), d.rp.data(),
            int(offsetof(R, w3)), F4, 3, 3),
        ROW("Mul vc, double", omkm::mul(omkm::vec<4>(d.g.data()), 3.0, omkm::vec<4>(d.h.data())), "omkmMul_vc_64f",
            d.g.data(), 8, 3.0, d.h.data(), 8, 4),
        // ---- the remaining Add, Sub, Mul-by-constant, cross, det and invert forms, one row each
        ROW("Add tt", omkm::add(transposed(d.d32), transposed(d.d32), d.e23), "omkmAdd_tt_32f", &d.d32[0][0], 8, F4,
            &d.d32[0][0], 8, F4, &d.e23[0][0], 12, F4, 3, 2),
        ROW("Add mam", omkm::add(field(d.r, &R::m23), d.a23, field(d.r, &R::n23)), "omkmAdd_mam_32f", &d.r[0].m23[0][0],
            kRec, 12, F4, &d.a23[0][0], 12, F4, &d.r[0].n23[0][0], kRec, 12, F4, 3, 2, 3),
        ROW("Add tam", omkm::add(transposed(field(d.r, &R::m32)), d.a23, field(d.r, &R::n23)), "omkmAdd_tam_32f",
            &d.r[0].m32[0][0], kRec, 8, F4, &d.a23[0][0], 12, F4, &d.r[0].n23[0][0], kRec, 12, F4, 3, 2, 3),
        ROW("Add mama", omkm::add(field(d.r, &R::m23), field(d.r, &R::m23), field(d.r, &R::n23)), "omkmAdd_mama_32f",
            &d.r[0].m23[0][0], kRec, 12, F4, &d.r[0].m23[0][0], kRec, 12, F4, &d.r[0].n23[0][0], kRec, 12, F4, 3, 2, 3),
        ROW("Add tat", omkm::add(transposed(field(d.r, &R::m32)), transposed(d.d32), field(d.r, &R::n23)),
            "omkmAdd_tat_32f", &d.r[0].m32[0][0], kRec, 8, F4, &d.d32[0][0], 8, F4, &d.r[0].n23[0][0], kRec, 12, F4, 3,
            2, 3),
        ROW("Add tata",
            omkm::add(transposed(field(d.r, &R::m32)), transposed(field(d.r, &R::m32)), field(d.r, &R::n23)),
            "omkmAdd_tata_32f", &d.r[0].m32[0][0], kRec, 8, F4, &d.r[0].m32[0][0], kRec, 8, F4, &d.r[0].n23[0][0], kRec,
            12, F4, 3, 2, 3),
        ROW("Add vv", omkm::add(d.x3, d.y3, d.z3), "omkmAdd_vv_32f", d.x3, F4, d.y3, F4, d.z3, F4, 3),
        ROW("Add vava", omkm::add(field(d.r, &R::v3), field(d.r, &R::u3), field(d.r, &R::w3)), "omkmAdd_vava_32f",
            d.r[0].v3, kRec, F4, d.r[0].u3, kRec, F4, d.r[0].w3, kRec, F4, 3, 3),
        ROW("Add vac", omkm::add(field(d.r, &R::v3), 1.0f, field(d.r, &R::w3)), "omkmAdd_vac_32f", d.r[0].v3, kRec, F4,
            1.0f, d.r[0].w3, kRec, F4, 3, 3),
        ROW("Sub mm", omkm::sub(d.a23, d.arr23, d.e23), "omkmSub_mm_32f", &d.a23[0][0], 12, F4, d.arr23[0].data(), 12,
            F4, &d.e23[0][0], 12, F4, 3, 2),
        ROW("Sub tm", omkm::sub(transposed(d.d32), d.a23, d.e23), "omkmSub_tm_32f", &d.d32[0][0], 8, F4, &d.a23[0][0],
            12, F4, &d.e23[0][0], 12, F4, 3, 2),
        ROW("Sub tt", omkm::sub(transposed(d.d32), transposed(d.d32), d.e23), "omkmSub_tt_32f", &d.d32[0][0], 8, F4,
            &d.d32[0][0], 8, F4, &d.e23[0][0], 12, F4, 3, 2),
        ROW("Sub mam", omkm::sub(field(d.r, &R::m23), d.a23, field(d.r, &R::n23)), "omkmSub_mam_32f", &d.r[0].m23[0][0],
            kRec, 12, F4, &d.a23[0][0], 12, F4, &d.r[0].n23[0][0], kRec, 12, F4, 3, 2, 3),
        ROW("Sub tam", omkm::sub(transposed(field(d.r, &R::m32)), d.a23, field(d.r, &R::n23)), "omkmSub_tam_32f",
            &d.r[0].m32[0][0], kRec, 8, F4, &d.a23[0][0], 12, F4, &d.r[0].n23[0][0], kRec, 12, F4, 3, 2, 3),
        ROW("Sub mat", omkm::sub(field(d.r, &R::m23), transposed(d.d32), field(d.r, &R::n23)), "omkmSub_mat_32f",
            &d.r[0].m23[0][0], kRec, 12, F4, &d.d32[0][0], 8, F4, &d.r[0].n23[0][0], kRec, 12, F4, 3, 2, 3),
        ROW("Sub tat", omkm::sub(transposed(field(d.r, &R::m32)), transposed(d.d32), field(d.r, &R::n23)),
            "omkmSub_tat_32f", &d.r[0].m32[0][0], kRec, 8, F4, &d.d32[0][0], 8, F4, &d.r[0].n23[0][0], kRec, 12, F4, 3,
            2, 3),
        ROW("Sub tma", omkm::sub(transposed(d.d32), field(d.r, &R::m23), field(d.r, &R::n23)), "omkmSub_tma_32f",
            &d.d32[0][0], 8, F4, &d.r[0].m23[0][0], kRec, 12, F4, &d.r[0].n23[0][0], kRec, 12, F4, 3, 2, 3),
        ROW("Sub mta", omkm::sub(d.a23, transposed(field(d.r, &R::m32)), field(d.r, &R::n23)), "omkmSub_mta_32f",
            &d.a23[0][0], 12, F4, &d.r[0].m32[0][0], kRec, 8, F4, &d.r[0].n23[0][0], kRec, 12, F4, 3, 2, 3),
        ROW("Sub tta", omkm::sub(transposed(d.d32), transposed(field(d.r, &R::m32)), field(d.r, &R::n23)),
            "omkmSub_tta_32f", &d.d32[0][0], 8, F4, &d.r[0].m32[0][0], kRec, 8, F4, &d.r[0].n23[0][0], kRec, 12, F4, 3,
            2, 3),
        ROW("Sub mama", omkm::sub(field(d.r, &R::m23), field(d.r, &R::m23), field(d.r, &R::n23)), "omkmSub_mama_32f",
            &d.r[0].m23[0][0], kRec, 12, F4, &d.r[0].m23[0][0], kRec, 12, F4, &d.r[0].n23[0][0], kRec, 12, F4, 3, 2, 3),
        ROW("Sub tama", omkm::sub(transposed(field(d.r, &R::m32)), field(d.r, &R::m23), field(d.r, &R::n23)),
            "omkmSub_tama_32f", &d.r[0].m32[0][0], kRec, 8, F4, &d.r[0].m23[0][0], kRec, 12, F4, &d.r[0].n23[0][0],
            kRec, 12, F4, 3, 2, 3),
        ROW("Sub tata",
            omkm::sub(transposed(field(d.r, &R::m32)), transposed(field(d.r, &R::m32)), field(d.r, &R::n23)),
            "omkmSub_tata_32f", &d.r[0].m32[0][0], kRec, 8, F4, &d.r[0].m32[0][0], kRec, 8, F4, &d.r[0].n23[0][0], kRec,
            12, F4, 3, 2, 3),
        ROW("Sub vv", omkm::sub(d.x3, d.y3, d.z3), "omkmSub_vv_32f", d.x3, F4, d.y3, F4, d.z3, F4, 3),
        ROW("Sub vc", omkm::sub(d.x3, 1.5f, d.y3), "omkmSub_vc_32f", d.x3, F4, 1.5f, d.y3, F4, 3),
        ROW("Sub vav", omkm::sub(field(d.r, &R::v3), d.x3, field(d.r, &R::w3)), "omkmSub_vav_32f", d.r[0].v3, kRec, F4,
            d.x3, F4, d.r[0].w3, kRec, F4, 3, 3),
        ROW("Sub vava", omkm::sub(field(d.r, &R::v3), field(d.r, &R::u3), field(d.r, &R::w3)), "omkmSub_vava_32f",
            d.r[0].v3, kRec, F4, d.r[0].u3, kRec, F4, d.r[0].w3, kRec, F4, 3, 3),
        ROW("Sub vac", omkm::sub(field(d.r, &R::v3), 1.0f, field(d.r, &R::w3)), "omkmSub_vac_32f", d.r[0].v3, kRec, F4,
            1.0f, d.r[0].w3, kRec, F4, 3, 3),
        ROW("Sub vca", omkm::sub(d.x3, field(d.r, &R::k), field(d.r, &R::w3)), "omkmSub_vca_32f", d.x3, F4, &d.r[0].k,
            kRec, d.r[0].w3, kRec, F4, 3, 3),
        ROW("Sub vaca", omkm::sub(field(d.r, &R::v3), field(d.r, &R::k), field(d.r, &R::w3)), "omkmSub_vaca_32f",
            d.r[0].v3, kRec, F4, &d.r[0].k, kRec, d.r[0].w3, kRec, F4, 3, 3),
        ROW("Mul mc", omkm::mul(d.a23, 2.0f, d.e23), "omkmMul_mc_32f", &d.a23[0][0], 12, F4, 2.0f, &d.e23[0][0], 12, F4,
            3, 2),
        ROW("Mul tac", omkm::mul(transposed(field(d.r, &R::m32)), 2.0f, field(d.r, &R::n23)), "omkmMul_tac_32f",
            &d.r[0].m32[0][0], kRec, 8, F4, 2.0f, &d.r[0].n23[0][0], kRec, 12, F4, 3, 2, 3),
        ROW("Mul vac", omkm::mul(field(d.r, &R::v3), 2.0f, field(d.r, &R::w3)), "omkmMul_vac_32f", d.r[0].v3, kRec, F4,
            2.0f, d.r[0].w3, kRec, F4, 3, 3),
        ROW("cross vav", omkm::cross(field(d.r, &R::v3), d.x3, field(d.r, &R::w3)), "omkmCrossProduct_vav_32f",
            d.r[0].v3, kRec, F4, d.x3, F4, d.r[0].w3, kRec, F4, 3),
        ROW("cross vava", omkm::cross(field(d.r, &R::v3), field(d.r, &R::u3), field(d.r, &R::w3)),
            "omkmCrossProduct_vava_32f", d.r[0].v3, kRec, F4, d.r[0].u3, kRec, F4, d.r[0].w3, kRec, F4, 3),
        ROW("det, own scratch", omkm::det(d.m33, d.out1), "omkmDet_m_32f", &d.m33[0][0], 12, F4, 3, recorded_pointer(4),
            &d.out1),
        ROW("invert each in place, own scratch", omkm::invert(field(d.r, &R::s33), field(d.r, &R::s33)),
            "omkmInvert_ma_32f", &d.r[0].s33[0][0], kRec, 12, F4, recorded_pointer(4), &d.r[0].s33[0][0], kRec, 12, F4,
            3, 3),
        // ---- scalar results
        ROW("dot vv", omkm::dot(d.x3, d.y3, d.out1), "omkmDotProduct_vv_32f", d.x3, F4, d.y3, F4, &d.out1, 3),
        ROW("dot vav into a vector", omkm::dot(field(d.r, &R::v3), d.x3, d.outs), "omkmDotProduct_vav_32f", d.r[0].v3,
            kRec, F4, d.x3, F4, d.outs.data(), 3, 3),
        ROW("dot vava", omkm::dot(field(d.r, &R::v3), field(d.r, &R::w3), d.outs.data()), "omkmDotProduct_vava_32f",
            d.r[0].v3, kRec, F4, d.r[0].w3, kRec, F4, d.outs.data(), 3, 3),
        ROW("cross vva", omkm::cross(d.x3, field(d.r, &R::v3), field(d.r, &R::w3)), "omkmCrossProduct_vva_32f", d.x3,
            F4, d.r[0].v3, kRec, F4, d.r[0].w3, kRec, F4, 3),
        ROW("cross vv", omkm::cross(d.x3, d.y3, d.z3), "omkmCrossProduct_vv_32f", d.x3, F4, d.y3, F4, d.z3, F4),
        ROW("norm of a vector", omkm::norm(d.x3, d.out1), "omkmL2Norm_v_32f", d.x3, F4, &d.out1, 3),
        ROW("norm of each vector", omkm::norm(field(d.r, &R::v3), d.outs), "omkmL2Norm_va_32f", d.r[0].v3, kRec, F4,
            d.outs.data(), 3, 3),
        ROW("Frobenius norm", omkm::norm(d.a23, d.out1), "omkmFrobNorm_m_32f", &d.a23[0][0], 12, F4, 3, 2, &d.out1),
        ROW("Frobenius norm of each", omkm::norm(field(d.r, &R::m23), d.outs), "omkmFrobNorm_ma_32f", &d.r[0].m23[0][0],
            kRec, 12, F4, 3, 2, d.outs.data(), 3),
        // ---- det and invert with the caller's scratch (the own scratch is checked by bits below)
        ROW("det with a buffer", omkm::det(d.m33, d.out1, &d.c24[0][0]), "omkmDet_m_32f", &d.m33[0][0], 12, F4, 3,
            &d.c24[0][0], &d.out1),
        ROW("det of each", omkm::det(field(d.r, &R::s33), d.outs, &d.c24[0][0]), "omkmDet_ma_32f", &d.r[0].s33[0][0],
            kRec, 12, F4, 3, &d.c24[0][0], d.outs.data(), 3),
        ROW("invert with a buffer", omkm::invert(d.m33, d.r[0].s33, &d.c24[0][0]), "omkmInvert_m_32f", &d.m33[0][0], 12,
            F4, &d.c24[0][0], &d.r[0].s33[0][0], 12, F4, 3),
        ROW("read-only records", omkm::mul(field(std::as_const(d.r), &R::m23), d.b34, field(d.r, &R::m24)),
            "omkmMul_mam_32f", &d.r[0].m23[0][0], kRec, 12, F4, 3, 2, &d.b34[0][0], 16, F4, 4, 3, &d.r[0].m24[0][0],
            kRec, 16, F4, 3),
        ROW("flat 3x3 doubles in a vector, shape from mat<3, 3>",
            omkm::mul(omkm::mat<3, 3>(d.f9), transposed(omkm::mat<3, 3>(d.f9)), omkm::mat<3, 3>(d.f9out)),
            "omkmMul_mata_64f", d.f9[0].data(), 72, 24, 8, 3, 3, d.f9[0].data(), 72, 24, 8, 3, 3, d.f9out[0].data(), 72,
            24, 8, 4),
        ROW("flat record member read as 2x2",
            omkm::add(field<2, 2>(d.r, &R::q), omkm::mat<2, 2>(d.flat22), field<2, 2>(d.r, &R::q2)), "omkmAdd_mam_32f",
            d.r[0].q.data(), kRec, 8, F4, d.flat22.data(), 8, F4, d.r[0].q2.data(), kRec, 8, F4, 2, 2, 3),
        ROW("one matrix from a pointer", omkm::det(omkm::mat<3, 3>(&d.m33[0][0]), d.out1, &d.c24[0][0]),
            "omkmDet_m_32f", &d.m33[0][0], 12, F4, 3, &d.c24[0][0], &d.out1),
#if __cplusplus >= 202002L
        ROW("records through std::span", omkm::norm(field(std::span<R>(d.r).subspan(1), &R::v3), d.outs.data()),
            "omkmL2Norm_va_32f", d.r[1].v3, kRec, F4, d.outs.data(), 3, 2),
#endif
        // ---- the layout description (_L): one pointer per object and a ROI shift
        ROW("records through pointers, mama",
            omkm::mul(field(d.rp, &R::m23), field(d.rp, &R::m34), field(d.rp, &R::m24)), "omkmMul_mama_32f_L",
            d.rp.data(), int(offsetof(R, m23)), 12, F4, 3, 2, d.rp.data(), int(offsetof(R, m34)), 16, F4, 4, 3,
            d.rp.data(), int(offsetof(R, m24)), 16, F4, 3),
        ROW("tava through pointers",
            omkm::mul(transposed(field(d.rp, &R::m32)), field(d.rp, &R::v3), field(d.rp, &R::v2)), "omkmMul_tava_32f_L",
            d.rp.data(), int(offsetof(R, m32)), 8, F4, 2, 3, d.rp.data(), int(offsetof(R, v3)), F4, 3, d.rp.data(),
            int(offsetof(R, v2)), F4, 3),
        ROW("Add vca through pointers", omkm::add(d.x3, field(d.rp, &R::k), field(d.rp, &R::w3)), "omkmAdd_vca_32f_L",
            d.x3, F4, d.rp.data(), int(offsetof(R, k)), d.rp.data(), int(offsetof(R, w3)), F4, 3, 3),
        ROW("flat members through pointers",
            omkm::add(field<2, 2>(d.rp, &R::q), omkm::mat<2, 2>(d.flat22), field<2, 2>(d.rp, &R::q2)),
            "omkmAdd_mam_32f_L", d.rp.data(), int(offsetof(R, q)), 8, F4, d.flat22.data(), 8, F4, d.rp.data(),
            int(offsetof(R, q2)), 8, F4, 2, 2, 3),
        ROW("det of each through pointers", omkm::det(field(d.rp, &R::s33), d.outs, &d.c24[0][0]), "omkmDet_ma_32f_L",
            d.rp.data(), int(offsetof(R, s33)), 12, F4, 3, &d.c24[0][0], d.outs.data(), 3),
        ROW("tables of element pointers, double",
            omkm::invert(omkm::matrix_table(d.tin, 2, 2, 2, 16, 8), omkm::matrix_table(d.tout, 2, 2, 2, 8, 16, 0)),
            "omkmInvert_ma_64f_L", d.tin, 0, 16, 8, recorded_pointer(4), d.tout, 0, 8, 16, 2, 2),
        ROW("dot of table vectors with one",
            omkm::dot(omkm::vector_table(d.tin, 2, 3, 8, 8), omkm::vec<3>(d.g.data()), d.h.data()),
            "omkmDotProduct_vav_64f_L", d.tin, 8, 8, d.g.data(), 8, d.h.data(), 3, 2),
        // ---- factorizations and their solvers: pivots and scratch between the source's and the factor's
        // parts, then widthHeight (QR: width, height) and the count
        ROW("LU m", omkm::lu_decomp(d.m33, d.piv3, d.r[0].t33), "omkmLUDecomp_m_32f", &d.m33[0][0], 12, F4, d.piv3,
            &d.r[0].t33[0][0], 12, F4, 3),
        ROW("LU ma, pivots in rows", omkm::lu_decomp(field(d.r, &R::s33), d.pivs, field(d.r, &R::t33)),
            "omkmLUDecomp_ma_32f", &d.r[0].s33[0][0], kRec, 12, F4, d.pivs[0].data(), &d.r[0].t33[0][0], kRec, 12, F4,
            3, 3),
        ROW("LU ma through pointers, pivots by pointer",
            omkm::lu_decomp(field(d.rp, &R::s33), d.pivs[0].data(), field(d.rp, &R::t33)), "omkmLUDecomp_ma_32f_L",
            d.rp.data(), int(offsetof(R, s33)), 12, F4, d.pivs[0].data(), d.rp.data(), int(offsetof(R, t33)), 12, F4,
            3, 3),
        ROW("LU solve mv", omkm::lu_solve(d.m33, d.piv3, d.x3, d.y3), "omkmLUBackSubst_mv_32f", &d.m33[0][0], 12, F4,
            d.piv3, d.x3, F4, d.y3, F4, 3),
        ROW("LU solve mva", omkm::lu_solve(d.m33, d.piv3, field(d.r, &R::v3), field(d.r, &R::w3)),
            "omkmLUBackSubst_mva_32f", &d.m33[0][0], 12, F4, d.piv3, d.r[0].v3, kRec, F4, d.r[0].w3, kRec, F4, 3, 3),
        ROW("LU solve mva through pointers", omkm::lu_solve(d.m33, d.piv3, field(d.rp, &R::v3), field(d.rp, &R::w3)),
            "omkmLUBackSubst_mva_32f_L", &d.m33[0][0], 12, F4, d.piv3, d.rp.data(), int(offsetof(R, v3)), F4,
            d.rp.data(), int(offsetof(R, w3)), F4, 3, 3),
        ROW("LU solve mava", omkm::lu_solve(field(d.r, &R::s33), d.pivs, field(d.r, &R::v3), field(d.r, &R::w3)),
            "omkmLUBackSubst_mava_32f", &d.r[0].s33[0][0], kRec, 12, F4, d.pivs[0].data(), d.r[0].v3, kRec, F4,
            d.r[0].w3, kRec, F4, 3, 3),
        ROW("LU solve mava through pointers",
            omkm::lu_solve(field(d.rp, &R::s33), std::as_const(d.pivs), field(d.rp, &R::v3), field(d.rp, &R::w3)),
            "omkmLUBackSubst_mava_32f_L", d.rp.data(), int(offsetof(R, s33)), 12, F4, d.pivs[0].data(), d.rp.data(),
            int(offsetof(R, v3)), F4, d.rp.data(), int(offsetof(R, w3)), F4, 3, 3),
        ROW("Cholesky m", omkm::cholesky(d.m33, d.r[0].t33), "omkmCholeskyDecomp_m_32f", &d.m33[0][0], 12, F4,
            &d.r[0].t33[0][0], 12, F4, 3),
        ROW("Cholesky ma", omkm::cholesky(field(d.r, &R::s33), field(d.r, &R::t33)), "omkmCholeskyDecomp_ma_32f",
            &d.r[0].s33[0][0], kRec, 12, F4, &d.r[0].t33[0][0], kRec, 12, F4, 3, 3),
        ROW("Cholesky ma through pointers", omkm::cholesky(field(d.rp, &R::s33), field(d.rp, &R::t33)),
            "omkmCholeskyDecomp_ma_32f_L", d.rp.data(), int(offsetof(R, s33)), 12, F4, d.rp.data(),
            int(offsetof(R, t33)), 12, F4, 3, 3),
        ROW("Cholesky solve mv", omkm::cholesky_solve(d.m33, d.x3, d.y3), "omkmCholeskyBackSubst_mv_32f", &d.m33[0][0],
            12, F4, d.x3, F4, d.y3, F4, 3),
        ROW("Cholesky solve mva", omkm::cholesky_solve(d.m33, field(d.r, &R::v3), field(d.r, &R::w3)),
            "omkmCholeskyBackSubst_mva_32f", &d.m33[0][0], 12, F4, d.r[0].v3, kRec, F4, d.r[0].w3, kRec, F4, 3, 3),
        ROW("Cholesky solve mva through pointers",
            omkm::cholesky_solve(d.m33, field(d.rp, &R::v3), field(d.rp, &R::w3)),
            "omkmCholeskyBackSubst_mva_32f_L", &d.m33[0][0], 12, F4, d.rp.data(), int(offsetof(R, v3)), F4, d.rp.data(),
            int(offsetof(R, w3)), F4, 3, 3),
        ROW("Cholesky solve mava", omkm::cholesky_solve(field(d.r, &R::s33), field(d.r, &R::v3), field(d.r, &R::w3)),
            "omkmCholeskyBackSubst_mava_32f", &d.r[0].s33[0][0], kRec, 12, F4, d.r[0].v3, kRec, F4, d.r[0].w3, kRec, F4,
            3, 3),
        ROW("Cholesky solve mava through pointers",
            omkm::cholesky_solve(field(d.rp, &R::s33), field(d.rp, &R::v3), field(d.rp, &R::w3)),
            "omkmCholeskyBackSubst_mava_32f_L", d.rp.data(), int(offsetof(R, s33)), 12, F4, d.rp.data(),
            int(offsetof(R, v3)), F4, d.rp.data(), int(offsetof(R, w3)), F4, 3, 3),
        ROW("QR m of a 3x2, own scratch", omkm::qr(d.d32, d.r[0].m32), "omkmQRDecomp_m_32f", &d.d32[0][0], 8, F4,
            recorded_pointer(3), &d.r[0].m32[0][0], 8, F4, 2, 3),
        ROW("QR ma", omkm::qr(field(d.r, &R::s33), field(d.r, &R::t33)), "omkmQRDecomp_ma_32f", &d.r[0].s33[0][0], kRec,
            12, F4, recorded_pointer(4), &d.r[0].t33[0][0], kRec, 12, F4, 3, 3, 3),
        ROW("QR ma through pointers, a buffer", omkm::qr(field(d.rp, &R::s33), field(d.rp, &R::t33), &d.c24[0][0]),
            "omkmQRDecomp_ma_32f_L", d.rp.data(), int(offsetof(R, s33)), 12, F4, &d.c24[0][0], d.rp.data(),
            int(offsetof(R, t33)), 12, F4, 3, 3, 3),
        ROW("QR solve mv: b of the height, x of the width", omkm::qr_solve(d.d32, d.x3, d.x2), "omkmQRBackSubst_mv_32f",
            &d.d32[0][0], 8, F4, recorded_pointer(3), d.x3, F4, d.x2, F4, 2, 3),
        ROW("QR solve mva", omkm::qr_solve(d.d32, field(d.r, &R::v3), field(d.r, &R::v2)), "omkmQRBackSubst_mva_32f",
            &d.d32[0][0], 8, F4, recorded_pointer(3), d.r[0].v3, kRec, F4, d.r[0].v2, kRec, F4, 2, 3, 3),
        ROW("QR solve mva through pointers, a buffer",
            omkm::qr_solve(d.d32, field(d.rp, &R::v3), field(d.rp, &R::v2), &d.c24[0][0]), "omkmQRBackSubst_mva_32f_L",
            &d.d32[0][0], 8, F4, &d.c24[0][0], d.rp.data(), int(offsetof(R, v3)), F4, d.rp.data(),
            int(offsetof(R, v2)), F4, 2, 3, 3),
        ROW("QR solve mava", omkm::qr_solve(field(d.r, &R::m32), field(d.r, &R::v3), field(d.r, &R::v2)),
            "omkmQRBackSubst_mava_32f", &d.r[0].m32[0][0], kRec, 8, F4, recorded_pointer(4), d.r[0].v3, kRec, F4,
            d.r[0].v2, kRec, F4, 2, 3, 3),
        ROW("QR solve mava through pointers",
            omkm::qr_solve(field(d.rp, &R::m32), field(d.rp, &R::v3), field(d.rp, &R::v2)),
            "omkmQRBackSubst_mava_32f_L", d.rp.data(), int(offsetof(R, m32)), 8, F4, recorded_pointer(4), d.rp.data(),
            int(offsetof(R, v3)), F4, d.rp.data(), int(offsetof(R, v2)), F4, 2, 3, 3),
        // ---- the symmetric eigenproblem: scratch, then the vectors' part, the values, widthHeight, count
        ROW("eigenvalues m", omkm::eigen_sym(d.m33, d.x3), "omkmEigenValuesSym_m_32f", &d.m33[0][0], 12, F4,
            recorded_pointer(3), d.x3, 3),
        ROW("eigenvalues ma", omkm::eigen_sym(field(d.r, &R::s33), d.vals), "omkmEigenValuesSym_ma_32f",
            &d.r[0].s33[0][0], kRec, 12, F4, recorded_pointer(4), d.vals.data(), 3, 3),
        ROW("eigenvalues ma through pointers, a buffer", omkm::eigen_sym(field(d.rp, &R::s33), d.vals, &d.c24[0][0]),
            "omkmEigenValuesSym_ma_32f_L", d.rp.data(), int(offsetof(R, s33)), 12, F4, &d.c24[0][0], d.vals.data(), 3,
            3),
        ROW("eigenvectors m", omkm::eigen_sym(d.m33, d.x3, d.r[0].t33), "omkmEigenValuesVectorsSym_m_32f", &d.m33[0][0],
            12, F4, recorded_pointer(3), &d.r[0].t33[0][0], 12, F4, d.x3, 3),
        ROW("eigenvectors ma", omkm::eigen_sym(field(d.r, &R::s33), d.vals, field(d.r, &R::t33)),
            "omkmEigenValuesVectorsSym_ma_32f", &d.r[0].s33[0][0], kRec, 12, F4, recorded_pointer(4),
            &d.r[0].t33[0][0], kRec, 12, F4, d.vals.data(), 3, 3),
        ROW("eigenvectors ma through pointers, a buffer",
            omkm::eigen_sym(field(d.rp, &R::s33), d.vals, field(d.rp, &R::t33), &d.c24[0][0]),
            "omkmEigenValuesVectorsSym_ma_32f_L", d.rp.data(), int(offsetof(R, s33)), 12, F4, &d.c24[0][0],
            d.rp.data(), int(offsetof(R, t33)), 12, F4, d.vals.data(), 3, 3),
        // ---- the general eigenproblem: the vectors' parts (left before right), values, widthHeight, count,
        // then the buffer (the layer's scratch is sized by a query first: checked by bits below)
        ROW("eigenvalues m, general", omkm::eigen(d.m33, d.x3, d.y3, d.buf.data()), "omkmEigenValues_m_32f",
            &d.m33[0][0], 12, F4, d.x3, d.y3, 3, d.buf.data()),
        ROW("eigenvalues ma, general", omkm::eigen(field(d.r, &R::s33), d.vals, d.im, d.buf.data()),
            "omkmEigenValues_ma_32f", &d.r[0].s33[0][0], kRec, 12, F4, d.vals.data(), d.im.data(), 3, 3, d.buf.data()),
        ROW("eigenvalues ma through pointers, general", omkm::eigen(field(d.rp, &R::s33), d.vals, d.im, d.buf.data()),
            "omkmEigenValues_ma_32f_L", d.rp.data(), int(offsetof(R, s33)), 12, F4, d.vals.data(), d.im.data(), 3, 3,
            d.buf.data()),
        ROW("right eigenvectors m", omkm::eigen(d.m33, d.x3, d.y3, d.r[0].t33, d.buf.data()),
            "omkmEigenValuesVectorsRight_m_32f", &d.m33[0][0], 12, F4, &d.r[0].t33[0][0], 12, F4, d.x3, d.y3, 3,
            d.buf.data()),
        ROW("right eigenvectors ma", omkm::eigen(field(d.r, &R::s33), d.vals, d.im, field(d.r, &R::t33), d.buf.data()),
            "omkmEigenValuesVectorsRight_ma_32f", &d.r[0].s33[0][0], kRec, 12, F4, &d.r[0].t33[0][0], kRec, 12, F4,
            d.vals.data(), d.im.data(), 3, 3, d.buf.data()),
        ROW("right eigenvectors ma through pointers",
            omkm::eigen(field(d.rp, &R::s33), d.vals, d.im, field(d.rp, &R::t33), d.buf.data()),
            "omkmEigenValuesVectorsRight_ma_32f_L", d.rp.data(), int(offsetof(R, s33)), 12, F4, d.rp.data(),
            int(offsetof(R, t33)), 12, F4, d.vals.data(), d.im.data(), 3, 3, d.buf.data()),
        ROW("left eigenvectors m", omkm::eigen_left(d.m33, d.x3, d.y3, d.r[0].t33, d.buf.data()),
            "omkmEigenValuesVectorsLeft_m_32f", &d.m33[0][0], 12, F4, &d.r[0].t33[0][0], 12, F4, d.x3, d.y3, 3,
            d.buf.data()),
        ROW("left eigenvectors ma",
            omkm::eigen_left(field(d.r, &R::s33), d.vals, d.im, field(d.r, &R::t33), d.buf.data()),
            "omkmEigenValuesVectorsLeft_ma_32f", &d.r[0].s33[0][0], kRec, 12, F4, &d.r[0].t33[0][0], kRec, 12, F4,
            d.vals.data(), d.im.data(), 3, 3, d.buf.data()),
        ROW("left eigenvectors ma through pointers",
            omkm::eigen_left(field(d.rp, &R::s33), d.vals, d.im, field(d.rp, &R::t33), d.buf.data()),
            "omkmEigenValuesVectorsLeft_ma_32f_L", d.rp.data(), int(offsetof(R, s33)), 12, F4, d.rp.data(),
            int(offsetof(R, t33)), 12, F4, d.vals.data(), d.im.data(), 3, 3, d.buf.data()),
        ROW("left and right eigenvectors m",
            omkm::eigen_left_right(d.m33, d.x3, d.y3, d.r[0].t33, d.r[0].u33, d.buf.data()),
            "omkmEigenValuesVectors_m_32f", &d.m33[0][0], 12, F4, &d.r[0].t33[0][0], 12, F4, &d.r[0].u33[0][0], 12, F4,
            d.x3, d.y3, 3, d.buf.data()),
        ROW("left and right eigenvectors ma",
            omkm::eigen_left_right(field(d.r, &R::s33), d.vals, d.im, field(d.r, &R::t33), field(d.r, &R::u33),
                                   d.buf.data()),
            "omkmEigenValuesVectors_ma_32f", &d.r[0].s33[0][0], kRec, 12, F4, &d.r[0].t33[0][0], kRec, 12, F4,
            &d.r[0].u33[0][0], kRec, 12, F4, d.vals.data(), d.im.data(), 3, 3, d.buf.data()),
        ROW("left and right eigenvectors ma through pointers",
            omkm::eigen_left_right(field(d.rp, &R::s33), d.vals, d.im, field(d.rp, &R::t33), field(d.rp, &R::u33),
                                   d.buf.data()),
            "omkmEigenValuesVectors_ma_32f_L", d.rp.data(), int(offsetof(R, s33)), 12, F4, d.rp.data(),
            int(offsetof(R, t33)), 12, F4, d.rp.data(), int(offsetof(R, u33)), 12, F4, d.vals.data(), d.im.data(), 3,
            3, d.buf.data()),
        // ---- double, raw memory with strides: matrices stored by columns, vectors every other element
        ROW("strided double m*t",
            omkm::mul(omkm::strided_matrix(d.g.data(), 2, 3, 8, 16),
                      transposed(omkm::strided_matrix(d.g.data() + 6, 4, 3, 8, 32)),
                      omkm::strided_matrix(d.h.data(), 2, 4, 8, 16)),
            "omkmMul_mt_64f", d.g.data(), 8, 16, 3, 2, d.g.data() + 6, 8, 32, 3, 4, d.h.data(), 8, 16),
        ROW("strided double vava add",
            omkm::add(omkm::strided_vectors(d.g.data(), 3, 4, 64, 16),
                      omkm::strided_vectors(d.g.data() + 1, 3, 4, 64, 16),
                      omkm::strided_vectors(d.h.data(), 3, 4, 40, 8)),
            "omkmAdd_vava_64f", d.g.data(), 64, 16, d.g.data() + 1, 64, 16, d.h.data(), 40, 8, 4, 3),
        ROW("double constants",
            omkm::sub(omkm::strided_vectors(d.g.data(), 3, 4, 64, 16), omkm::constants(d.h.data() + 20, 3),
                      omkm::strided_vectors(d.h.data(), 3, 4, 40, 8)),
            "omkmSub_vaca_64f", d.g.data(), 64, 16, d.h.data() + 20, 8, d.h.data(), 40, 8, 4, 3),
        ROW("double invert of each, own scratch",
            omkm::invert(omkm::strided_matrices(d.g.data(), 2, 2, 2, 64, 8, 16),
                         omkm::strided_matrices(d.h.data(), 2, 2, 2, 32, 16, 8)),
            "omkmInvert_ma_64f", d.g.data(), 64, 8, 16, recorded_pointer(4), d.h.data(), 32, 16, 8, 2, 2),
        // ---- 3D graphics and the fixed-size members (float only): the export by the operands' length,
        // no strides or sizes but the arrays' stride0 and count; 4x4 transforms from d.buf
        ROW("len v3", omkm::len(d.x3, d.out1), "omkmLen_v3_32f", d.x3, &d.out1),
        ROW("len_sqr of a std::array<float, 4>", omkm::len_sqr(d.flat22, d.out1), "omkmLenSqr_v4_32f", d.flat22.data(),
            &d.out1),
        ROW("normalize v2 in place", omkm::normalize(d.x2, d.x2), "omkmNormalize_v2_32f", d.x2, d.x2),
        ROW("min v3", omkm::min(d.x3, d.y3, d.z3), "omkmMin_v3_32f", d.x3, d.y3, d.z3),
        ROW("max v4, one from a pointer", omkm::max(omkm::vec<4>(d.vals.data()), d.flat22, d.r[0].q), "omkmMax_v4_32f",
            d.vals.data(), d.flat22.data(), d.r[0].q.data()),
        ROW("lerp", omkm::lerp(d.x3, d.y3, 0.25f, d.z3), "omkmInterpolationLinear_v3_32f", d.x3, d.y3, 0.25f, d.z3),
        ROW("barycentric v2", omkm::barycentric(d.x2, d.r[0].v2, d.r[1].v2, 0.25f, 0.5f, d.r[2].v2),
            "omkmBaryCentric_v2_32f", d.x2, d.r[0].v2, d.r[1].v2, 0.25f, 0.5f, d.r[2].v2),
        ROW("hermite: point, tangent, point, tangent", omkm::hermite(d.x3, d.y3, d.r[0].v3, d.r[0].w3, 0.5f, d.z3),
            "omkmHermite_v3_32f", d.x3, d.y3, d.r[0].v3, d.r[0].w3, 0.5f, d.z3),
        ROW("catmull_rom v4", omkm::catmull_rom(d.r[0].q, d.r[1].q, d.r[2].q, d.flat22, 0.75f, d.r[0].q2),
            "omkmInterpolationCatmullRom_v4_32f", d.r[0].q.data(), d.r[1].q.data(), d.r[2].q.data(), d.flat22.data(),
            0.75f, d.r[0].q2.data()),
        ROW("is_identity into an int", omkm::is_identity(omkm::mat<4, 4>(d.buf.data()), d.piv3[0]),
            "omkmIsIdentity_m4_32f", d.buf.data(), &d.piv3[0]),
        ROW("look_at LH into a flat 16",
            omkm::look_at(omkm::left_handed, d.x3, d.y3, d.z3, omkm::vec<16>(d.buf.data())),
            "omkmLookAtLH_m4_32f", d.x3, d.y3, d.z3, d.buf.data()),
        ROW("look_at RH", omkm::look_at(omkm::right_handed, d.x3, d.y3, d.z3, omkm::mat<4, 4>(d.buf.data())),
            "omkmLookAtRH_m4_32f", d.x3, d.y3, d.z3, d.buf.data()),
        ROW("ortho LH", omkm::ortho(omkm::left_handed, 4.0f, 3.0f, 0.5f, 9.0f, omkm::mat<4, 4>(d.buf.data())),
            "omkmOrthoLH_m4_32f", 4.0f, 3.0f, 0.5f, 9.0f, d.buf.data()),
        ROW("ortho RH", omkm::ortho(omkm::right_handed, 4.0f, 3.0f, 0.5f, 9.0f, omkm::mat<4, 4>(d.buf.data())),
            "omkmOrthoRH_m4_32f", 4.0f, 3.0f, 0.5f, 9.0f, d.buf.data()),
        ROW("ortho_off_center LH",
            omkm::ortho_off_center(omkm::left_handed, -1.0f, 2.0f, -3.0f, 4.0f, 0.5f, 9.0f,
                                   omkm::mat<4, 4>(d.buf.data())),
            "omkmOrthoOffCenterLH_m4_32f", -1.0f, 2.0f, -3.0f, 4.0f, 0.5f, 9.0f, d.buf.data()),
        ROW("ortho_off_center RH",
            omkm::ortho_off_center(omkm::right_handed, -1.0f, 2.0f, -3.0f, 4.0f, 0.5f, 9.0f,
                                   omkm::mat<4, 4>(d.buf.data())),
            "omkmOrthoOffCenterRH_m4_32f", -1.0f, 2.0f, -3.0f, 4.0f, 0.5f, 9.0f, d.buf.data()),
        ROW("perspective LH",
            omkm::perspective(omkm::left_handed, 4.0f, 3.0f, 0.5f, 9.0f, omkm::mat<4, 4>(d.buf.data())),
            "omkmPerspectiveLH_m4_32f", 4.0f, 3.0f, 0.5f, 9.0f, d.buf.data()),
        ROW("perspective RH",
            omkm::perspective(omkm::right_handed, 4.0f, 3.0f, 0.5f, 9.0f, omkm::mat<4, 4>(d.buf.data())),
            "omkmPerspectiveRH_m4_32f", 4.0f, 3.0f, 0.5f, 9.0f, d.buf.data()),
        ROW("perspective_fov LH",
            omkm::perspective_fov(omkm::left_handed, 1.0f, 1.5f, 0.5f, 9.0f, omkm::mat<4, 4>(d.buf.data())),
            "omkmPerspectiveFovLH_m4_32f", 1.0f, 1.5f, 0.5f, 9.0f, d.buf.data()),
        ROW("perspective_fov RH",
            omkm::perspective_fov(omkm::right_handed, 1.0f, 1.5f, 0.5f, 9.0f, omkm::mat<4, 4>(d.buf.data())),
            "omkmPerspectiveFovRH_m4_32f", 1.0f, 1.5f, 0.5f, 9.0f, d.buf.data()),
        ROW("perspective_off_center LH",
            omkm::perspective_off_center(omkm::left_handed, -1.0f, 2.0f, -3.0f, 4.0f, 0.5f, 9.0f,
                                         omkm::mat<4, 4>(d.buf.data())),
            "omkmPerspectiveOffCenterLH_m4_32f", -1.0f, 2.0f, -3.0f, 4.0f, 0.5f, 9.0f, d.buf.data()),
        ROW("perspective_off_center RH",
            omkm::perspective_off_center(omkm::right_handed, -1.0f, 2.0f, -3.0f, 4.0f, 0.5f, 9.0f,
                                         omkm::mat<4, 4>(d.buf.data())),
            "omkmPerspectiveOffCenterRH_m4_32f", -1.0f, 2.0f, -3.0f, 4.0f, 0.5f, 9.0f, d.buf.data()),
        ROW("rotation_x", omkm::rotation_x(0.5f, omkm::mat<4, 4>(d.buf.data())), "omkmRotationX_m4_32f", 0.5f,
            d.buf.data()),
        ROW("rotation_y", omkm::rotation_y(0.5f, omkm::mat<4, 4>(d.buf.data())), "omkmRotationY_m4_32f", 0.5f,
            d.buf.data()),
        ROW("rotation_z", omkm::rotation_z(0.5f, omkm::mat<4, 4>(d.buf.data())), "omkmRotationZ_m4_32f", 0.5f,
            d.buf.data()),
        ROW("rotation_axis", omkm::rotation_axis(d.x3, 0.5f, omkm::mat<4, 4>(d.buf.data())),
            "omkmRotationAxis_v3m4_32f", d.x3, 0.5f, d.buf.data()),
        ROW("rotation_yaw_pitch_roll", omkm::rotation_yaw_pitch_roll(0.1f, 0.2f, 0.3f, omkm::mat<4, 4>(d.buf.data())),
            "omkmRotationYawPitchRoll_m4_32f", 0.1f, 0.2f, 0.3f, d.buf.data()),
        ROW("scaling", omkm::scaling(1.0f, 2.0f, 3.0f, omkm::mat<4, 4>(d.buf.data())), "omkmScaling_m4_32f", 1.0f, 2.0f,
            3.0f, d.buf.data()),
        ROW("translation", omkm::translation(1.0f, 2.0f, 3.0f, omkm::mat<4, 4>(d.buf.data())), "omkmTranslation_m4_32f",
            1.0f, 2.0f, 3.0f, d.buf.data()),
        ROW("mul_transpose",
            omkm::mul_transpose(omkm::mat<4, 4>(d.buf.data()), omkm::mat<4, 4>(d.buf.data() + 16),
                                omkm::mat<4, 4>(d.buf.data() + 32)),
            "omkmMulTranspose_m4_32f", d.buf.data(), d.buf.data() + 16, d.buf.data() + 32),
        ROW("transform_points v2 into 4", omkm::transform_points(omkm::mat<4, 4>(d.buf.data()), d.x2, d.flat22),
            "omkmAffineTransform_m4v2_32f", d.buf.data(), d.x2, d.flat22.data()),
        ROW("transform_points v3 into 4", omkm::transform_points(omkm::mat<4, 4>(d.buf.data()), d.x3, d.flat22),
            "omkmAffineTransform_m4v3_32f", d.buf.data(), d.x3, d.flat22.data()),
        ROW("transform_points v4", omkm::transform_points(omkm::mat<4, 4>(d.buf.data()), d.r[0].q, d.flat22),
            "omkmAffineTransform_m4v4_32f", d.buf.data(), d.r[0].q.data(), d.flat22.data()),
        ROW("transform_points of each v2",
            omkm::transform_points(omkm::mat<4, 4>(d.buf.data()), field(d.r, &R::v2), field(d.r, &R::q)),
            "omkmAffineTransform_m4v2a_32f", d.buf.data(), d.r[0].v2, kRec, d.r[0].q.data(), kRec, 3),
        ROW("transform_points of each v3 into packed 4-vectors",
            omkm::transform_points(omkm::mat<4, 4>(d.buf.data()), field(d.r, &R::v3),
                                   omkm::strided_vectors(d.buf.data() + 48, 3, 4, 16, 4)),
            "omkmAffineTransform_m4v3a_32f", d.buf.data(), d.r[0].v3, kRec, d.buf.data() + 48, 16, 3),
        ROW("transform_points of each v4",
            omkm::transform_points(omkm::mat<4, 4>(d.buf.data()), field(d.r, &R::q), field(d.r, &R::q2)),
            "omkmAffineTransform_m4v4a_32f", d.buf.data(), d.r[0].q.data(), kRec, d.r[0].q2.data(), kRec, 3),
        ROW("transform_coords v2", omkm::transform_coords(omkm::mat<4, 4>(d.buf.data()), d.x2, d.r[0].v2),
            "omkmAffineTransformCoord_m4v2_32f", d.buf.data(), d.x2, d.r[0].v2),
        ROW("transform_coords v3", omkm::transform_coords(omkm::mat<4, 4>(d.buf.data()), d.x3, d.y3),
            "omkmAffineTransformCoord_m4v3_32f", d.buf.data(), d.x3, d.y3),
        ROW("transform_coords of each v2",
            omkm::transform_coords(omkm::mat<4, 4>(d.buf.data()), field(d.r, &R::v2), field(d.r, &R::v2)),
            "omkmAffineTransformCoord_m4v2a_32f", d.buf.data(), d.r[0].v2, kRec, d.r[0].v2, kRec, 3),
        ROW("transform_coords of each v3 into packed 3-vectors",
            omkm::transform_coords(omkm::mat<4, 4>(d.buf.data()), field(d.r, &R::v3),
                                   omkm::strided_vectors(d.buf.data() + 48, 3, 3, 12, 4)),
            "omkmAffineTransformCoord_m4v3a_32f", d.buf.data(), d.r[0].v3, kRec, d.buf.data() + 48, 12, 3),
        ROW("transform_normals v2", omkm::transform_normals(omkm::mat<4, 4>(d.buf.data()), d.x2, d.r[0].v2),
            "omkmAffineTransformNormal_m4v2_32f", d.buf.data(), d.x2, d.r[0].v2),
        ROW("transform_normals v3", omkm::transform_normals(omkm::mat<4, 4>(d.buf.data()), d.x3, d.y3),
            "omkmAffineTransformNormal_m4v3_32f", d.buf.data(), d.x3, d.y3),
        ROW("transform_normals of each v2",
            omkm::transform_normals(omkm::mat<4, 4>(d.buf.data()), field(d.r, &R::v2), field(d.r, &R::v2)),
            "omkmAffineTransformNormal_m4v2a_32f", d.buf.data(), d.r[0].v2, kRec, d.r[0].v2, kRec, 3),
        ROW("transform_normals of each v3",
            omkm::transform_normals(omkm::mat<4, 4>(d.buf.data()), field(d.r, &R::v3), field(d.r, &R::w3)),
            "omkmAffineTransformNormal_m4v3a_32f", d.buf.data(), d.r[0].v3, kRec, d.r[0].w3, kRec, 3),
        ROW("transform_homogeneous: a matrix stored by columns",
            omkm::transform_homogeneous(omkm::strided_matrix(d.buf.data(), 4, 4, 4, 16), field(d.r, &R::q),
                                        field(d.r, &R::q2)),
            "omkmAffineTransform3DH_mva_32f", d.buf.data(), 4, 16, d.r[0].q.data(), kRec, F4, d.r[0].q2.data(), kRec,
            F4, 3),
        ROW("project: projection, view, world, point, viewport",
            omkm::project(omkm::mat<4, 4>(d.buf.data()), omkm::mat<4, 4>(d.buf.data() + 16),
                          omkm::mat<4, 4>(d.buf.data() + 32), d.x3, omkm::viewport{640, 480, 0.25f, 0.75f}, d.y3),
            "omkmProject_m4v3_32f", d.buf.data(), d.buf.data() + 16, d.buf.data() + 32, d.x3, 640.0f, 480.0f, 0.25f,
            0.75f, d.y3),
        ROW("project each",
            omkm::project(omkm::mat<4, 4>(d.buf.data()), omkm::mat<4, 4>(d.buf.data() + 16),
                          omkm::mat<4, 4>(d.buf.data() + 32), field(d.r, &R::v3), omkm::viewport{640, 480},
                          omkm::strided_vectors(d.buf.data() + 48, 3, 3, 12, 4)),
            "omkmProject_m4v3a_32f", d.buf.data(), d.buf.data() + 16, d.buf.data() + 32, d.r[0].v3, kRec, 640.0f,
            480.0f, 0.0f, 1.0f, d.buf.data() + 48, 12, 3),
        ROW("unproject (identities: not singular)",
            [&] {
                for (int k = 0; k < 3; ++k) omkmIdentity_m4_32f(d.buf.data() + 16 * k);
                return omkm::unproject(omkm::mat<4, 4>(d.buf.data()), omkm::mat<4, 4>(d.buf.data() + 16),
                                       omkm::mat<4, 4>(d.buf.data() + 32), d.x3, omkm::viewport{640, 480}, d.y3);
            }(),
            "omkmUnproject_m4v3_32f", d.buf.data(), d.buf.data() + 16, d.buf.data() + 32, d.x3, 640.0f, 480.0f, 0.0f,
            1.0f, d.y3),
        ROW("unproject each",
            [&] {
                for (int k = 0; k < 3; ++k) omkmIdentity_m4_32f(d.buf.data() + 16 * k);
                return omkm::unproject(omkm::mat<4, 4>(d.buf.data()), omkm::mat<4, 4>(d.buf.data() + 16),
                                       omkm::mat<4, 4>(d.buf.data() + 32), field(d.r, &R::v3), omkm::viewport{640, 480},
                                       field(d.r, &R::w3));
            }(),
            "omkmUnproject_m4v3a_32f", d.buf.data(), d.buf.data() + 16, d.buf.data() + 32, d.r[0].v3, kRec, 640.0f,
            480.0f, 0.0f, 1.0f, d.r[0].w3, kRec, 3),
        ROW("fixed::add v2", omkm::fixed::add(d.x2, d.r[0].v2, d.r[1].v2), "omkmAdd_v2_32f", d.x2, d.r[0].v2,
            d.r[1].v2),
        ROW("fixed::add v3", omkm::fixed::add(d.x3, d.y3, d.z3), "omkmAdd_v3_32f", d.x3, d.y3, d.z3),
        ROW("fixed::add v4", omkm::fixed::add(d.r[0].q, d.flat22, d.r[0].q2), "omkmAdd_v4_32f", d.r[0].q.data(),
            d.flat22.data(), d.r[0].q2.data()),
        ROW("fixed::sub v3", omkm::fixed::sub(d.x3, d.y3, d.z3), "omkmSub_v3_32f", d.x3, d.y3, d.z3),
        ROW("fixed::dot v3", omkm::fixed::dot(d.x3, d.y3, d.out1), "omkmDotProduct_v3_32f", d.x3, d.y3, &d.out1),
        ROW("fixed::cross v3", omkm::fixed::cross(d.x3, d.y3, d.z3), "omkmCrossProduct_v3_32f", d.x3, d.y3, d.z3),
        ROW("fixed::cross of 2-vectors into a float", omkm::fixed::cross(d.x2, d.r[0].v2, d.out1),
            "omkmCrossProduct_v2_32f", d.x2, d.r[0].v2, &d.out1),
        ROW("fixed::cross of three 4-vectors", omkm::fixed::cross(d.r[0].q, d.r[1].q, d.r[2].q, d.flat22),
            "omkmCrossProduct_v4_32f", d.r[0].q.data(), d.r[1].q.data(), d.r[2].q.data(), d.flat22.data()),
        ROW("fixed::mul 4x4",
            omkm::fixed::mul(omkm::mat<4, 4>(d.buf.data()), omkm::vec<16>(d.buf.data() + 16),
                             omkm::mat<4, 4>(d.buf.data() + 32)),
            "omkmMul_mm4x4_32f", d.buf.data(), d.buf.data() + 16, d.buf.data() + 32),
        ROW("fixed::mul by a constant", omkm::fixed::mul(d.x3, 2.0f, d.y3), "omkmMulC_v3_32f", d.x3, 2.0f, d.y3),
        ROW("fixed::identity", omkm::fixed::identity(omkm::mat<4, 4>(d.buf.data())), "omkmIdentity_m4_32f",
            d.buf.data()),
        ROW("fixed::transpose",
            omkm::fixed::transpose(omkm::mat<4, 4>(d.buf.data()), omkm::mat<4, 4>(d.buf.data() + 16)),
            "omkmTranspose_m4_32f", d.buf.data(), d.buf.data() + 16),
        ROW("fixed::det", omkm::fixed::det(omkm::mat<4, 4>(d.buf.data()), d.out1), "omkmDet_m4_32f", d.buf.data(),
            &d.out1),
        ROW("fixed::invert, the determinant too",
            [&] {
                omkmIdentity_m4_32f(d.buf.data());
                return omkm::fixed::invert(omkm::mat<4, 4>(d.buf.data()), omkm::mat<4, 4>(d.buf.data() + 16), d.out1);
            }(),
            "omkmInvert_m4_32f", d.buf.data(), &d.out1, d.buf.data() + 16),
    };
    return t;
}

TEST(CppInterface, EachOverloadReachesItsExportWithTheStridesSizesAndCount) {
    for (const Row& row : rows()) {
        SCOPED_TRACE(row.what);
        Data d;
        rec::log = {};
        const status st = row.call(d);
        EXPECT_EQ(st, status::ok);
        EXPECT_EQ(rec::log.calls, 1);
        EXPECT_EQ(rec::log.name, row.export_name);
        EXPECT_EQ(rec::log.args, row.expected(d));
    }
}

}  // namespace

namespace {

template <class X>
bool same_bytes(const X& a, const X& b) {
    return std::memcmp(&a, &b, sizeof(X)) == 0;
}

// The C++ call and the direct C call on the same inputs give the same bits (each into its own copy
// of the destination); the scratch-taking families run on the layer's own scratch here, on the
// stack up to order 8 and allocated above.
TEST(CppInterface, ResultsAreTheBitsOfTheDirectCCall) {
    struct Body {
        int id;
        float pose[4][4];
        float step[4][4];
        float next[4][4];
        float marker[4];
        float world[4];
    };
    std::vector<Body> b(37);
    for (std::size_t k = 0; k < b.size(); ++k)
        for (int i = 0; i < 16; ++i) {
            (&b[k].pose[0][0])[i] = std::sin(0.7f * static_cast<float>(k * 16 + i));
            (&b[k].step[0][0])[i] = std::cos(0.3f * static_cast<float>(k * 16 + i));
            b[k].marker[i % 4] = 0.1f * static_cast<float>(i + static_cast<int>(k));
        }
    std::vector<Body> c = b;
    const int rec = static_cast<int>(sizeof(Body)), n = static_cast<int>(b.size());
    ASSERT_EQ(omkm::mul(omkm::field(b, &Body::pose), omkm::field(b, &Body::step), omkm::field(b, &Body::next)),
              status::ok);
    ASSERT_EQ(omkmMul_mama_32f(&c[0].pose[0][0], rec, 16, 4, 4, 4, &c[0].step[0][0], rec, 16, 4, 4, 4, &c[0].next[0][0],
                               rec, 16, 4, n),
              omkStsOk);
    ASSERT_EQ(
        omkm::mul(transposed(omkm::field(b, &Body::next)), omkm::field(b, &Body::marker), omkm::field(b, &Body::world)),
        status::ok);
    ASSERT_EQ(omkmMul_tava_32f(&c[0].next[0][0], rec, 16, 4, 4, 4, c[0].marker, rec, 4, 4, c[0].world, rec, 4, n),
              omkStsOk);
    for (int k = 0; k < n; ++k) {
        EXPECT_TRUE(same_bytes(b[k].next, c[k].next)) << "body " << k;
        EXPECT_TRUE(same_bytes(b[k].world, c[k].world)) << "body " << k;
    }

    // The same through pointers to the records, in another order (the layout description).
    std::vector<Body*> pb, pc;
    for (int k = 0; k < n; ++k) {
        const int j = (k * 5) % n;
        pb.push_back(&b[j]);
        pc.push_back(&c[j]);
        b[j].next[0][0] = c[j].next[0][0] = -1.0f;  // overwritten by both
    }
    ASSERT_EQ(
        omkm::mul(omkm::field(pb, &Body::step), transposed(omkm::field(pb, &Body::pose)), omkm::field(pb, &Body::next)),
        status::ok);
    ASSERT_EQ(omkmMul_mata_32f_L(
                  const_cast<const float**>(reinterpret_cast<float**>(pc.data())), int(offsetof(Body, step)), 16, 4, 4,
                  4, const_cast<const float**>(reinterpret_cast<float**>(pc.data())), int(offsetof(Body, pose)), 16, 4,
                  4, 4, reinterpret_cast<float**>(pc.data()), int(offsetof(Body, next)), 16, 4, n),
              omkStsOk);
    for (int k = 0; k < n; ++k) EXPECT_TRUE(same_bytes(b[k].next, c[k].next)) << "body " << k;

    // det and invert of orders that use the scratch: 5 and 7 (elimination), 10 (allocated scratch)
    auto filled = [](int order, int count, double shift) {
        std::vector<double> m(static_cast<std::size_t>(order * order * count));
        for (std::size_t i = 0; i < m.size(); ++i) m[i] = std::sin(1.3 * static_cast<double>(i) + shift);
        for (int k = 0; k < count; ++k)
            for (int i = 0; i < order; ++i) m[static_cast<std::size_t>(k * order * order + i * order + i)] += order;
        return m;
    };
    for (int order : {5, 7, 10}) {
        SCOPED_TRACE(order);
        const int count = 6, row = order * 8, obj = order * order * 8;
        std::vector<double> m = filled(order, count, 0.1 * order), buf(omkm::scratch_elements<double>(order));
        std::vector<double> d1(count), d2(count), i1(m.size()), i2(m.size());
        const auto src = omkm::strided_matrices(m.data(), count, order, order, obj, row, 8);
        EXPECT_EQ(omkm::det(src, d1), status::ok);
        EXPECT_EQ(omkmDet_ma_64f(m.data(), obj, row, 8, order, buf.data(), d2.data(), count), omkStsOk);
        EXPECT_EQ(d1, d2);
        EXPECT_EQ(omkm::invert(src, omkm::strided_matrices(i1.data(), count, order, order, obj, row, 8)), status::ok);
        EXPECT_EQ(omkmInvert_ma_64f(m.data(), obj, row, 8, buf.data(), i2.data(), obj, row, 8, order, count), omkStsOk);
        EXPECT_EQ(0, std::memcmp(i1.data(), i2.data(), i1.size() * sizeof(double)));
        double one1 = 0, one2 = 0;
        EXPECT_EQ(omkm::det(omkm::strided_matrix(m.data(), order, order, row, 8), one1), status::ok);
        EXPECT_EQ(omkmDet_m_64f(m.data(), row, 8, order, buf.data(), &one2), omkStsOk);
        EXPECT_EQ(std::memcmp(&one1, &one2, sizeof(double)), 0);
        // LU of each and a solve with each factor (mava); Cholesky of each and a solve with the first
        // factor for every vector (mva)
        std::vector<int> p1(static_cast<std::size_t>(order * count)), p2(p1.size());
        std::vector<double> rhs(p1.size()), x1(p1.size()), x2(p1.size());
        for (std::size_t i = 0; i < rhs.size(); ++i) rhs[i] = std::cos(0.9 * static_cast<double>(i));
        const auto f1 = omkm::strided_matrices(i1.data(), count, order, order, obj, row, 8);
        const auto vs = omkm::strided_vectors(rhs.data(), count, order, order * 8, 8);
        EXPECT_EQ(omkm::lu_decomp(src, p1, f1), status::ok);
        EXPECT_EQ(omkmLUDecomp_ma_64f(m.data(), obj, row, 8, p2.data(), i2.data(), obj, row, 8, order, count),
                  omkStsOk);
        const auto xs = omkm::strided_vectors(x1.data(), count, order, order * 8, 8);
        EXPECT_EQ(omkm::lu_solve(f1, p1, vs, xs), status::ok);
        EXPECT_EQ(omkmLUBackSubst_mava_64f(i2.data(), obj, row, 8, p2.data(), rhs.data(), order * 8, 8, x2.data(),
                                           order * 8, 8, order, count),
                  omkStsOk);
        EXPECT_EQ(p1, p2);
        EXPECT_EQ(0, std::memcmp(i1.data(), i2.data(), i1.size() * sizeof(double)));
        EXPECT_EQ(0, std::memcmp(x1.data(), x2.data(), x1.size() * sizeof(double)));
        EXPECT_EQ(omkm::cholesky(src, f1), status::ok);
        EXPECT_EQ(omkmCholeskyDecomp_ma_64f(m.data(), obj, row, 8, i2.data(), obj, row, 8, order, count), omkStsOk);
        EXPECT_EQ(omkm::cholesky_solve(omkm::strided_matrix(i1.data(), order, order, row, 8), vs, xs), status::ok);
        EXPECT_EQ(omkmCholeskyBackSubst_mva_64f(i2.data(), row, 8, rhs.data(), order * 8, 8, x2.data(), order * 8, 8,
                                                order, count),
                  omkStsOk);
        EXPECT_EQ(0, std::memcmp(i1.data(), i2.data(), i1.size() * sizeof(double)));
        EXPECT_EQ(0, std::memcmp(x1.data(), x2.data(), x1.size() * sizeof(double)));
        // general eigenvalues and right eigenvectors of each, on the scratch the layer sizes by the query
        int bytes = 0;
        EXPECT_EQ(omkmEigenValuesVectorsGetBufSize_64f(order, &bytes), omkStsOk);
        std::vector<double> ebuf(static_cast<std::size_t>(bytes) / 8 + 1), im1(rhs.size()), im2(rhs.size());
        EXPECT_EQ(omkm::eigen(src, x1, im1, f1), status::ok);
        EXPECT_EQ(omkmEigenValuesVectorsRight_ma_64f(m.data(), obj, row, 8, i2.data(), obj, row, 8, x2.data(),
                                                     im2.data(), order, count, ebuf.data()),
                  omkStsOk);
        EXPECT_EQ(0, std::memcmp(x1.data(), x2.data(), x1.size() * sizeof(double)));
        EXPECT_EQ(0, std::memcmp(im1.data(), im2.data(), im1.size() * sizeof(double)));
        EXPECT_EQ(0, std::memcmp(i1.data(), i2.data(), i1.size() * sizeof(double)));
    }

    // dot products of length 5 (strided and contiguous kernels differ by design), norms, cross products
    std::vector<std::array<double, 5>> u(9), w(9);
    for (std::size_t k = 0; k < u.size(); ++k)
        for (int i = 0; i < 5; ++i) {
            u[k][i] = std::sin(0.9 * static_cast<double>(k * 5 + i));
            w[k][i] = std::cos(1.7 * static_cast<double>(k * 5 + i));
        }
    std::vector<double> r1(9), r2(9);
    EXPECT_EQ(omkm::dot(u, w, r1), status::ok);
    EXPECT_EQ(omkmDotProduct_vava_64f(u[0].data(), 40, 8, w[0].data(), 40, 8, r2.data(), 5, 9), omkStsOk);
    EXPECT_EQ(r1, r2);
    EXPECT_EQ(omkm::dot(omkm::strided_vectors(u[0].data(), 4, 3, 80, 16), omkm::vec(w[2].data(), 3), r1), status::ok);
    EXPECT_EQ(omkmDotProduct_vav_64f(u[0].data(), 80, 16, w[2].data(), 8, r2.data(), 3, 4), omkStsOk);
    EXPECT_EQ(r1, r2);
    EXPECT_EQ(omkm::norm(u, r1), status::ok);
    EXPECT_EQ(omkmL2Norm_va_64f(u[0].data(), 40, 8, r2.data(), 5, 9), omkStsOk);
    EXPECT_EQ(r1, r2);
    std::vector<std::array<double, 9>> f(9);  // flat 3x3 matrices, the shape given with mat<3, 3>
    for (std::size_t k = 0; k < f.size(); ++k)
        for (int i = 0; i < 9; ++i) f[k][i] = std::sin(0.37 * static_cast<double>(k * 9 + i));
    EXPECT_EQ(omkm::norm(omkm::mat<3, 3>(f), r1), status::ok);
    EXPECT_EQ(omkmFrobNorm_ma_64f(f[0].data(), 72, 24, 8, 3, 3, r2.data(), 9), omkStsOk);
    EXPECT_EQ(r1, r2);
    std::vector<std::array<float, 3>> p(11), q(11), x1(11), x2(11);
    for (std::size_t k = 0; k < p.size(); ++k)
        for (int i = 0; i < 3; ++i) {
            p[k][i] = std::sin(0.5f * static_cast<float>(k * 3 + i));
            q[k][i] = std::cos(2.5f * static_cast<float>(k * 3 + i));
        }
    EXPECT_EQ(omkm::cross(p, q, x1), status::ok);
    EXPECT_EQ(omkmCrossProduct_vava_32f(p[0].data(), 12, 4, q[0].data(), 12, 4, x2[0].data(), 12, 4, 11), omkStsOk);
    EXPECT_EQ(x1, x2);
}

}  // namespace

namespace {

// Operands by element pointers: the C++ call and the C call on the same tables give the same bits.
// The pose table lists each record's 4x4 by columns, a layout no stride describes, and arrays step
// a whole record per object, so a table, ROI shift or stride0 passed in the wrong place shows.
TEST(CppInterface, ElementPointerOperandsGiveTheBitsOfTheDirectCCall) {
    struct Body {
        float pose[4][4];
        float step[4][4];
        float next[4][4];
        float v[4], w[4], u[4];
        int id;
    };
    const int n = 9, rec = static_cast<int>(sizeof(Body));
    std::vector<Body> b(n);
    for (int k = 0; k < n; ++k)
        for (int i = 0; i < 16; ++i) {
            (&b[k].pose[0][0])[i] = std::sin(0.7f * static_cast<float>(k * 16 + i));
            (&b[k].step[0][0])[i] = std::cos(0.3f * static_cast<float>(k * 16 + i));
            b[k].v[i % 4] = 0.1f * static_cast<float>(i * 3 + k) - 1.0f;
            b[k].w[i % 4] = std::sin(1.9f * static_cast<float>(i + k));
        }
    std::vector<Body> c = b;
    // the tables of the first record; pose by columns
    auto tables = [](Body& first, float** pose, float** step, float** next, float** v, float** w, float** u) {
        for (int i = 0; i < 4; ++i) {
            for (int j = 0; j < 4; ++j) {
                pose[i * 4 + j] = &first.pose[j][i];
                step[i * 4 + j] = &first.step[i][j];
                next[i * 4 + j] = &first.next[i][j];
            }
            v[i] = &first.v[i];
            w[i] = &first.w[i];
            u[i] = &first.u[i];
        }
    };
    float *bp[16], *bs[16], *bn[16], *bv[4], *bw[4], *bu[4], *cp[16], *cs[16], *cn[16], *cv[4], *cw[4], *cu[4];
    tables(b[0], bp, bs, bn, bv, bw, bu);
    tables(c[0], cp, cs, cn, cv, cw, cu);
    auto in = [](float** t) { return const_cast<const float**>(t); };

    ASSERT_EQ(omkm::mul(omkm::pointer_matrices(bp, n, 4, 4, rec), transposed(omkm::pointer_matrices(bs, n, 4, 4, rec)),
                        omkm::pointer_matrices(bn, n, 4, 4, rec)),
              status::ok);
    ASSERT_EQ(omkmMul_mata_32f_P(in(cp), 0, rec, 4, 4, in(cs), 0, rec, 4, 4, cn, 0, rec, n), omkStsOk);
    // one 3-vector from the first record's v[1] on (a ROI shift of one element) with each record's w
    ASSERT_EQ(omkm::saxpy(omkm::pointer_vector(bv, 3, 4), 1.5f, omkm::pointer_vectors(bw, n, 3, rec),
                          omkm::pointer_vectors(bu, n, 3, rec)),
              status::ok);
    ASSERT_EQ(omkmSaxpy_vva_32f_P(in(cv), 4, 1.5f, in(cw), 0, rec, cu, 0, rec, 3, n), omkStsOk);
    for (int k = 0; k < n; ++k) {
        EXPECT_TRUE(same_bytes(b[k].next, c[k].next)) << "body " << k;
        EXPECT_TRUE(same_bytes(b[k].u, c[k].u)) << "body " << k;
    }
    ASSERT_EQ(omkm::gaxpy(omkm::pointer_matrix(bn, 4, 4), omkm::pointer_vectors(bv, n, 4, rec),
                          omkm::pointer_vectors(bw, n, 4, rec), omkm::pointer_vectors(bu, n, 4, rec)),
              status::ok);
    ASSERT_EQ(omkmGaxpy_mva_32f_P(in(cn), 0, 4, 4, in(cv), 0, rec, 4, in(cw), 0, rec, 4, cu, 0, rec, n), omkStsOk);
    for (int k = 0; k < n; ++k) EXPECT_TRUE(same_bytes(b[k].u, c[k].u)) << "body " << k;
    std::vector<float> det1(n), det2(n), buf(omkm::scratch_elements<float>(4));
    ASSERT_EQ(omkm::det(omkm::pointer_matrices(bp, n, 4, 4, rec), det1), status::ok);
    ASSERT_EQ(omkmDet_ma_32f_P(in(cp), 0, rec, 4, buf.data(), det2.data(), n), omkStsOk);
    EXPECT_EQ(0, std::memcmp(det1.data(), det2.data(), det1.size() * sizeof(float)));
    std::vector<int> piv1(static_cast<std::size_t>(4 * n)), piv2(piv1.size());
    ASSERT_EQ(omkm::lu_decomp(omkm::pointer_matrices(bp, n, 4, 4, rec), piv1, omkm::pointer_matrices(bn, n, 4, 4, rec)),
              status::ok);
    ASSERT_EQ(omkmLUDecomp_ma_32f_P(in(cp), 0, rec, piv2.data(), cn, 0, rec, 4, n), omkStsOk);
    EXPECT_EQ(piv1, piv2);
    for (int k = 0; k < n; ++k) EXPECT_TRUE(same_bytes(b[k].next, c[k].next)) << "body " << k;

    // Copying the by-columns table to strided memory is transposing: the same bits as transpose().
    std::vector<std::array<std::array<float, 4>, 4>> by_copy(n), by_transpose(n);
    ASSERT_EQ(omkm::copy(omkm::pointer_matrices(bp, n, 4, 4, rec), by_copy), status::ok);
    ASSERT_EQ(omkm::transpose(omkm::field(b, &Body::pose), by_transpose), status::ok);
    EXPECT_EQ(by_copy, by_transpose);
    std::vector<float> dense(static_cast<std::size_t>(16 * n));
    ASSERT_EQ(omkm::extract(transposed(omkm::pointer_matrices(bp, n, 4, 4, rec)), dense), status::ok);
    for (int k = 0; k < n; ++k) EXPECT_EQ(0, std::memcmp(&dense[16 * static_cast<std::size_t>(k)], b[k].pose, 64)) << k;
}

// What transposed(x) means, against plain loops: x's stored rows and columns are passed as they lie
// and the product or sum uses x's transpose. Non-square shapes, so a width taken for a height fails.
TEST(CppInterface, TransposedOperandsGiveTheTransposesResults) {
    double a[3][2], b[3][4], e[4][2], v3[3], s23[2][3];
    for (int i = 0; i < 3; ++i) {
        v3[i] = 0.5 + i;
        for (int j = 0; j < 2; ++j) a[i][j] = 1.0 + i * 2 + j;
        for (int j = 0; j < 4; ++j) b[i][j] = 0.25 * (i + 1) - j;
    }
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 2; ++j) e[i][j] = 3.0 - i * j;
    for (int i = 0; i < 2; ++i)
        for (int j = 0; j < 3; ++j) s23[i][j] = 10.0 * i + j;

    double c24[2][4], ref24[2][4];  // a^T (2x3) * b (3x4)
    ASSERT_EQ(omkm::mul(transposed(a), b, c24), status::ok);
    for (int i = 0; i < 2; ++i)
        for (int j = 0; j < 4; ++j) {
            ref24[i][j] = 0;
            for (int q = 0; q < 3; ++q) ref24[i][j] += a[q][i] * b[q][j];
            EXPECT_NEAR(c24[i][j], ref24[i][j], 1e-12) << i << "," << j;
        }
    double c34[3][4];  // a (3x2) * e^T (2x4)
    ASSERT_EQ(omkm::mul(a, transposed(e), c34), status::ok);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 4; ++j) {
            double t = 0;
            for (int q = 0; q < 2; ++q) t += a[i][q] * e[j][q];
            EXPECT_NEAR(c34[i][j], t, 1e-12) << i << "," << j;
        }
    double c43[4][3];  // e^T^T... (4x2) as transposed twice is stored: e (4x2) * a^T (2x3)
    ASSERT_EQ(omkm::mul(transposed(transposed(e)), transposed(a), c43), status::ok);
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 3; ++j) {
            double t = 0;
            for (int q = 0; q < 2; ++q) t += e[i][q] * a[j][q];
            EXPECT_NEAR(c43[i][j], t, 1e-12) << i << "," << j;
        }
    double y2[2];  // a^T * v
    ASSERT_EQ(omkm::mul(transposed(a), v3, y2), status::ok);
    for (int i = 0; i < 2; ++i) EXPECT_NEAR(y2[i], a[0][i] * v3[0] + a[1][i] * v3[1] + a[2][i] * v3[2], 1e-12);
    double sum[2][3], diff[2][3], scaled[2][3];  // a^T + s, s - a^T, a^T * 0.5: exact
    ASSERT_EQ(omkm::mul(transposed(a), 0.5, scaled), status::ok);
    ASSERT_EQ(omkm::add(transposed(a), s23, sum), status::ok);
    ASSERT_EQ(omkm::sub(s23, transposed(a), diff), status::ok);
    for (int i = 0; i < 2; ++i)
        for (int j = 0; j < 3; ++j) {
            EXPECT_EQ(sum[i][j], a[j][i] + s23[i][j]);
            EXPECT_EQ(diff[i][j], s23[i][j] - a[j][i]);
            EXPECT_EQ(scaled[i][j], a[j][i] * 0.5);
        }
    // An array read transposed: each object's transpose, from column-major storage through strides.
    std::vector<double> cm(2 * 6);  // two 3x2 matrices stored by columns
    for (std::size_t i = 0; i < cm.size(); ++i) cm[i] = 1.0 + static_cast<double>(i);
    std::vector<std::array<std::array<double, 4>, 2>> out(2);
    ASSERT_EQ(omkm::mul(transposed(omkm::strided_matrices(cm.data(), 2, 3, 2, 48, 8, 24)), b, out), status::ok);
    for (int k = 0; k < 2; ++k)
        for (int i = 0; i < 2; ++i)
            for (int j = 0; j < 4; ++j) {
                double t = 0;  // stored (q, i) is cm[k*6 + i*3 + q]
                for (int q = 0; q < 3; ++q) t += cm[static_cast<std::size_t>(k * 6 + i * 3 + q)] * b[q][j];
                EXPECT_NEAR(out[k][i][j], t, 1e-12) << k << ":" << i << "," << j;
            }
}

// The checks the layer makes itself: a destination of the wrong shape, arrays of different counts,
// mismatched lengths, a non-square det or invert, cross products of other than 3-vectors, too little
// room for scalar results. Each returns size_mismatch before any C call.
TEST(CppInterface, TheLayersOwnChecksStopBeforeTheCall) {
    float a23[2][3] = {}, b34[3][4] = {}, c23[2][3] = {}, d32[3][2] = {}, v2[2] = {}, v3[3] = {}, v4[4] = {}, out = 0;
    std::vector<std::array<std::array<float, 3>, 3>> m3(3), m3b(2);
    std::vector<std::array<float, 3>> vs(3), ws(2);
    std::vector<float> room(2);
    const std::vector<std::pair<const char*, std::function<status()>>> cases = {
        {"product into a 2x3", [&] { return omkm::mul(a23, b34, c23); }},
        {"product of a 2x3 into a 3-vector", [&] { return omkm::mul(a23, v3, v3); }},
        {"3 and 2 matrices pairwise", [&] { return omkm::mul(m3, m3, m3b); }},
        {"difference of a 2x3 and a transposed 2x3", [&] { return omkm::sub(a23, transposed(c23), c23); }},
        {"3-vector plus 4-vector", [&] { return omkm::add(v3, v4, v3); }},
        {"vector arrays of 3 and 2", [&] { return omkm::sub(vs, ws, vs); }},
        {"det of a 2x3", [&] { return omkm::det(a23, out); }},
        {"invert a 2x3", [&] { return omkm::invert(a23, c23); }},
        {"invert into 2 of 3", [&] { return omkm::invert(m3, m3b); }},
        {"cross of 4-vectors", [&] { return omkm::cross(v4, v4, v4); }},
        {"dot of 3 and 4", [&] { return omkm::dot(v3, v4, out); }},
        {"3 dets into room for 2", [&] { return omkm::det(m3, room); }},
        {"3 norms into room for 2", [&] { return omkm::norm(vs, room); }},
        {"LU pivots of 3 3x3 into room for 2", [&] { return omkm::lu_decomp(m3, std::vector<int>(6), m3); }},
        {"Cholesky of a 2x3", [&] { return omkm::cholesky(a23, c23); }},
        {"QR solve of a 3x2 with b of its width", [&] { return omkm::qr_solve(d32, v2, v2); }},
        {"eigenvalues of 3 3x3 into room for 2", [&] { return omkm::eigen_sym(m3, room); }},
        {"copy of a 2x3 into a 3x2", [&] { return omkm::copy(a23, d32); }},
        {"copy of 3 vectors into 2", [&] { return omkm::copy(vs, ws); }},
        {"transpose of a 2x3 into a 2x3", [&] { return omkm::transpose(a23, c23); }},
        {"extract of 3 3x3 into room for 2 values", [&] { return omkm::extract(m3, room); }},
        {"gaxpy of a 2x3 into a 3-vector", [&] { return omkm::gaxpy(a23, v3, v2, v3); }},
        {"saxpy of a 3- and a 4-vector", [&] { return omkm::saxpy(v3, 1.0f, v4, v3); }},
        {"trace of a 2x3", [&] { return omkm::trace(a23, out); }},
        {"a record member of 3x4 read as 2x3",
         [&] {
             struct Rec {
                 std::array<float, 12> flat;
             };
             std::vector<Rec> r(2);
             return omkm::add(omkm::field<3, 4>(r, &Rec::flat), a23, omkm::field<3, 4>(r, &Rec::flat));
         }},
    };
    for (const auto& [what, call] : cases) {
        SCOPED_TRACE(what);
        rec::log = {};
        EXPECT_EQ(call(), status::size_mismatch);
        EXPECT_EQ(rec::log.calls, 0);
    }
}

// The C call's own statuses come back as they are, and the _or_throw forms raise them.
TEST(CppInterface, CStatusesPassThroughAndThrowingFormsRaiseThem) {
    float a[3][3] = {{1, 2, 3}, {2, 4, 6}, {0, 1, 1}}, inv[3][3], d[3][3] = {};
    EXPECT_EQ(omkm::invert(a, inv), status::singular);
    try {
        omkm::invert_or_throw(a, inv);
        ADD_FAILURE() << "no exception";
    } catch (const omkm::error& e) {
        EXPECT_EQ(e.code(), status::singular);
        EXPECT_NE(std::string(e.what()).find("singular"), std::string::npos) << e.what();
    }
    EXPECT_EQ(omkm::mul(omkm::strided_matrix(static_cast<const float*>(nullptr), 3, 3, 12, 4), a, d), status::null_ptr);
    EXPECT_EQ(omkm::add(omkm::strided_matrix(&a[0][0], 3, 3, 12, 6), a, d), status::bad_stride);
    EXPECT_THROW(
        omkm::mul_or_throw(omkm::strided_matrix(&a[0][0], 3, 3, 12, 4), omkm::strided_matrix(&a[0][0], 3, 3, 12, 4),
                           omkm::strided_matrix(&d[0][0], 3, 3, 0, 4)),
        omkm::error);
    struct Rec {
        float m[3][3];
    };
    std::vector<Rec> none;
    rec::log = {};
    EXPECT_NE(omkm::add(omkm::field(none, &Rec::m), a, omkm::field(none, &Rec::m)),
              status::ok);  // the C call's verdict
    EXPECT_EQ(rec::log.calls, 1);
    float e[3][3] = {{2, 0, 0}, {0, 4, 0}, {0, 0, 8}};
    EXPECT_EQ(omkm::transpose(omkm::strided_matrix(&a[0][0], 3, 3, 12, 6), d), status::bad_stride);
    EXPECT_THROW(omkm::copy_or_throw(a, omkm::strided_matrix(&d[0][0], 3, 3, 12, 2)), omkm::error);
    EXPECT_NO_THROW(omkm::invert_or_throw(e, inv));
    EXPECT_EQ(inv[2][2], 0.125f);
    float det = 0;
    omkm::det_or_throw(e, det);
    EXPECT_EQ(det, 64.0f);
}

}  // namespace

namespace {

// The graphics forms and omkm::fixed against the direct C calls, bit for bit: a camera built with
// the builders, points of records through the array transforms and the projection; then the
// lengths and layouts the layer refuses before any call, and the C call's own singular status.
TEST(CppInterface, GraphicsFormsGiveTheBitsOfTheDirectCallAndCheckTheirOperands) {
    struct Point {
        int id;
        std::array<float, 3> world, ndc, pixel;
    };
    std::vector<Point> p(9), q;
    for (std::size_t k = 0; k < p.size(); ++k)
        for (int i = 0; i < 3; ++i)
            p[k].world[i] = 3.0f * std::sin(0.8f * static_cast<float>(k * 3 + i)) + (i == 2 ? 5.0f : 0.0f);
    q = p;
    const float eye[3] = {1.0f, 2.0f, -3.0f}, at[3] = {0.0f, 0.5f, 1.0f}, up[3] = {0.0f, 1.0f, 0.0f};
    float view[4][4], proj[16], world[4][4], vp[4][4], cview[16], cproj[16], cworld[16], cvp[16];
    ASSERT_EQ(omkm::look_at(omkm::right_handed, eye, at, up, view), status::ok);
    ASSERT_EQ(omkm::perspective_fov(omkm::right_handed, 0.9f, 1.25f, 0.5f, 50.0f, proj), status::ok);
    ASSERT_EQ(omkm::rotation_yaw_pitch_roll(0.3f, -0.2f, 0.1f, world), status::ok);
    ASSERT_EQ(omkm::fixed::mul(view, proj, vp), status::ok);
    omkmLookAtRH_m4_32f(eye, at, up, cview);
    omkmPerspectiveFovRH_m4_32f(0.9f, 1.25f, 0.5f, 50.0f, cproj);
    omkmRotationYawPitchRoll_m4_32f(0.3f, -0.2f, 0.1f, cworld);
    omkmMul_mm4x4_32f(cview, cproj, cvp);
    EXPECT_EQ(0, std::memcmp(view, cview, 64));
    EXPECT_EQ(0, std::memcmp(proj, cproj, 64));
    EXPECT_EQ(0, std::memcmp(world, cworld, 64));
    EXPECT_EQ(0, std::memcmp(vp, cvp, 64));
    const int rec = static_cast<int>(sizeof(Point)), n = static_cast<int>(p.size());
    ASSERT_EQ(omkm::transform_coords(vp, omkm::field(p, &Point::world), omkm::field(p, &Point::ndc)), status::ok);
    ASSERT_EQ(omkm::project(proj, view, world, omkm::field(p, &Point::world), omkm::viewport{800, 600, 0.1f, 0.9f},
                            omkm::field(p, &Point::pixel)),
              status::ok);
    omkmAffineTransformCoord_m4v3a_32f(cvp, q[0].world.data(), rec, q[0].ndc.data(), rec, n);
    omkmProject_m4v3a_32f(cproj, cview, cworld, q[0].world.data(), rec, 800, 600, 0.1f, 0.9f, q[0].pixel.data(), rec,
                          n);
    for (int k = 0; k < n; ++k) {
        EXPECT_EQ(p[k].ndc, q[k].ndc) << "point " << k;
        EXPECT_EQ(p[k].pixel, q[k].pixel) << "point " << k;
    }
    std::array<float, 4> a{1.5f, -2.0f, 0.25f, 3.0f}, b{-0.5f, 4.0f, 2.0f, 1.0f}, r1, r2;
    ASSERT_EQ(omkm::hermite(a, b, b, a, 0.375f, r1), status::ok);
    omkmHermite_v4_32f(a.data(), b.data(), b.data(), a.data(), 0.375f, r2.data());
    EXPECT_EQ(r1, r2);

    float v2[2] = {}, v3[3] = {}, v4[4] = {}, v5[5] = {}, m33[3][3] = {}, m44[4][4] = {}, f = 0;
    std::vector<std::array<float, 3>> three(3), two(2);
    const std::vector<std::pair<const char*, std::function<status()>>> refused = {
        {"a point into 3 floats (the result has 4)", [&] { return omkm::transform_points(m44, v3, v3); }},
        {"coordinates of a 4-vector", [&] { return omkm::transform_coords(m44, v4, v4); }},
        {"3 points into 2", [&] { return omkm::transform_normals(m44, three, two); }},
        {"a 3x3 as a transform", [&] { return omkm::transform_coords(m33, v3, v3); }},
        {"lerp of a 3- and a 4-vector", [&] { return omkm::lerp(v3, v4, 0.5f, v3); }},
        {"length of a 5-vector", [&] { return omkm::len(v5, f); }},
        {"look_at from a 2-vector", [&] { return omkm::look_at(omkm::left_handed, v2, v3, v3, m44); }},
        {"fixed::cross of 4-vectors", [&] { return omkm::fixed::cross(v4, v4, v4); }},
        {"project into 2-vectors",
         [&] {
             return omkm::project(m44, m44, m44, v3, omkm::viewport{1, 1}, v2);
         }},
    };
    for (const auto& [what, call] : refused) {
        SCOPED_TRACE(what);
        rec::log = {};
        EXPECT_EQ(call(), status::size_mismatch);
        EXPECT_EQ(rec::log.calls, 0);
    }
    rec::log = {};
    float spaced[6] = {};
    EXPECT_EQ(omkm::normalize(omkm::strided_vector(spaced, 3, 8), v3), status::bad_stride);
    EXPECT_EQ(omkm::fixed::det(omkm::strided_matrix(&m44[0][0], 4, 4, 4, 16), f), status::bad_stride);
    EXPECT_EQ(rec::log.calls, 0);
    EXPECT_THROW(omkm::unproject_or_throw(m44, m44, m44, v3, omkm::viewport{640, 480}, v3), omkm::error);
    try {
        omkm::fixed::invert_or_throw(m44, m44);
        ADD_FAILURE() << "no exception";
    } catch (const omkm::error& e) {
        EXPECT_EQ(e.code(), status::singular);
    }
}

}  // namespace
