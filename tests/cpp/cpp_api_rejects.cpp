// Operand combinations the C API has no export for must not compile. CTest compiles this file once
// per REJECT value and expects the static_assert message of that combination; REJECT 0 is the
// same calls in forms that have an export and must compile.
#include <array>

#include "omkm.hpp"

#ifndef REJECT
#define REJECT 0
#endif

int main() {
    float m[3][3] = {}, n[3][3] = {}, d[3][3] = {}, v[3] = {}, out = 0;
    float many[4][3][3] = {}, outs[4] = {};
    std::array<float, 3> vs[4] = {};
    omkm::status st = omkm::status::ok;
#if REJECT == 0
    st = omkm::add(omkm::transposed(n), m, d);  // Add_tm
    st = omkm::add(many, m, many);              // Add_mam
    st = omkm::dot(vs, v, outs);                // DotProduct_vav
    st = omkm::det(m, out);                     // Det_m
    float* table[4] = {&many[0][0][0], &many[1][0][0], &many[2][0][0], &many[3][0][0]};
    st = omkm::add(omkm::matrix_table(table, 4, 3, 3, 12, 4), m,
                   omkm::matrix_table(table, 4, 3, 3, 12, 4));  // Add_mam_L
    int piv[4][3] = {};
    st = omkm::lu_decomp(many, piv, many);   // LUDecomp_ma
    st = omkm::lu_solve(m, piv[0], vs, vs);  // LUBackSubst_mva
    st = omkm::eigen_sym(m, v, n);           // EigenValuesVectorsSym_m
#elif REJECT == 1
    st = omkm::add(m, omkm::transposed(n), d);  // no Add_mt
#elif REJECT == 2
    st = omkm::add(m, many, many);  // no Add_mma
#elif REJECT == 3
    st = omkm::dot(v, vs, outs);  // no DotProduct_vva
#elif REJECT == 4
    st = omkm::det(omkm::transposed(m), out);  // no Det_t
#elif REJECT == 5
    float* table[4] = {};
    st = omkm::add(omkm::matrix_table(table, 4, 3, 3, 12, 4), m, many);  // a table and a strided array: no export
#endif
    (void)m;
    (void)vs;
    (void)outs;
    (void)out;
    (void)v;
    (void)many;
    (void)n;
    (void)d;
    return st == omkm::status::ok ? 0 : 1;
}
