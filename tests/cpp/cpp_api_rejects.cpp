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
    const float* elems[9] = {&m[0][0], &m[0][1], &m[0][2], &m[1][0], &m[1][1], &m[1][2], &m[2][0], &m[2][1], &m[2][2]};
    float* outs9[9] = {&d[0][0], &d[0][1], &d[0][2], &d[1][0], &d[1][1], &d[1][2], &d[2][0], &d[2][1], &d[2][2]};
    st = omkm::add(omkm::transposed(omkm::pointer_matrix(elems, 3, 3)), omkm::pointer_matrix(elems, 3, 3),
                   omkm::pointer_matrix(outs9, 3, 3));                   // Add_tm_P
    st = omkm::copy(omkm::pointer_matrices(elems, 4, 3, 3, 36), many);  // Copy_ma_PS
    st = omkm::lcomb(vs, 2.0f, v, 0.5f, vs);                            // LComb_vav
    st = omkm::dot(omkm::pointer_vector(elems, 3), omkm::pointer_vector(elems + 3, 3), out);  // DotProduct_vv_P
    st = omkm::cholesky(omkm::pointer_matrix(elems, 3, 3), omkm::pointer_matrix(outs9, 3, 3));  // CholeskyDecomp_m_P
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
#elif REJECT == 6
    const float* elems[9] = {};
    st = omkm::add(omkm::pointer_matrix(elems, 3, 3), m, d);  // element pointers and a strided matrix: no export
#elif REJECT == 7
    st = omkm::lcomb(v, 2.0f, vs, 0.5f, vs);  // no LComb_vva
#elif REJECT == 8
    st = omkm::copy(omkm::transposed(m), d);  // no Copy export reads a transposed matrix
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
