// omkm_eigen.hpp: Eigen's fixed-size matrices and vectors as operands of every omkm:: operation.
//
// Include it instead of omkm.hpp (it includes it), with Eigen 3.3 or later on the include path. It
// adds object traits (omkm.hpp's hooks for other types) and nothing else: every operation forwards
// to one C call as for any other operand.
//
// Accepted, with float or double elements and sizes fixed at compile time:
//   Eigen::Matrix<T, R, C, Options>        an R x C matrix (Matrix3f, Matrix4d, row-major ones, DontAlign)
//   R == 1 or C == 1 (Vector3d, RowVector4f) a vector of R*C elements (contiguous in either order)
//   Eigen::Map<Eigen::Matrix<...>>,         the same, over the caller's memory; a const Matrix maps a
//   Eigen::Map<const Eigen::Matrix<...>>    read-only source (only the default, unit stride)
//   containers of matrices or vectors      std::vector<Matrix4f, Eigen::aligned_allocator<Matrix4f>>,
//                                          std::array, C arrays: an array of objects, stride0 =
//                                          sizeof(object)
//   omkm::field(records, &Record::m)        an Eigen member of every record (strided or by pointers)
//   Eigen::VectorXf, VectorXd              a vector of run-time length (as std::vector<float>)
// Not accepted (the build stops at omkm's "does not describe" assertion): dynamic-size matrices,
// Array, expressions (products, sums, .transpose()), Blocks, Refs and Maps with a stride. Evaluate
// an expression into a fixed Matrix first; for a transpose use omkm::transposed(m).
//
// Storage order. A row-major matrix is exactly omkm's packed row-major matrix. A column-major one
// (Eigen's default) lies as the packed rows of its transpose:
//   - as a source or destination of every operation but the matrix product it is the R x C matrix
//     by strides: rows sizeof(T) apart, elements along a row R*sizeof(T) apart;
//   - as a source of a matrix product (mul) it is the transpose of its stored C x R rows, read
//     through the library's transposed (t) members. Those take the library's packed path, whose
//     rounding order is that of a row-major copy of the same matrix; by strides the library takes
//     its strided path, whose sums of orders 4, 6 and above are grouped differently (different
//     last bits) and which is several times slower (4x4 floats, an array of 20000 by one matrix, one
//     thread: 82-94 us through Mul_tam, 470-530 us by strides through Mul_mam);
//   - a product into a column-major destination is computed as its transpose, b' a' into the
//     destination's stored rows: every element the same terms in the same order, so with packed
//     sources it has the bits of the row-major computation too.
//   - omkm::transposed(m) of a column-major matrix is its stored rows as they lie (packed).
//   A column-major member reached through omkm::field is described by strides everywhere (field
//   gives a description, not the matrix type): correct values, but its products take the strided
//   path. Elementwise operations round each element once either way; det, invert, lu_decomp,
//   lu_solve, cholesky, cholesky_solve, qr, qr_solve and eigen_sym by strides give the bits of the
//   same call on a packed row-major copy (tests/cpp/eigen_adapter_test.cpp checks each).
// Alignment. Fixed-size vectorizable types (Matrix4f, Vector4d, ...) are 16- or 32-byte aligned
// and have no padding, so sizeof(object) is R*C*sizeof(T) and an array of them is packed; before
// C++17 a std::vector of them needs Eigen::aligned_allocator (C++17's aligned new does not). The
// library needs no alignment beyond the element's.
#ifndef OMKM_EIGEN_HPP
#define OMKM_EIGEN_HPP

#include <Eigen/Core>

#include "omkm.hpp"

namespace omkm {
namespace detail {

// The traits of a fixed R x C Eigen matrix of S stored with Options, reached through the object
// type O (a Matrix or a Map of one, possibly const).
template <class O, class S, int R, int C, int Options, class = void>
struct eigen_traits {
    static constexpr shape kind = shape::none;
};
template <class O, class S, int R, int C, int Options>
struct eigen_traits<O, S, R, C, Options, std::enable_if_t<is_elem_v<S> && R >= 1 && C >= 1 && (R == 1 || C == 1)>> {
    static constexpr shape kind = shape::vector;
    using elem = S;
    static constexpr int len = R * C;
    static S* first(O& o) noexcept { return o.data(); }
};
template <class O, class S, int R, int C, int Options>
struct eigen_traits<O, S, R, C, Options, std::enable_if_t<is_elem_v<S> && R >= 2 && C >= 2>> {
    static constexpr shape kind = shape::matrix;
    using elem = S;
    static constexpr int rows = R, cols = C;
    // Row-major: rows C elements apart, elements adjacent. Column-major: rows adjacent, elements of
    // a row R apart (the stored rows are the transpose's), and products read the stored rows
    // through the t members.
    static constexpr bool by_columns = (Options & Eigen::RowMajor) == 0;
    static constexpr int row_bytes = static_cast<int>(sizeof(S)) * (by_columns ? 1 : C);
    static constexpr int elem_bytes = static_cast<int>(sizeof(S)) * (by_columns ? R : 1);
    static constexpr bool column_major = by_columns;
    static S* first(O& o) noexcept { return o.data(); }
};

template <class S, int R, int C, int Op, int MR, int MC>
struct object_traits<Eigen::Matrix<S, R, C, Op, MR, MC>>
    : eigen_traits<Eigen::Matrix<S, R, C, Op, MR, MC>, S, R, C, Op> {};
template <class S, int R, int C, int Op, int MR, int MC>
struct object_traits<const Eigen::Matrix<S, R, C, Op, MR, MC>>
    : eigen_traits<const Eigen::Matrix<S, R, C, Op, MR, MC>, const S, R, C, Op> {};

// Maps of a fixed-size matrix with the default (unit, packed) stride; a Map of a const Matrix, and
// a const Map (Eigen gives it no writable data()), are read-only.
template <class S, int R, int C, int Op, int MR, int MC, int MapOptions>
struct object_traits<Eigen::Map<Eigen::Matrix<S, R, C, Op, MR, MC>, MapOptions, Eigen::Stride<0, 0>>>
    : eigen_traits<Eigen::Map<Eigen::Matrix<S, R, C, Op, MR, MC>, MapOptions, Eigen::Stride<0, 0>>, S, R, C, Op> {};
template <class S, int R, int C, int Op, int MR, int MC, int MapOptions>
struct object_traits<const Eigen::Map<Eigen::Matrix<S, R, C, Op, MR, MC>, MapOptions, Eigen::Stride<0, 0>>>
    : eigen_traits<const Eigen::Map<Eigen::Matrix<S, R, C, Op, MR, MC>, MapOptions, Eigen::Stride<0, 0>>, const S, R,
                   C, Op> {};
template <class S, int R, int C, int Op, int MR, int MC, int MapOptions>
struct object_traits<Eigen::Map<const Eigen::Matrix<S, R, C, Op, MR, MC>, MapOptions, Eigen::Stride<0, 0>>>
    : eigen_traits<Eigen::Map<const Eigen::Matrix<S, R, C, Op, MR, MC>, MapOptions, Eigen::Stride<0, 0>>, const S, R,
                   C, Op> {};
template <class S, int R, int C, int Op, int MR, int MC, int MapOptions>
struct object_traits<const Eigen::Map<const Eigen::Matrix<S, R, C, Op, MR, MC>, MapOptions, Eigen::Stride<0, 0>>>
    : eigen_traits<const Eigen::Map<const Eigen::Matrix<S, R, C, Op, MR, MC>, MapOptions, Eigen::Stride<0, 0>>,
                   const S, R, C, Op> {};

// Eigen objects have data() and size(), but only a vector Matrix holds its elements there as one
// run (a fixed one also as an object above; a dynamic one, VectorXf, as a vector of run-time
// length like std::vector<float>). Matrices of dynamic size, Blocks, Refs, Maps with strides and
// expressions are not containers of their scalars, so they do not describe operands.
template <class X>
struct eigen_vector : std::false_type {};
template <class S, int R, int C, int Op, int MR, int MC>
struct eigen_vector<Eigen::Matrix<S, R, C, Op, MR, MC>> : std::bool_constant<R == 1 || C == 1> {};
template <class X>
struct data_is_objects<X, std::enable_if_t<std::is_base_of_v<Eigen::EigenBase<std::remove_cv_t<X>>, std::remove_cv_t<X>>>>
    : eigen_vector<std::remove_cv_t<X>> {};

}  // namespace detail
}  // namespace omkm

#endif  // OMKM_EIGEN_HPP
