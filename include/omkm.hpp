// omkm.hpp: a header-only C++17 interface over the C API of omkm.h.
//
// Operands are described by their types instead of by hand-written strides and sizes, and one name
// per operation (omkm::mul, also by a constant, add, sub, scale, copy, extract, load_identity,
// transpose, saxpy, lcomb, gaxpy, trace, det, invert, dot, cross, norm, lu_decomp, lu_solve,
// cholesky, cholesky_solve, qr, qr_solve, eigen_sym, eigen) reaches the C export that matches its
// operands' kinds (single object or array), element type (float: _32f, double: _64f), transposition
// and description (strided, a table of per-object pointers: _L, or of per-element pointers: _P). Everything is inline and
// forwards to exactly one C call (eigen on the layer's scratch: two, below); nothing is computed
// here that the C call computes.
//
// Describing an operand
//   float m[4][4], std::array<std::array<float, 4>, 4>     one 4x4 matrix
//   float v[3], std::array<float, 3>, std::vector<float>   one vector
//   a container, span or C array of those                  an array of objects, stride0 = sizeof(object)
//   omkm::mat<R, C>(p)                                     R x C row-major matrix from a pointer, from a flat
//                                                          std::array<T, R*C> / T[R*C], or (array) from a
//                                                          container of such flat objects
//   omkm::vec<N>(p), omkm::vec(p, n)                       a contiguous vector from a pointer
//   omkm::field(records, &Record::member)                  the member of every record: base pointer at the
//                                                          first record's member, stride0 = sizeof(Record);
//                                                          a matrix member gives an array of matrices, a
//                                                          vector member an array of vectors, a scalar
//                                                          member an array of constants
//   omkm::field<R, C>(records, &Record::flat)              the same for a member of R*C scalars read as R x C
//   omkm::constants(container or (p, n))                   an array of constants, one per object
//   omkm::strided_matrix(p, rows, cols, s1, s2), strided_matrices(p, count, rows, cols, s0, s1, s2),
//   omkm::strided_vector(p, len, s2), strided_vectors(p, count, len, s0, s2),
//   omkm::strided_constants(p, count, s0)                  raw memory with byte strides (the escape hatch)
//   omkm::matrix_table(table, count, rows, cols, s1, s2, roi_shift), vector_table(table, count, len,
//   s2, roi_shift), constant_table(table, count, roi_shift) an array given by one pointer per object
//                                                          (the layout description, the _L exports)
//   omkm::field(record_pointers, &Record::member)          the member of each record a container of
//                                                          Record* points to: the same, the container's
//                                                          pointers as the table, the member's offset as
//                                                          the ROI shift
//   omkm::pointer_matrix(pointers, rows, cols, roi_shift), pointer_matrices(pointers, count, rows, cols,
//   stride0, roi_shift), pointer_vector(pointers, len, roi_shift), pointer_vectors(pointers, count,
//   len, stride0, roi_shift)                               one pointer per element (the pointer description,
//                                                          the _P exports): element (i, j) at
//                                                          pointers[i*cols + j] + roi_shift bytes (vector
//                                                          element j at pointers[j] + roi_shift), object k
//                                                          of an array k*stride0 bytes further
//   omkm::transposed(x)                                    a matrix (or array of them) read transposed
// Other types become operands by a specialization of omkm::detail::object_traits<Type> (as below:
// kind, elem, first(), and len, or rows, cols and row_bytes); a matrix type whose elements lie
// column by column declares elem_bytes (the step along a row, rows * sizeof(elem)) besides
// row_bytes = sizeof(elem), and column_major = true: it is then described by those strides, while
// a product reads it as the transpose of its packed stored rows, transposed(x) is those rows, and
// a product into it writes its stored rows as the transposed product. A type whose data() and
// size() do not hold its objects in order sets detail::data_is_objects<Type> false. omkm_eigen.hpp
// does both for Eigen.
// A call with an array given by a table takes the _L export, which takes every array operand by a
// table: all arrays of one call are tables, or none. A call with an operand given by element
// pointers takes the _P export, which takes every matrix and vector operand, single or array, by
// element pointers: all of them, or none; an array of constants stays strided (omkm::constants,
// omkm::field) and a scalar result, pivots, eigenvalues and scratch stay plain pointers. Copy alone takes its source and destination
// in descriptions of their own (copy between strided, table and element-pointer arrays).
// A plain arithmetic value is one constant, converted to the operands' element type. A
// two-dimensional C array is one matrix: four 3-vectors are std::array<float, 3>[4] or a container
// of std::array<float, 3>, not float[4][3] (a 4x3 matrix).
//
// Results of det, dot and norm: one object's into a T&; an array's `count` consecutive values into
// a contiguous container of T (its size is checked) or through a T* (its room is the caller's).
// det and invert take the scratch their family needs from the stack up to order 8 and allocate it
// above; the overloads with a trailing T* buffer use the caller's, scratch_elements<T>(n) elements.
//
// Data movement: copy(src, dst) of arrays of matrices or vectors (a single object is copied as an
// array of one), extract(src, out) (the operand as used, a transposed one transposed, densely into
// a T* or a contiguous container of T or of rows, whose room is checked), load_identity(dst) (a
// matrix or an array of them), transpose(src, dst). Scaled sums of vectors, each scale a plain value
// converted to the element type: saxpy(x, s, y, dst) = s*x + y (one fused multiply-add per element),
// lcomb(x, s1, y, s2, dst) = s1*x + s2*y (the first product rounded, the second fused),
// gaxpy(a, x, b, y) = a*x + b for one matrix a. scale(x, c, dst) is mul(x, c, dst) under its own
// name (a constant or an array of constants as the second operand). trace(a, out) writes like det.
//
// Factorizations and solvers: lu_decomp(a, piv, lu), lu_solve(lu, piv, b, x), cholesky(a, l),
// cholesky_solve(l, b, x), qr(a, r), qr_solve(r, b, x); a factor has its source's shape and kind,
// and a solver takes one factor with one vector or an array of them, or an array of factors with
// one vector each. LU pivots are n ints per matrix in one contiguous run: int[n], std::array<int, n>,
// a container of int or of such rows, or an int*. qr and qr_solve take `height` elements of
// scratch, eigen_sym(a, values[, vectors]) n*n: the layer's on the stack up to 72 elements and
// allocated above, or the caller's through a trailing T* (for eigen_sym a T* or T[N] third operand
// is the buffer, any other the eigenvectors). Eigenvalues, n per matrix, go to a contiguous container of T
// (or of rows T[n], std::array<T, n>) whose size is checked, or through a T*.
// General eigenproblem: eigen(a, re, im[, right]), eigen_left(a, re, im, left),
// eigen_left_right(a, re, im, left, right); the layer sizes its scratch by the GetBufSize export of
// the family, a C call before the one that solves (the one place where an operation makes two).
//
// Sizes: a matrix source of a product keeps its stored rows and columns (the C call takes them as
// they lie); transposed(x) multiplies by x's transpose. Before the C call this layer checks what
// the C call cannot see: the destination's shape against the result's, the counts of array operands
// against each other, a square matrix for det, invert, lu_decomp, cholesky and eigen_sym (and their
// solvers' factors), a right-hand side of the factor's height and a solution of its width, the room
// of a container of pivots or eigenvalues, length 3 for cross products, a copy's and a transpose's
// destination shape, the room of extract's destination, the lengths of saxpy, lcomb and gaxpy
// operands against the destination's, a square matrix for trace; a failure
// returns status::size_mismatch and nothing is called or written. Everything else (null pointers,
// strides, sizes below one, the inner dimension of a product) is the C call's check and status.
//
// Statuses: every operation returns omkm::status, [[nodiscard]]. Each has a throwing twin with the
// suffix _or_throw (mul_or_throw, add_or_throw, ...) that takes the same arguments, returns nothing,
// and throws omkm::error (a std::runtime_error carrying the status) on any status but ok.
//
// Fixed-size members and 3D graphics (float only; the exports check nothing, so this layer checks
// the lengths, size_mismatch, and that the floats are contiguous, bad_stride, before the call):
//   a vector is float[N] / std::array<float, N> / omkm::vec<N>(p) with N = 2, 3, 4, and the length
//   picks the _v2, _v3 or _v4 export; a 4x4 transform (row vectors, p' = p*M, translation in row 3)
//   is float[4][4], float[16], their std::array forms or omkm::mat<4, 4>(p).
//   Vector helpers: len(v, f), len_sqr(v, f), normalize(v, dst), min(a, b, dst), max(a, b, dst),
//   lerp(a, b, s, dst), barycentric(v1, v2, v3, f, g, dst), hermite(p1, t1, p2, t2, s, dst),
//   catmull_rom(p0, p1, p2, p3, s, dst).
//   Builders, the destination last as everywhere here: look_at(left_handed | right_handed, eye, at,
//   up, m), ortho, ortho_off_center, perspective, perspective_fov, perspective_off_center (the
//   handedness tag first), rotation_x/y/z(angle, m), rotation_axis(axis, angle, m),
//   rotation_yaw_pitch_roll(yaw, pitch, roll, m), scaling(x, y, z, m), translation(x, y, z, m),
//   mul_transpose(a, b, m), is_identity(m, int& or bool&).
//   Points: transform_points(m, src, dst) (AffineTransform: 4 floats per 2-, 3- or 4-vector),
//   transform_coords (divided by w), transform_normals (without translation), one vector or an
//   array (the "a" exports, stride0 from the container or field); transform_homogeneous(m, src,
//   dst), arrays of 4-vectors in any description (AffineTransform3DH_mva); project and unproject
//   (projection, view, world, src, omkm::viewport{width, height, min_depth, max_depth}, dst).
//   omkm::fixed: the fixed-size members of the general families, by choice: fixed::add, sub (_v2,
//   _v3, _v4), dot, cross (_v3; two 2-vectors into a float&; cross(a, b, c, dst) of 4-vectors),
//   mul (Mul_mm4x4 of 4x4s, MulC_vN of a vector and a constant), identity, transpose, det and
//   invert (_m4). The general names keep the general exports for every operand: add(float[3],
//   float[3], float[3]) is Add_vv_32f with its checks, mul of three float[4][4] is Mul_mm_32f.
//   Their throwing twins are omkm::fixed::add_or_throw, ...; the graphics names' are in omkm.
//
// Combinations the C API has no export for do not compile; a static_assert says which export is
// missing and, where one exists, the form to use instead.
#ifndef OMKM_HPP
#define OMKM_HPP

#include <array>
#include <climits>
#include <cstddef>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

#include "omkm.h"

// Forced inlining: a call through this header compiles to the C call itself, with the strides and
// sizes of fixed-size types as constants and the layer's checks folded where the shapes are known.
#if defined(__GNUC__) || defined(__clang__)
#define OMKM_HPP_INLINE inline __attribute__((always_inline))
#elif defined(_MSC_VER)
#define OMKM_HPP_INLINE __forceinline
#else
#define OMKM_HPP_INLINE inline
#endif

// Every C call goes through this macro: (quoted export name, export, arguments). A program may define
// it before including this header to observe the calls (the tests record them); by default it is
// the plain call.
#ifndef OMKM_HPP_INVOKE
#define OMKM_HPP_INVOKE(name, fn, ...) fn(__VA_ARGS__)
#endif

namespace omkm {

// ---------------------------------------------------------------- statuses

enum class status : int {
    ok = omkStsOk,
    bad_size = omkStsBadSize,
    null_ptr = omkStsNullPtr,
    div_by_zero = omkStsDivByZero,
    bad_stride = omkStsBadStride,
    bad_roi_shift = omkStsBadRoiShift,
    bad_count = omkStsBadCount,
    size_mismatch = omkStsSizeMismatch,
    not_pos_definite = omkStsNotPosDefinite,
    singular = omkStsSingular,
    not_converged = omkStsNotConverged,
};

inline const char* to_string(status s) noexcept {
    switch (s) {
        case status::ok: return "ok";
        case status::bad_size: return "bad size";
        case status::null_ptr: return "null pointer";
        case status::div_by_zero: return "division by zero";
        case status::bad_stride: return "bad stride";
        case status::bad_roi_shift: return "bad ROI shift";
        case status::bad_count: return "bad count";
        case status::size_mismatch: return "size mismatch";
        case status::not_pos_definite: return "not positive definite";
        case status::singular: return "singular";
        case status::not_converged: return "not converged";
    }
    return "unknown status";
}

class error : public std::runtime_error {
public:
    explicit error(status s)
        : std::runtime_error(std::string("omkm: ") + to_string(s) + " (" + std::to_string(static_cast<int>(s)) + ")"),
          status_(s) {}
    status code() const noexcept { return status_; }

private:
    status status_;
};

// ---------------------------------------------------------------- operand descriptions

// One matrix (Array false) or `count` matrices; strides in bytes as the C API takes them. T is the
// element type, const for a read-only source. Table: an array given by one pointer per object (the
// layout description, the _L exports); p is then the table and s0 the ROI shift, the bytes added to
// each pointer, so the argument lists of both descriptions are built alike.
template <class T, bool Array, bool Table = false>
struct matrix_desc {
    static_assert(Array || !Table, "omkm: a pointer table describes an array");
    std::conditional_t<Table, T**, T*> p;
    int count, rows, cols, s0, s1, s2;
};
template <class T, bool Array, bool Table = false>
struct vector_desc {
    static_assert(Array || !Table, "omkm: a pointer table describes an array");
    std::conditional_t<Table, T**, T*> p;
    int count, len, s0, s2;
};
// An array of constants, one per object.
template <class T, bool Table = false>
struct constants_desc {
    std::conditional_t<Table, T**, T*> p;
    int count, s0;
};
// One matrix (Array false) or `count` matrices given by one pointer per element (the pointer
// description, the _P exports): p holds rows*cols pointers in the stored matrix's row-major order,
// element (i, j) of object k is at p[i*cols + j] + roi + k*s0 bytes. Vectors alike with len
// pointers.
template <class T, bool Array>
struct matrix_pointers_desc {
    T** p;
    int count, rows, cols, roi, s0;
};
template <class T, bool Array>
struct vector_pointers_desc {
    T** p;
    int count, len, roi, s0;
};
// A matrix description read transposed.
template <class D>
struct transposed_desc {
    D m;
};

namespace detail {

template <class T>
inline constexpr bool is_elem_v =
    std::is_same_v<std::remove_const_t<T>, float> || std::is_same_v<std::remove_const_t<T>, double>;

inline int to_int(std::size_t n) noexcept { return n > static_cast<std::size_t>(INT_MAX) ? -1 : static_cast<int>(n); }

// What one stored object is: matrix, vector, constant, or none of these.
enum class shape { none, matrix, vector, constant };

template <class O, class = void>
struct object_traits {
    static constexpr shape kind = shape::none;
};
template <class T>
struct object_traits<T, std::enable_if_t<is_elem_v<T>>> {
    static constexpr shape kind = shape::constant;
    using elem = T;
    static T* first(T& o) noexcept { return &o; }
};
template <class T, std::size_t N>
struct object_traits<T[N], std::enable_if_t<is_elem_v<T>>> {
    static constexpr shape kind = shape::vector;
    using elem = T;
    static constexpr int len = static_cast<int>(N);
    static T* first(T (&o)[N]) noexcept { return &o[0]; }
};
template <class T, std::size_t N>
struct object_traits<std::array<T, N>, std::enable_if_t<is_elem_v<T>>> {
    static constexpr shape kind = shape::vector;
    using elem = T;
    static constexpr int len = static_cast<int>(N);
    static T* first(std::array<T, N>& o) noexcept { return o.data(); }
};
template <class T, std::size_t N>
struct object_traits<const std::array<T, N>, std::enable_if_t<is_elem_v<T>>> {
    static constexpr shape kind = shape::vector;
    using elem = const T;
    static constexpr int len = static_cast<int>(N);
    static const T* first(const std::array<T, N>& o) noexcept { return o.data(); }
};
template <class T, std::size_t R, std::size_t C>
struct object_traits<T[R][C], std::enable_if_t<is_elem_v<T>>> {
    static constexpr shape kind = shape::matrix;
    using elem = T;
    static constexpr int rows = static_cast<int>(R), cols = static_cast<int>(C);
    static constexpr int row_bytes = static_cast<int>(sizeof(T[C]));
    static T* first(T(&o)[R][C]) noexcept { return &o[0][0]; }
};
template <class T, std::size_t R, std::size_t C>
struct object_traits<std::array<std::array<T, C>, R>, std::enable_if_t<is_elem_v<T>>> {
    static constexpr shape kind = shape::matrix;
    using elem = T;
    static constexpr int rows = static_cast<int>(R), cols = static_cast<int>(C);
    static constexpr int row_bytes = static_cast<int>(sizeof(std::array<T, C>));
    static T* first(std::array<std::array<T, C>, R>& o) noexcept { return o[0].data(); }
};
template <class T, std::size_t R, std::size_t C>
struct object_traits<const std::array<std::array<T, C>, R>, std::enable_if_t<is_elem_v<T>>> {
    static constexpr shape kind = shape::matrix;
    using elem = const T;
    static constexpr int rows = static_cast<int>(R), cols = static_cast<int>(C);
    static constexpr int row_bytes = static_cast<int>(sizeof(std::array<T, C>));
    static const T* first(const std::array<std::array<T, C>, R>& o) noexcept { return o[0].data(); }
};

// The byte step between the elements of a row of a matrix object: the element's size, or the
// elem_bytes its traits declare (a matrix stored column by column).
template <class O, class = void>
struct elem_step {
    static constexpr int value = static_cast<int>(sizeof(typename O::elem));
};
template <class O>
struct elem_step<O, std::void_t<decltype(O::elem_bytes)>> {
    static constexpr int value = O::elem_bytes;
};
// Whether a matrix object (its traits O) lies column by column, as the packed rows of its transpose.
template <class O, class = void>
struct column_major_object : std::false_type {};
template <class O>
struct column_major_object<O, std::void_t<decltype(O::column_major)>> : std::bool_constant<O::column_major> {};

// Whether a type with data() and size() holds its objects there, in order; an adapter sets it
// false for views and expressions that have both but lie otherwise (omkm_eigen.hpp: Eigen's).
template <class X, class = void>
struct data_is_objects : std::true_type {};

// Containers: C arrays and anything with data() and size() (std::vector, std::array, std::span).
template <class X, class = void>
struct container_traits {
    static constexpr bool is = false;
};
template <class O, std::size_t N>
struct container_traits<O[N]> {
    static constexpr bool is = true;
    using object = O;
    static O* data(O (&x)[N]) noexcept { return x; }
    static int size(O (&)[N]) noexcept { return static_cast<int>(N); }
};
template <class X>
struct container_traits<X, std::void_t<decltype(std::declval<X&>().data()), decltype(std::declval<X&>().size())>> {
    static constexpr bool is = std::is_pointer_v<decltype(std::declval<X&>().data())> && data_is_objects<X>::value;
    using object = std::remove_pointer_t<decltype(std::declval<X&>().data())>;
    static object* data(X& x) noexcept { return x.data(); }
    static int size(X& x) noexcept { return to_int(x.size()); }
};

template <class X>
struct is_desc : std::false_type {};
template <class T, bool A, bool L>
struct is_desc<matrix_desc<T, A, L>> : std::true_type {};
template <class T, bool A, bool L>
struct is_desc<vector_desc<T, A, L>> : std::true_type {};
template <class T, bool L>
struct is_desc<constants_desc<T, L>> : std::true_type {};
template <class D>
struct is_desc<transposed_desc<D>> : std::true_type {};
template <class T, bool A>
struct is_desc<matrix_pointers_desc<T, A>> : std::true_type {};
template <class T, bool A>
struct is_desc<vector_pointers_desc<T, A>> : std::true_type {};

template <class X>
inline constexpr bool always_false = false;

}  // namespace detail

// Raw memory with byte strides.
template <class T>
constexpr matrix_desc<T, false> strided_matrix(T* p, int rows, int cols, int s1, int s2) noexcept {
    static_assert(detail::is_elem_v<T>, "omkm: elements are float or double");
    return {p, 1, rows, cols, 0, s1, s2};
}
template <class T>
constexpr matrix_desc<T, true> strided_matrices(T* p, int count, int rows, int cols, int s0, int s1, int s2) noexcept {
    static_assert(detail::is_elem_v<T>, "omkm: elements are float or double");
    return {p, count, rows, cols, s0, s1, s2};
}
template <class T>
constexpr vector_desc<T, false> strided_vector(T* p, int len, int s2) noexcept {
    static_assert(detail::is_elem_v<T>, "omkm: elements are float or double");
    return {p, 1, len, 0, s2};
}
template <class T>
constexpr vector_desc<T, true> strided_vectors(T* p, int count, int len, int s0, int s2) noexcept {
    static_assert(detail::is_elem_v<T>, "omkm: elements are float or double");
    return {p, count, len, s0, s2};
}
template <class T>
constexpr constants_desc<T> strided_constants(T* p, int count, int s0) noexcept {
    static_assert(detail::is_elem_v<T>, "omkm: elements are float or double");
    return {p, count, s0};
}

// The description of x: itself when it is one, a single matrix or vector for a matrix- or
// vector-shaped object, an array for a container of those, one constant for a float or double
// value.
template <class X>
constexpr auto describe(X&& x) {
    using B = std::remove_reference_t<X>;
    using U = std::remove_cv_t<B>;
    if constexpr (detail::is_desc<U>::value) {
        return U(x);
    } else if constexpr (std::is_arithmetic_v<U>) {
        return x;
    } else if constexpr (detail::object_traits<B>::kind == detail::shape::matrix) {
        using O = detail::object_traits<B>;
        using E = typename O::elem;
        return matrix_desc<E, false>{O::first(x), 1, O::rows, O::cols, 0, O::row_bytes, detail::elem_step<O>::value};
    } else if constexpr (detail::object_traits<B>::kind == detail::shape::vector) {
        using O = detail::object_traits<B>;
        using E = typename O::elem;
        return vector_desc<E, false>{O::first(x), 1, O::len, 0, static_cast<int>(sizeof(E))};
    } else if constexpr (detail::container_traits<B>::is) {
        using C = detail::container_traits<B>;
        using Obj = typename C::object;
        using O = detail::object_traits<Obj>;
        const int n = C::size(x);
        Obj* base = C::data(x);
        if constexpr (O::kind == detail::shape::constant) {
            // A container of scalars is one vector of run-time length.
            return vector_desc<Obj, false>{base, 1, n, 0, static_cast<int>(sizeof(Obj))};
        } else if constexpr (O::kind == detail::shape::matrix) {
            return strided_matrices(n != 0 ? O::first(*base) : nullptr, n, O::rows, O::cols,
                                    static_cast<int>(sizeof(Obj)), O::row_bytes, detail::elem_step<O>::value);
        } else if constexpr (O::kind == detail::shape::vector) {
            using E = typename O::elem;
            return strided_vectors(n != 0 ? O::first(*base) : nullptr, n, O::len, static_cast<int>(sizeof(Obj)),
                                   static_cast<int>(sizeof(E)));
        } else {
            static_assert(detail::always_false<X>,
                          "omkm: the objects of this container are not matrices or vectors of float or double; "
                          "describe them with omkm::mat<R, C>, omkm::field or omkm::strided_matrices");
        }
    } else {
        static_assert(detail::always_false<X>,
                      "omkm: this type does not describe a matrix, vector or constant of float or double");
    }
}

// ---- shapes given explicitly

namespace detail {
template <int R, int C, class X>
constexpr auto flat_matrix(X& x) {
    using B = std::remove_reference_t<X>;
    using O = object_traits<B>;
    static_assert(O::kind == shape::vector && O::len == R * C,
                  "omkm::mat<R, C>: the object is not R*C contiguous scalars");
    using E = typename O::elem;
    return matrix_desc<E, false>{O::first(x), 1, R, C, 0, static_cast<int>(C * sizeof(E)), static_cast<int>(sizeof(E))};
}
}  // namespace detail

// An R x C row-major matrix: from a pointer, from R*C contiguous scalars (std::array<T, R*C>, T[R*C]),
// or, from a container of such flat objects, an array of them.
template <int R, int C, class T, class = std::enable_if_t<detail::is_elem_v<T>>>
constexpr matrix_desc<T, false> mat(T* p) noexcept {
    return {p, 1, R, C, 0, static_cast<int>(C * sizeof(T)), static_cast<int>(sizeof(T))};
}
template <int R, int C, class X, class = std::enable_if_t<!std::is_pointer_v<std::remove_reference_t<X>>>>
constexpr auto mat(X&& x) {
    using B = std::remove_reference_t<X>;
    if constexpr (detail::object_traits<B>::kind == detail::shape::vector) {
        return detail::flat_matrix<R, C>(x);
    } else {
        static_assert(detail::container_traits<B>::is, "omkm::mat<R, C>: not a pointer, flat object or container");
        using Ct = detail::container_traits<B>;
        using Obj = typename Ct::object;
        using O = detail::object_traits<Obj>;
        static_assert(O::kind == detail::shape::vector && O::len == R * C,
                      "omkm::mat<R, C>: the container's objects are not R*C contiguous scalars");
        using E = typename O::elem;
        const int n = Ct::size(x);
        return strided_matrices(n != 0 ? O::first(*Ct::data(x)) : nullptr, n, R, C, static_cast<int>(sizeof(Obj)),
                                static_cast<int>(C * sizeof(E)), static_cast<int>(sizeof(E)));
    }
}

// A contiguous vector from a pointer.
template <int N, class T, class = std::enable_if_t<detail::is_elem_v<T>>>
constexpr vector_desc<T, false> vec(T* p) noexcept {
    return {p, 1, N, 0, static_cast<int>(sizeof(T))};
}
template <class T, class = std::enable_if_t<detail::is_elem_v<T>>>
constexpr vector_desc<T, false> vec(T* p, int len) noexcept {
    return {p, 1, len, 0, static_cast<int>(sizeof(T))};
}

// An array of constants: a contiguous container of scalars, or a pointer and a count.
template <class X>
constexpr auto constants(X&& x) {
    using B = std::remove_reference_t<X>;
    using Ct = detail::container_traits<B>;
    static_assert(Ct::is && detail::object_traits<typename Ct::object>::kind == detail::shape::constant,
                  "omkm::constants: not a container of float or double");
    using E = typename Ct::object;
    return constants_desc<E>{Ct::data(x), Ct::size(x), static_cast<int>(sizeof(E))};
}
template <class T, class = std::enable_if_t<detail::is_elem_v<T>>>
constexpr constants_desc<T> constants(T* p, int count) noexcept {
    return {p, count, static_cast<int>(sizeof(T))};
}

// Arrays given by one pointer per object (the layout description, the _L exports): object k at
// table[k] + roi_shift bytes, its rows s1 and its elements s2 bytes apart. A table of plain
// element pointers serves sources as it is.
template <class T>
constexpr matrix_desc<T, true, true> matrix_table(T* const* table, int count, int rows, int cols, int s1, int s2,
                                                  int roi_shift = 0) noexcept {
    static_assert(detail::is_elem_v<T>, "omkm: elements are float or double");
    return {const_cast<T**>(table), count, rows, cols, roi_shift, s1, s2};
}
template <class T>
constexpr vector_desc<T, true, true> vector_table(T* const* table, int count, int len, int s2,
                                                  int roi_shift = 0) noexcept {
    static_assert(detail::is_elem_v<T>, "omkm: elements are float or double");
    return {const_cast<T**>(table), count, len, roi_shift, s2};
}
template <class T>
constexpr constants_desc<T, true> constant_table(T* const* table, int count, int roi_shift = 0) noexcept {
    static_assert(detail::is_elem_v<T>, "omkm: elements are float or double");
    return {const_cast<T**>(table), count, roi_shift};
}

// Objects given by one pointer per element (the pointer description, the _P exports): element
// (i, j) at pointers[i*cols + j] + roi_shift bytes, the pointers in the stored matrix's row-major
// order (a transposed(...) one is read as its transpose); vector element j at pointers[j] +
// roi_shift. An array shares the one table of pointers: object k lies stride0 bytes after object
// k - 1.
template <class T>
constexpr matrix_pointers_desc<T, false> pointer_matrix(T* const* pointers, int rows, int cols,
                                                        int roi_shift = 0) noexcept {
    static_assert(detail::is_elem_v<T>, "omkm: elements are float or double");
    return {const_cast<T**>(pointers), 1, rows, cols, roi_shift, 0};
}
template <class T>
constexpr matrix_pointers_desc<T, true> pointer_matrices(T* const* pointers, int count, int rows, int cols, int stride0,
                                                         int roi_shift = 0) noexcept {
    static_assert(detail::is_elem_v<T>, "omkm: elements are float or double");
    return {const_cast<T**>(pointers), count, rows, cols, roi_shift, stride0};
}
template <class T>
constexpr vector_pointers_desc<T, false> pointer_vector(T* const* pointers, int len, int roi_shift = 0) noexcept {
    static_assert(detail::is_elem_v<T>, "omkm: elements are float or double");
    return {const_cast<T**>(pointers), 1, len, roi_shift, 0};
}
template <class T>
constexpr vector_pointers_desc<T, true> pointer_vectors(T* const* pointers, int count, int len, int stride0,
                                                        int roi_shift = 0) noexcept {
    static_assert(detail::is_elem_v<T>, "omkm: elements are float or double");
    return {const_cast<T**>(pointers), count, len, roi_shift, stride0};
}

namespace detail {
// The member of the record each pointer of a container points to: the container's own array of
// record pointers is the table, read by the library as element pointers (a record pointer and an
// element pointer have one representation on every platform the library builds for), and the
// member's offset in the record is the ROI shift.
template <class X, class M, class S>
constexpr auto field_of_pointers(X& records, M S::*member) {
    using Ct = container_traits<X>;
    using RP = std::remove_cv_t<typename Ct::object>;  // S* or const S*
    using Rec = std::remove_pointer_t<RP>;
    static_assert(std::is_same_v<std::remove_cv_t<Rec>, S>, "omkm::field: the member is not a member of the records");
    using Mem = std::conditional_t<std::is_const_v<Rec>, const M, M>;
    using O = object_traits<Mem>;
    const int n = Ct::size(records);
    RP* base = const_cast<RP*>(Ct::data(records));
    int roi = 0;
    if (n != 0 && base[0] != nullptr) {
        const void* at = [&]() -> const void* {
            if constexpr (O::kind == shape::constant)
                return &(base[0]->*member);
            else
                return O::first(base[0]->*member);
        }();
        roi = static_cast<int>(static_cast<const char*>(at) - reinterpret_cast<const char*>(base[0]));
    }
    if constexpr (O::kind == shape::matrix) {
        using E = typename O::elem;
        return matrix_desc<E, true, true>{reinterpret_cast<E**>(base), n, O::rows, O::cols, roi, O::row_bytes,
                                          elem_step<O>::value};
    } else if constexpr (O::kind == shape::vector) {
        using E = typename O::elem;
        return vector_desc<E, true, true>{reinterpret_cast<E**>(base), n, O::len, roi, static_cast<int>(sizeof(E))};
    } else if constexpr (O::kind == shape::constant) {
        return constants_desc<Mem, true>{reinterpret_cast<Mem**>(base), n, roi};
    } else {
        static_assert(always_false<M>, "omkm::field: the member is not a matrix, vector or scalar of float or double");
    }
}
}  // namespace detail

// The member of every record of a container (std::vector, std::array, span, C array): an array of
// matrices, vectors or constants after the member's type, one record apart. A container of
// pointers to records gives the same array through the layout description (_L exports), one
// pointer per record.
template <class X, class M, class S>
constexpr auto field(X&& records, M S::*member) {
    using B = std::remove_reference_t<X>;
    using Ct = detail::container_traits<B>;
    static_assert(Ct::is, "omkm::field: the first argument is not a container of records");
    using Rec = typename Ct::object;
    if constexpr (std::is_pointer_v<std::remove_cv_t<Rec>>) {
        return detail::field_of_pointers(records, member);
    } else {
        static_assert(std::is_same_v<std::remove_cv_t<Rec>, S>,
                      "omkm::field: the member is not a member of the records");
        using Mem = std::conditional_t<std::is_const_v<Rec>, const M, M>;
        using O = detail::object_traits<Mem>;
        const int n = Ct::size(records);
        Rec* base = Ct::data(records);
        constexpr int rec = static_cast<int>(sizeof(Rec));
        if constexpr (O::kind == detail::shape::matrix) {
            return strided_matrices(n != 0 ? O::first(base->*member) : nullptr, n, O::rows, O::cols, rec, O::row_bytes,
                                    detail::elem_step<O>::value);
        } else if constexpr (O::kind == detail::shape::vector) {
            using E = typename O::elem;
            return strided_vectors(n != 0 ? O::first(base->*member) : nullptr, n, O::len, rec,
                                   static_cast<int>(sizeof(E)));
        } else if constexpr (O::kind == detail::shape::constant) {
            return strided_constants(n != 0 ? &(base->*member) : nullptr, n, rec);
        } else {
            static_assert(detail::always_false<M>,
                          "omkm::field: the member is not a matrix, vector or scalar of float or double; "
                          "a flat member read as a matrix takes omkm::field<R, C>");
        }
    }
}

// A member of R*C contiguous scalars (std::array<T, R*C>, T[R*C]) of every record, read as R x C.
template <int R, int C, class X, class M, class S>
constexpr auto field(X&& records, M S::*member) {
    static_assert(detail::object_traits<M>::kind == detail::shape::vector && detail::object_traits<M>::len == R * C,
                  "omkm::field<R, C>: the member is not R*C contiguous scalars");
    const auto v = field(std::forward<X>(records), member);
    using P = decltype(v.p);  // T* for records, T** for pointers to records (a table)
    constexpr bool table = std::is_pointer_v<std::remove_pointer_t<P>>;
    using E = std::remove_pointer_t<std::conditional_t<table, std::remove_pointer_t<P>, P>>;
    return matrix_desc<E, true, table>{v.p, v.count, R, C, v.s0, static_cast<int>(C * sizeof(E)), v.s2};
}

// ---------------------------------------------------------------- kinds and the export table

namespace detail {

// Operand kind letters of the C names; an array adds 8.
enum kind : int { k_none = 0, k_m = 1, k_t = 2, k_v = 3, k_c = 4, k_arr = 8 };

template <class D>
struct kind_of {
    static constexpr int value = std::is_arithmetic_v<D> ? k_c : -1;  // a value is one constant
    static constexpr bool table = false;
    using elem = void;  // a constant takes the element type of the other operands
};
template <class T, bool A, bool L>
struct kind_of<matrix_desc<T, A, L>> {
    static constexpr int value = k_m | (A ? k_arr : 0);
    static constexpr bool table = L;
    using elem = std::remove_const_t<T>;
};
template <class T, bool A, bool L>
struct kind_of<transposed_desc<matrix_desc<T, A, L>>> {
    static constexpr int value = k_t | (A ? k_arr : 0);
    static constexpr bool table = L;
    using elem = std::remove_const_t<T>;
};
template <class T, bool A, bool L>
struct kind_of<vector_desc<T, A, L>> {
    static constexpr int value = k_v | (A ? k_arr : 0);
    static constexpr bool table = L;
    using elem = std::remove_const_t<T>;
};
template <class T, bool A>
struct kind_of<matrix_pointers_desc<T, A>> {
    static constexpr int value = k_m | (A ? k_arr : 0);
    static constexpr bool table = false;
    using elem = std::remove_const_t<T>;
};
template <class T, bool A>
struct kind_of<transposed_desc<matrix_pointers_desc<T, A>>> {
    static constexpr int value = k_t | (A ? k_arr : 0);
    static constexpr bool table = false;
    using elem = std::remove_const_t<T>;
};
template <class T, bool A>
struct kind_of<vector_pointers_desc<T, A>> {
    static constexpr int value = k_v | (A ? k_arr : 0);
    static constexpr bool table = false;
    using elem = std::remove_const_t<T>;
};
template <class T, bool L>
struct kind_of<constants_desc<T, L>> {
    static constexpr int value = k_c | k_arr;
    static constexpr bool table = L;
    using elem = std::remove_const_t<T>;
};

constexpr int key(int a, int b = 0) { return a * 16 + b; }

enum class fam {
    add, sub, mul, scale, dot, cross, l2norm, frobnorm, det, invert,  // scale: Mul by a constant
    lu, lusolve, chol, cholsolve, qr, qrsolve, eigsym, eigsymvec, eig, eigleft, eigright, eigboth, eigbuf, eigvecbuf,
    copy, extract, identity, transpose, saxpy, lcomb, gaxpy, trace
};

// route<F, K, L>: the export of family F for operand kinds K, in the standard description (L = 0),
// the layout description (_L, L = 1) or the pointer description (_P, L = 2); absent combinations
// have exists = false. Copy's L names both descriptions, 3 * source's + destination's.
template <fam F, int K, int L = 0>
struct route {
    static constexpr bool exists = false;
    // Never reached: every use of an absent route stops at a static_assert; this only keeps the
    // compiler from adding errors of its own to that message.
    template <class T, class... A>
    static OmkStatus call(A...) {
        return omkStsOk;
    }
};

// Every group of the export table has a _P member; a group with an array operand also has an _L
// member. OMKM_HPP_ROUTE gives a group of single objects its standard and _P routes,
// OMKM_HPP_ROUTES a group with an array all three.
#define OMKM_HPP_ROUTE(F, K, CNAME)                \
    OMKM_HPP_ROUTE_AS(F, K, 0, CNAME, _32f, _64f) \
    OMKM_HPP_ROUTE_AS(F, K, 2, CNAME, _32f_P, _64f_P)
#define OMKM_HPP_ROUTES(F, K, CNAME)                   \
    OMKM_HPP_ROUTE_AS(F, K, 0, CNAME, _32f, _64f)      \
    OMKM_HPP_ROUTE_AS(F, K, 1, CNAME, _32f_L, _64f_L)  \
    OMKM_HPP_ROUTE_AS(F, K, 2, CNAME, _32f_P, _64f_P)
#define OMKM_HPP_ROUTE_AS(F, K, L, CNAME, S32, S64)                                   \
    template <>                                                                       \
    struct route<fam::F, K, L> {                                                      \
        static constexpr bool exists = true;                                          \
        template <class T, class... A>                                                \
        static OMKM_HPP_INLINE OmkStatus call(A... a) {                               \
            if constexpr (std::is_same_v<T, float>)                                   \
                return OMKM_HPP_INVOKE("omkm" #CNAME #S32, ::omkm##CNAME##S32, a...); \
            else                                                                      \
                return OMKM_HPP_INVOKE("omkm" #CNAME #S64, ::omkm##CNAME##S64, a...); \
        }                                                                             \
    };

constexpr int m = k_m, t = k_t, v = k_v, c = k_c, ma = k_m | k_arr, ta = k_t | k_arr, va = k_v | k_arr,
              ca = k_c | k_arr;

OMKM_HPP_ROUTE(add, key(m, m), Add_mm)
OMKM_HPP_ROUTE(add, key(t, m), Add_tm)
OMKM_HPP_ROUTE(add, key(t, t), Add_tt)
OMKM_HPP_ROUTES(add, key(ma, m), Add_mam)
OMKM_HPP_ROUTES(add, key(ta, m), Add_tam)
OMKM_HPP_ROUTES(add, key(ma, t), Add_mat)
OMKM_HPP_ROUTES(add, key(ta, t), Add_tat)
OMKM_HPP_ROUTES(add, key(ma, ma), Add_mama)
OMKM_HPP_ROUTES(add, key(ta, ma), Add_tama)
OMKM_HPP_ROUTES(add, key(ta, ta), Add_tata)
OMKM_HPP_ROUTE(add, key(v, v), Add_vv)
OMKM_HPP_ROUTE(add, key(v, c), Add_vc)
OMKM_HPP_ROUTES(add, key(va, v), Add_vav)
OMKM_HPP_ROUTES(add, key(va, va), Add_vava)
OMKM_HPP_ROUTES(add, key(va, c), Add_vac)
OMKM_HPP_ROUTES(add, key(v, ca), Add_vca)
OMKM_HPP_ROUTES(add, key(va, ca), Add_vaca)

OMKM_HPP_ROUTE(sub, key(m, m), Sub_mm)
OMKM_HPP_ROUTE(sub, key(t, m), Sub_tm)
OMKM_HPP_ROUTE(sub, key(m, t), Sub_mt)
OMKM_HPP_ROUTE(sub, key(t, t), Sub_tt)
OMKM_HPP_ROUTES(sub, key(ma, m), Sub_mam)
OMKM_HPP_ROUTES(sub, key(ta, m), Sub_tam)
OMKM_HPP_ROUTES(sub, key(ma, t), Sub_mat)
OMKM_HPP_ROUTES(sub, key(ta, t), Sub_tat)
OMKM_HPP_ROUTES(sub, key(m, ma), Sub_mma)
OMKM_HPP_ROUTES(sub, key(t, ma), Sub_tma)
OMKM_HPP_ROUTES(sub, key(m, ta), Sub_mta)
OMKM_HPP_ROUTES(sub, key(t, ta), Sub_tta)
OMKM_HPP_ROUTES(sub, key(ma, ma), Sub_mama)
OMKM_HPP_ROUTES(sub, key(ta, ma), Sub_tama)
OMKM_HPP_ROUTES(sub, key(ta, ta), Sub_tata)
OMKM_HPP_ROUTES(sub, key(ma, ta), Sub_mata)
OMKM_HPP_ROUTE(sub, key(v, v), Sub_vv)
OMKM_HPP_ROUTE(sub, key(v, c), Sub_vc)
OMKM_HPP_ROUTE(sub, key(c, v), Sub_cv)
OMKM_HPP_ROUTES(sub, key(va, v), Sub_vav)
OMKM_HPP_ROUTES(sub, key(v, va), Sub_vva)
OMKM_HPP_ROUTES(sub, key(va, va), Sub_vava)
OMKM_HPP_ROUTES(sub, key(va, c), Sub_vac)
OMKM_HPP_ROUTES(sub, key(c, va), Sub_cva)
OMKM_HPP_ROUTES(sub, key(v, ca), Sub_vca)
OMKM_HPP_ROUTES(sub, key(ca, v), Sub_cav)
OMKM_HPP_ROUTES(sub, key(va, ca), Sub_vaca)
OMKM_HPP_ROUTES(sub, key(ca, va), Sub_cava)

OMKM_HPP_ROUTE(mul, key(m, m), Mul_mm)
OMKM_HPP_ROUTE(mul, key(m, t), Mul_mt)
OMKM_HPP_ROUTE(mul, key(t, m), Mul_tm)
OMKM_HPP_ROUTE(mul, key(t, t), Mul_tt)
OMKM_HPP_ROUTES(mul, key(m, ma), Mul_mma)
OMKM_HPP_ROUTES(mul, key(m, ta), Mul_mta)
OMKM_HPP_ROUTES(mul, key(t, ma), Mul_tma)
OMKM_HPP_ROUTES(mul, key(t, ta), Mul_tta)
OMKM_HPP_ROUTES(mul, key(ma, m), Mul_mam)
OMKM_HPP_ROUTES(mul, key(ma, t), Mul_mat)
OMKM_HPP_ROUTES(mul, key(ta, m), Mul_tam)
OMKM_HPP_ROUTES(mul, key(ta, t), Mul_tat)
OMKM_HPP_ROUTES(mul, key(ma, ma), Mul_mama)
OMKM_HPP_ROUTES(mul, key(ma, ta), Mul_mata)
OMKM_HPP_ROUTES(mul, key(ta, ma), Mul_tama)
OMKM_HPP_ROUTES(mul, key(ta, ta), Mul_tata)
OMKM_HPP_ROUTE(mul, key(m, v), Mul_mv)
OMKM_HPP_ROUTE(mul, key(t, v), Mul_tv)
OMKM_HPP_ROUTES(mul, key(m, va), Mul_mva)
OMKM_HPP_ROUTES(mul, key(t, va), Mul_tva)
OMKM_HPP_ROUTES(mul, key(ma, v), Mul_mav)
OMKM_HPP_ROUTES(mul, key(ta, v), Mul_tav)
OMKM_HPP_ROUTES(mul, key(ma, va), Mul_mava)
OMKM_HPP_ROUTES(mul, key(ta, va), Mul_tava)

OMKM_HPP_ROUTE(scale, key(m, c), Mul_mc)
OMKM_HPP_ROUTE(scale, key(t, c), Mul_tc)
OMKM_HPP_ROUTE(scale, key(v, c), Mul_vc)
OMKM_HPP_ROUTES(scale, key(ma, c), Mul_mac)
OMKM_HPP_ROUTES(scale, key(ta, c), Mul_tac)
OMKM_HPP_ROUTES(scale, key(va, c), Mul_vac)
OMKM_HPP_ROUTES(scale, key(va, ca), Mul_vaca)
OMKM_HPP_ROUTES(scale, key(v, ca), Mul_vca)

OMKM_HPP_ROUTE(dot, key(v, v), DotProduct_vv)
OMKM_HPP_ROUTES(dot, key(va, v), DotProduct_vav)
OMKM_HPP_ROUTES(dot, key(va, va), DotProduct_vava)
OMKM_HPP_ROUTE(cross, key(v, v), CrossProduct_vv)
OMKM_HPP_ROUTES(cross, key(va, v), CrossProduct_vav)
OMKM_HPP_ROUTES(cross, key(v, va), CrossProduct_vva)
OMKM_HPP_ROUTES(cross, key(va, va), CrossProduct_vava)
OMKM_HPP_ROUTE(l2norm, key(v), L2Norm_v)
OMKM_HPP_ROUTES(l2norm, key(va), L2Norm_va)
OMKM_HPP_ROUTE(frobnorm, key(m), FrobNorm_m)
OMKM_HPP_ROUTES(frobnorm, key(ma), FrobNorm_ma)
OMKM_HPP_ROUTE(det, key(m), Det_m)
OMKM_HPP_ROUTES(det, key(ma), Det_ma)
OMKM_HPP_ROUTE(invert, key(m), Invert_m)
OMKM_HPP_ROUTES(invert, key(ma), Invert_ma)

// Factorizations take the source (m, ma) and write a factor of its kind; their solvers take one
// factor with one or an array of right-hand sides (mv, mva), or a factor per right-hand side (mava).
OMKM_HPP_ROUTE(lu, key(m), LUDecomp_m)
OMKM_HPP_ROUTES(lu, key(ma), LUDecomp_ma)
OMKM_HPP_ROUTE(lusolve, key(m, v), LUBackSubst_mv)
OMKM_HPP_ROUTES(lusolve, key(m, va), LUBackSubst_mva)
OMKM_HPP_ROUTES(lusolve, key(ma, va), LUBackSubst_mava)
OMKM_HPP_ROUTE(chol, key(m), CholeskyDecomp_m)
OMKM_HPP_ROUTES(chol, key(ma), CholeskyDecomp_ma)
OMKM_HPP_ROUTE(cholsolve, key(m, v), CholeskyBackSubst_mv)
OMKM_HPP_ROUTES(cholsolve, key(m, va), CholeskyBackSubst_mva)
OMKM_HPP_ROUTES(cholsolve, key(ma, va), CholeskyBackSubst_mava)
OMKM_HPP_ROUTE(qr, key(m), QRDecomp_m)
OMKM_HPP_ROUTES(qr, key(ma), QRDecomp_ma)
OMKM_HPP_ROUTE(qrsolve, key(m, v), QRBackSubst_mv)
OMKM_HPP_ROUTES(qrsolve, key(m, va), QRBackSubst_mva)
OMKM_HPP_ROUTES(qrsolve, key(ma, va), QRBackSubst_mava)
OMKM_HPP_ROUTE(eigsym, key(m), EigenValuesSym_m)
OMKM_HPP_ROUTES(eigsym, key(ma), EigenValuesSym_ma)
OMKM_HPP_ROUTE(eigsymvec, key(m, m), EigenValuesVectorsSym_m)
OMKM_HPP_ROUTES(eigsymvec, key(ma, ma), EigenValuesVectorsSym_ma)
OMKM_HPP_ROUTE(eig, key(m), EigenValues_m)
OMKM_HPP_ROUTES(eig, key(ma), EigenValues_ma)
OMKM_HPP_ROUTE(eigleft, key(m, m), EigenValuesVectorsLeft_m)
OMKM_HPP_ROUTES(eigleft, key(ma, ma), EigenValuesVectorsLeft_ma)
OMKM_HPP_ROUTE(eigright, key(m, m), EigenValuesVectorsRight_m)
OMKM_HPP_ROUTES(eigright, key(ma, ma), EigenValuesVectorsRight_ma)
OMKM_HPP_ROUTE(eigboth, key(m, m), EigenValuesVectors_m)
OMKM_HPP_ROUTES(eigboth, key(ma, ma), EigenValuesVectors_ma)
// The scratch size queries describe no operand: a standard route only.
OMKM_HPP_ROUTE_AS(eigbuf, key(k_none), 0, EigenValuesGetBufSize, _32f, _64f)  // (widthHeight, int* bytes)
OMKM_HPP_ROUTE_AS(eigvecbuf, key(k_none), 0, EigenValuesVectorsGetBufSize, _32f, _64f)

// ---- pieces of the argument lists

template <class D>
constexpr bool is_array_v = (kind_of<D>::value & k_arr) != 0;
template <class D>
constexpr bool is_table_v = kind_of<D>::table;

// Whether the call takes the layout (_L) export: any operand given by a pointer table. Those
// exports take every array operand by a table, so either all arrays of a call are tables or none.
template <class... D>
constexpr bool layout_call() {
    return (is_table_v<D> || ...);
}
template <class... D>
constexpr bool tables_agree() {
    constexpr bool any = layout_call<D...>();
    return ((!is_array_v<D> || is_table_v<D> == any) && ...);
}
// Whether an operand is given by element pointers (the pointer description, the _P exports).
template <class D>
struct pointers_of : std::false_type {};
template <class T, bool A>
struct pointers_of<matrix_pointers_desc<T, A>> : std::true_type {};
template <class T, bool A>
struct pointers_of<vector_pointers_desc<T, A>> : std::true_type {};
template <class D>
struct pointers_of<transposed_desc<D>> : pointers_of<D> {};
template <class... D>
constexpr bool pointer_call() {
    return (pointers_of<D>::value || ...);
}
// A _P export takes every matrix and vector operand by element pointers, an array of constants
// strided and never by a table.
template <class... D>
constexpr bool pointers_agree() {
    if constexpr (!pointer_call<D...>())
        return true;
    else
        return ((pointers_of<D>::value || (kind_of<D>::value & 7) == k_c || kind_of<D>::value < 0) && ...) &&
               !(kind_of<D>::table || ...);
}
// The description of the call: 2 for _P, 1 for _L, 0 for the standard one.
template <class... D>
constexpr int description() {
    return pointer_call<D...>() ? 2 : layout_call<D...>() ? 1 : 0;
}
// The description of one operand, as Copy's names give it: 0 standard, 1 table, 2 element pointers.
template <class D>
constexpr int description_of() {
    return pointers_of<D>::value ? 2 : kind_of<D>::table ? 1 : 0;
}

// Operations without _P members reject element pointers by name.
#define OMKM_HPP_NO_POINTERS(...)                                                                                  \
    static_assert(!pointer_call<__VA_ARGS__>(),                                                                    \
                  "omkm: this operation takes no operand by element pointers (no _P export)")
#define OMKM_HPP_TABLES_AGREE(...)                                                                                 \
    OMKM_HPP_NO_POINTERS(__VA_ARGS__);                                                                             \
    static_assert(tables_agree<__VA_ARGS__>(),                                                                     \
                  "omkm: the layout (_L) exports take every array operand by a pointer table; give all arrays of " \
                  "the call as tables, or none")
// The rule of the operations that have _P members: as above for tables, and all matrix and vector
// operands by element pointers or none.
#define OMKM_HPP_POINTERS_AGREE(...)                                                                               \
    static_assert(pointers_agree<__VA_ARGS__>(),                                                                   \
                  "omkm: the pointer (_P) exports take every matrix and vector operand, single or array, by "      \
                  "element pointers; give all of them so (pointer_matrix, pointer_vectors, ...), or none; an "     \
                  "array of constants stays strided")
#define OMKM_HPP_DESCRIPTIONS_AGREE(...)                                                                           \
    OMKM_HPP_POINTERS_AGREE(__VA_ARGS__);                                                                          \
    static_assert(pointer_call<__VA_ARGS__>() || tables_agree<__VA_ARGS__>(),                                      \
                  "omkm: the layout (_L) exports take every array operand by a pointer table; give all arrays of " \
                  "the call as tables, or none")


// Source pointers as the C API takes them: const elements, and a table of plain element pointers
// as `const T**` (the library reads the table and never writes through it).
template <class T>
constexpr const T* src(T* p) noexcept {
    return p;
}
template <class T>
constexpr const T** src(T** p) noexcept {
    return const_cast<const T**>(p);
}

// The matrix description under a transposition, and whether there is one.
template <class D>
constexpr const auto& stored(const D& d) {
    if constexpr (kind_of<D>::value >= 0 && (kind_of<D>::value & 7) == k_t)
        return d.m;
    else
        return d;
}
template <class D>
constexpr bool is_t_v = (kind_of<D>::value & 7) == k_t;

// Rows and columns as used (after a transposition).
template <class D>
constexpr int used_rows(const D& d) {
    if constexpr (is_t_v<D>)
        return d.m.cols;
    else
        return d.rows;
}
template <class D>
constexpr int used_cols(const D& d) {
    if constexpr (is_t_v<D>)
        return d.m.rows;
    else
        return d.cols;
}
template <class D>
constexpr int count_of(const D& d) {
    if constexpr (is_array_v<D>)
        return stored(d).count;
    else
        return 1;
}

// The common count of the array operands, or -2 when two of them disagree (1 with no arrays).
template <class... D>
OMKM_HPP_INLINE constexpr int common_count(const D&... d) {
    int n = 1;
    bool seen = false, clash = false;
    auto one = [&](auto const& x) {
        using X = std::decay_t<decltype(x)>;
        if constexpr (is_array_v<X>) {
            const int c = count_of(x);
            if (seen && c != n) clash = true;
            n = c;
            seen = true;
        }
    };
    (one(d), ...);
    return clash ? -2 : n;
}

template <class E, class... D>
constexpr bool same_elem() {
    return ((std::is_void_v<typename kind_of<D>::elem> || std::is_same_v<typename kind_of<D>::elem, E>)&&...);
}

template <class D>
constexpr void require_writable() {
    using P = decltype(stored(std::declval<const D&>()).p);  // T*, or T** for a table of pointers
    static_assert(!std::is_const_v<std::remove_pointer_t<std::remove_pointer_t<P>>>, "omkm: the destination is read-only");
    static_assert(!is_t_v<D>, "omkm: a destination is written as stored; no export writes a transposed destination");
}

// The arguments one operand gives the C call, in its order: a matrix (as stored under a
// transposition) p, [s0,] s1, s2; a vector p, [s0,] s2; an array of constants p, s0 (a table and
// its ROI shift take those places, as do a table's rows and elements strides); element pointers
// p, roi[, s0]; a value, converted to the element type. Sources as const, destinations as they are.
template <class E, bool Source, class D>
constexpr auto block(const D& d) {
    if constexpr (std::is_arithmetic_v<D>) {
        return std::make_tuple(static_cast<E>(d));
    } else {
        const auto& s = stored(d);
        using S = std::decay_t<decltype(s)>;
        const auto p = [&] {
            if constexpr (Source)
                return src(s.p);
            else
                return s.p;
        }();
        constexpr bool array = (kind_of<S>::value & k_arr) != 0;
        if constexpr (pointers_of<S>::value) {
            if constexpr (array)
                return std::make_tuple(p, s.roi, s.s0);
            else
                return std::make_tuple(p, s.roi);
        } else if constexpr ((kind_of<S>::value & 7) == k_c) {
            return std::make_tuple(p, s.s0);
        } else if constexpr ((kind_of<S>::value & 7) == k_v) {
            if constexpr (array)
                return std::make_tuple(p, s.s0, s.s2);
            else
                return std::make_tuple(p, s.s2);
        } else {
            if constexpr (array)
                return std::make_tuple(p, s.s0, s.s1, s.s2);
            else
                return std::make_tuple(p, s.s1, s.s2);
        }
    }
}
template <class E, class D>
constexpr auto args_in(const D& d) {
    return block<E, true>(d);
}
template <class E, class D>
constexpr auto args_out(const D& d) {
    return block<E, false>(d);
}
// Sizes, and the count when the call has an array operand.
template <bool Array, class... S>
constexpr auto counted(int count, S... s) {
    if constexpr (Array)
        return std::make_tuple(s..., count);
    else
        return std::make_tuple(s...);
}
// The C call of route R with the parts' arguments one after another.
template <class R, class E, class... Parts>
OMKM_HPP_INLINE status call_with(const Parts&... parts) {
    return std::apply([](auto... a) { return status(R::template call<E>(a...)); }, std::tuple_cat(parts...));
}


// A matrix that lies column by column (column_major_object), or a container of them.
template <class X, class = void>
struct column_major : column_major_object<object_traits<X>> {};
template <class X>
struct column_major<X, std::enable_if_t<object_traits<X>::kind == shape::none && container_traits<X>::is>>
    : column_major_object<object_traits<typename container_traits<X>::object>> {};
template <class X>
inline constexpr bool column_major_v = column_major<std::remove_reference_t<X>>::value;

// The stored rows of a column-major R x C matrix (or of each of an array): its transpose, C x R, packed.
template <class X>
constexpr auto stored_rows(X& x) {
    using B = std::remove_reference_t<X>;
    if constexpr (object_traits<B>::kind == shape::matrix) {
        using O = object_traits<B>;
        return matrix_desc<typename O::elem, false>{O::first(x), 1, O::cols, O::rows, 0, O::elem_bytes, O::row_bytes};
    } else {
        using Ct = container_traits<B>;
        using O = object_traits<typename Ct::object>;
        const int n = Ct::size(x);
        return strided_matrices(n != 0 ? O::first(*Ct::data(x)) : nullptr, n, O::cols, O::rows,
                                static_cast<int>(sizeof(typename Ct::object)), O::elem_bytes, O::row_bytes);
    }
}
}  // namespace detail

// A matrix, or an array of matrices, read transposed; transposed twice is the matrix as stored.
// A column-major matrix read transposed is its stored rows.
template <class X>
constexpr auto transposed(X&& x) {
    if constexpr (detail::column_major_v<X>) {
        return detail::stored_rows(x);
    } else {
        const auto d = describe(std::forward<X>(x));
        using D = std::decay_t<decltype(d)>;
        constexpr int k = detail::kind_of<D>::value;
        static_assert(k >= 0 && ((k & 7) == detail::k_m || (k & 7) == detail::k_t),
                      "omkm::transposed: only a matrix or an array of matrices can be read transposed");
        if constexpr ((k & 7) == detail::k_t)
            return d.m;
        else
            return transposed_desc<D>{d};
    }
}

namespace detail {
// A source of a matrix product: a column-major matrix as its stored rows read transposed (the
// library's packed path: the bits of a row-major copy, and faster than the same matrix by
// strides); anything else as described.
template <class X>
constexpr auto product_source(X&& x) {
    if constexpr (column_major_v<X>)
        return transposed(stored_rows(x));
    else
        return describe(std::forward<X>(x));
}
}  // namespace detail

// ---------------------------------------------------------------- the operations

namespace detail {

// Add and Sub share their argument lists: matrices (stride0 only for arrays), then width and height
// of the result and the count; vectors likewise with the length; with a constant the vector comes
// first in the list whatever the order in the name.
template <fam F, class A, class B, class Dst>
OMKM_HPP_INLINE status add_sub(A&& a, B&& b, Dst&& dst) {
    const auto da = describe(std::forward<A>(a));
    const auto db = describe(std::forward<B>(b));
    const auto dd = describe(std::forward<Dst>(dst));
    using DA = std::decay_t<decltype(da)>;
    using DB = std::decay_t<decltype(db)>;
    using DD = std::decay_t<decltype(dd)>;
    constexpr int ka = kind_of<DA>::value, kb = kind_of<DB>::value;
    static_assert(ka >= 0 && kb >= 0, "omkm::add/sub: an operand is not a matrix, vector or constant");
    static_assert(!((ka & 7) == k_c && (kb & 7) == k_c), "omkm::add/sub: at least one operand is a matrix or vector");
    using E = std::conditional_t<std::is_void_v<typename kind_of<DA>::elem>, typename kind_of<DB>::elem,
                                 typename kind_of<DA>::elem>;
    static_assert(same_elem<E, DA, DB, DD>(),
                  "omkm::add/sub: the operands must share one element type (float or double)");
    require_writable<DD>();
    OMKM_HPP_DESCRIPTIONS_AGREE(DA, DB, DD);
    using R = route<F, key(ka, kb), description<DA, DB, DD>()>;
    constexpr bool by_pointers = pointer_call<DA, DB, DD>();
    if constexpr (F == fam::add) {
        static_assert(R::exists || key(ka, kb) != key(m, t),
                      "omkm::add: no Add export for a matrix plus a transposed matrix; "
                      "swap the operands (Add_tm): the sum is the same");
        static_assert(R::exists || ((ka & k_arr) != 0 || (kb & k_arr) == 0),
                      "omkm::add: no Add export with a single first operand and an array second (no mma, vva, cva "
                      "members); swap the operands: the sum is the same");
        static_assert(
            R::exists || key(ka, kb) != key(ma, ta),
            "omkm::add: no Add export for matrices plus transposed matrices (mata); swap the operands (Add_tama)");
        static_assert(R::exists || key(ka, kb) != key(c, v),
                      "omkm::add: no Add export for a constant plus a vector; swap the operands (Add_vc)");
    }
    if constexpr (F == fam::scale) {
        static_assert(R::exists || (ka & 7) != k_c,
                      "omkm::mul: no Mul export takes the constant first; write mul(x, constant): the products are "
                      "the same");
        static_assert(R::exists || (kb & k_arr) == 0 || (ka & 7) == k_v,
                      "omkm::mul: only vectors have Mul exports with an array of constants (vca, vaca)");
    }
    static_assert(R::exists || F == fam::scale,
                  "omkm::add/sub: no export for these operand kinds (a matrix and a vector, or a matrix and a "
                  "constant, do not add)");
    static_assert(R::exists || F != fam::scale, "omkm::mul: no Mul export for this operand and constant");
    constexpr bool any_array = is_array_v<DA> || is_array_v<DB>;
    static_assert(is_array_v<DD> == any_array,
                  "omkm::add/sub: the destination is an array exactly when a source is an array");
    const int n = common_count(da, db, dd);
    if (n == -2) return status::size_mismatch;
    constexpr int kd = kind_of<DD>::value;
    if constexpr (!R::exists) {
        return status::ok;  // not compiled: an assertion above stops the build
    } else if constexpr (((ka & 7) == k_m || (ka & 7) == k_t) && (kb & 7) == k_c) {
        // A matrix (or an array of them, possibly read transposed) times one constant: the width
        // and height are the result's.
        static_assert((kd & 7) == k_m, "omkm::mul: a matrix times a constant goes to a matrix");
        const auto& sa = stored(da);
        const E val = static_cast<E>(db);
        const int w = dd.cols, h = dd.rows;
        if (used_rows(da) != h || used_cols(da) != w) return status::size_mismatch;
        if constexpr (by_pointers)
            return call_with<R, E>(args_in<E>(da), args_in<E>(db), args_out<E>(dd), counted<any_array>(n, w, h));
        else if constexpr (!any_array)
            return status(R::template call<E>(src(sa.p), sa.s1, sa.s2, val, dd.p, dd.s1, dd.s2, w, h));
        else
            return status(R::template call<E>(src(sa.p), sa.s0, sa.s1, sa.s2, val, dd.p, dd.s0, dd.s1, dd.s2, w, h, n));
    } else if constexpr ((ka & 7) == k_m || (ka & 7) == k_t) {
        static_assert((kd & 7) == k_m, "omkm::add/sub: a sum or difference of matrices goes to a matrix");
        const auto& sa = stored(da);
        const auto& sb = stored(db);
        const int w = dd.cols, h = dd.rows;
        if (used_rows(da) != h || used_cols(da) != w || used_rows(db) != h || used_cols(db) != w)
            return status::size_mismatch;
        if constexpr (by_pointers)
            return call_with<R, E>(args_in<E>(da), args_in<E>(db), args_out<E>(dd), counted<any_array>(n, w, h));
        else if constexpr (!any_array)
            return status(
                R::template call<E>(src(sa.p), sa.s1, sa.s2, src(sb.p), sb.s1, sb.s2, dd.p, dd.s1, dd.s2, w, h));
        else if constexpr (is_array_v<DA> && !is_array_v<DB>)
            return status(R::template call<E>(src(sa.p), sa.s0, sa.s1, sa.s2, src(sb.p), sb.s1, sb.s2, dd.p, dd.s0,
                                              dd.s1, dd.s2, w, h, n));
        else if constexpr (!is_array_v<DA> && is_array_v<DB>)
            return status(R::template call<E>(src(sa.p), sa.s1, sa.s2, src(sb.p), sb.s0, sb.s1, sb.s2, dd.p, dd.s0,
                                              dd.s1, dd.s2, w, h, n));
        else
            return status(R::template call<E>(src(sa.p), sa.s0, sa.s1, sa.s2, src(sb.p), sb.s0, sb.s1, sb.s2, dd.p,
                                              dd.s0, dd.s1, dd.s2, w, h, n));
    } else if constexpr ((ka & 7) == k_v && (kb & 7) == k_v) {
        static_assert((kd & 7) == k_v, "omkm::add/sub: a sum or difference of vectors goes to a vector");
        const int len = dd.len;
        if (da.len != len || db.len != len) return status::size_mismatch;
        if constexpr (by_pointers)
            return call_with<R, E>(args_in<E>(da), args_in<E>(db), args_out<E>(dd), counted<any_array>(n, len));
        else if constexpr (!any_array)
            return status(R::template call<E>(src(da.p), da.s2, src(db.p), db.s2, dd.p, dd.s2, len));
        else if constexpr (is_array_v<DA> && !is_array_v<DB>)
            return status(R::template call<E>(src(da.p), da.s0, da.s2, src(db.p), db.s2, dd.p, dd.s0, dd.s2, len, n));
        else if constexpr (!is_array_v<DA> && is_array_v<DB>)
            return status(R::template call<E>(src(da.p), da.s2, src(db.p), db.s0, db.s2, dd.p, dd.s0, dd.s2, len, n));
        else
            return status(
                R::template call<E>(src(da.p), da.s0, da.s2, src(db.p), db.s0, db.s2, dd.p, dd.s0, dd.s2, len, n));
    } else {
        // A vector (single or array) and a constant (single or array), the vector first in the list.
        static_assert((kd & 7) == k_v, "omkm::add/sub: a vector and a constant go to a vector");
        constexpr bool vec_first = (ka & 7) == k_v;
        const auto& vv = [&]() -> const auto& {
            if constexpr (vec_first)
                return da;
            else
                return db;
        }
        ();
        const auto& cc = [&]() -> const auto& {
            if constexpr (vec_first)
                return db;
            else
                return da;
        }
        ();
        using DV = std::decay_t<decltype(vv)>;
        using DC = std::decay_t<decltype(cc)>;
        const int len = dd.len;
        if (vv.len != len) return status::size_mismatch;
        if constexpr (by_pointers) {
            return call_with<R, E>(args_in<E>(vv), args_in<E>(cc), args_out<E>(dd), counted<any_array>(n, len));
        } else if constexpr (!is_array_v<DC>) {
            const E val = static_cast<E>(cc);
            if constexpr (!is_array_v<DV>)
                return status(R::template call<E>(src(vv.p), vv.s2, val, dd.p, dd.s2, len));
            else
                return status(R::template call<E>(src(vv.p), vv.s0, vv.s2, val, dd.p, dd.s0, dd.s2, len, n));
        } else {
            if constexpr (!is_array_v<DV>)
                return status(R::template call<E>(src(vv.p), vv.s2, src(cc.p), cc.s0, dd.p, dd.s0, dd.s2, len, n));
            else
                return status(
                    R::template call<E>(src(vv.p), vv.s0, vv.s2, src(cc.p), cc.s0, dd.p, dd.s0, dd.s2, len, n));
        }
    }
}

// Scalar results: one value into a T&, or `count` consecutive values into a contiguous container or
// through a pointer (whose room is the caller's promise).
template <class E>
struct scalars_out {
    E* p;
    int room;  // -1: unknown (a pointer)
};
template <class E, class X>
constexpr scalars_out<E> scalars(X& x) {
    using B = std::remove_reference_t<X>;
    if constexpr (std::is_pointer_v<B>) {
        static_assert(std::is_same_v<std::remove_pointer_t<B>, E>,
                      "omkm: the results go to a pointer to the operands' element type");
        return {x, -1};
    } else if constexpr (std::is_same_v<B, E>) {
        return {&x, 1};
    } else {
        using Ct = container_traits<B>;
        static_assert(
            Ct::is && std::is_same_v<typename Ct::object, E>,
            "omkm: the results go to a T&, a T* or a contiguous container of T, T the operands' element type");
        return {Ct::data(x), Ct::size(x)};
    }
}

// Scratch of n*n elements followed by n 32-bit ints, on the stack up to order 8; or of a number of
// elements, on the stack up to 72 of them.
struct scratch_size {
    std::size_t elements;
};
template <class T>
class scratch {
public:
    explicit scratch(int n)
        : scratch(scratch_size{
              n > 0 ? static_cast<std::size_t>(n) * n + (static_cast<std::size_t>(n) * 4 + sizeof(T) - 1) / sizeof(T)
                    : 1}) {}
    explicit scratch(scratch_size size) {
        const std::size_t elems = size.elements > 0 ? size.elements : 1;
        if (elems > local_.size()) {
            // Without memory the buffer stays null and the C call answers null_ptr: no exception here.
            heap_.reset(new (std::nothrow) T[elems]);
            p_ = heap_.get();
        } else {
            p_ = local_.data();
        }
    }
    T* get() noexcept { return p_; }

private:
    std::array<T, 8 * 8 + 8> local_;
    std::unique_ptr<T[]> heap_;
    T* p_;
};

template <class R, class E, class DA>
OMKM_HPP_INLINE status det_call(const DA& da, E* b, E* out) {
    if constexpr (pointer_call<DA>())
        return call_with<R, E>(args_in<E>(da), std::make_tuple(da.rows, b, out), counted<is_array_v<DA>>(da.count));
    else if constexpr (!is_array_v<DA>)
        return status(R::template call<E>(src(da.p), da.s1, da.s2, da.rows, b, out));
    else
        return status(R::template call<E>(src(da.p), da.s0, da.s1, da.s2, da.rows, b, out, da.count));
}

template <fam F, class A, class Out, class Buf>
OMKM_HPP_INLINE status scalar_of_object(A&& a, Out& out, Buf buffer) {
    const auto da = describe(std::forward<A>(a));
    using DA = std::decay_t<decltype(da)>;
    constexpr int ka = kind_of<DA>::value;
    using E = typename kind_of<DA>::elem;
    static_assert(!std::is_void_v<E>, "omkm: the operand is a matrix or a vector");
    constexpr bool by_pointers = pointer_call<DA>();
    const auto o = scalars<E>(out);
    if constexpr (is_array_v<DA>) {
        if (o.room >= 0 && o.room < count_of(da)) return status::size_mismatch;
    } else {
        static_assert(std::is_same_v<std::remove_reference_t<Out>, E>, "omkm: one object's result goes to a T&");
    }
    if constexpr (F == fam::l2norm || F == fam::frobnorm) {
        if constexpr ((ka & 7) == k_v) {
            using R = route<fam::l2norm, key(ka), description<DA>()>;
            if constexpr (by_pointers)
                return call_with<R, E>(args_in<E>(da), std::make_tuple(o.p), counted<is_array_v<DA>>(da.count, da.len));
            else if constexpr (!is_array_v<DA>)
                return status(R::template call<E>(src(da.p), da.s2, o.p, da.len));
            else
                return status(R::template call<E>(src(da.p), da.s0, da.s2, o.p, da.len, da.count));
        } else {
            static_assert((ka & 7) == k_m,
                          "omkm::norm: no FrobNorm export reads a transposed matrix; the norm of the "
                          "stored matrix is the same value (the rounding order follows the stored rows)");
            using R = route<fam::frobnorm, key(ka), description<DA>()>;
            if constexpr (by_pointers)
                return call_with<R, E>(args_in<E>(da), std::make_tuple(da.cols, da.rows, o.p),
                                       counted<is_array_v<DA>>(da.count));
            else if constexpr (!is_array_v<DA>)
                return status(R::template call<E>(src(da.p), da.s1, da.s2, da.cols, da.rows, o.p));
            else
                return status(R::template call<E>(src(da.p), da.s0, da.s1, da.s2, da.cols, da.rows, o.p, da.count));
        }
    } else if constexpr ((ka & 7) != k_m) {
        static_assert(always_false<A>,
                      "omkm::det: the operand is a matrix or an array of matrices, read as stored "
                      "(no Det export reads a transposed matrix; the determinant of the transpose is "
                      "the same value)");
        return status::ok;  // not compiled: the assertion above stops the build
    } else {
        using R = route<fam::det, key(ka), description<DA>()>;
        if (da.rows != da.cols) return status::size_mismatch;
        if constexpr (std::is_null_pointer_v<Buf>) {
            scratch<E> s(da.rows);
            return det_call<R, E>(da, s.get(), o.p);
        } else {
            static_assert(std::is_same_v<Buf, E*>, "omkm::det: the buffer is writable memory of the element type");
            return det_call<R, E>(da, buffer, o.p);
        }
    }
}

}  // namespace detail

// dst = a * b: matrix times matrix or matrix times vector, each operand single or an array,
// either matrix possibly transposed(...); or a matrix or vector (single or array) times a
// constant, or a vector times an array of constants (Mul by a constant: one rounding per element).
template <class A, class B, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status mul(A&& a, B&& b, Dst&& dst) {
    using namespace detail;
    constexpr int ka0 = kind_of<std::decay_t<decltype(product_source(std::declval<A>()))>>::value;
    constexpr int kb0 = kind_of<std::decay_t<decltype(product_source(std::declval<B>()))>>::value;
    if constexpr ((ka0 & 7) == k_c || (kb0 & 7) == k_c) {
        return add_sub<fam::scale>(std::forward<A>(a), std::forward<B>(b), std::forward<Dst>(dst));
    } else if constexpr (column_major_v<Dst> && ((ka0 & 7) == k_m || (ka0 & 7) == k_t) &&
                         ((kb0 & 7) == k_m || (kb0 & 7) == k_t)) {
        // A column-major destination's stored rows are the transpose of the product, b' a': every
        // element the same terms in the same order, on the packed path when the sources allow it.
        return mul(transposed(std::forward<B>(b)), transposed(std::forward<A>(a)), stored_rows(dst));
    } else {
        const auto da = product_source(std::forward<A>(a));
        const auto db = product_source(std::forward<B>(b));
        const auto dd = describe(std::forward<Dst>(dst));
        using DA = std::decay_t<decltype(da)>;
        using DB = std::decay_t<decltype(db)>;
        using DD = std::decay_t<decltype(dd)>;
        constexpr int ka = kind_of<DA>::value, kb = kind_of<DB>::value, kd = kind_of<DD>::value;
        using E = typename kind_of<DA>::elem;
        static_assert((ka & 7) == k_m || (ka & 7) == k_t,
                      "omkm::mul: the first operand is a matrix or an array of them "
                      "(a vector times a matrix is transposed(matrix) times the vector)");
        static_assert((kb & 7) == k_m || (kb & 7) == k_t || (kb & 7) == k_v,
                      "omkm::mul: the second operand is a matrix, a vector or a constant, single or an array");
        static_assert(same_elem<E, DB, DD>(), "omkm::mul: the operands must share one element type (float or double)");
        require_writable<DD>();
        constexpr bool any_array = is_array_v<DA> || is_array_v<DB>;
        static_assert(is_array_v<DD> == any_array,
                      "omkm::mul: the destination is an array exactly when a source is an array");
        OMKM_HPP_DESCRIPTIONS_AGREE(DA, DB, DD);
        using R = route<fam::mul, key(ka, kb), description<DA, DB, DD>()>;
        constexpr bool by_pointers = pointer_call<DA, DB, DD>();
        static_assert(R::exists, "omkm::mul: no Mul export for these operand kinds");
        const int n = common_count(da, db, dd);
        if (n == -2) return status::size_mismatch;
        const auto& sa = stored(da);
        const auto& sd = dd;
        if constexpr ((kb & 7) == k_v) {
            static_assert((kd & 7) == k_v, "omkm::mul: a matrix times a vector gives a vector");
            if (sd.len != used_rows(da)) return status::size_mismatch;
            if constexpr (by_pointers)
                return call_with<R, E>(args_in<E>(da), std::make_tuple(sa.cols, sa.rows), args_in<E>(db),
                                       std::make_tuple(db.len), args_out<E>(dd), counted<any_array>(n));
            else if constexpr (!is_array_v<DA> && !is_array_v<DB>)
                return status(R::template call<E>(src(sa.p), sa.s1, sa.s2, sa.cols, sa.rows, src(db.p), db.s2, db.len,
                                                  sd.p, sd.s2));
            else if constexpr (is_array_v<DA> && !is_array_v<DB>)
                return status(R::template call<E>(src(sa.p), sa.s0, sa.s1, sa.s2, sa.cols, sa.rows, src(db.p), db.s2,
                                                  db.len, sd.p, sd.s0, sd.s2, n));
            else if constexpr (!is_array_v<DA> && is_array_v<DB>)
                return status(R::template call<E>(src(sa.p), sa.s1, sa.s2, sa.cols, sa.rows, src(db.p), db.s0, db.s2,
                                                  db.len, sd.p, sd.s0, sd.s2, n));
            else
                return status(R::template call<E>(src(sa.p), sa.s0, sa.s1, sa.s2, sa.cols, sa.rows, src(db.p), db.s0,
                                                  db.s2, db.len, sd.p, sd.s0, sd.s2, n));
        } else {
            static_assert((kd & 7) == k_m, "omkm::mul: a matrix times a matrix gives a matrix");
            const auto& sb = stored(db);
            if (sd.rows != used_rows(da) || sd.cols != used_cols(db)) return status::size_mismatch;
            if constexpr (by_pointers)
                return call_with<R, E>(args_in<E>(da), std::make_tuple(sa.cols, sa.rows), args_in<E>(db),
                                       std::make_tuple(sb.cols, sb.rows), args_out<E>(dd), counted<any_array>(n));
            else if constexpr (!is_array_v<DA> && !is_array_v<DB>)
                return status(R::template call<E>(src(sa.p), sa.s1, sa.s2, sa.cols, sa.rows, src(sb.p), sb.s1, sb.s2,
                                                  sb.cols, sb.rows, sd.p, sd.s1, sd.s2));
            else if constexpr (is_array_v<DA> && !is_array_v<DB>)
                return status(R::template call<E>(src(sa.p), sa.s0, sa.s1, sa.s2, sa.cols, sa.rows, src(sb.p), sb.s1,
                                                  sb.s2, sb.cols, sb.rows, sd.p, sd.s0, sd.s1, sd.s2, n));
            else if constexpr (!is_array_v<DA> && is_array_v<DB>)
                return status(R::template call<E>(src(sa.p), sa.s1, sa.s2, sa.cols, sa.rows, src(sb.p), sb.s0, sb.s1,
                                                  sb.s2, sb.cols, sb.rows, sd.p, sd.s0, sd.s1, sd.s2, n));
            else
                return status(R::template call<E>(src(sa.p), sa.s0, sa.s1, sa.s2, sa.cols, sa.rows, src(sb.p), sb.s0,
                                                  sb.s1, sb.s2, sb.cols, sb.rows, sd.p, sd.s0, sd.s1, sd.s2, n));
        }
    }
}

template <class A, class B, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status add(A&& a, B&& b, Dst&& dst) {
    return detail::add_sub<detail::fam::add>(std::forward<A>(a), std::forward<B>(b), std::forward<Dst>(dst));
}
template <class A, class B, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status sub(A&& a, B&& b, Dst&& dst) {
    return detail::add_sub<detail::fam::sub>(std::forward<A>(a), std::forward<B>(b), std::forward<Dst>(dst));
}

// The elements of scratch det and invert need for order n: n*n elements followed by n 32-bit ints.
template <class T>
constexpr std::size_t scratch_elements(int n) noexcept {
    return n > 0 ? static_cast<std::size_t>(n) * n + (static_cast<std::size_t>(n) * 4 + sizeof(T) - 1) / sizeof(T) : 0;
}

// Determinant of a square matrix into a T&, or of each matrix of an array into `count` consecutive
// values. Scratch is on the stack up to order 8, else allocated; the overloads with a buffer use
// the caller's (scratch_elements<T>(n) elements).
template <class A, class Out>
[[nodiscard]] OMKM_HPP_INLINE status det(A&& a, Out&& out) {
    return detail::scalar_of_object<detail::fam::det>(std::forward<A>(a), out, nullptr);
}
template <class A, class Out, class T>
[[nodiscard]] OMKM_HPP_INLINE status det(A&& a, Out&& out, T* buffer) {
    return detail::scalar_of_object<detail::fam::det>(std::forward<A>(a), out, buffer);
}

// The Euclidean norm of a vector, or the Frobenius norm of a matrix; of each object of an array
// into `count` consecutive values.
template <class A, class Out>
[[nodiscard]] OMKM_HPP_INLINE status norm(A&& a, Out&& out) {
    return detail::scalar_of_object<detail::fam::l2norm>(std::forward<A>(a), out, nullptr);
}

// dst = the inverse of a square matrix, or of each matrix of an array.
namespace detail {
template <class R, class E, class DA, class DD>
OMKM_HPP_INLINE status invert_call(const DA& da, const DD& dd, E* b, int n) {
    if constexpr (pointer_call<DA, DD>())
        return call_with<R, E>(args_in<E>(da), std::make_tuple(b), args_out<E>(dd), counted<is_array_v<DA>>(n, da.rows));
    else if constexpr (!is_array_v<DA>)
        return status(R::template call<E>(src(da.p), da.s1, da.s2, b, dd.p, dd.s1, dd.s2, da.rows));
    else
        return status(R::template call<E>(src(da.p), da.s0, da.s1, da.s2, b, dd.p, dd.s0, dd.s1, dd.s2, da.rows, n));
}

template <class A, class Dst, class Buf>
OMKM_HPP_INLINE status invert_impl(A&& a, Dst&& dst, Buf buffer) {
    const auto da = describe(std::forward<A>(a));
    const auto dd = describe(std::forward<Dst>(dst));
    using DA = std::decay_t<decltype(da)>;
    using DD = std::decay_t<decltype(dd)>;
    constexpr int ka = kind_of<DA>::value;
    using E = typename kind_of<DA>::elem;
    static_assert((ka & 7) == k_m,
                  "omkm::invert: the operand is a matrix or an array of matrices, read as stored "
                  "(no Invert export reads a transposed matrix)");
    static_assert(same_elem<E, DD>(), "omkm::invert: the operands must share one element type (float or double)");
    require_writable<DD>();
    static_assert(is_array_v<DD> == is_array_v<DA>,
                  "omkm::invert: the destination is an array exactly when the source is");
    OMKM_HPP_DESCRIPTIONS_AGREE(DA, DD);
    using R = route<fam::invert, key(ka), description<DA, DD>()>;
    const int n = common_count(da, dd);
    if (n == -2) return status::size_mismatch;
    if (da.rows != da.cols || dd.rows != da.rows || dd.cols != da.cols) return status::size_mismatch;
    if constexpr (std::is_null_pointer_v<Buf>) {
        scratch<E> s(da.rows);
        return invert_call<R, E>(da, dd, s.get(), n);
    } else {
        static_assert(std::is_same_v<Buf, E*>, "omkm::invert: the buffer is writable memory of the element type");
        return invert_call<R, E>(da, dd, buffer, n);
    }
}
}  // namespace detail

template <class A, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status invert(A&& a, Dst&& dst) {
    return detail::invert_impl(std::forward<A>(a), std::forward<Dst>(dst), nullptr);
}
template <class A, class Dst, class T>
[[nodiscard]] OMKM_HPP_INLINE status invert(A&& a, Dst&& dst, T* buffer) {
    return detail::invert_impl(std::forward<A>(a), std::forward<Dst>(dst), buffer);
}

// Dot products: one into a T&, or an array's with one vector or pairwise into `count` values.
template <class A, class B, class Out>
[[nodiscard]] OMKM_HPP_INLINE status dot(A&& a, B&& b, Out&& out) {
    using namespace detail;
    const auto da = describe(std::forward<A>(a));
    const auto db = describe(std::forward<B>(b));
    using DA = std::decay_t<decltype(da)>;
    using DB = std::decay_t<decltype(db)>;
    constexpr int ka = kind_of<DA>::value, kb = kind_of<DB>::value;
    using E = typename kind_of<DA>::elem;
    static_assert((ka & 7) == k_v && (kb & 7) == k_v, "omkm::dot: both operands are vectors, single or arrays");
    static_assert(same_elem<E, DB>(), "omkm::dot: the operands must share one element type (float or double)");
    OMKM_HPP_DESCRIPTIONS_AGREE(DA, DB);
    using R = route<fam::dot, key(ka, kb), description<DA, DB>()>;
    static_assert(R::exists || key(ka, kb) != key(v, va),
                  "omkm::dot: no DotProduct export takes one vector and an array (vva); pass the array first (vav); "
                  "the last bit may differ, since the summation follows the second operand's alignment");
    static_assert(R::exists, "omkm::dot: no DotProduct export for these operand kinds");
    const auto o = scalars<E>(out);
    const int n = common_count(da, db);
    if (n == -2) return status::size_mismatch;
    if constexpr (is_array_v<DA> || is_array_v<DB>) {
        if (o.room >= 0 && o.room < n) return status::size_mismatch;
    } else {
        static_assert(std::is_same_v<std::remove_reference_t<Out>, E>, "omkm::dot: one dot product goes to a T&");
    }
    if (da.len != db.len) return status::size_mismatch;
    if constexpr (pointer_call<DA, DB>())
        return call_with<R, E>(args_in<E>(da), args_in<E>(db), std::make_tuple(o.p),
                               counted<is_array_v<DA> || is_array_v<DB>>(n, da.len));
    else if constexpr (!is_array_v<DA>)
        return status(R::template call<E>(src(da.p), da.s2, src(db.p), db.s2, o.p, da.len));
    else if constexpr (!is_array_v<DB>)
        return status(R::template call<E>(src(da.p), da.s0, da.s2, src(db.p), db.s2, o.p, da.len, n));
    else
        return status(R::template call<E>(src(da.p), da.s0, da.s2, src(db.p), db.s0, db.s2, o.p, da.len, n));
}

// Cross products of 3-vectors: single, an array with one vector (either side), or pairwise.
template <class A, class B, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status cross(A&& a, B&& b, Dst&& dst) {
    using namespace detail;
    const auto da = describe(std::forward<A>(a));
    const auto db = describe(std::forward<B>(b));
    const auto dd = describe(std::forward<Dst>(dst));
    using DA = std::decay_t<decltype(da)>;
    using DB = std::decay_t<decltype(db)>;
    using DD = std::decay_t<decltype(dd)>;
    constexpr int ka = kind_of<DA>::value, kb = kind_of<DB>::value, kd = kind_of<DD>::value;
    using E = typename kind_of<DA>::elem;
    static_assert((ka & 7) == k_v && (kb & 7) == k_v && (kd & 7) == k_v,
                  "omkm::cross: the operands and the destination are 3-vectors, single or arrays");
    static_assert(same_elem<E, DB, DD>(), "omkm::cross: the operands must share one element type (float or double)");
    require_writable<DD>();
    static_assert(is_array_v<DD> == (is_array_v<DA> || is_array_v<DB>),
                  "omkm::cross: the destination is an array exactly when a source is an array");
    OMKM_HPP_DESCRIPTIONS_AGREE(DA, DB, DD);
    using R = route<fam::cross, key(ka, kb), description<DA, DB, DD>()>;
    const int n = common_count(da, db, dd);
    if (n == -2) return status::size_mismatch;
    if (da.len != 3 || db.len != 3 || dd.len != 3) return status::size_mismatch;
    if constexpr (pointer_call<DA, DB, DD>())
        return call_with<R, E>(args_in<E>(da), args_in<E>(db), args_out<E>(dd),
                               counted<is_array_v<DA> || is_array_v<DB>>(n));
    else if constexpr (!is_array_v<DA> && !is_array_v<DB>)
        return status(R::template call<E>(src(da.p), da.s2, src(db.p), db.s2, dd.p, dd.s2));
    else if constexpr (is_array_v<DA> && !is_array_v<DB>)
        return status(R::template call<E>(src(da.p), da.s0, da.s2, src(db.p), db.s2, dd.p, dd.s0, dd.s2, n));
    else if constexpr (!is_array_v<DA> && is_array_v<DB>)
        return status(R::template call<E>(src(da.p), da.s2, src(db.p), db.s0, db.s2, dd.p, dd.s0, dd.s2, n));
    else
        return status(R::template call<E>(src(da.p), da.s0, da.s2, src(db.p), db.s0, db.s2, dd.p, dd.s0, dd.s2, n));
}

// ---------------------------------------------------------------- routes of data movement, scaled sums and trace

namespace detail {

// As the export table above; a Copy route names the source's description letter, then the
// destination's (S 0, L 1, P 2).
#define OMKM_HPP_ROUTE_COPY(K, CNAME, S, D, XY) OMKM_HPP_ROUTE_AS(copy, key(K), 3 * S + D, CNAME, _32f_##XY, _64f_##XY)
#define OMKM_HPP_ROUTES_COPY(K, CNAME)         \
    OMKM_HPP_ROUTE_COPY(K, CNAME, 0, 0, SS)    \
    OMKM_HPP_ROUTE_COPY(K, CNAME, 0, 1, SL)    \
    OMKM_HPP_ROUTE_COPY(K, CNAME, 0, 2, SP)    \
    OMKM_HPP_ROUTE_COPY(K, CNAME, 1, 0, LS)    \
    OMKM_HPP_ROUTE_COPY(K, CNAME, 1, 1, LL)    \
    OMKM_HPP_ROUTE_COPY(K, CNAME, 1, 2, LP)    \
    OMKM_HPP_ROUTE_COPY(K, CNAME, 2, 0, PS)    \
    OMKM_HPP_ROUTE_COPY(K, CNAME, 2, 1, PL)    \
    OMKM_HPP_ROUTE_COPY(K, CNAME, 2, 2, PP)

OMKM_HPP_ROUTES_COPY(ma, Copy_ma)
OMKM_HPP_ROUTES_COPY(va, Copy_va)
OMKM_HPP_ROUTE(extract, key(m), Extract_m)
OMKM_HPP_ROUTE(extract, key(t), Extract_t)
OMKM_HPP_ROUTE(extract, key(v), Extract_v)
OMKM_HPP_ROUTES(extract, key(ma), Extract_ma)
OMKM_HPP_ROUTES(extract, key(ta), Extract_ta)
OMKM_HPP_ROUTES(extract, key(va), Extract_va)
OMKM_HPP_ROUTES(identity, key(ma), LoadIdentity_ma)
OMKM_HPP_ROUTE(transpose, key(m), Transpose_m)
OMKM_HPP_ROUTES(transpose, key(ma), Transpose_ma)
OMKM_HPP_ROUTE(saxpy, key(v, v), Saxpy_vv)
OMKM_HPP_ROUTES(saxpy, key(va, v), Saxpy_vav)
OMKM_HPP_ROUTES(saxpy, key(v, va), Saxpy_vva)
OMKM_HPP_ROUTES(saxpy, key(va, va), Saxpy_vava)
OMKM_HPP_ROUTE(lcomb, key(v, v), LComb_vv)
OMKM_HPP_ROUTES(lcomb, key(va, v), LComb_vav)
OMKM_HPP_ROUTES(lcomb, key(va, va), LComb_vava)
// Gaxpy, keyed by x and b (the matrix is always one matrix): mv, mva (b an array), mvav (one b)
OMKM_HPP_ROUTE(gaxpy, key(v, v), Gaxpy_mv)
OMKM_HPP_ROUTES(gaxpy, key(va, va), Gaxpy_mva)
OMKM_HPP_ROUTES(gaxpy, key(va, v), Gaxpy_mvav)
OMKM_HPP_ROUTE(trace, key(m), Trace_m)
OMKM_HPP_ROUTES(trace, key(ma), Trace_ma)

#undef OMKM_HPP_ROUTE
#undef OMKM_HPP_ROUTES
#undef OMKM_HPP_ROUTE_COPY
#undef OMKM_HPP_ROUTES_COPY
#undef OMKM_HPP_ROUTE_AS

// A contiguous run of values, as the factorizations take pivots and eigenvalues (defined with them
// below): extract's dense destination.
template <class V>
struct flat_values;
template <class V, class X>
constexpr flat_values<V> flat(X& x);

// A single object as an array of one (Copy and LoadIdentity have array members only): its stride0
// is the element size, a valid stride the C call never steps by.
template <class E, class T>
constexpr matrix_desc<T, true> as_array(const matrix_desc<T, false>& d) {
    return {d.p, 1, d.rows, d.cols, static_cast<int>(sizeof(E)), d.s1, d.s2};
}
template <class E, class T>
constexpr vector_desc<T, true> as_array(const vector_desc<T, false>& d) {
    return {d.p, 1, d.len, static_cast<int>(sizeof(E)), d.s2};
}
template <class E, class T>
constexpr matrix_pointers_desc<T, true> as_array(const matrix_pointers_desc<T, false>& d) {
    return {d.p, 1, d.rows, d.cols, d.roi, static_cast<int>(sizeof(E))};
}
template <class E, class T>
constexpr vector_pointers_desc<T, true> as_array(const vector_pointers_desc<T, false>& d) {
    return {d.p, 1, d.len, d.roi, static_cast<int>(sizeof(E))};
}
template <class E, class D>
constexpr const D& as_array(const D& d) {
    return d;
}

}  // namespace detail

// ---------------------------------------------------------------- data movement

// dst = src, element by element as raw bits: arrays of matrices or of vectors, the source and the
// destination each in its own description (strided, a table: _L, element pointers: _P), so copy
// converts between them. A single matrix or vector is copied as an array of one.
template <class S, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status copy(S&& source, Dst&& dst) {
    using namespace detail;
    const auto ds = describe(std::forward<S>(source));
    const auto dd = describe(std::forward<Dst>(dst));
    using DS = std::decay_t<decltype(ds)>;
    using DD = std::decay_t<decltype(dd)>;
    constexpr int ks = kind_of<DS>::value, kd = kind_of<DD>::value;
    using E = typename kind_of<DS>::elem;
    constexpr bool kinds_ok = ks >= 0 && ((ks & 7) == k_m || (ks & 7) == k_v) && kd >= 0 && (kd & 7) == (ks & 7);
    static_assert(ks >= 0 && ((ks & 7) == k_m || (ks & 7) == k_v),
                  "omkm::copy: the source is a matrix or a vector, single or an array, read as stored (no Copy "
                  "export reads a transposed matrix; omkm::transpose writes a transpose)");
    static_assert(kinds_ok || (ks & 7) == k_t, "omkm::copy: a matrix goes to a matrix and a vector to a vector");
    static_assert(same_elem<E, DD>(), "omkm::copy: the operands must share one element type (float or double)");
    require_writable<DD>();
    static_assert(is_array_v<DS> == is_array_v<DD>,
                  "omkm::copy: the destination is an array exactly when the source is (no Copy export repeats one "
                  "object)");
    if constexpr (!kinds_ok) {
        return status::ok;  // not compiled: an assertion above stops the build
    } else {
        using R = route<fam::copy, key(ks | k_arr), 3 * description_of<DS>() + description_of<DD>()>;
        const int n = common_count(ds, dd);
        if (n == -2) return status::size_mismatch;
        const auto as = as_array<E>(ds);
        const auto ad = as_array<E>(dd);
        if constexpr ((ks & 7) == k_m) {
            if (ds.rows != dd.rows || ds.cols != dd.cols) return status::size_mismatch;
            return call_with<R, E>(args_in<E>(as), args_out<E>(ad), std::make_tuple(ds.cols, ds.rows, n));
        } else {
            if (ds.len != dd.len) return status::size_mismatch;
            return call_with<R, E>(args_in<E>(as), args_out<E>(ad), std::make_tuple(ds.len, n));
        }
    }
}

// The operand as used (a transposed(...) one transposed) packed densely into out: rows one after
// another, objects one after another. out is a T*, or a contiguous container of T or of rows of T
// (T[N], std::array<T, N>, a T[R][C] matrix) whose room is checked.
template <class S, class Out>
[[nodiscard]] OMKM_HPP_INLINE status extract(S&& source, Out&& out) {
    using namespace detail;
    const auto ds = describe(std::forward<S>(source));
    using DS = std::decay_t<decltype(ds)>;
    constexpr int ks = kind_of<DS>::value;
    using E = typename kind_of<DS>::elem;
    static_assert(ks >= 0 && (ks & 7) != k_c,
                  "omkm::extract: the source is a matrix (possibly transposed) or a vector, single or an array");
    using R = route<fam::extract, key(ks), description_of<DS>()>;
    const auto o = flat<E>(out);
    const int n = count_of(ds);
    if constexpr ((ks & 7) == k_v) {
        if (o.room >= 0 && o.room < static_cast<long long>(ds.len) * n) return status::size_mismatch;
        return call_with<R, E>(args_in<E>(ds), std::make_tuple(o.p), counted<is_array_v<DS>>(n, ds.len));
    } else {
        const int w = used_cols(ds), h = used_rows(ds);
        if (o.room >= 0 && o.room < static_cast<long long>(w) * h * n) return status::size_mismatch;
        return call_with<R, E>(args_in<E>(ds), std::make_tuple(o.p), counted<is_array_v<DS>>(n, w, h));
    }
}

// Every matrix of dst set to the identity: zeros, and ones on the diagonal of its leading square
// part. A single matrix is an array of one.
template <class Dst>
[[nodiscard]] OMKM_HPP_INLINE status load_identity(Dst&& dst) {
    using namespace detail;
    const auto dd = describe(std::forward<Dst>(dst));
    using DD = std::decay_t<decltype(dd)>;
    using E = typename kind_of<DD>::elem;
    static_assert(kind_of<DD>::value >= 0 && (kind_of<DD>::value & 7) == k_m,
                  "omkm::load_identity: the destination is a matrix or an array of matrices, written as stored");
    require_writable<DD>();
    using R = route<fam::identity, key(ma), description_of<DD>()>;
    return call_with<R, E>(args_out<E>(as_array<E>(dd)), std::make_tuple(dd.cols, dd.rows, count_of(dd)));
}

// dst = the transpose of src (a matrix, or each of an array); dst has src's columns as its rows.
template <class S, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status transpose(S&& source, Dst&& dst) {
    using namespace detail;
    const auto ds = describe(std::forward<S>(source));
    const auto dd = describe(std::forward<Dst>(dst));
    using DS = std::decay_t<decltype(ds)>;
    using DD = std::decay_t<decltype(dd)>;
    constexpr int ks = kind_of<DS>::value;
    using E = typename kind_of<DS>::elem;
    static_assert(ks >= 0 && (ks & 7) == k_m,
                  "omkm::transpose: the source is a matrix or an array of matrices, read as stored (the transpose "
                  "of transposed(x) is x: omkm::copy it)");
    static_assert((kind_of<DD>::value & 7) == k_m, "omkm::transpose: the destination is a matrix or an array of them");
    static_assert(same_elem<E, DD>(), "omkm::transpose: the operands must share one element type (float or double)");
    require_writable<DD>();
    static_assert(is_array_v<DD> == is_array_v<DS>,
                  "omkm::transpose: the destination is an array exactly when the source is (no Transpose export "
                  "repeats one matrix)");
    OMKM_HPP_DESCRIPTIONS_AGREE(DS, DD);
    using R = route<fam::transpose, key(ks), description<DS, DD>()>;
    const int n = common_count(ds, dd);
    if (n == -2) return status::size_mismatch;
    if (dd.rows != ds.cols || dd.cols != ds.rows) return status::size_mismatch;
    return call_with<R, E>(args_in<E>(ds), std::make_tuple(ds.cols, ds.rows), args_out<E>(dd),
                           counted<is_array_v<DS>>(n));
}

// ---------------------------------------------------------------- scaled sums, gaxpy, trace

namespace detail {

// Saxpy (s1 * a + b) and LComb (s1 * a + s2 * b) of vectors: each scale right after its vector in
// the argument list, then the destination, len and the count.
template <fam F, class A, class B, class Dst, class S1, class S2>
OMKM_HPP_INLINE status scaled_sum(A&& a, S1 s1, B&& b, S2 s2, Dst&& dst) {
    const auto da = describe(std::forward<A>(a));
    const auto db = describe(std::forward<B>(b));
    const auto dd = describe(std::forward<Dst>(dst));
    using DA = std::decay_t<decltype(da)>;
    using DB = std::decay_t<decltype(db)>;
    using DD = std::decay_t<decltype(dd)>;
    constexpr int ka = kind_of<DA>::value, kb = kind_of<DB>::value, kd = kind_of<DD>::value;
    using E = typename kind_of<DA>::elem;
    static_assert(ka >= 0 && kb >= 0 && kd >= 0 && (ka & 7) == k_v && (kb & 7) == k_v && (kd & 7) == k_v,
                  "omkm::saxpy/lcomb: the operands and the destination are vectors, single or arrays");
    static_assert(std::is_arithmetic_v<S1> && std::is_arithmetic_v<S2>,
                  "omkm::saxpy/lcomb: a scale is one plain value (no export takes an array of scales)");
    static_assert(same_elem<E, DB, DD>(),
                  "omkm::saxpy/lcomb: the operands must share one element type (float or double)");
    require_writable<DD>();
    constexpr bool any_array = is_array_v<DA> || is_array_v<DB>;
    static_assert(is_array_v<DD> == any_array,
                  "omkm::saxpy/lcomb: the destination is an array exactly when a source is an array");
    OMKM_HPP_DESCRIPTIONS_AGREE(DA, DB, DD);
    using R = route<F, key(ka, kb), description<DA, DB, DD>()>;
    static_assert(R::exists || F != fam::lcomb || key(ka, kb) != key(v, va),
                  "omkm::lcomb: no LComb export takes one vector and an array (vva); swap the operands together "
                  "with their scales (LComb_vav; the last bit may differ: the first product is rounded, the "
                  "second fused)");
    const int n = common_count(da, db, dd);
    if (n == -2) return status::size_mismatch;
    const int len = dd.len;
    if (da.len != len || db.len != len) return status::size_mismatch;
    if constexpr (!R::exists)
        return status::ok;  // not compiled: an assertion above stops the build
    else if constexpr (F == fam::saxpy)
        return call_with<R, E>(args_in<E>(da), args_in<E>(s1), args_in<E>(db), args_out<E>(dd),
                               counted<any_array>(n, len));
    else
        return call_with<R, E>(args_in<E>(da), args_in<E>(s1), args_in<E>(db), args_in<E>(s2), args_out<E>(dd),
                               counted<any_array>(n, len));
}

}  // namespace detail

// dst = s * x + y, each element one fused multiply-add: vectors, single or arrays (one vector with
// each of an array on either side, or pairwise).
template <class X, class S, class Y, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status saxpy(X&& x, S s, Y&& y, Dst&& dst) {
    return detail::scaled_sum<detail::fam::saxpy>(std::forward<X>(x), s, std::forward<Y>(y), 0,
                                                  std::forward<Dst>(dst));
}
// dst = s1 * x + s2 * y: s1 * x rounded, then s2 * y fused into the sum. Single vectors, an array
// with one vector second, or pairwise.
template <class X, class S1, class Y, class S2, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status lcomb(X&& x, S1 s1, Y&& y, S2 s2, Dst&& dst) {
    return detail::scaled_sum<detail::fam::lcomb>(std::forward<X>(x), s1, std::forward<Y>(y), s2,
                                                  std::forward<Dst>(dst));
}

// y = a * x + b for one matrix a (height rows, width columns): x of the width, b and y of the
// height; x an array with b an array (pairwise) or one b for all.
template <class M, class X, class B, class Y>
[[nodiscard]] OMKM_HPP_INLINE status gaxpy(M&& a, X&& x, B&& b, Y&& y) {
    using namespace detail;
    const auto da = describe(std::forward<M>(a));
    const auto dx = describe(std::forward<X>(x));
    const auto db = describe(std::forward<B>(b));
    const auto dy = describe(std::forward<Y>(y));
    using DA = std::decay_t<decltype(da)>;
    using DX = std::decay_t<decltype(dx)>;
    using DB = std::decay_t<decltype(db)>;
    using DY = std::decay_t<decltype(dy)>;
    constexpr int ka = kind_of<DA>::value, kx = kind_of<DX>::value, kb = kind_of<DB>::value;
    using E = typename kind_of<DA>::elem;
    static_assert(ka == k_m,
                  "omkm::gaxpy: the matrix is one matrix read as stored (no Gaxpy export takes a transposed "
                  "matrix or an array of them)");
    static_assert(kx >= 0 && kb >= 0 && (kx & 7) == k_v && (kb & 7) == k_v && (kind_of<DY>::value & 7) == k_v,
                  "omkm::gaxpy: x, b and y are vectors, single or arrays");
    static_assert(same_elem<E, DX, DB, DY>(), "omkm::gaxpy: the operands must share one element type (float or double)");
    require_writable<DY>();
    static_assert(is_array_v<DX> || !is_array_v<DB>,
                  "omkm::gaxpy: no Gaxpy export adds an array of b to one product (mvva); give x as an array too");
    static_assert(is_array_v<DY> == is_array_v<DX>, "omkm::gaxpy: y is an array exactly when x is");
    OMKM_HPP_DESCRIPTIONS_AGREE(DA, DX, DB, DY);
    using R = route<fam::gaxpy, key(kx, kb), description<DA, DX, DB, DY>()>;
    const int n = common_count(dx, db, dy);
    if (n == -2) return status::size_mismatch;
    if (dy.len != da.rows) return status::size_mismatch;
    return call_with<R, E>(args_in<E>(da), std::make_tuple(da.cols, da.rows), args_in<E>(dx), std::make_tuple(dx.len),
                           args_in<E>(db), std::make_tuple(db.len), args_out<E>(dy), counted<is_array_v<DX>>(n));
}

// The trace of a square matrix into a T&, or of each of an array into `count` consecutive values
// (a contiguous container of T, its size checked, or a T*).
template <class A, class Out>
[[nodiscard]] OMKM_HPP_INLINE status trace(A&& a, Out&& result) {
    using namespace detail;
    const auto da = describe(std::forward<A>(a));
    using DA = std::decay_t<decltype(da)>;
    constexpr int ka = kind_of<DA>::value;
    using E = typename kind_of<DA>::elem;
    static_assert(ka >= 0 && (ka & 7) == k_m,
                  "omkm::trace: the operand is a square matrix or an array of them, read as stored (no Trace "
                  "export reads a transposed matrix; the trace of the transpose is the same value)");
    using R = route<fam::trace, key(ka), description_of<DA>()>;
    const auto o = scalars<E>(result);
    if constexpr (is_array_v<DA>) {
        if (o.room >= 0 && o.room < count_of(da)) return status::size_mismatch;
    } else {
        static_assert(std::is_same_v<std::remove_reference_t<Out>, E>, "omkm::trace: one matrix's trace goes to a T&");
    }
    if (da.rows != da.cols) return status::size_mismatch;
    return call_with<R, E>(args_in<E>(da), std::make_tuple(da.rows, o.p), counted<is_array_v<DA>>(count_of(da)));
}

// dst = x * c: mul by a constant under its own name; c one value, or an array of constants for
// vectors (omkm::constants, omkm::field of a scalar member).
template <class X, class C, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status scale(X&& x, C&& c, Dst&& dst) {
    using DC = std::decay_t<decltype(describe(std::declval<C>()))>;
    static_assert((detail::kind_of<DC>::value & 7) == detail::k_c,
                  "omkm::scale: the second operand is a constant or an array of constants (omkm::mul multiplies "
                  "by a matrix or a vector)");
    return detail::add_sub<detail::fam::scale>(std::forward<X>(x), std::forward<C>(c), std::forward<Dst>(dst));
}

// ---------------------------------------------------------------- factorizations, solvers, eigenproblems

namespace detail {

// The rows of a flat array of values: T[N] and std::array<T, N>, for any T (int pivots too).
template <class O>
struct row_traits {
    static constexpr bool is = false;
};
template <class T, std::size_t N>
struct row_traits<T[N]> {
    static constexpr bool is = true;
    using elem = T;
    static constexpr int len = static_cast<int>(N);
    static T* first(T (&o)[N]) noexcept { return &o[0]; }
};
template <class T, std::size_t N>
struct row_traits<std::array<T, N>> {
    static constexpr bool is = true;
    using elem = T;
    static constexpr int len = static_cast<int>(N);
    static T* first(std::array<T, N>& o) noexcept { return o.data(); }
};
template <class T, std::size_t N>
struct row_traits<const std::array<T, N>> {
    static constexpr bool is = true;
    using elem = const T;
    static constexpr int len = static_cast<int>(N);
    static const T* first(const std::array<T, N>& o) noexcept { return o.data(); }
};

// Values of type V (int pivots, or eigenvalues of the element type) the C call takes as one
// contiguous run: a V*, a contiguous container of V, or one of rows of V (T[N], std::array<T, N>)
// with no gap between them. room counts values; -1 for a pointer (the caller's promise).
template <class V>
struct flat_values {
    V* p;
    long long room;
};
template <class V, class X>
constexpr flat_values<V> flat(X& x) {
    using B = std::remove_reference_t<X>;
    using U = std::remove_cv_t<V>;
    if constexpr (std::is_pointer_v<B>) {
        static_assert(std::is_same_v<std::remove_cv_t<std::remove_pointer_t<B>>, U> && std::is_convertible_v<B, V*>,
                      "omkm: these values go to (or come from) a pointer to int (pivots) or to the element type");
        return {x, -1};
    } else {
        using Ct = container_traits<B>;
        static_assert(Ct::is, "omkm: pivots and eigenvalues are a contiguous container or a pointer");
        using Obj = typename Ct::object;
        if constexpr (std::is_same_v<std::remove_cv_t<Obj>, U>) {
            static_assert(std::is_convertible_v<Obj*, V*>, "omkm: a result goes to writable memory");
            return {Ct::data(x), Ct::size(x)};
        } else {
            using Rw = row_traits<Obj>;
            static_assert(Rw::is && std::is_same_v<std::remove_cv_t<typename Rw::elem>, U>,
                          "omkm: pivots are ints and eigenvalues the element type, in a container of values or "
                          "of rows of them (T[N], std::array<T, N>)");
            static_assert(std::is_convertible_v<typename Rw::elem*, V*>, "omkm: a result goes to writable memory");
            static_assert(sizeof(Obj) == sizeof(U) * Rw::len, "omkm: the rows of values lie without gaps");
            const int n = Ct::size(x);
            return {n > 0 ? Rw::first(*Ct::data(x)) : nullptr, static_cast<long long>(n) * Rw::len};
        }
    }
}

// Calls f with the scratch: on the stack up to 72 elements and allocated above, or the caller's.
template <class E, class Buf, class F>
OMKM_HPP_INLINE status with_scratch(Buf buffer, std::size_t elements, F&& f) {
    if constexpr (std::is_null_pointer_v<Buf>) {
        scratch<E> s(scratch_size{elements});
        return f(s.get());
    } else {
        static_assert(std::is_same_v<Buf, E*>, "omkm: the buffer is writable memory of the element type");
        return f(buffer);
    }
}

// The source's part of the list, then mid (pivots or scratch), the factor's part, the sizes
// (widthHeight, or width and height) and the count of an array.
template <class R, class E, bool Square, class DA, class DD, class... Mid>
OMKM_HPP_INLINE status factor_call(const DA& da, const DD& dd, int n, Mid... mid) {
    auto go = [&](auto... size) {
        if constexpr (pointer_call<DA, DD>())
            return call_with<R, E>(args_in<E>(da), std::make_tuple(mid...), args_out<E>(dd),
                                   counted<is_array_v<DA>>(n, size...));
        else if constexpr (!is_array_v<DA>)
            return status(R::template call<E>(src(da.p), da.s1, da.s2, mid..., dd.p, dd.s1, dd.s2, size...));
        else
            return status(
                R::template call<E>(src(da.p), da.s0, da.s1, da.s2, mid..., dd.p, dd.s0, dd.s1, dd.s2, size..., n));
    };
    if constexpr (Square)
        return go(da.rows);
    else
        return go(da.cols, da.rows);
}

// LU (pivots into piv), Cholesky, QR (scratch of `height` elements): the factor has the source's
// shape and kind.
template <fam F, class A, class Piv, class Dst, class Buf>
OMKM_HPP_INLINE status factor_impl(A&& a, Piv&& piv, Dst&& dst, Buf buffer) {
    const auto da = describe(std::forward<A>(a));
    const auto dd = describe(std::forward<Dst>(dst));
    using DA = std::decay_t<decltype(da)>;
    using DD = std::decay_t<decltype(dd)>;
    constexpr int ka = kind_of<DA>::value;
    using E = typename kind_of<DA>::elem;
    static_assert((ka & 7) == k_m,
                  "omkm::lu_decomp/cholesky/qr: the source is a matrix or an array of matrices, read as stored "
                  "(no decomposition export reads a transposed matrix)");
    static_assert((kind_of<DD>::value & 7) == k_m, "omkm::lu_decomp/cholesky/qr: the factor is written to a matrix");
    static_assert(same_elem<E, DD>(),
                  "omkm::lu_decomp/cholesky/qr: the operands must share one element type (float or double)");
    require_writable<DD>();
    static_assert(is_array_v<DD> == is_array_v<DA>,
                  "omkm::lu_decomp/cholesky/qr: the factor is an array exactly when the source is");
    OMKM_HPP_DESCRIPTIONS_AGREE(DA, DD);
    using R = route<F, key(ka), description<DA, DD>()>;
    const int n = common_count(da, dd);
    if (n == -2) return status::size_mismatch;
    if (dd.rows != da.rows || dd.cols != da.cols) return status::size_mismatch;
    if constexpr (F == fam::qr) {
        return with_scratch<E>(buffer, da.rows > 0 ? static_cast<std::size_t>(da.rows) : 1,
                               [&](E* b) { return factor_call<R, E, false>(da, dd, n, b); });
    } else {
        if (da.rows != da.cols) return status::size_mismatch;
        if constexpr (F == fam::lu) {
            const auto pv = flat<int>(piv);
            if (pv.room >= 0 && pv.room < static_cast<long long>(da.rows) * n) return status::size_mismatch;
            return factor_call<R, E, true>(da, dd, n, pv.p);
        } else {
            return factor_call<R, E, true>(da, dd, n);
        }
    }
}

// The factor's part of the list, then mid (pivots or scratch), the right-hand side's part, the
// solution's, the sizes and the count of an array.
template <class R, class E, bool Square, class DM, class DB, class DX, class... Mid>
OMKM_HPP_INLINE status solve_call(const DM& dm, const DB& db, const DX& dx, int n, Mid... mid) {
    auto go = [&](auto... size) {
        if constexpr (pointer_call<DM, DB, DX>())
            return call_with<R, E>(args_in<E>(dm), std::make_tuple(mid...), args_in<E>(db), args_out<E>(dx),
                                   counted<is_array_v<DM> || is_array_v<DB>>(n, size...));
        else if constexpr (!is_array_v<DM> && !is_array_v<DB>)
            return status(
                R::template call<E>(src(dm.p), dm.s1, dm.s2, mid..., src(db.p), db.s2, dx.p, dx.s2, size...));
        else if constexpr (!is_array_v<DM>)
            return status(R::template call<E>(src(dm.p), dm.s1, dm.s2, mid..., src(db.p), db.s0, db.s2, dx.p, dx.s0,
                                              dx.s2, size..., n));
        else
            return status(R::template call<E>(src(dm.p), dm.s0, dm.s1, dm.s2, mid..., src(db.p), db.s0, db.s2, dx.p,
                                              dx.s0, dx.s2, size..., n));
    };
    if constexpr (Square)
        return go(dm.rows);
    else
        return go(dm.cols, dm.rows);
}

// x = the solution of A*x = b from A's factor (QR: the least-squares solution, b of `height`
// elements, x of `width`).
template <fam F, class M, class Piv, class B, class X, class Buf>
OMKM_HPP_INLINE status solve_impl(M&& m, Piv&& piv, B&& b, X&& x, Buf buffer) {
    const auto dm = describe(std::forward<M>(m));
    const auto db = describe(std::forward<B>(b));
    const auto dx = describe(std::forward<X>(x));
    using DM = std::decay_t<decltype(dm)>;
    using DB = std::decay_t<decltype(db)>;
    using DX = std::decay_t<decltype(dx)>;
    constexpr int km = kind_of<DM>::value, kb = kind_of<DB>::value, kx = kind_of<DX>::value;
    using E = typename kind_of<DM>::elem;
    static_assert((km & 7) == k_m,
                  "omkm::lu_solve/cholesky_solve/qr_solve: the factor is a matrix or an array of them, as the "
                  "decomposition wrote it (no solver reads a transposed factor)");
    static_assert((kb & 7) == k_v && (kx & 7) == k_v,
                  "omkm::lu_solve/cholesky_solve/qr_solve: the right-hand side and the solution are vectors, single "
                  "or arrays");
    static_assert(same_elem<E, DB, DX>(),
                  "omkm::lu_solve/cholesky_solve/qr_solve: the operands must share one element type (float or double)");
    require_writable<DX>();
    static_assert(is_array_v<DX> == (is_array_v<DM> || is_array_v<DB>),
                  "omkm::lu_solve/cholesky_solve/qr_solve: the solution is an array exactly when a source is");
    OMKM_HPP_DESCRIPTIONS_AGREE(DM, DB, DX);
    using R = route<F, key(km, kb), description<DM, DB, DX>()>;
    static_assert(R::exists || key(km, kb) != key(ma, v),
                  "omkm::lu_solve/cholesky_solve/qr_solve: no BackSubst export solves an array of factors for one "
                  "right-hand side (mav); give each factor its right-hand side, an array of vectors (mava)");
    static_assert(R::exists, "omkm::lu_solve/cholesky_solve/qr_solve: no BackSubst export for these operand kinds");
    const int n = common_count(dm, db, dx);
    if (n == -2) return status::size_mismatch;
    if (db.len != dm.rows || dx.len != dm.cols) return status::size_mismatch;
    if constexpr (!R::exists) {
        return status::ok;  // not compiled: an assertion above stops the build
    } else if constexpr (F == fam::qrsolve) {
        return with_scratch<E>(buffer, dm.rows > 0 ? static_cast<std::size_t>(dm.rows) : 1,
                               [&](E* s) { return solve_call<R, E, false>(dm, db, dx, n, s); });
    } else {
        if (dm.rows != dm.cols) return status::size_mismatch;
        if constexpr (F == fam::lusolve) {
            const auto pv = flat<const int>(piv);
            if (pv.room >= 0 && pv.room < static_cast<long long>(dm.rows) * count_of(dm)) return status::size_mismatch;
            return solve_call<R, E, true>(dm, db, dx, n, pv.p);
        } else {
            return solve_call<R, E, true>(dm, db, dx, n);
        }
    }
}

// Eigenvalues of symmetric matrices, n per matrix into values, and (Vectors not null) the
// eigenvectors as the columns of an n x n matrix per matrix; scratch of n*n elements.
template <class A, class Values, class Vectors, class Buf>
OMKM_HPP_INLINE status eigen_sym_impl(A&& a, Values& values, Vectors&& vectors, Buf buffer) {
    const auto da = describe(std::forward<A>(a));
    using DA = std::decay_t<decltype(da)>;
    constexpr int ka = kind_of<DA>::value;
    using E = typename kind_of<DA>::elem;
    static_assert((ka & 7) == k_m,
                  "omkm::eigen_sym: the source is a symmetric matrix or an array of them, read as stored "
                  "(no EigenValuesSym export reads a transposed matrix; a symmetric matrix is its transpose)");
    const auto vo = flat<E>(values);
    const int w = da.rows;
    if (da.cols != w) return status::size_mismatch;
    const std::size_t elems = w > 0 ? static_cast<std::size_t>(w) * w : 1;
    if constexpr (std::is_null_pointer_v<std::decay_t<Vectors>>) {
        using R = route<fam::eigsym, key(ka), description<DA>()>;
        const int n = count_of(da);
        if (vo.room >= 0 && vo.room < static_cast<long long>(w) * n) return status::size_mismatch;
        return with_scratch<E>(buffer, elems, [&](E* s) {
            if constexpr (pointer_call<DA>())
                return call_with<R, E>(args_in<E>(da), std::make_tuple(s, vo.p), counted<is_array_v<DA>>(n, w));
            else if constexpr (!is_array_v<DA>)
                return status(R::template call<E>(src(da.p), da.s1, da.s2, s, vo.p, w));
            else
                return status(R::template call<E>(src(da.p), da.s0, da.s1, da.s2, s, vo.p, w, n));
        });
    } else {
        const auto dv = describe(std::forward<Vectors>(vectors));
        using DV = std::decay_t<decltype(dv)>;
        static_assert((kind_of<DV>::value & 7) == k_m, "omkm::eigen_sym: the eigenvectors go to a matrix per source");
        static_assert(same_elem<E, DV>(),
                      "omkm::eigen_sym: the operands must share one element type (float or double)");
        require_writable<DV>();
        static_assert(is_array_v<DV> == is_array_v<DA>,
                      "omkm::eigen_sym: the eigenvectors are an array exactly when the source is");
        OMKM_HPP_DESCRIPTIONS_AGREE(DA, DV);
        using R = route<fam::eigsymvec, key(ka, kind_of<DV>::value), description<DA, DV>()>;
        const int n = common_count(da, dv);
        if (n == -2) return status::size_mismatch;
        if (dv.rows != w || dv.cols != w) return status::size_mismatch;
        if (vo.room >= 0 && vo.room < static_cast<long long>(w) * n) return status::size_mismatch;
        return with_scratch<E>(buffer, elems, [&](E* s) {
            if constexpr (pointer_call<DA>())
                return call_with<R, E>(args_in<E>(da), std::make_tuple(s), args_out<E>(dv), std::make_tuple(vo.p),
                                       counted<is_array_v<DA>>(n, w));
            else if constexpr (!is_array_v<DA>)
                return status(R::template call<E>(src(da.p), da.s1, da.s2, s, dv.p, dv.s1, dv.s2, vo.p, w));
            else
                return status(
                    R::template call<E>(src(da.p), da.s0, da.s1, da.s2, s, dv.p, dv.s0, dv.s1, dv.s2, vo.p, w, n));
        });
    }
}


// A matrix destination for eigenvectors, or none (nullptr): its checks at compile time.
template <class DA, class DV>
constexpr void require_vectors() {
    if constexpr (!std::is_null_pointer_v<DV>) {
        static_assert((kind_of<DV>::value & 7) == k_m, "omkm::eigen: eigenvectors go to a matrix per source matrix");
        static_assert(same_elem<typename kind_of<DA>::elem, DV>(),
                      "omkm::eigen: the operands must share one element type (float or double)");
        require_writable<DV>();
        static_assert(is_array_v<DV> == is_array_v<DA>,
                      "omkm::eigen: the eigenvectors are an array exactly when the source is");
    }
}
template <class DV>
constexpr bool vectors_fit(const DV& dv, int w, int count) {
    if constexpr (std::is_null_pointer_v<DV>)
        return true;
    else
        return dv.rows == w && dv.cols == w && count_of(dv) == count;
}
template <class X>
constexpr auto describe_or_none(X&& x) {
    if constexpr (std::is_null_pointer_v<std::decay_t<X>>)
        return nullptr;
    else
        return describe(std::forward<X>(x));
}

// Eigenvalues of general matrices, real parts into re and imaginary parts into im (n per matrix),
// and the left and/or right eigenvectors (VL, VR not null) as the columns of n x n matrices. With
// no buffer the scratch's size comes from the GetBufSize export of the family (a C call before the
// one that solves).
template <class A, class Re, class Im, class VL, class VR, class Buf>
OMKM_HPP_INLINE status eigen_impl(A&& a, Re& re, Im& im, VL&& left, VR&& right, Buf buffer) {
    const auto da = describe(std::forward<A>(a));
    const auto dl = describe_or_none(std::forward<VL>(left));
    const auto dr = describe_or_none(std::forward<VR>(right));
    using DA = std::decay_t<decltype(da)>;
    using DL = std::decay_t<decltype(dl)>;
    using DR = std::decay_t<decltype(dr)>;
    constexpr int ka = kind_of<DA>::value;
    using E = typename kind_of<DA>::elem;
    static_assert((ka & 7) == k_m,
                  "omkm::eigen: the source is a square matrix or an array of them, read as stored (no EigenValues "
                  "export reads a transposed matrix)");
    OMKM_HPP_POINTERS_AGREE(DA, DL, DR);
    constexpr bool by_pointers = pointer_call<DA>();
    require_vectors<DA, DL>();
    require_vectors<DA, DR>();
    constexpr bool has_l = !std::is_null_pointer_v<DL>, has_r = !std::is_null_pointer_v<DR>;
    static_assert(!((has_l && is_table_v<DL> != is_table_v<DA>) || (has_r && is_table_v<DR> != is_table_v<DA>)),
                  "omkm: the layout (_L) exports take every array operand by a pointer table; give all arrays of "
                  "the call as tables, or none");
    const auto vr = flat<E>(re);
    const auto vi = flat<E>(im);
    const int w = da.rows, n = count_of(da);
    if (da.cols != w || !vectors_fit(dl, w, n) || !vectors_fit(dr, w, n)) return status::size_mismatch;
    const long long values = static_cast<long long>(w) * n;
    if ((vr.room >= 0 && vr.room < values) || (vi.room >= 0 && vi.room < values)) return status::size_mismatch;
    auto go = [&](E* s) {
        // the source, the vectors' parts (left before right), the values, widthHeight, count, scratch
        auto strides = [&](auto r, const auto& dv) {
            using R = decltype(r);
            if constexpr (by_pointers)
                return call_with<R, E>(args_in<E>(da), args_out<E>(dv), std::make_tuple(vr.p, vi.p),
                                       counted<is_array_v<DA>>(n, w), std::make_tuple(s));
            else if constexpr (!is_array_v<DA>)
                return status(R::template call<E>(src(da.p), da.s1, da.s2, dv.p, dv.s1, dv.s2, vr.p, vi.p, w, s));
            else
                return status(R::template call<E>(src(da.p), da.s0, da.s1, da.s2, dv.p, dv.s0, dv.s1, dv.s2, vr.p,
                                                  vi.p, w, n, s));
        };
        if constexpr (!has_l && !has_r) {
            using R = route<fam::eig, key(ka), description<DA>()>;
            if constexpr (by_pointers)
                return call_with<R, E>(args_in<E>(da), std::make_tuple(vr.p, vi.p), counted<is_array_v<DA>>(n, w),
                                       std::make_tuple(s));
            else if constexpr (!is_array_v<DA>)
                return status(R::template call<E>(src(da.p), da.s1, da.s2, vr.p, vi.p, w, s));
            else
                return status(R::template call<E>(src(da.p), da.s0, da.s1, da.s2, vr.p, vi.p, w, n, s));
        } else if constexpr (has_l && !has_r) {
            return strides(route<fam::eigleft, key(ka, ka), description<DA>()>{}, dl);
        } else if constexpr (!has_l && has_r) {
            return strides(route<fam::eigright, key(ka, ka), description<DA>()>{}, dr);
        } else {
            using R = route<fam::eigboth, key(ka, ka), description<DA>()>;
            if constexpr (by_pointers)
                return call_with<R, E>(args_in<E>(da), args_out<E>(dl), args_out<E>(dr), std::make_tuple(vr.p, vi.p),
                                       counted<is_array_v<DA>>(n, w), std::make_tuple(s));
            else if constexpr (!is_array_v<DA>)
                return status(R::template call<E>(src(da.p), da.s1, da.s2, dl.p, dl.s1, dl.s2, dr.p, dr.s1, dr.s2,
                                                  vr.p, vi.p, w, s));
            else
                return status(R::template call<E>(src(da.p), da.s0, da.s1, da.s2, dl.p, dl.s0, dl.s1, dl.s2, dr.p,
                                                  dr.s0, dr.s1, dr.s2, vr.p, vi.p, w, n, s));
        }
    };
    if constexpr (std::is_null_pointer_v<Buf>) {
        using Q = route<(has_l || has_r) ? fam::eigvecbuf : fam::eigbuf, key(k_none)>;
        int bytes = 0;
        const status q = status(Q::template call<E>(w, &bytes));
        if (q != status::ok) return q;
        scratch<E> s(scratch_size{bytes > 0 ? (static_cast<std::size_t>(bytes) + sizeof(E) - 1) / sizeof(E) : 1});
        return go(s.get());
    } else {
        static_assert(std::is_same_v<Buf, E*>, "omkm::eigen: the buffer is writable memory of the element type");
        return go(buffer);
    }
}
}  // namespace detail

// LU decomposition with partial pivoting by rows of a square matrix, or of each of an array: the
// factors into lu (of the source's shape), the row order into piv, n ints per matrix, contiguous:
// int[n], std::array<int, n>, a container of int or of such rows (std::vector<std::array<int, n>>),
// or an int* (its room is the caller's). The index array is one contiguous run in every
// description of the matrices, so a member of records cannot hold it.
template <class A, class Piv, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status lu_decomp(A&& a, Piv&& piv, Dst&& lu) {
    return detail::factor_impl<detail::fam::lu>(std::forward<A>(a), piv, std::forward<Dst>(lu), nullptr);
}
// x = the solution of A*x = b from lu_decomp's factors and pivots: one factor with one vector or
// an array of them, or each factor of an array with its vector.
template <class M, class Piv, class B, class X>
[[nodiscard]] OMKM_HPP_INLINE status lu_solve(M&& lu, Piv&& piv, B&& b, X&& x) {
    return detail::solve_impl<detail::fam::lusolve>(std::forward<M>(lu), piv, std::forward<B>(b), std::forward<X>(x),
                                                    nullptr);
}

// Cholesky factor of a symmetric positive definite matrix (its lower triangle is read), or of each
// of an array: l holds L below the diagonal and 1/L(i, i) on it; its strict upper triangle is not
// written.
template <class A, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status cholesky(A&& a, Dst&& l) {
    return detail::factor_impl<detail::fam::chol>(std::forward<A>(a), nullptr, std::forward<Dst>(l), nullptr);
}
template <class M, class B, class X>
[[nodiscard]] OMKM_HPP_INLINE status cholesky_solve(M&& l, B&& b, X&& x) {
    return detail::solve_impl<detail::fam::cholsolve>(std::forward<M>(l), nullptr, std::forward<B>(b),
                                                      std::forward<X>(x), nullptr);
}

// Householder QR of a matrix of height >= width (or of each of an array): r of the source's shape.
// qr_solve: the least-squares solution x (width elements) of A*x = b (height elements). Scratch of
// `height` elements, on the stack up to 72 and allocated above, or the caller's buffer.
template <class A, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status qr(A&& a, Dst&& r) {
    return detail::factor_impl<detail::fam::qr>(std::forward<A>(a), nullptr, std::forward<Dst>(r), nullptr);
}
template <class A, class Dst, class T>
[[nodiscard]] OMKM_HPP_INLINE status qr(A&& a, Dst&& r, T* buffer) {
    return detail::factor_impl<detail::fam::qr>(std::forward<A>(a), nullptr, std::forward<Dst>(r), buffer);
}
template <class M, class B, class X>
[[nodiscard]] OMKM_HPP_INLINE status qr_solve(M&& r, B&& b, X&& x) {
    return detail::solve_impl<detail::fam::qrsolve>(std::forward<M>(r), nullptr, std::forward<B>(b),
                                                    std::forward<X>(x), nullptr);
}
template <class M, class B, class X, class T>
[[nodiscard]] OMKM_HPP_INLINE status qr_solve(M&& r, B&& b, X&& x, T* buffer) {
    return detail::solve_impl<detail::fam::qrsolve>(std::forward<M>(r), nullptr, std::forward<B>(b),
                                                    std::forward<X>(x), buffer);
}

// Eigenvalues of a symmetric matrix, descending, n into values (a container of n or more, or a
// T*); of an array, n per matrix one after another. With a third operand that is a matrix (or an
// array of them), also the eigenvectors as its columns; a T* or T[N] third operand is the caller's
// scratch (n*n elements) instead, and the four-operand form takes both. The layer's scratch is on the
// stack up to order 8.
template <class A, class Values>
[[nodiscard]] OMKM_HPP_INLINE status eigen_sym(A&& a, Values&& values) {
    return detail::eigen_sym_impl(std::forward<A>(a), values, nullptr, nullptr);
}
template <class A, class Values, class Third>
[[nodiscard]] OMKM_HPP_INLINE status eigen_sym(A&& a, Values&& values, Third&& vectors_or_buffer) {
    // a T* or T[N] is the buffer (a C array of matrices describes eigenvectors)
    using B = std::remove_cv_t<std::remove_reference_t<Third>>;
    if constexpr (std::is_pointer_v<B> || (std::is_array_v<B> && std::rank_v<B> == 1))
        return detail::eigen_sym_impl(std::forward<A>(a), values, nullptr, std::decay_t<B>(vectors_or_buffer));
    else
        return detail::eigen_sym_impl(std::forward<A>(a), values, std::forward<Third>(vectors_or_buffer), nullptr);
}
template <class A, class Values, class Vectors, class T>
[[nodiscard]] OMKM_HPP_INLINE status eigen_sym(A&& a, Values&& values, Vectors&& vectors, T* buffer) {
    return detail::eigen_sym_impl(std::forward<A>(a), values, std::forward<Vectors>(vectors), buffer);
}

// Eigenvalues of a general square matrix (or of each of an array), n per matrix: real parts into
// re, imaginary parts into im (each a container of T, or of rows T[n] / std::array<T, n>, or a T*),
// stored where they deflate, a complex pair as two consecutive entries. eigen(a, re, im, right)
// also writes the right eigenvectors, eigen_left(a, re, im, left) the left ones and
// eigen_left_right(a, re, im, left, right) both, as the columns of n x n matrices. The layer sizes
// its scratch by the family's GetBufSize export (a second C call, before the one that solves; on
// the stack up to 72 elements); a trailing T* is the caller's buffer instead, of the bytes that
// export gives.
template <class A, class Re, class Im>
[[nodiscard]] OMKM_HPP_INLINE status eigen(A&& a, Re&& re, Im&& im) {
    return detail::eigen_impl(std::forward<A>(a), re, im, nullptr, nullptr, nullptr);
}
template <class A, class Re, class Im, class Fourth>
[[nodiscard]] OMKM_HPP_INLINE status eigen(A&& a, Re&& re, Im&& im, Fourth&& right_or_buffer) {
    // a T* or T[N] is the buffer (a C array of matrices describes eigenvectors)
    using B = std::remove_cv_t<std::remove_reference_t<Fourth>>;
    if constexpr (std::is_pointer_v<B> || (std::is_array_v<B> && std::rank_v<B> == 1))
        return detail::eigen_impl(std::forward<A>(a), re, im, nullptr, nullptr, std::decay_t<B>(right_or_buffer));
    else
        return detail::eigen_impl(std::forward<A>(a), re, im, nullptr, std::forward<Fourth>(right_or_buffer),
                                  nullptr);
}
template <class A, class Re, class Im, class V, class T>
[[nodiscard]] OMKM_HPP_INLINE status eigen(A&& a, Re&& re, Im&& im, V&& right, T* buffer) {
    return detail::eigen_impl(std::forward<A>(a), re, im, nullptr, std::forward<V>(right), buffer);
}
template <class A, class Re, class Im, class V>
[[nodiscard]] OMKM_HPP_INLINE status eigen_left(A&& a, Re&& re, Im&& im, V&& left) {
    return detail::eigen_impl(std::forward<A>(a), re, im, std::forward<V>(left), nullptr, nullptr);
}
template <class A, class Re, class Im, class V, class T>
[[nodiscard]] OMKM_HPP_INLINE status eigen_left(A&& a, Re&& re, Im&& im, V&& left, T* buffer) {
    return detail::eigen_impl(std::forward<A>(a), re, im, std::forward<V>(left), nullptr, buffer);
}
template <class A, class Re, class Im, class VL, class VR>
[[nodiscard]] OMKM_HPP_INLINE status eigen_left_right(A&& a, Re&& re, Im&& im, VL&& left, VR&& right) {
    return detail::eigen_impl(std::forward<A>(a), re, im, std::forward<VL>(left), std::forward<VR>(right), nullptr);
}
template <class A, class Re, class Im, class VL, class VR, class T>
[[nodiscard]] OMKM_HPP_INLINE status eigen_left_right(A&& a, Re&& re, Im&& im, VL&& left, VR&& right, T* buffer) {
    return detail::eigen_impl(std::forward<A>(a), re, im, std::forward<VL>(left), std::forward<VR>(right), buffer);
}

// ---------------------------------------------------------------- fixed-size members and 3D graphics

// Handedness of the view and projection builders: look_at(left_handed, ...) reaches the LH export,
// look_at(right_handed, ...) the RH one.
struct left_handed_t {
    explicit constexpr left_handed_t() = default;
};
struct right_handed_t {
    explicit constexpr right_handed_t() = default;
};
inline constexpr left_handed_t left_handed{};
inline constexpr right_handed_t right_handed{};

// The viewport of project and unproject: its origin is the top-left corner, y grows downwards and
// depth runs from min_depth to max_depth.
struct viewport {
    float width, height, min_depth = 0.0f, max_depth = 1.0f;
};

namespace detail {

// The fixed-size exports take contiguous floats and nothing else: a 2-, 3- or 4-vector, a 4x4
// transform (16 floats, rows 16 bytes apart: a float[4][4] or a flat float[16] alike), an array of
// vectors with contiguous components. The layer checks the lengths (size_mismatch) and the
// contiguity (bad_stride) before the call; the exports check nothing.
template <class E>
struct fixed_ref {
    E* p;
    int len;  // components of a vector; 16 for a 4x4 transform
    status st;
};
template <class E>
struct fixed_refs {
    E* p;
    int len, s0, count;
    status st;
};

template <class D>
constexpr void require_float() {
    static_assert(std::is_same_v<typename kind_of<D>::elem, float>,
                  "omkm: the fixed-size and 3D graphics exports take float elements only");
}
template <bool Out, class D>
constexpr void require_out() {
    if constexpr (Out) require_writable<D>();
}

template <bool Out = false, class X>
OMKM_HPP_INLINE auto fixed_vec(X&& x) {
    const auto d = describe(std::forward<X>(x));
    using D = std::decay_t<decltype(d)>;
    static_assert(kind_of<D>::value == k_v,
                  "omkm: this operand is one vector of 2, 3 or 4 floats (float[N], std::array<float, N>, "
                  "omkm::vec<N>(p))");
    require_float<D>();
    require_out<Out, D>();
    using E = std::remove_pointer_t<decltype(d.p)>;
    return fixed_ref<E>{d.p, d.len, d.s2 == static_cast<int>(sizeof(float)) ? status::ok : status::bad_stride};
}

template <bool Out = false, class X>
OMKM_HPP_INLINE auto fixed_m4(X&& x) {
    const auto d = describe(std::forward<X>(x));
    using D = std::decay_t<decltype(d)>;
    static_assert(kind_of<D>::value != k_t,
                  "omkm: no fixed-size export reads a transposed 4x4; mul_transpose(a, b, dst) writes the "
                  "transpose of a product, fixed::transpose(m, dst) transposes");
    static_assert(kind_of<D>::value == k_m || kind_of<D>::value == k_v,
                  "omkm: this operand is one 4x4 transform of floats (float[4][4], float[16], std::array, "
                  "omkm::mat<4, 4>(p))");
    require_float<D>();
    require_out<Out, D>();
    using E = std::remove_pointer_t<decltype(d.p)>;
    constexpr int f = static_cast<int>(sizeof(float));
    if constexpr (kind_of<D>::value == k_m)
        return fixed_ref<E>{d.p, 16,
                            d.rows != 4 || d.cols != 4   ? status::size_mismatch
                            : d.s1 != 4 * f || d.s2 != f ? status::bad_stride
                                                         : status::ok};
    else
        return fixed_ref<E>{d.p, 16, d.len != 16 ? status::size_mismatch : d.s2 != f ? status::bad_stride : status::ok};
}

// An array of vectors for the "a" exports (stride0 only) or one vector.
template <bool Out = false, class X>
OMKM_HPP_INLINE auto fixed_vecs(X&& x) {
    const auto d = describe(std::forward<X>(x));
    using D = std::decay_t<decltype(d)>;
    static_assert((kind_of<D>::value & 7) == k_v,
                  "omkm: this operand is a vector of floats or an array of them (a container of float[N] or "
                  "std::array<float, N>, omkm::field, omkm::strided_vectors)");
    static_assert(!is_table_v<D>, "omkm: no point transform export takes a pointer table (_L)");
    require_float<D>();
    require_out<Out, D>();
    using E = std::remove_pointer_t<decltype(d.p)>;
    const status st = d.s2 == static_cast<int>(sizeof(float)) ? status::ok : status::bad_stride;
    return fixed_refs<E>{d.p, d.len, d.s0, d.count, st};
}

template <class... S>
constexpr status first_failure(S... s) {
    status r = status::ok;
    ((r = r == status::ok ? s : r), ...);
    return r;
}

}  // namespace detail

// One export of the _v2/_v3/_v4 triple by the operands' length n (checked to be 2, 3 or 4).
#define OMKM_HPP_BY_LEN(n, NAME, ...)                                                                 \
    ((n) == 2   ? status(OMKM_HPP_INVOKE("omkm" #NAME "_v2_32f", ::omkm##NAME##_v2_32f, __VA_ARGS__)) \
     : (n) == 3 ? status(OMKM_HPP_INVOKE("omkm" #NAME "_v3_32f", ::omkm##NAME##_v3_32f, __VA_ARGS__)) \
     : (n) == 4 ? status(OMKM_HPP_INVOKE("omkm" #NAME "_v4_32f", ::omkm##NAME##_v4_32f, __VA_ARGS__)) \
                : status::size_mismatch)
#define OMKM_HPP_FIXED(NAME, ...) status(OMKM_HPP_INVOKE("omkm" #NAME "_32f", ::omkm##NAME##_32f, __VA_ARGS__))

// ---- vector helpers on single 2-, 3- and 4-vectors (Len_v3, Normalize_v3, ...)

// The length and squared length into a float&.
template <class A>
[[nodiscard]] OMKM_HPP_INLINE status len(A&& a, float& out) {
    const auto v = detail::fixed_vec(std::forward<A>(a));
    if (v.st != status::ok) return v.st;
    return OMKM_HPP_BY_LEN(v.len, Len, detail::src(v.p), &out);
}
template <class A>
[[nodiscard]] OMKM_HPP_INLINE status len_sqr(A&& a, float& out) {
    const auto v = detail::fixed_vec(std::forward<A>(a));
    if (v.st != status::ok) return v.st;
    return OMKM_HPP_BY_LEN(v.len, LenSqr, detail::src(v.p), &out);
}
// dst = a divided by its length (a zero vector gives NaN); dst may be a.
template <class A, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status normalize(A&& a, Dst&& dst) {
    const auto v = detail::fixed_vec(std::forward<A>(a));
    const auto d = detail::fixed_vec<true>(std::forward<Dst>(dst));
    if (const status s = detail::first_failure(v.st, d.st); s != status::ok) return s;
    if (d.len != v.len) return status::size_mismatch;
    return OMKM_HPP_BY_LEN(v.len, Normalize, detail::src(v.p), d.p);
}

namespace detail {
// Component-wise Min/Max: a < b ? a : b, a > b ? a : b (a NaN takes b's component).
template <bool Max, class A, class B, class Dst>
OMKM_HPP_INLINE status min_max(A&& a, B&& b, Dst&& dst) {
    const auto va = fixed_vec(std::forward<A>(a));
    const auto vb = fixed_vec(std::forward<B>(b));
    const auto d = fixed_vec<true>(std::forward<Dst>(dst));
    if (const status s = first_failure(va.st, vb.st, d.st); s != status::ok) return s;
    if (vb.len != va.len || d.len != va.len) return status::size_mismatch;
    if constexpr (Max)
        return OMKM_HPP_BY_LEN(va.len, Max, src(va.p), src(vb.p), d.p);
    else
        return OMKM_HPP_BY_LEN(va.len, Min, src(va.p), src(vb.p), d.p);
}
// Four vectors and a parameter: Hermite (point, tangent, point, tangent) and Catmull-Rom (four points).
template <bool CatmullRom, class A, class B, class C, class D, class Dst>
OMKM_HPP_INLINE status curve(A&& a, B&& b, C&& c, D&& e, float s, Dst&& dst) {
    const auto va = fixed_vec(std::forward<A>(a));
    const auto vb = fixed_vec(std::forward<B>(b));
    const auto vc = fixed_vec(std::forward<C>(c));
    const auto ve = fixed_vec(std::forward<D>(e));
    const auto d = fixed_vec<true>(std::forward<Dst>(dst));
    if (const status st = first_failure(va.st, vb.st, vc.st, ve.st, d.st); st != status::ok) return st;
    const int n = va.len;
    if (vb.len != n || vc.len != n || ve.len != n || d.len != n) return status::size_mismatch;
    if constexpr (CatmullRom)
        return OMKM_HPP_BY_LEN(n, InterpolationCatmullRom, src(va.p), src(vb.p), src(vc.p), src(ve.p), s, d.p);
    else
        return OMKM_HPP_BY_LEN(n, Hermite, src(va.p), src(vb.p), src(vc.p), src(ve.p), s, d.p);
}
}  // namespace detail

template <class A, class B, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status min(A&& a, B&& b, Dst&& dst) {
    return detail::min_max<false>(std::forward<A>(a), std::forward<B>(b), std::forward<Dst>(dst));
}
template <class A, class B, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status max(A&& a, B&& b, Dst&& dst) {
    return detail::min_max<true>(std::forward<A>(a), std::forward<B>(b), std::forward<Dst>(dst));
}
// dst = a + s*(b - a) (InterpolationLinear).
template <class A, class B, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status lerp(A&& a, B&& b, float s, Dst&& dst) {
    const auto va = detail::fixed_vec(std::forward<A>(a));
    const auto vb = detail::fixed_vec(std::forward<B>(b));
    const auto d = detail::fixed_vec<true>(std::forward<Dst>(dst));
    if (const status st = detail::first_failure(va.st, vb.st, d.st); st != status::ok) return st;
    if (vb.len != va.len || d.len != va.len) return status::size_mismatch;
    return OMKM_HPP_BY_LEN(va.len, InterpolationLinear, detail::src(va.p), detail::src(vb.p), s, d.p);
}
// dst = v1 + f*(v2 - v1) + g*(v3 - v1).
template <class A, class B, class C, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status barycentric(A&& v1, B&& v2, C&& v3, float f, float g, Dst&& dst) {
    const auto a = detail::fixed_vec(std::forward<A>(v1));
    const auto b = detail::fixed_vec(std::forward<B>(v2));
    const auto c = detail::fixed_vec(std::forward<C>(v3));
    const auto d = detail::fixed_vec<true>(std::forward<Dst>(dst));
    if (const status st = detail::first_failure(a.st, b.st, c.st, d.st); st != status::ok) return st;
    if (b.len != a.len || c.len != a.len || d.len != a.len) return status::size_mismatch;
    return OMKM_HPP_BY_LEN(a.len, BaryCentric, detail::src(a.p), detail::src(b.p), detail::src(c.p), f, g, d.p);
}
// The cubic Hermite curve at s from point p1 (tangent t1) to point p2 (tangent t2).
template <class P1, class T1, class P2, class T2, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status hermite(P1&& p1, T1&& t1, P2&& p2, T2&& t2, float s, Dst&& dst) {
    return detail::curve<false>(std::forward<P1>(p1), std::forward<T1>(t1), std::forward<P2>(p2), std::forward<T2>(t2),
                                s, std::forward<Dst>(dst));
}
// The Catmull-Rom spline through p0 .. p3 at s, between p1 (s = 0) and p2 (s = 1).
template <class P0, class P1, class P2, class P3, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status catmull_rom(P0&& p0, P1&& p1, P2&& p2, P3&& p3, float s, Dst&& dst) {
    return detail::curve<true>(std::forward<P0>(p0), std::forward<P1>(p1), std::forward<P2>(p2), std::forward<P3>(p3),
                               s, std::forward<Dst>(dst));
}

// ---- transform builders: each writes all 16 entries of a 4x4 transform for row vectors (p' = p*M,
// translation in row 3), the destination last as everywhere in this layer

// 1 into `result` when m00 is 1 and one column of m equals the identity's (the export's own, weak
// test), else 0; into an int& or a bool&.
template <class M, class Out>
[[nodiscard]] OMKM_HPP_INLINE status is_identity(M&& m, Out& result) {
    static_assert(std::is_same_v<Out, int> || std::is_same_v<Out, bool>,
                  "omkm::is_identity: the result is an int& or bool&");
    const auto a = detail::fixed_m4(std::forward<M>(m));
    if (a.st != status::ok) return a.st;
    if constexpr (std::is_same_v<Out, int>) {
        return OMKM_HPP_FIXED(IsIdentity_m4, detail::src(a.p), &result);
    } else {
        int r = 0;
        const status s = OMKM_HPP_FIXED(IsIdentity_m4, detail::src(a.p), &r);
        result = r != 0;
        return s;
    }
}

// A view transform from the eye towards `at`, `up` giving the vertical (3-vectors).
namespace detail {
template <bool RH, class Eye, class At, class Up, class Dst>
OMKM_HPP_INLINE status look_at_impl(Eye&& eye, At&& at, Up&& up, Dst&& dst) {
    const auto e = fixed_vec(std::forward<Eye>(eye));
    const auto a = fixed_vec(std::forward<At>(at));
    const auto u = fixed_vec(std::forward<Up>(up));
    const auto d = fixed_m4<true>(std::forward<Dst>(dst));
    if (const status s = first_failure(e.st, a.st, u.st, d.st); s != status::ok) return s;
    if (e.len != 3 || a.len != 3 || u.len != 3) return status::size_mismatch;
    if constexpr (RH)
        return OMKM_HPP_FIXED(LookAtRH_m4, src(e.p), src(a.p), src(u.p), d.p);
    else
        return OMKM_HPP_FIXED(LookAtLH_m4, src(e.p), src(a.p), src(u.p), d.p);
}
}  // namespace detail
template <class Eye, class At, class Up, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status look_at(left_handed_t, Eye&& eye, At&& at, Up&& up, Dst&& dst) {
    return detail::look_at_impl<false>(std::forward<Eye>(eye), std::forward<At>(at), std::forward<Up>(up),
                                       std::forward<Dst>(dst));
}
template <class Eye, class At, class Up, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status look_at(right_handed_t, Eye&& eye, At&& at, Up&& up, Dst&& dst) {
    return detail::look_at_impl<true>(std::forward<Eye>(eye), std::forward<At>(at), std::forward<Up>(up),
                                      std::forward<Dst>(dst));
}

// Builders of floats only: the destination checked, then the one call.
#define OMKM_HPP_BUILDER(CXX, CNAME, PARAMS, ARGS)                     \
    template <class Dst>                                               \
    [[nodiscard]] OMKM_HPP_INLINE status CXX PARAMS {                  \
        const auto d = detail::fixed_m4<true>(std::forward<Dst>(dst)); \
        if (d.st != status::ok) return d.st;                           \
        return OMKM_HPP_FIXED(CNAME, OMKM_HPP_UNPAREN ARGS, d.p);      \
    }
#define OMKM_HPP_UNPAREN(...) __VA_ARGS__
// Orthographic and perspective projections of a view volume of width w and height h at the near
// plane, or bounded by left, right, bottom, top; perspective_fov by the vertical field of view
// (radians) and the aspect ratio width/height. Depth maps zn .. zf to 0 .. 1.
OMKM_HPP_BUILDER(ortho, OrthoLH_m4, (left_handed_t, float w, float h, float zn, float zf, Dst&& dst), (w, h, zn, zf))
OMKM_HPP_BUILDER(ortho, OrthoRH_m4, (right_handed_t, float w, float h, float zn, float zf, Dst&& dst), (w, h, zn, zf))
OMKM_HPP_BUILDER(ortho_off_center, OrthoOffCenterLH_m4,
                 (left_handed_t, float l, float r, float b, float t, float zn, float zf, Dst&& dst),
                 (l, r, b, t, zn, zf))
OMKM_HPP_BUILDER(ortho_off_center, OrthoOffCenterRH_m4,
                 (right_handed_t, float l, float r, float b, float t, float zn, float zf, Dst&& dst),
                 (l, r, b, t, zn, zf))
OMKM_HPP_BUILDER(perspective, PerspectiveLH_m4, (left_handed_t, float w, float h, float zn, float zf, Dst&& dst),
                 (w, h, zn, zf))
OMKM_HPP_BUILDER(perspective, PerspectiveRH_m4, (right_handed_t, float w, float h, float zn, float zf, Dst&& dst),
                 (w, h, zn, zf))
OMKM_HPP_BUILDER(perspective_fov, PerspectiveFovLH_m4,
                 (left_handed_t, float fov_y, float aspect, float zn, float zf, Dst&& dst), (fov_y, aspect, zn, zf))
OMKM_HPP_BUILDER(perspective_fov, PerspectiveFovRH_m4,
                 (right_handed_t, float fov_y, float aspect, float zn, float zf, Dst&& dst), (fov_y, aspect, zn, zf))
OMKM_HPP_BUILDER(perspective_off_center, PerspectiveOffCenterLH_m4,
                 (left_handed_t, float l, float r, float b, float t, float zn, float zf, Dst&& dst),
                 (l, r, b, t, zn, zf))
OMKM_HPP_BUILDER(perspective_off_center, PerspectiveOffCenterRH_m4,
                 (right_handed_t, float l, float r, float b, float t, float zn, float zf, Dst&& dst),
                 (l, r, b, t, zn, zf))
// Rotations by an angle in radians about x, y, z; by yaw (about y), pitch (x) and roll (z), roll
// first; scaling and translation along x, y, z.
OMKM_HPP_BUILDER(rotation_x, RotationX_m4, (float angle, Dst&& dst), (angle))
OMKM_HPP_BUILDER(rotation_y, RotationY_m4, (float angle, Dst&& dst), (angle))
OMKM_HPP_BUILDER(rotation_z, RotationZ_m4, (float angle, Dst&& dst), (angle))
OMKM_HPP_BUILDER(rotation_yaw_pitch_roll, RotationYawPitchRoll_m4, (float yaw, float pitch, float roll, Dst&& dst),
                 (yaw, pitch, roll))
OMKM_HPP_BUILDER(scaling, Scaling_m4, (float x, float y, float z, Dst&& dst), (x, y, z))
OMKM_HPP_BUILDER(translation, Translation_m4, (float x, float y, float z, Dst&& dst), (x, y, z))
#undef OMKM_HPP_BUILDER
#undef OMKM_HPP_UNPAREN

// A rotation by `angle` about an axis (a 3-vector of any non-zero length).
template <class Axis, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status rotation_axis(Axis&& axis, float angle, Dst&& dst) {
    const auto a = detail::fixed_vec(std::forward<Axis>(axis));
    const auto d = detail::fixed_m4<true>(std::forward<Dst>(dst));
    if (const status s = detail::first_failure(a.st, d.st); s != status::ok) return s;
    if (a.len != 3) return status::size_mismatch;
    return status(
        OMKM_HPP_INVOKE("omkmRotationAxis_v3m4_32f", ::omkmRotationAxis_v3m4_32f, detail::src(a.p), angle, d.p));
}

// dst = the transpose of a*b (4x4); all of a and b are read first, so dst may be either.
template <class A, class B, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status mul_transpose(A&& a, B&& b, Dst&& dst) {
    const auto ma = detail::fixed_m4(std::forward<A>(a));
    const auto mb = detail::fixed_m4(std::forward<B>(b));
    const auto d = detail::fixed_m4<true>(std::forward<Dst>(dst));
    if (const status s = detail::first_failure(ma.st, mb.st, d.st); s != status::ok) return s;
    return OMKM_HPP_FIXED(MulTranspose_m4, detail::src(ma.p), detail::src(mb.p), d.p);
}

// ---- point transforms: a 4x4 transform applied to one vector or to each of an array

namespace detail {
enum class xform { points, coords, normals };

template <xform F, class M, class S, class Dst>
OMKM_HPP_INLINE status transform(M&& m, S&& s, Dst&& dst) {
    const auto a = fixed_m4(std::forward<M>(m));
    const auto v = fixed_vecs(std::forward<S>(s));
    const auto d = fixed_vecs<true>(std::forward<Dst>(dst));
    using DS = std::decay_t<decltype(describe(std::declval<S>()))>;
    using DD = std::decay_t<decltype(describe(std::declval<Dst>()))>;
    static_assert(is_array_v<DS> == is_array_v<DD>,
                  "omkm::transform_*: the destination is an array exactly when the source is");
    if (const status st = first_failure(a.st, v.st, d.st); st != status::ok) return st;
    const int n = v.len;
    // points: (x, y[, z], 1)*M or (x, y, z, w)*M, all four lanes; coords: divided by w, n lanes;
    // normals: (x, y[, z], 0)*M, n lanes.
    if (n < 2 || n > (F == xform::points ? 4 : 3) || d.len != (F == xform::points ? 4 : n))
        return status::size_mismatch;
    const float* pm = src(a.p);
    const float* pv = src(v.p);
    if constexpr (!is_array_v<DS>) {
        if constexpr (F == xform::points)
            return n == 2   ? OMKM_HPP_FIXED(AffineTransform_m4v2, pm, pv, d.p)
                   : n == 3 ? OMKM_HPP_FIXED(AffineTransform_m4v3, pm, pv, d.p)
                            : OMKM_HPP_FIXED(AffineTransform_m4v4, pm, pv, d.p);
        else if constexpr (F == xform::coords)
            return n == 2 ? OMKM_HPP_FIXED(AffineTransformCoord_m4v2, pm, pv, d.p)
                          : OMKM_HPP_FIXED(AffineTransformCoord_m4v3, pm, pv, d.p);
        else
            return n == 2 ? OMKM_HPP_FIXED(AffineTransformNormal_m4v2, pm, pv, d.p)
                          : OMKM_HPP_FIXED(AffineTransformNormal_m4v3, pm, pv, d.p);
    } else {
        if (d.count != v.count) return status::size_mismatch;
        const int c = v.count;
        if constexpr (F == xform::points)
            return n == 2   ? OMKM_HPP_FIXED(AffineTransform_m4v2a, pm, pv, v.s0, d.p, d.s0, c)
                   : n == 3 ? OMKM_HPP_FIXED(AffineTransform_m4v3a, pm, pv, v.s0, d.p, d.s0, c)
                            : OMKM_HPP_FIXED(AffineTransform_m4v4a, pm, pv, v.s0, d.p, d.s0, c);
        else if constexpr (F == xform::coords)
            return n == 2 ? OMKM_HPP_FIXED(AffineTransformCoord_m4v2a, pm, pv, v.s0, d.p, d.s0, c)
                          : OMKM_HPP_FIXED(AffineTransformCoord_m4v3a, pm, pv, v.s0, d.p, d.s0, c);
        else
            return n == 2 ? OMKM_HPP_FIXED(AffineTransformNormal_m4v2a, pm, pv, v.s0, d.p, d.s0, c)
                          : OMKM_HPP_FIXED(AffineTransformNormal_m4v3a, pm, pv, v.s0, d.p, d.s0, c);
    }
}

template <bool Un, class P, class V, class W, class S, class Dst>
OMKM_HPP_INLINE status project_impl(P&& proj, V&& view, W&& world, S&& s, const viewport& vp, Dst&& dst) {
    const auto mp = fixed_m4(std::forward<P>(proj));
    const auto mv = fixed_m4(std::forward<V>(view));
    const auto mw = fixed_m4(std::forward<W>(world));
    const auto v = fixed_vecs(std::forward<S>(s));
    const auto d = fixed_vecs<true>(std::forward<Dst>(dst));
    using DS = std::decay_t<decltype(describe(std::declval<S>()))>;
    using DD = std::decay_t<decltype(describe(std::declval<Dst>()))>;
    static_assert(is_array_v<DS> == is_array_v<DD>,
                  "omkm::project/unproject: the destination is an array exactly when the source is");
    if (const status st = first_failure(mp.st, mv.st, mw.st, v.st, d.st); st != status::ok) return st;
    if (v.len != 3 || d.len != 3) return status::size_mismatch;
    const float *p0 = src(mp.p), *p1 = src(mv.p), *p2 = src(mw.p), *pv = src(v.p);
    if constexpr (!is_array_v<DS>) {
        if constexpr (Un)
            return OMKM_HPP_FIXED(Unproject_m4v3, p0, p1, p2, pv, vp.width, vp.height, vp.min_depth, vp.max_depth, d.p);
        else
            return OMKM_HPP_FIXED(Project_m4v3, p0, p1, p2, pv, vp.width, vp.height, vp.min_depth, vp.max_depth, d.p);
    } else {
        if (d.count != v.count) return status::size_mismatch;
        if constexpr (Un)
            return OMKM_HPP_FIXED(Unproject_m4v3a, p0, p1, p2, pv, v.s0, vp.width, vp.height, vp.min_depth,
                                  vp.max_depth, d.p, d.s0, v.count);
        else
            return OMKM_HPP_FIXED(Project_m4v3a, p0, p1, p2, pv, v.s0, vp.width, vp.height, vp.min_depth, vp.max_depth,
                                  d.p, d.s0, v.count);
    }
}
}  // namespace detail

// dst = (x, y, 0, 1)*m, (x, y, z, 1)*m or (x, y, z, w)*m: four floats per 2-, 3- or 4-vector
// (AffineTransform).
template <class M, class S, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status transform_points(M&& m, S&& s, Dst&& dst) {
    return detail::transform<detail::xform::points>(std::forward<M>(m), std::forward<S>(s), std::forward<Dst>(dst));
}
// dst = (x, y[, z], 1)*m divided by its w: a 2- or 3-vector per vector (AffineTransformCoord).
template <class M, class S, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status transform_coords(M&& m, S&& s, Dst&& dst) {
    return detail::transform<detail::xform::coords>(std::forward<M>(m), std::forward<S>(s), std::forward<Dst>(dst));
}
// dst = (x, y[, z], 0)*m: directions, without the translation (AffineTransformNormal).
template <class M, class S, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status transform_normals(M&& m, S&& s, Dst&& dst) {
    return detail::transform<detail::xform::normals>(std::forward<M>(m), std::forward<S>(s), std::forward<Dst>(dst));
}

// Each 4-vector of an array times one 4x4 matrix in any description (AffineTransform3DH_mva: strides
// between elements allowed, the library checks its arguments and may split the array over threads).
template <class M, class S, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status transform_homogeneous(M&& m, S&& s, Dst&& dst) {
    using namespace detail;
    const auto dm = describe(std::forward<M>(m));
    const auto dv = describe(std::forward<S>(s));
    const auto dd = describe(std::forward<Dst>(dst));
    using DM = std::decay_t<decltype(dm)>;
    using DV = std::decay_t<decltype(dv)>;
    using DD = std::decay_t<decltype(dd)>;
    static_assert(kind_of<DM>::value == k_m,
                  "omkm::transform_homogeneous: the first operand is one 4x4 matrix, read as stored");
    static_assert(kind_of<DV>::value == va && kind_of<DD>::value == va && !is_table_v<DV> && !is_table_v<DD>,
                  "omkm::transform_homogeneous: the source and destination are arrays of 4-vectors (for one vector: "
                  "transform_points)");
    require_float<DM>();
    require_float<DV>();
    require_float<DD>();
    require_writable<DD>();
    if (dm.rows != 4 || dm.cols != 4 || dv.len != 4 || dd.len != 4 || dv.count != dd.count)
        return status::size_mismatch;
    return OMKM_HPP_FIXED(AffineTransform3DH_mva, src(dm.p), dm.s1, dm.s2, src(dv.p), dv.s0, dv.s2, dd.p, dd.s0, dd.s2,
                          dv.count);
}

// A 3-vector (or each of an array) through world, view and projection to the viewport's pixels and
// depth, and back (unproject: singular when the combined transform has no inverse). The transforms
// come in the export's order: projection, view, world.
template <class P, class V, class W, class S, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status project(P&& projection, V&& view, W&& world, S&& s, const viewport& vp,
                                             Dst&& dst) {
    return detail::project_impl<false>(std::forward<P>(projection), std::forward<V>(view), std::forward<W>(world),
                                       std::forward<S>(s), vp, std::forward<Dst>(dst));
}
template <class P, class V, class W, class S, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status unproject(P&& projection, V&& view, W&& world, S&& s, const viewport& vp,
                                               Dst&& dst) {
    return detail::project_impl<true>(std::forward<P>(projection), std::forward<V>(view), std::forward<W>(world),
                                      std::forward<S>(s), vp, std::forward<Dst>(dst));
}

// ---- omkm::fixed: the fixed-size members of the general families, by choice. omkm::add and the
// other general names keep the general exports for every operand (a float[3] plus a float[3] is
// Add_vv_32f there, with its checks); omkm::fixed::add reaches Add_v3_32f, which checks nothing.
namespace fixed {

namespace detail_ {
template <bool Sub, class A, class B, class Dst>
OMKM_HPP_INLINE status add_sub(A&& a, B&& b, Dst&& dst) {
    using namespace ::omkm::detail;
    const auto va = fixed_vec(std::forward<A>(a));
    const auto vb = fixed_vec(std::forward<B>(b));
    const auto d = fixed_vec<true>(std::forward<Dst>(dst));
    if (const status s = first_failure(va.st, vb.st, d.st); s != status::ok) return s;
    if (vb.len != va.len || d.len != va.len) return status::size_mismatch;
    if constexpr (Sub)
        return OMKM_HPP_BY_LEN(va.len, Sub, src(va.p), src(vb.p), d.p);
    else
        return OMKM_HPP_BY_LEN(va.len, Add, src(va.p), src(vb.p), d.p);
}
}  // namespace detail_

// dst = a + b, a - b on 2-, 3- and 4-vectors (Add_v3_32f, Sub_v3_32f, ...).
template <class A, class B, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status add(A&& a, B&& b, Dst&& dst) {
    return detail_::add_sub<false>(std::forward<A>(a), std::forward<B>(b), std::forward<Dst>(dst));
}
template <class A, class B, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status sub(A&& a, B&& b, Dst&& dst) {
    return detail_::add_sub<true>(std::forward<A>(a), std::forward<B>(b), std::forward<Dst>(dst));
}

// The dot product of 2-, 3- or 4-vectors into a float&.
template <class A, class B>
[[nodiscard]] OMKM_HPP_INLINE status dot(A&& a, B&& b, float& out) {
    using namespace ::omkm::detail;
    const auto va = fixed_vec(std::forward<A>(a));
    const auto vb = fixed_vec(std::forward<B>(b));
    if (const status s = first_failure(va.st, vb.st); s != status::ok) return s;
    if (vb.len != va.len) return status::size_mismatch;
    return OMKM_HPP_BY_LEN(va.len, DotProduct, src(va.p), src(vb.p), &out);
}

// Cross products: of 3-vectors into a 3-vector (CrossProduct_v3); of 2-vectors into a float&, the
// z of the 3D product (CrossProduct_v2); cross(a, b, c, dst): the 4-vector orthogonal to three
// 4-vectors (CrossProduct_v4).
template <class A, class B, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status cross(A&& a, B&& b, Dst&& dst) {
    using namespace ::omkm::detail;
    const auto va = fixed_vec(std::forward<A>(a));
    const auto vb = fixed_vec(std::forward<B>(b));
    if constexpr (std::is_same_v<std::remove_reference_t<Dst>, float>) {
        if (const status s = first_failure(va.st, vb.st); s != status::ok) return s;
        if (va.len != 2 || vb.len != 2) return status::size_mismatch;
        return OMKM_HPP_FIXED(CrossProduct_v2, src(va.p), src(vb.p), &dst);
    } else {
        const auto d = fixed_vec<true>(std::forward<Dst>(dst));
        if (const status s = first_failure(va.st, vb.st, d.st); s != status::ok) return s;
        if (va.len != 3 || vb.len != 3 || d.len != 3) return status::size_mismatch;
        return OMKM_HPP_FIXED(CrossProduct_v3, src(va.p), src(vb.p), d.p);
    }
}
template <class A, class B, class C, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status cross(A&& a, B&& b, C&& c, Dst&& dst) {
    using namespace ::omkm::detail;
    const auto va = fixed_vec(std::forward<A>(a));
    const auto vb = fixed_vec(std::forward<B>(b));
    const auto vc = fixed_vec(std::forward<C>(c));
    const auto d = fixed_vec<true>(std::forward<Dst>(dst));
    if (const status s = first_failure(va.st, vb.st, vc.st, d.st); s != status::ok) return s;
    if (va.len != 4 || vb.len != 4 || vc.len != 4 || d.len != 4) return status::size_mismatch;
    return OMKM_HPP_FIXED(CrossProduct_v4, src(va.p), src(vb.p), src(vc.p), d.p);
}

// dst = a*b of 4x4 matrices (Mul_mm4x4_32f: both read whole first, so dst may be a or b), or a 2-,
// 3- or 4-vector times a constant (MulC_v3_32f, ...).
template <class A, class B, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status mul(A&& a, B&& b, Dst&& dst) {
    using namespace ::omkm::detail;
    if constexpr (std::is_arithmetic_v<std::remove_cv_t<std::remove_reference_t<B>>>) {
        const auto va = fixed_vec(std::forward<A>(a));
        const auto d = fixed_vec<true>(std::forward<Dst>(dst));
        if (const status s = first_failure(va.st, d.st); s != status::ok) return s;
        if (d.len != va.len) return status::size_mismatch;
        return OMKM_HPP_BY_LEN(va.len, MulC, src(va.p), static_cast<float>(b), d.p);
    } else {
        const auto ma = fixed_m4(std::forward<A>(a));
        const auto mb = fixed_m4(std::forward<B>(b));
        const auto d = fixed_m4<true>(std::forward<Dst>(dst));
        if (const status s = first_failure(ma.st, mb.st, d.st); s != status::ok) return s;
        return status(OMKM_HPP_INVOKE("omkmMul_mm4x4_32f", ::omkmMul_mm4x4_32f, src(ma.p), src(mb.p), d.p));
    }
}

// dst = the 4x4 identity (Identity_m4); dst = m transposed (Transpose_m4, dst may be m).
template <class Dst>
[[nodiscard]] OMKM_HPP_INLINE status identity(Dst&& dst) {
    const auto d = ::omkm::detail::fixed_m4<true>(std::forward<Dst>(dst));
    if (d.st != status::ok) return d.st;
    return OMKM_HPP_FIXED(Identity_m4, d.p);
}
template <class M, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status transpose(M&& m, Dst&& dst) {
    using namespace ::omkm::detail;
    const auto a = fixed_m4(std::forward<M>(m));
    const auto d = fixed_m4<true>(std::forward<Dst>(dst));
    if (const status s = first_failure(a.st, d.st); s != status::ok) return s;
    return OMKM_HPP_FIXED(Transpose_m4, src(a.p), d.p);
}

// The determinant of a 4x4 into a float& (Det_m4, no tolerance); its inverse (Invert_m4: singular
// when |det| < 2^-119), with the determinant into a float& when one is given.
template <class M>
[[nodiscard]] OMKM_HPP_INLINE status det(M&& m, float& out) {
    const auto a = ::omkm::detail::fixed_m4(std::forward<M>(m));
    if (a.st != status::ok) return a.st;
    return OMKM_HPP_FIXED(Det_m4, ::omkm::detail::src(a.p), &out);
}
template <class M, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status invert(M&& m, Dst&& dst, float* det = nullptr) {
    using namespace ::omkm::detail;
    const auto a = fixed_m4(std::forward<M>(m));
    const auto d = fixed_m4<true>(std::forward<Dst>(dst));
    if (const status s = first_failure(a.st, d.st); s != status::ok) return s;
    return OMKM_HPP_FIXED(Invert_m4, src(a.p), det, d.p);
}
template <class M, class Dst>
[[nodiscard]] OMKM_HPP_INLINE status invert(M&& m, Dst&& dst, float& det) {
    return invert(std::forward<M>(m), std::forward<Dst>(dst), &det);
}

}  // namespace fixed

#undef OMKM_HPP_BY_LEN
#undef OMKM_HPP_FIXED

// Throwing twins of this section's names (the general names' twins follow below).
#define OMKM_HPP_OR_THROW_AT(SCOPE, NAME)                    \
    template <class... X>                                    \
    inline void NAME##_or_throw(X&&... x) {                  \
        const status s = SCOPE::NAME(std::forward<X>(x)...); \
        if (s != status::ok) throw error(s);                 \
    }
OMKM_HPP_OR_THROW_AT(::omkm, len)
OMKM_HPP_OR_THROW_AT(::omkm, len_sqr)
OMKM_HPP_OR_THROW_AT(::omkm, normalize)
OMKM_HPP_OR_THROW_AT(::omkm, min)
OMKM_HPP_OR_THROW_AT(::omkm, max)
OMKM_HPP_OR_THROW_AT(::omkm, lerp)
OMKM_HPP_OR_THROW_AT(::omkm, barycentric)
OMKM_HPP_OR_THROW_AT(::omkm, hermite)
OMKM_HPP_OR_THROW_AT(::omkm, catmull_rom)
OMKM_HPP_OR_THROW_AT(::omkm, is_identity)
OMKM_HPP_OR_THROW_AT(::omkm, look_at)
OMKM_HPP_OR_THROW_AT(::omkm, ortho)
OMKM_HPP_OR_THROW_AT(::omkm, ortho_off_center)
OMKM_HPP_OR_THROW_AT(::omkm, perspective)
OMKM_HPP_OR_THROW_AT(::omkm, perspective_fov)
OMKM_HPP_OR_THROW_AT(::omkm, perspective_off_center)
OMKM_HPP_OR_THROW_AT(::omkm, rotation_x)
OMKM_HPP_OR_THROW_AT(::omkm, rotation_y)
OMKM_HPP_OR_THROW_AT(::omkm, rotation_z)
OMKM_HPP_OR_THROW_AT(::omkm, rotation_axis)
OMKM_HPP_OR_THROW_AT(::omkm, rotation_yaw_pitch_roll)
OMKM_HPP_OR_THROW_AT(::omkm, scaling)
OMKM_HPP_OR_THROW_AT(::omkm, translation)
OMKM_HPP_OR_THROW_AT(::omkm, mul_transpose)
OMKM_HPP_OR_THROW_AT(::omkm, transform_points)
OMKM_HPP_OR_THROW_AT(::omkm, transform_coords)
OMKM_HPP_OR_THROW_AT(::omkm, transform_normals)
OMKM_HPP_OR_THROW_AT(::omkm, transform_homogeneous)
OMKM_HPP_OR_THROW_AT(::omkm, project)
OMKM_HPP_OR_THROW_AT(::omkm, unproject)
namespace fixed {
OMKM_HPP_OR_THROW_AT(::omkm::fixed, add)
OMKM_HPP_OR_THROW_AT(::omkm::fixed, sub)
OMKM_HPP_OR_THROW_AT(::omkm::fixed, dot)
OMKM_HPP_OR_THROW_AT(::omkm::fixed, cross)
OMKM_HPP_OR_THROW_AT(::omkm::fixed, mul)
OMKM_HPP_OR_THROW_AT(::omkm::fixed, identity)
OMKM_HPP_OR_THROW_AT(::omkm::fixed, transpose)
OMKM_HPP_OR_THROW_AT(::omkm::fixed, det)
OMKM_HPP_OR_THROW_AT(::omkm::fixed, invert)
}  // namespace fixed
#undef OMKM_HPP_OR_THROW_AT

// ---------------------------------------------------------------- throwing forms

inline void throw_if_error(status s) {
    if (s != status::ok) throw error(s);
}

#define OMKM_HPP_OR_THROW(NAME)                      \
    template <class... X>                            \
    inline void NAME##_or_throw(X&&... x) {          \
        throw_if_error(NAME(std::forward<X>(x)...)); \
    }
OMKM_HPP_OR_THROW(mul)
OMKM_HPP_OR_THROW(add)
OMKM_HPP_OR_THROW(sub)
OMKM_HPP_OR_THROW(det)
OMKM_HPP_OR_THROW(invert)
OMKM_HPP_OR_THROW(dot)
OMKM_HPP_OR_THROW(cross)
OMKM_HPP_OR_THROW(norm)
OMKM_HPP_OR_THROW(lu_decomp)
OMKM_HPP_OR_THROW(lu_solve)
OMKM_HPP_OR_THROW(cholesky)
OMKM_HPP_OR_THROW(cholesky_solve)
OMKM_HPP_OR_THROW(qr)
OMKM_HPP_OR_THROW(qr_solve)
OMKM_HPP_OR_THROW(eigen_sym)
OMKM_HPP_OR_THROW(eigen)
OMKM_HPP_OR_THROW(eigen_left)
OMKM_HPP_OR_THROW(eigen_left_right)
OMKM_HPP_OR_THROW(scale)
OMKM_HPP_OR_THROW(copy)
OMKM_HPP_OR_THROW(extract)
OMKM_HPP_OR_THROW(load_identity)
OMKM_HPP_OR_THROW(transpose)
OMKM_HPP_OR_THROW(saxpy)
OMKM_HPP_OR_THROW(lcomb)
OMKM_HPP_OR_THROW(gaxpy)
OMKM_HPP_OR_THROW(trace)
#undef OMKM_HPP_OR_THROW

}  // namespace omkm

#endif  // OMKM_HPP
