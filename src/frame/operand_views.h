// Operand views: where element (i, j) of object k lies, for each operand description.
//
// A kernel never sees raw pointers and strides. It asks a view for object k (`obj(k)`) and reads
// or writes that object's elements with `at(i, j)`. The parallel driver moves a view to the first
// object of a thread's slice with `from(first)`. The checks ask each view whether a pointer is
// null, whether its strides and its ROI shift are valid.
//
// Vectors are objects of one row: element j of a vector is element (0, j).
// A transposed operand is a matrix view with its row and column steps exchanged.
#pragma once
#include <cstdint>
#include <type_traits>

#include "frame/wrapping.h"

namespace omk {

// A stride is valid when it is a positive multiple of the element size; a ROI shift when it is a
// non-negative multiple of the element size.
template <class T>
constexpr bool strideOk(int32_t s) { return s >= 1 && s % int32_t(sizeof(T)) == 0; }
template <class T>
constexpr bool roiShiftOk(int32_t r) { return r >= 0 && r % int32_t(sizeof(T)) == 0; }

// How the elements of one object are reached.
enum class Layout { Strided, Scattered, Scalar };

// ---- one object ----

// Elements at p + i*rowStep + j*colStep bytes (standard and layout descriptions). With UnitCols
// the column step is the element size, known to the compiler, so rows are packed arrays.
template <class T, bool UnitCols = false>
struct StridedObject {
    T* p;
    ptrdiff_t rowStep, colStep;
    T* row(int i) const { return addBytes(p, i * rowStep); }
    T& at(int i, int j) const {
        if constexpr (UnitCols) return row(i)[j];
        else return *addBytes(p, i * rowStep + j * colStep);
    }
};

// One pointer per element (pointer description): element (i, j) is at
// pp[i*iStep + j*jStep] + shift.
template <class T>
struct ScatteredObject {
    T* const* pp;
    ptrdiff_t shift;
    int iStep, jStep;
    T& at(int i, int j) const { return *addBytes(pp[i * iStep + j * jStep], shift); }
};

// One scalar applied to every element; read once per object.
template <class T>
struct ScalarObject {
    std::remove_const_t<T> v;
    std::remove_const_t<T> at(int, int) const { return v; }
    std::remove_const_t<T> row(int) const { return v; }
};

// ---- operands ----

// Element steps of a matrix or vector: element (i, j) at i*s1 + j*s2 bytes from the object's start
// (transposed: j*s1 + i*s2); a vector has no s1.
template <class T>
struct ElementSteps {
    int32_t s1, s2;
    bool transposed;

    ptrdiff_t rowStep() const { return transposed ? s2 : s1; }
    ptrdiff_t colStep() const { return transposed ? s1 : s2; }
    // Each object is one packed run of width*height elements.
    bool denseObjects(int32_t w, int32_t h) const {
        return colStep() == ptrdiff_t(sizeof(T)) && (h == 1 || rowStep() == ptrdiff_t(w) * ptrdiff_t(sizeof(T)));
    }
    // The declared element stride is the element size.
    bool contiguous() const { return s2 == int32_t(sizeof(T)); }
};

// Standard description: base pointer and byte strides; object k of an array at p + k*s0.
template <class T, bool Array, bool Matrix>
struct StdView : ElementSteps<T> {
    using Elem = T;
    static constexpr Layout kLayout = Layout::Strided;
    static constexpr bool kArray = Array;
    static constexpr bool kMatrix = Matrix;
    T* p;
    int32_t s0;

    StridedObject<T> obj(int32_t k) const {
        return {Array ? addBytes(p, offset32(k, s0)) : p, this->rowStep(), this->colStep()};
    }
    StdView from(int32_t first) const {
        StdView v = *this;
        if (Array) v.p = addBytes(p, offset32(first, s0));
        return v;
    }
    // The whole array is one packed run of count*width*height elements.
    bool packed(int32_t w, int32_t h) const {
        return Array && this->denseObjects(w, h) && ptrdiff_t(s0) == ptrdiff_t(w) * h * ptrdiff_t(sizeof(T));
    }
    // Every offset k*s0 of objects 0..count-1 is formed without wrapping, so object k+1 starts s0
    // bytes after object k and a kernel may walk the objects by pointer additions.
    bool linear(int32_t count) const {
        return !Array || count < 2 || (int64_t(count - 1) * s0 <= INT32_MAX && int64_t(count - 1) * s0 >= INT32_MIN);
    }
    bool hasNull() const { return p == nullptr; }
    bool stridesOk() const {
        return (!Array || strideOk<T>(s0)) && (!Matrix || strideOk<T>(this->s1)) && strideOk<T>(this->s2);
    }
    bool roiOk() const { return true; }
};

// Layout description (arrays only): object k at pp[k] + shift, elements by strides as above.
template <class T, bool Matrix>
struct LayoutView : ElementSteps<T> {
    using Elem = T;
    static constexpr Layout kLayout = Layout::Strided;
    static constexpr bool kArray = true;
    static constexpr bool kMatrix = Matrix;
    T* const* pp;
    int32_t shift;

    StridedObject<T> obj(int32_t k) const { return {addBytes(pp[k], shift), this->rowStep(), this->colStep()}; }
    LayoutView from(int32_t first) const { LayoutView v = *this; v.pp = pp + first; return v; }
    bool packed(int32_t, int32_t) const { return false; }
    bool hasNull() const { return pp == nullptr; }
    bool stridesOk() const { return (!Matrix || strideOk<T>(this->s1)) && strideOk<T>(this->s2); }
    bool roiOk() const { return roiShiftOk<T>(shift); }
};

// Pointer description: pp holds one pointer per element in the stored matrix's row-major order;
// object k is reached by adding shift + k*s0 to each of them.
template <class T, bool Array, bool Matrix>
struct PointerView {
    using Elem = T;
    static constexpr Layout kLayout = Layout::Scattered;
    static constexpr bool kArray = Array;
    static constexpr bool kMatrix = Matrix;
    T* const* pp;
    int32_t shift, s0;
    int iStep, jStep;

    ScatteredObject<T> obj(int32_t k) const {
        return {pp, Array ? (Wrap32(shift) + Wrap32(k) * s0).value() : shift, iStep, jStep};
    }
    // A slice keeps the pointer table and grows the ROI shift.
    PointerView from(int32_t first) const {
        PointerView v = *this;
        if (Array) v.shift = (Wrap32(shift) + Wrap32(first) * s0).value();
        return v;
    }
    bool packed(int32_t, int32_t) const { return false; }
    bool contiguous() const { return false; }
    bool hasNull() const { return pp == nullptr; }
    bool stridesOk() const { return !Array || strideOk<T>(s0); }
    bool roiOk() const { return roiShiftOk<T>(shift); }
};

// A single constant passed by value.
template <class T>
struct ConstView {
    using Elem = const T;
    static constexpr Layout kLayout = Layout::Scalar;
    static constexpr bool kArray = false;
    T v;

    ScalarObject<T> obj(int32_t) const { return {v}; }
    ConstView from(int32_t) const { return *this; }
    bool packed(int32_t, int32_t) const { return true; }
    bool contiguous() const { return true; }
    bool hasNull() const { return false; }
    bool stridesOk() const { return true; }
    bool roiOk() const { return true; }
};

// An array of constants, one per object: at p + k*s0 (standard), or at pp[k] + shift (layout).
template <class T, bool Layout_>
struct ConstArrayView {
    using Elem = T;
    static constexpr Layout kLayout = Layout::Scalar;
    static constexpr bool kArray = true;
    T* p;
    T* const* pp;
    int32_t s0, shift;

    ScalarObject<T> obj(int32_t k) const {
        if constexpr (Layout_) return {*addBytes(pp[k], shift)};
        else return {*addBytes(p, offset32(k, s0))};
    }
    ConstArrayView from(int32_t first) const {
        ConstArrayView v = *this;
        if constexpr (Layout_) v.pp = pp + first;
        else v.p = addBytes(p, offset32(first, s0));
        return v;
    }
    bool packed(int32_t, int32_t) const { return false; }
    bool contiguous() const { return true; }
    bool hasNull() const { return Layout_ ? pp == nullptr : p == nullptr; }
    bool stridesOk() const { return Layout_ || strideOk<T>(s0); }
    bool roiOk() const { return !Layout_ || roiShiftOk<T>(shift); }
};

// A plain contiguous run of n elements per object, with no strides and no ROI shift (index arrays,
// value outputs, caller scratch): object k of an array starts at element k*n; a single run serves
// every object. Only its pointer is checked.
template <class T, bool Array>
struct RunView {
    using Elem = T;
    static constexpr bool kArray = Array;
    T* p;
    int32_t n;

    T* obj(int32_t k) const { return Array ? p + ptrdiff_t(k) * n : p; }
    RunView from(int32_t first) const { return {obj(first), n}; }
    bool hasNull() const { return p == nullptr; }
    bool stridesOk() const { return true; }
    bool roiOk() const { return true; }
};

// ---- builders, named after the operand forms of the exported functions ----

template <class T> StdView<T, false, true> mat(T* p, int32_t s1, int32_t s2) { return {{s1, s2, false}, p, 0}; }
template <class T> StdView<T, false, true> tmat(T* p, int32_t s1, int32_t s2) { return {{s1, s2, true}, p, 0}; }
template <class T> StdView<T, true, true> matArr(T* p, int32_t s0, int32_t s1, int32_t s2) { return {{s1, s2, false}, p, s0}; }
template <class T> StdView<T, true, true> tmatArr(T* p, int32_t s0, int32_t s1, int32_t s2) { return {{s1, s2, true}, p, s0}; }
template <class T> StdView<T, false, false> vec(T* p, int32_t s2) { return {{0, s2, false}, p, 0}; }
template <class T> StdView<T, true, false> vecArr(T* p, int32_t s0, int32_t s2) { return {{0, s2, false}, p, s0}; }

template <class T> LayoutView<T, true> matArrL(T** pp, int32_t shift, int32_t s1, int32_t s2) { return {{s1, s2, false}, pp, shift}; }
template <class T> LayoutView<T, true> tmatArrL(T** pp, int32_t shift, int32_t s1, int32_t s2) { return {{s1, s2, true}, pp, shift}; }
template <class T> LayoutView<T, false> vecArrL(T** pp, int32_t shift, int32_t s2) { return {{0, s2, false}, pp, shift}; }

// Pointer tables are in the stored matrix's row-major order: width*height entries for a matrix,
// and for a transposed operand the stored matrix has `width` rows of `height` entries.
template <class T> PointerView<T, false, true> matP(T** pp, int32_t shift, int32_t w, int32_t) { return {pp, shift, 0, w, 1}; }
template <class T> PointerView<T, false, true> tmatP(T** pp, int32_t shift, int32_t, int32_t h) { return {pp, shift, 0, 1, h}; }
template <class T> PointerView<T, true, true> matArrP(T** pp, int32_t shift, int32_t s0, int32_t w, int32_t) { return {pp, shift, s0, w, 1}; }
template <class T> PointerView<T, true, true> tmatArrP(T** pp, int32_t shift, int32_t s0, int32_t, int32_t h) { return {pp, shift, s0, 1, h}; }
template <class T> PointerView<T, false, false> vecP(T** pp, int32_t shift) { return {pp, shift, 0, 0, 1}; }
template <class T> PointerView<T, true, false> vecArrP(T** pp, int32_t shift, int32_t s0) { return {pp, shift, s0, 0, 1}; }

// A vector read as a column (element k at (k, 0)): the operand form of a vector that multiplies a
// matrix from the right, and of the vector a matrix-vector product writes.
template <class T> StdView<T, false, false> colVec(T* p, int32_t s2) { return {{0, s2, true}, p, 0}; }
template <class T> StdView<T, true, false> colVecArr(T* p, int32_t s0, int32_t s2) { return {{0, s2, true}, p, s0}; }
template <class T> LayoutView<T, false> colVecArrL(T** pp, int32_t shift, int32_t s2) { return {{0, s2, true}, pp, shift}; }
template <class T> PointerView<T, false, false> colVecP(T** pp, int32_t shift) { return {pp, shift, 0, 1, 0}; }
template <class T> PointerView<T, true, false> colVecArrP(T** pp, int32_t shift, int32_t s0) { return {pp, shift, s0, 1, 0}; }

template <class T> RunView<T, false> elems(T* p, int32_t n) { return {p, n}; }
template <class T> RunView<T, true> elemsArr(T* p, int32_t n) { return {p, n}; }

template <class T> ConstView<T> cnst(T v) { return {v}; }
template <class T> ConstArrayView<T, false> cnstArr(T* p, int32_t s0) { return {p, nullptr, s0, 0}; }
template <class T> ConstArrayView<T, true> cnstArrL(T** pp, int32_t shift) { return {nullptr, pp, 0, shift}; }

// Every element stride of the call is the element size. Pointer descriptions never are; constants
// always are.
template <class... V>
inline bool elementsContiguous(const V&... v) { return (v.contiguous() && ...); }

// Element views whose columns are packed (element stride = element size) are read through objects
// with the column step known to the compiler (unitCols). A column vector (column step 0) has only
// column 0, so any of its strides qualifies; a constant always does.
template <class V>
inline bool unitColumns(const V& v) {
    if constexpr (V::kLayout == Layout::Scalar) return true;
    else if constexpr (V::kLayout == Layout::Scattered) return false;
    else {
        const ptrdiff_t step = v.colStep();
        return step == ptrdiff_t(sizeof(std::remove_const_t<typename V::Elem>)) || (!V::kMatrix && step == 0);
    }
}
template <class T> inline StridedObject<T, true> unitCols(const StridedObject<T>& o) { return {o.p, o.rowStep, ptrdiff_t(sizeof(T))}; }
template <class T> inline ScalarObject<T> unitCols(const ScalarObject<T>& o) { return o; }

// Arrays walked by pointer additions: a standard description whose offsets k*s0 do not wrap
// (StdView::linear) has object k+1 objectBytes(v) bytes after object k. The other descriptions are
// reached through obj(k) only.
template <class V> struct IsStdView : std::false_type {};
template <class T, bool A, bool M> struct IsStdView<StdView<T, A, M>> : std::true_type {};
template <class V>
inline bool linearObjects(const V& v, int32_t count) {
    if constexpr (IsStdView<V>::value) return v.linear(count);
    else return false;
}
template <class V>
inline ptrdiff_t objectBytes(const V& v) {
    if constexpr (IsStdView<V>::value) return V::kArray ? v.s0 : 0;
    else return 0;
}

// Element objects of object k: packed columns when the call's views all have them.
template <bool Packed, class V>
auto objectOf(const V& v, int32_t k) {
    if constexpr (Packed) return unitCols(v.obj(k));
    else return v.obj(k);
}

// Sizes of one call: vectors are width = len, height = 1; single-object calls have count = 1.
struct Dims {
    int32_t width, height, count;
    bool sizesBad() const { return width < 1 || height < 1; }
    bool disagree() const { return false; }  // one shape for every operand
};

}  // namespace omk
