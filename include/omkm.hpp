// omkm.hpp: a header-only C++17 interface over the C API of omkm.h.
//
// Operands are described by their types instead of by hand-written strides and sizes, and one name
// per operation (omkm::mul, also by a constant, add, sub, det, invert, dot, cross, norm, lu_decomp,
// lu_solve, cholesky, cholesky_solve, qr, qr_solve, eigen_sym, eigen) reaches the C export that
// matches its operands' kinds (single object or array), element type (float: _32f, double: _64f),
// transposition and description (strided, or a pointer table: _L). Everything is inline and
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
// table: all arrays of one call are tables, or none. The pointer description (_P, one pointer per
// element) is not in this interface.
// A plain arithmetic value is one constant, converted to the operands' element type. A
// two-dimensional C array is one matrix: four 3-vectors are std::array<float, 3>[4] or a container
// of std::array<float, 3>, not float[4][3] (a 4x3 matrix).
//
// Results of det, dot and norm: one object's into a T&; an array's `count` consecutive values into
// a contiguous container of T (its size is checked) or through a T* (its room is the caller's).
// det and invert take the scratch their family needs from the stack up to order 8 and allocate it
// above; the overloads with a trailing T* buffer use the caller's, scratch_elements<T>(n) elements.
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
// of a container of pivots or eigenvalues, length 3 for cross products; a failure
// returns status::size_mismatch and nothing is called or written. Everything else (null pointers,
// strides, sizes below one, the inner dimension of a product) is the C call's check and status.
//
// Statuses: every operation returns omkm::status, [[nodiscard]]. Each has a throwing twin with the
// suffix _or_throw (mul_or_throw, add_or_throw, ...) that takes the same arguments, returns nothing,
// and throws omkm::error (a std::runtime_error carrying the status) on any status but ok.
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
template <class T, bool L>
struct kind_of<constants_desc<T, L>> {
    static constexpr int value = k_c | k_arr;
    static constexpr bool table = L;
    using elem = std::remove_const_t<T>;
};

constexpr int key(int a, int b = 0) { return a * 16 + b; }

enum class fam {
    add, sub, mul, scale, dot, cross, l2norm, frobnorm, det, invert,  // scale: Mul by a constant
    lu, lusolve, chol, cholsolve, qr, qrsolve, eigsym, eigsymvec, eig, eigleft, eigright, eigboth, eigbuf, eigvecbuf
};

// route<F, K, L>: the export of family F for operand kinds K, in the layout description (_L) when
// L; absent combinations have exists = false.
template <fam F, int K, bool L = false>
struct route {
    static constexpr bool exists = false;
    // Never reached: every use of an absent route stops at a static_assert; this only keeps the
    // compiler from adding errors of its own to that message.
    template <class T, class... A>
    static OmkStatus call(A...) {
        return omkStsOk;
    }
};

#define OMKM_HPP_ROUTE(F, K, CNAME) OMKM_HPP_ROUTE_AS(F, K, false, CNAME, _32f, _64f)
#define OMKM_HPP_ROUTES(F, K, CNAME)                  \
    OMKM_HPP_ROUTE_AS(F, K, false, CNAME, _32f, _64f) \
    OMKM_HPP_ROUTE_AS(F, K, true, CNAME, _32f_L, _64f_L)
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
OMKM_HPP_ROUTE(eigbuf, key(k_none), EigenValuesGetBufSize)  // (widthHeight, int* bytes)
OMKM_HPP_ROUTE(eigvecbuf, key(k_none), EigenValuesVectorsGetBufSize)

#undef OMKM_HPP_ROUTE
#undef OMKM_HPP_ROUTES
#undef OMKM_HPP_ROUTE_AS

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
#define OMKM_HPP_TABLES_AGREE(...)                                                                                 \
    static_assert(tables_agree<__VA_ARGS__>(),                                                                     \
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
    using P = decltype(stored(std::declval<const D&>()).p);
    static_assert(!std::is_const_v<std::remove_pointer_t<P>>, "omkm: the destination is read-only");
    static_assert(!is_t_v<D>, "omkm: a destination is written as stored; no export writes a transposed destination");
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
    OMKM_HPP_TABLES_AGREE(DA, DB, DD);
    using R = route<F, key(ka, kb), layout_call<DA, DB, DD>()>;
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
        if constexpr (!any_array)
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
        if constexpr (!any_array)
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
        if constexpr (!any_array)
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
        if constexpr (!is_array_v<DC>) {
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
    if constexpr (!is_array_v<DA>)
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
    const auto o = scalars<E>(out);
    if constexpr (is_array_v<DA>) {
        if (o.room >= 0 && o.room < count_of(da)) return status::size_mismatch;
    } else {
        static_assert(std::is_same_v<std::remove_reference_t<Out>, E>, "omkm: one object's result goes to a T&");
    }
    if constexpr (F == fam::l2norm || F == fam::frobnorm) {
        if constexpr ((ka & 7) == k_v) {
            using R = route<fam::l2norm, key(ka), is_table_v<DA>>;
            if constexpr (!is_array_v<DA>)
                return status(R::template call<E>(src(da.p), da.s2, o.p, da.len));
            else
                return status(R::template call<E>(src(da.p), da.s0, da.s2, o.p, da.len, da.count));
        } else {
            static_assert((ka & 7) == k_m,
                          "omkm::norm: no FrobNorm export reads a transposed matrix; the norm of the "
                          "stored matrix is the same value (the rounding order follows the stored rows)");
            using R = route<fam::frobnorm, key(ka), is_table_v<DA>>;
            if constexpr (!is_array_v<DA>)
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
        using R = route<fam::det, key(ka), is_table_v<DA>>;
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
        OMKM_HPP_TABLES_AGREE(DA, DB, DD);
        using R = route<fam::mul, key(ka, kb), layout_call<DA, DB, DD>()>;
        static_assert(R::exists, "omkm::mul: no Mul export for these operand kinds");
        const int n = common_count(da, db, dd);
        if (n == -2) return status::size_mismatch;
        const auto& sa = stored(da);
        const auto& sd = dd;
        if constexpr ((kb & 7) == k_v) {
            static_assert((kd & 7) == k_v, "omkm::mul: a matrix times a vector gives a vector");
            if (sd.len != used_rows(da)) return status::size_mismatch;
            if constexpr (!is_array_v<DA> && !is_array_v<DB>)
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
            if constexpr (!is_array_v<DA> && !is_array_v<DB>)
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
    if constexpr (!is_array_v<DA>)
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
    OMKM_HPP_TABLES_AGREE(DA, DD);
    using R = route<fam::invert, key(ka), layout_call<DA, DD>()>;
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
    OMKM_HPP_TABLES_AGREE(DA, DB);
    using R = route<fam::dot, key(ka, kb), layout_call<DA, DB>()>;
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
    if constexpr (!is_array_v<DA>)
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
    OMKM_HPP_TABLES_AGREE(DA, DB, DD);
    using R = route<fam::cross, key(ka, kb), layout_call<DA, DB, DD>()>;
    const int n = common_count(da, db, dd);
    if (n == -2) return status::size_mismatch;
    if (da.len != 3 || db.len != 3 || dd.len != 3) return status::size_mismatch;
    if constexpr (!is_array_v<DA> && !is_array_v<DB>)
        return status(R::template call<E>(src(da.p), da.s2, src(db.p), db.s2, dd.p, dd.s2));
    else if constexpr (is_array_v<DA> && !is_array_v<DB>)
        return status(R::template call<E>(src(da.p), da.s0, da.s2, src(db.p), db.s2, dd.p, dd.s0, dd.s2, n));
    else if constexpr (!is_array_v<DA> && is_array_v<DB>)
        return status(R::template call<E>(src(da.p), da.s2, src(db.p), db.s0, db.s2, dd.p, dd.s0, dd.s2, n));
    else
        return status(R::template call<E>(src(da.p), da.s0, da.s2, src(db.p), db.s0, db.s2, dd.p, dd.s0, dd.s2, n));
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
        if constexpr (!is_array_v<DA>)
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
    OMKM_HPP_TABLES_AGREE(DA, DD);
    using R = route<F, key(ka), layout_call<DA, DD>()>;
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
        if constexpr (!is_array_v<DM> && !is_array_v<DB>)
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
    OMKM_HPP_TABLES_AGREE(DM, DB, DX);
    using R = route<F, key(km, kb), layout_call<DM, DB, DX>()>;
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
        using R = route<fam::eigsym, key(ka), is_table_v<DA>>;
        const int n = count_of(da);
        if (vo.room >= 0 && vo.room < static_cast<long long>(w) * n) return status::size_mismatch;
        return with_scratch<E>(buffer, elems, [&](E* s) {
            if constexpr (!is_array_v<DA>)
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
        OMKM_HPP_TABLES_AGREE(DA, DV);
        using R = route<fam::eigsymvec, key(ka, kind_of<DV>::value), layout_call<DA, DV>()>;
        const int n = common_count(da, dv);
        if (n == -2) return status::size_mismatch;
        if (dv.rows != w || dv.cols != w) return status::size_mismatch;
        if (vo.room >= 0 && vo.room < static_cast<long long>(w) * n) return status::size_mismatch;
        return with_scratch<E>(buffer, elems, [&](E* s) {
            if constexpr (!is_array_v<DA>)
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
            if constexpr (!is_array_v<DA>)
                return status(R::template call<E>(src(da.p), da.s1, da.s2, dv.p, dv.s1, dv.s2, vr.p, vi.p, w, s));
            else
                return status(R::template call<E>(src(da.p), da.s0, da.s1, da.s2, dv.p, dv.s0, dv.s1, dv.s2, vr.p,
                                                  vi.p, w, n, s));
        };
        if constexpr (!has_l && !has_r) {
            using R = route<fam::eig, key(ka), is_table_v<DA>>;
            if constexpr (!is_array_v<DA>)
                return status(R::template call<E>(src(da.p), da.s1, da.s2, vr.p, vi.p, w, s));
            else
                return status(R::template call<E>(src(da.p), da.s0, da.s1, da.s2, vr.p, vi.p, w, n, s));
        } else if constexpr (has_l && !has_r) {
            return strides(route<fam::eigleft, key(ka, ka), is_table_v<DA>>{}, dl);
        } else if constexpr (!has_l && has_r) {
            return strides(route<fam::eigright, key(ka, ka), is_table_v<DA>>{}, dr);
        } else {
            using R = route<fam::eigboth, key(ka, ka), is_table_v<DA>>;
            if constexpr (!is_array_v<DA>)
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
#undef OMKM_HPP_OR_THROW

}  // namespace omkm

#endif  // OMKM_HPP
