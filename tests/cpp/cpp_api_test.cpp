// The C++ interface (omkm.hpp): which export each overload reaches and with which arguments, the
// bits against the direct C call, the results against plain loops where the reading of a
// transposed operand matters, and the checks the layer makes itself.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
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
inline long long word(float v) { std::int32_t b; std::memcpy(&b, &v, 4); return b; }
inline long long word(double v) { long long b; std::memcpy(&b, &v, 8); return b; }
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
std::vector<long long> args(A... a) { return {rec::word(a)...}; }

// Records, one member per operand shape the rows use.
struct R {
    float m23[2][3];
    float m34[3][4];
    float m24[2][4];
    float m32[3][2];
    float n23[2][3];
    float s33[3][3];
    float v3[3];
    float w3[3];
    float v2[2];
    float k;
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
    Data() {
        float f = 0.25f;
        auto fill = [&](float* p, int n) { for (int i = 0; i < n; ++i, f += 0.375f) p[i] = std::fmod(f, 5.0f) - 2.0f; };
        for (R& x : r) {
            fill(&x.m23[0][0], 6); fill(&x.m34[0][0], 12); fill(&x.m32[0][0], 6); fill(&x.n23[0][0], 6);
            fill(x.v3, 3); fill(x.w3, 3); fill(x.v2, 2); x.k = f; f += 1.0f;
            fill(&x.s33[0][0], 9);
            for (int i = 0; i < 3; ++i) x.s33[i][i] += 6.0f;  // well away from singular
        }
        fill(&a23[0][0], 6); fill(&b34[0][0], 12); fill(&d32[0][0], 6); fill(&e23[0][0], 6); fill(&m33[0][0], 9);
        for (int i = 0; i < 3; ++i) m33[i][i] += 6.0f;
        fill(x3, 3); fill(y3, 3); fill(x2, 2); fill(&arr23[0][0], 6); fill(flat22.data(), 4);
        for (std::size_t i = 0; i < g.size(); ++i) g[i] = 1.0 + 0.5 * static_cast<double>((i * 7) % 11);
    }
};

// The scratch the layer allocates itself is only known from the record.
const void* recorded_pointer(std::size_t i) {
    return rec::log.args.size() > i ? reinterpret_cast<const void*>(static_cast<std::uintptr_t>(rec::log.args[i])) : nullptr;
}

struct Row {
    const char* what;
    std::function<status(Data&)> call;
    const char* export_name;
    std::function<std::vector<long long>(Data&)> expected;
};

#define ROW(what, call, name, ...) \
    Row{what, [](Data& d) { return call; }, name, [](Data& d) { return args(__VA_ARGS__); }}

const std::vector<Row>& rows() {
    using omkm::field;
    static const std::vector<Row> t = {
        // ---- Mul: stored width and height per source, the destination's strides only
        ROW("C arrays, m*m", omkm::mul(d.a23, d.b34, d.c24), "omkmMul_mm_32f",
            &d.a23[0][0], 12, F4, 3, 2, &d.b34[0][0], 16, F4, 4, 3, &d.c24[0][0], 16, F4),
        ROW("std::array matrix times a transposed one, m*t", omkm::mul(d.arr23, transposed(d.e23), omkm::mat<2, 2>(d.flat22)),
            "omkmMul_mt_32f", d.arr23[0].data(), 12, F4, 3, 2, &d.e23[0][0], 12, F4, 3, 2, d.flat22.data(), 8, F4),
        ROW("t*m", omkm::mul(transposed(d.d32), d.m33, d.a23), "omkmMul_tm_32f",
            &d.d32[0][0], 8, F4, 2, 3, &d.m33[0][0], 12, F4, 3, 3, &d.a23[0][0], 12, F4),
        ROW("t*t", omkm::mul(transposed(d.d32), transposed(d.e23), omkm::mat<2, 2>(d.flat22)), "omkmMul_tt_32f",
            &d.d32[0][0], 8, F4, 2, 3, &d.e23[0][0], 12, F4, 3, 2, d.flat22.data(), 8, F4),
        ROW("m*v", omkm::mul(d.a23, d.x3, d.x2), "omkmMul_mv_32f",
            &d.a23[0][0], 12, F4, 3, 2, d.x3, F4, 3, d.x2, F4),
        ROW("t*v", omkm::mul(transposed(d.d32), d.x3, d.x2), "omkmMul_tv_32f",
            &d.d32[0][0], 8, F4, 2, 3, d.x3, F4, 3, d.x2, F4),
        ROW("one matrix times each of an array, mma", omkm::mul(d.a23, field(d.r, &R::m34), field(d.r, &R::m24)),
            "omkmMul_mma_32f", &d.a23[0][0], 12, F4, 3, 2, &d.r[0].m34[0][0], kRec, 16, F4, 4, 3, &d.r[0].m24[0][0],
            kRec, 16, F4, 3),
        ROW("mta", omkm::mul(d.m33, transposed(field(d.r, &R::n23)), field(d.r, &R::m32)), "omkmMul_mta_32f",
            &d.m33[0][0], 12, F4, 3, 3, &d.r[0].n23[0][0], kRec, 12, F4, 3, 2, &d.r[0].m32[0][0], kRec, 8, F4, 3),
        ROW("each of an array times one, mam", omkm::mul(field(d.r, &R::m23), d.b34, field(d.r, &R::m24)),
            "omkmMul_mam_32f", &d.r[0].m23[0][0], kRec, 12, F4, 3, 2, &d.b34[0][0], 16, F4, 4, 3, &d.r[0].m24[0][0],
            kRec, 16, F4, 3),
        ROW("tat", omkm::mul(transposed(field(d.r, &R::m23)), transposed(d.d32), field(d.r, &R::s33)), "omkmMul_tat_32f",
            &d.r[0].m23[0][0], kRec, 12, F4, 3, 2, &d.d32[0][0], 8, F4, 2, 3, &d.r[0].s33[0][0], kRec, 12, F4, 3),
        ROW("pairwise, mama", omkm::mul(field(d.r, &R::m23), field(d.r, &R::m34), field(d.r, &R::m24)),
            "omkmMul_mama_32f", &d.r[0].m23[0][0], kRec, 12, F4, 3, 2, &d.r[0].m34[0][0], kRec, 16, F4, 4, 3,
            &d.r[0].m24[0][0], kRec, 16, F4, 3),
        ROW("tama", omkm::mul(transposed(field(d.r, &R::m32)), field(d.r, &R::s33), field(d.r, &R::n23)),
            "omkmMul_tama_32f", &d.r[0].m32[0][0], kRec, 8, F4, 2, 3, &d.r[0].s33[0][0], kRec, 12, F4, 3, 3,
            &d.r[0].n23[0][0], kRec, 12, F4, 3),
        ROW("tata", omkm::mul(transposed(field(d.r, &R::m23)), transposed(field(d.r, &R::m32)), field(d.r, &R::s33)),
            "omkmMul_tata_32f", &d.r[0].m23[0][0], kRec, 12, F4, 3, 2, &d.r[0].m32[0][0], kRec, 8, F4, 2, 3,
            &d.r[0].s33[0][0], kRec, 12, F4, 3),
        ROW("mva", omkm::mul(d.a23, field(d.r, &R::v3), field(d.r, &R::v2)), "omkmMul_mva_32f",
            &d.a23[0][0], 12, F4, 3, 2, d.r[0].v3, kRec, F4, 3, d.r[0].v2, kRec, F4, 3),
        ROW("tav", omkm::mul(transposed(field(d.r, &R::m32)), d.x3, field(d.r, &R::v2)), "omkmMul_tav_32f",
            &d.r[0].m32[0][0], kRec, 8, F4, 2, 3, d.x3, F4, 3, d.r[0].v2, kRec, F4, 3),
        ROW("mava", omkm::mul(field(d.r, &R::m23), field(d.r, &R::v3), field(d.r, &R::v2)), "omkmMul_mava_32f",
            &d.r[0].m23[0][0], kRec, 12, F4, 3, 2, d.r[0].v3, kRec, F4, 3, d.r[0].v2, kRec, F4, 3),
        // ---- Add and Sub: the result's width and height once, after the destination
        ROW("Add mm", omkm::add(d.a23, d.arr23, d.e23), "omkmAdd_mm_32f",
            &d.a23[0][0], 12, F4, d.arr23[0].data(), 12, F4, &d.e23[0][0], 12, F4, 3, 2),
        ROW("Add tm: width and height are the result's", omkm::add(transposed(d.d32), d.a23, d.e23), "omkmAdd_tm_32f",
            &d.d32[0][0], 8, F4, &d.a23[0][0], 12, F4, &d.e23[0][0], 12, F4, 3, 2),
        ROW("Add mat", omkm::add(field(d.r, &R::m23), transposed(d.d32), field(d.r, &R::n23)), "omkmAdd_mat_32f",
            &d.r[0].m23[0][0], kRec, 12, F4, &d.d32[0][0], 8, F4, &d.r[0].n23[0][0], kRec, 12, F4, 3, 2, 3),
        ROW("Add tama", omkm::add(transposed(field(d.r, &R::m32)), field(d.r, &R::m23), field(d.r, &R::n23)),
            "omkmAdd_tama_32f", &d.r[0].m32[0][0], kRec, 8, F4, &d.r[0].m23[0][0], kRec, 12, F4, &d.r[0].n23[0][0], kRec,
            12, F4, 3, 2, 3),
        ROW("Add vc", omkm::add(d.x3, 1.5f, d.y3), "omkmAdd_vc_32f", d.x3, F4, 1.5f, d.y3, F4, 3),
        ROW("Add vav", omkm::add(field(d.r, &R::v3), d.x3, field(d.r, &R::w3)), "omkmAdd_vav_32f",
            d.r[0].v3, kRec, F4, d.x3, F4, d.r[0].w3, kRec, F4, 3, 3),
        ROW("Add vca: a constant per record", omkm::add(d.x3, field(d.r, &R::k), field(d.r, &R::w3)), "omkmAdd_vca_32f",
            d.x3, F4, &d.r[0].k, kRec, d.r[0].w3, kRec, F4, 3, 3),
        ROW("Add vaca", omkm::add(field(d.r, &R::v3), field(d.r, &R::k), field(d.r, &R::w3)), "omkmAdd_vaca_32f",
            d.r[0].v3, kRec, F4, &d.r[0].k, kRec, d.r[0].w3, kRec, F4, 3, 3),
        ROW("Sub mt", omkm::sub(d.a23, transposed(d.d32), d.e23), "omkmSub_mt_32f",
            &d.a23[0][0], 12, F4, &d.d32[0][0], 8, F4, &d.e23[0][0], 12, F4, 3, 2),
        ROW("Sub mma", omkm::sub(d.a23, field(d.r, &R::m23), field(d.r, &R::n23)), "omkmSub_mma_32f",
            &d.a23[0][0], 12, F4, &d.r[0].m23[0][0], kRec, 12, F4, &d.r[0].n23[0][0], kRec, 12, F4, 3, 2, 3),
        ROW("Sub mata", omkm::sub(field(d.r, &R::m23), transposed(field(d.r, &R::m32)), field(d.r, &R::n23)),
            "omkmSub_mata_32f", &d.r[0].m23[0][0], kRec, 12, F4, &d.r[0].m32[0][0], kRec, 8, F4, &d.r[0].n23[0][0],
            kRec, 12, F4, 3, 2, 3),
        ROW("Sub cv: the vector first in the list", omkm::sub(2.0f, d.x3, d.y3), "omkmSub_cv_32f",
            d.x3, F4, 2.0f, d.y3, F4, 3),
        ROW("Sub vva", omkm::sub(d.x3, field(d.r, &R::v3), field(d.r, &R::w3)), "omkmSub_vva_32f",
            d.x3, F4, d.r[0].v3, kRec, F4, d.r[0].w3, kRec, F4, 3, 3),
        ROW("Sub cva", omkm::sub(0.5f, field(d.r, &R::v3), field(d.r, &R::w3)), "omkmSub_cva_32f",
            d.r[0].v3, kRec, F4, 0.5f, d.r[0].w3, kRec, F4, 3, 3),
        ROW("Sub cav", omkm::sub(field(d.r, &R::k), d.x3, field(d.r, &R::w3)), "omkmSub_cav_32f",
            d.x3, F4, &d.r[0].k, kRec, d.r[0].w3, kRec, F4, 3, 3),
        ROW("Sub cava", omkm::sub(field(d.r, &R::k), field(d.r, &R::v3), field(d.r, &R::w3)), "omkmSub_cava_32f",
            d.r[0].v3, kRec, F4, &d.r[0].k, kRec, d.r[0].w3, kRec, F4, 3, 3),
        // ---- scalar results
        ROW("dot vv", omkm::dot(d.x3, d.y3, d.out1), "omkmDotProduct_vv_32f", d.x3, F4, d.y3, F4, &d.out1, 3),
        ROW("dot vav into a vector", omkm::dot(field(d.r, &R::v3), d.x3, d.outs), "omkmDotProduct_vav_32f",
            d.r[0].v3, kRec, F4, d.x3, F4, d.outs.data(), 3, 3),
        ROW("dot vava", omkm::dot(field(d.r, &R::v3), field(d.r, &R::w3), d.outs.data()), "omkmDotProduct_vava_32f",
            d.r[0].v3, kRec, F4, d.r[0].w3, kRec, F4, d.outs.data(), 3, 3),
        ROW("cross vva", omkm::cross(d.x3, field(d.r, &R::v3), field(d.r, &R::w3)), "omkmCrossProduct_vva_32f",
            d.x3, F4, d.r[0].v3, kRec, F4, d.r[0].w3, kRec, F4, 3),
        ROW("cross vv", omkm::cross(d.x3, d.y3, d.z3), "omkmCrossProduct_vv_32f", d.x3, F4, d.y3, F4, d.z3, F4),
        ROW("norm of a vector", omkm::norm(d.x3, d.out1), "omkmL2Norm_v_32f", d.x3, F4, &d.out1, 3),
        ROW("norm of each vector", omkm::norm(field(d.r, &R::v3), d.outs), "omkmL2Norm_va_32f",
            d.r[0].v3, kRec, F4, d.outs.data(), 3, 3),
        ROW("Frobenius norm", omkm::norm(d.a23, d.out1), "omkmFrobNorm_m_32f", &d.a23[0][0], 12, F4, 3, 2, &d.out1),
        ROW("Frobenius norm of each", omkm::norm(field(d.r, &R::m23), d.outs), "omkmFrobNorm_ma_32f",
            &d.r[0].m23[0][0], kRec, 12, F4, 3, 2, d.outs.data(), 3),
        // ---- det and invert with the caller's scratch (the own scratch is checked by bits below)
        ROW("det with a buffer", omkm::det(d.m33, d.out1, &d.c24[0][0]), "omkmDet_m_32f",
            &d.m33[0][0], 12, F4, 3, &d.c24[0][0], &d.out1),
        ROW("det of each", omkm::det(field(d.r, &R::s33), d.outs, &d.c24[0][0]), "omkmDet_ma_32f",
            &d.r[0].s33[0][0], kRec, 12, F4, 3, &d.c24[0][0], d.outs.data(), 3),
        ROW("invert with a buffer", omkm::invert(d.m33, d.r[0].s33, &d.c24[0][0]), "omkmInvert_m_32f",
            &d.m33[0][0], 12, F4, &d.c24[0][0], &d.r[0].s33[0][0], 12, F4, 3),
        // ---- double, raw memory with strides: matrices stored by columns, vectors every other element
        ROW("strided double m*t", omkm::mul(omkm::strided_matrix(d.g.data(), 2, 3, 8, 16),
                                          transposed(omkm::strided_matrix(d.g.data() + 6, 4, 3, 8, 32)),
                                          omkm::strided_matrix(d.h.data(), 2, 4, 8, 16)),
            "omkmMul_mt_64f", d.g.data(), 8, 16, 3, 2, d.g.data() + 6, 8, 32, 3, 4, d.h.data(), 8, 16),
        ROW("strided double vava add", omkm::add(omkm::strided_vectors(d.g.data(), 3, 4, 64, 16),
                                              omkm::strided_vectors(d.g.data() + 1, 3, 4, 64, 16),
                                              omkm::strided_vectors(d.h.data(), 3, 4, 40, 8)),
            "omkmAdd_vava_64f", d.g.data(), 64, 16, d.g.data() + 1, 64, 16, d.h.data(), 40, 8, 4, 3),
        ROW("double constants", omkm::sub(omkm::strided_vectors(d.g.data(), 3, 4, 64, 16),
                                        omkm::constants(d.h.data() + 20, 3), omkm::strided_vectors(d.h.data(), 3, 4, 40, 8)),
            "omkmSub_vaca_64f", d.g.data(), 64, 16, d.h.data() + 20, 8, d.h.data(), 40, 8, 4, 3),
        ROW("double invert of each, own scratch", omkm::invert(omkm::strided_matrices(d.g.data(), 2, 2, 2, 64, 8, 16),
                                                             omkm::strided_matrices(d.h.data(), 2, 2, 2, 32, 16, 8)),
            "omkmInvert_ma_64f", d.g.data(), 64, 8, 16, recorded_pointer(4),
            d.h.data(), 32, 16, 8, 2, 2),
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
bool same_bytes(const X& a, const X& b) { return std::memcmp(&a, &b, sizeof(X)) == 0; }

// The C++ call and the direct C call on the same inputs give the same bits (each into its own copy
// of the destination); the scratch-taking families run on the layer's own scratch here, on the
// stack up to order 8 and allocated above.
TEST(CppInterface, ResultsAreTheBitsOfTheDirectCCall) {
    struct Body { int id; float pose[4][4]; float step[4][4]; float next[4][4]; float marker[4]; float world[4]; };
    std::vector<Body> b(37);
    for (std::size_t k = 0; k < b.size(); ++k)
        for (int i = 0; i < 16; ++i) {
            (&b[k].pose[0][0])[i] = std::sin(0.7f * static_cast<float>(k * 16 + i));
            (&b[k].step[0][0])[i] = std::cos(0.3f * static_cast<float>(k * 16 + i));
            b[k].marker[i % 4] = 0.1f * static_cast<float>(i + static_cast<int>(k));
        }
    std::vector<Body> c = b;
    const int rec = static_cast<int>(sizeof(Body)), n = static_cast<int>(b.size());
    ASSERT_EQ(omkm::mul(omkm::field(b, &Body::pose), omkm::field(b, &Body::step), omkm::field(b, &Body::next)), status::ok);
    ASSERT_EQ(omkmMul_mama_32f(&c[0].pose[0][0], rec, 16, 4, 4, 4, &c[0].step[0][0], rec, 16, 4, 4, 4, &c[0].next[0][0],
                               rec, 16, 4, n), omkStsOk);
    ASSERT_EQ(omkm::mul(transposed(omkm::field(b, &Body::next)), omkm::field(b, &Body::marker),
                        omkm::field(b, &Body::world)), status::ok);
    ASSERT_EQ(omkmMul_tava_32f(&c[0].next[0][0], rec, 16, 4, 4, 4, c[0].marker, rec, 4, 4, c[0].world, rec, 4, n),
              omkStsOk);
    for (int k = 0; k < n; ++k) {
        EXPECT_TRUE(same_bytes(b[k].next, c[k].next)) << "body " << k;
        EXPECT_TRUE(same_bytes(b[k].world, c[k].world)) << "body " << k;
    }

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
