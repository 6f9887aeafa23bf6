// A workload that spans the library's families for the reliability tests: one call per job, its
// inputs made once and only read, its outputs and its caller buffer supplied by whoever runs it, so
// that many threads can run the same job at once on disjoint memory. Job sizes come in two scales:
// Parallel puts every array call above its family's serial limit (with count >= 4, so budgets up
// to 4 split it), Small keeps every call below its limit with count 2.
#pragma once
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "omkm.h"

namespace rel {

using Bytes = std::vector<unsigned char>;

struct Job {
    std::string name;
    std::vector<size_t> outBytes;  // outputs the call writes, compared bit for bit
    size_t bufferBytes = 0;        // the caller's scratch (pBuffer); its contents are not compared
    size_t scratchPerThread = 0;   // work space the parallel path needs per thread (0: none)
    std::function<OmkStatus(Bytes* outs, unsigned char* buffer)> run;
};

// Output and scratch memory for one run of a job, made before the call.
struct Slot {
    std::vector<Bytes> outs;
    Bytes buffer;
    void prepare(const Job& j) {
        outs.resize(j.outBytes.size());
        for (size_t i = 0; i < outs.size(); ++i) outs[i].assign(j.outBytes[i], 0xA5);
        buffer.assign(j.bufferBytes + 64, 0x5A);
    }
    OmkStatus call(const Job& j) { return j.run(outs.data(), buffer.data()); }
};

enum class Scale { Parallel, Small };

namespace detail {

template <class T> std::shared_ptr<const std::vector<T>> shared(std::vector<T> v) {
    return std::make_shared<const std::vector<T>>(std::move(v));
}

// count matrices of rows x cols, packed, entries in [-1, 1]; `diag` added to the diagonal and
// `symmetric` mirroring the lower triangle make them well conditioned or symmetric.
template <class T>
std::vector<T> matrices(std::mt19937& rng, int rows, int cols, int count, double diag = 0, bool symmetric = false) {
    std::uniform_real_distribution<double> u(-1, 1);
    std::vector<T> m(size_t(rows) * cols * count);
    for (int k = 0; k < count; ++k) {
        T* a = m.data() + size_t(k) * rows * cols;
        for (int i = 0; i < rows; ++i)
            for (int j = 0; j < cols; ++j) a[i * cols + j] = T(u(rng));
        if (symmetric)
            for (int i = 0; i < rows; ++i)
                for (int j = i + 1; j < cols; ++j) a[i * cols + j] = a[j * cols + i];
        for (int i = 0; i < rows && i < cols; ++i) a[i * cols + i] = T(a[i * cols + i] + diag);
    }
    return m;
}

// Pointer table of a layout-described (_L) operand over packed objects of `objElems` elements (a
// job keeps the objects alive beside the table).
template <class T> std::vector<const T*> perObject(const std::vector<T>& v, int count, size_t objElems) {
    std::vector<const T*> p(count);
    for (int k = 0; k < count; ++k) p[k] = v.data() + size_t(k) * objElems;
    return p;
}

template <class T> T* as(Bytes* outs, int i) { return reinterpret_cast<T*>(outs[i].data()); }

}  // namespace detail

// The jobs: element-wise (Add, Sub, Saxpy, LComb), products (Mul, Mul by a constant, Dot, Cross,
// norms, trace, Gaxpy), solvers (LU, Cholesky, QR, Det, Invert), both eigenproblems and graphics
// (the checked point transform over the driver and unchecked fixed-size helpers).
inline std::vector<Job> makeJobs(Scale scale, unsigned seed = 7) {
    using namespace detail;
    std::mt19937 rng(seed);
    const bool par = scale == Scale::Parallel;
    auto pick = [par](int parallelCount) { return par ? parallelCount : 2; };
    std::vector<Job> jobs;
    auto add = [&](std::string name, std::vector<size_t> outs, size_t buffer, size_t scratch,
                   std::function<OmkStatus(Bytes*, unsigned char*)> run) {
        jobs.push_back(Job{std::move(name), std::move(outs), buffer, scratch, std::move(run)});
    };

    // ---- element-wise ----
    {   // 4x4, work 3 * count * 16 >= 3000 from count 63; source rows padded (strided elements).
        const int n = 4, count = pick(200);
        auto a = shared(matrices<float>(rng, n, 2 * n, count)), b = shared(matrices<float>(rng, n, n, count));
        add("Add_mama_32f", {size_t(n * n * count) * 4}, 0, 0, [=](Bytes* o, unsigned char*) {
            return omkmAdd_mama_32f(a->data(), 2 * n * n * 4, 2 * n * 4, 8, b->data(), n * n * 4, n * 4, 4,
                                    as<float>(o, 0), n * n * 4, n * 4, 4, n, n, count);
        });
    }
    {   // vca: len * (count + 1) + count > 1400 (64f standard).
        const int len = 9, count = pick(200);
        auto v = shared(matrices<double>(rng, 1, len, 1)), c = shared(matrices<double>(rng, 1, 1, count));
        add("Sub_cav_64f", {size_t(len * count) * 8}, 0, 0, [=](Bytes* o, unsigned char*) {
            return omkmSub_cav_64f(v->data(), 8, c->data(), 8, as<double>(o, 0), len * 8, 8, len, count);
        });
    }
    {   // 3 * count * len > 3000.
        const int len = 16, count = pick(100);
        auto x = shared(matrices<double>(rng, count, len, 1)), y = shared(matrices<double>(rng, count, len, 1));
        add("Saxpy_vava_64f", {size_t(len * count) * 8}, 0, 0, [=](Bytes* o, unsigned char*) {
            return omkmSaxpy_vava_64f(x->data(), len * 8, 8, 1.0 / 3, y->data(), len * 8, 8, as<double>(o, 0),
                                      len * 8, 8, len, count);
        });
    }
    {   // 3 * count * len > 4500.
        const int len = 17, count = pick(120);
        auto x = shared(matrices<float>(rng, count, len, 1)), y = shared(matrices<float>(rng, count, len, 1));
        add("LComb_vava_32f", {size_t(len * count) * 4}, 0, 0, [=](Bytes* o, unsigned char*) {
            return omkmLComb_vava_32f(x->data(), len * 4, 4, 0.7f, y->data(), len * 4, 4, -1.3f, as<float>(o, 0),
                                      len * 4, 4, len, count);
        });
    }

    // ---- products ----
    {   // 5x5 by 5x5: work 75 * count > 2500.
        const int n = 5, count = pick(100);
        auto a = shared(matrices<float>(rng, n, n, count)), b = shared(matrices<float>(rng, n, n, count));
        add("Mul_mama_32f", {size_t(n * n * count) * 4}, 0, 0, [=](Bytes* o, unsigned char*) {
            return omkmMul_mama_32f(a->data(), n * n * 4, n * 4, 4, n, n, b->data(), n * n * 4, n * 4, 4, n, n,
                                    as<float>(o, 0), n * n * 4, n * 4, 4, count);
        });
    }
    {   // 7x3 by an array of 3x9 (general loop): work 21 + count * (27 + 63) > 3600.
        const int count = pick(60);
        auto a = shared(matrices<double>(rng, 7, 3, 1)), b = shared(matrices<double>(rng, 3, 9, count));
        add("Mul_mma_64f", {size_t(63 * count) * 8}, 0, 0, [=](Bytes* o, unsigned char*) {
            return omkmMul_mma_64f(a->data(), 3 * 8, 8, 3, 7, b->data(), 27 * 8, 9 * 8, 8, 9, 3, as<double>(o, 0),
                                   63 * 8, 9 * 8, 8, count);
        });
    }
    {   // 2 * 3 * 4 * count > 3500.
        const int count = pick(200);
        auto a = shared(matrices<float>(rng, 4, 3, count));
        add("Mul_mac_32f", {size_t(12 * count) * 4}, 0, 0, [=](Bytes* o, unsigned char*) {
            return omkmMul_mac_32f(a->data(), 48, 12, 4, 2.5f, as<float>(o, 0), 48, 12, 4, 3, 4, count);
        });
    }
    {   // _L: 2 * len * count > 5000.
        const int len = 33, count = pick(100);
        auto x = shared(matrices<float>(rng, count, len, 1)), y = shared(matrices<float>(rng, count, len, 1));
        auto px = std::make_shared<std::vector<const float*>>(perObject(*x, count, len));
        auto py = std::make_shared<std::vector<const float*>>(perObject(*y, count, len));
        add("DotProduct_vava_32f_L", {size_t(count) * 4}, 0, 0, [=, keep = std::make_pair(x, y)](Bytes* o, unsigned char*) {
            return omkmDotProduct_vava_32f_L(px->data(), 0, 4, py->data(), 0, 4, as<float>(o, 0), len, count);
        });
    }
    {   // 3 * count > 3000.
        const int count = pick(1100);
        auto x = shared(matrices<float>(rng, count, 3, 1)), y = shared(matrices<float>(rng, count, 3, 1));
        add("CrossProduct_vava_32f", {size_t(3 * count) * 4}, 0, 0, [=](Bytes* o, unsigned char*) {
            return omkmCrossProduct_vava_32f(x->data(), 12, 4, y->data(), 12, 4, as<float>(o, 0), 12, 4, count);
        });
    }
    {   // len * count > 1500.
        const int len = 20, count = pick(100);
        auto x = shared(matrices<double>(rng, count, len, 1));
        add("L2Norm_va_64f", {size_t(count) * 8}, 0, 0, [=](Bytes* o, unsigned char*) {
            return omkmL2Norm_va_64f(x->data(), len * 8, 8, as<double>(o, 0), len, count);
        });
    }
    {   // width * height * count > 2500; widthHeight * count > 3600.
        const int count = pick(800);
        auto a = shared(matrices<float>(rng, 5, 5, count));
        add("FrobNorm_ma_32f", {size_t(count) * 4}, 0, 0, [=](Bytes* o, unsigned char*) {
            return omkmFrobNorm_ma_32f(a->data(), 100, 20, 4, 5, 5, as<float>(o, 0), count);
        });
        add("Trace_ma_32f", {size_t(count) * 4}, 0, 0, [=](Bytes* o, unsigned char*) {
            return omkmTrace_ma_32f(a->data(), 100, 20, 4, 5, as<float>(o, 0), count);
        });
    }
    {   // (6 + 2 * 6) * count > 7000.
        const int n = 6, count = pick(500);
        auto a = shared(matrices<float>(rng, n, n, 1)), x = shared(matrices<float>(rng, count, n, 1)),
             b = shared(matrices<float>(rng, count, n, 1));
        add("Gaxpy_mva_32f", {size_t(n * count) * 4}, 0, 0, [=](Bytes* o, unsigned char*) {
            return omkmGaxpy_mva_32f(a->data(), n * 4, 4, n, n, x->data(), n * 4, 4, n, b->data(), n * 4, 4, n,
                                     as<float>(o, 0), n * 4, 4, count);
        });
    }

    // ---- solvers ----
    {   // LU, n = 7 (general loop): n * n * count >= 1001; (n + 2) * n * count >= 1201.
        const int n = 7, count = pick(40);
        const auto a = matrices<double>(rng, n, n, count, n);
        std::vector<double> lu(a.size());
        std::vector<int> p(size_t(n) * count);
        omkmLUDecomp_ma_64f(a.data(), n * n * 8, n * 8, 8, p.data(), lu.data(), n * n * 8, n * 8, 8, n, count);
        auto A = shared(a), LU = shared(lu);
        auto P = std::make_shared<const std::vector<int>>(p);
        auto b = shared(matrices<double>(rng, count, n, 1));
        add("LUDecomp_ma_64f", {size_t(n * n * count) * 8, size_t(n * count) * 4}, 0, 0, [=](Bytes* o, unsigned char*) {
            return omkmLUDecomp_ma_64f(A->data(), n * n * 8, n * 8, 8, as<int>(o, 1), as<double>(o, 0), n * n * 8,
                                       n * 8, 8, n, count);
        });
        add("LUBackSubst_mava_64f", {size_t(n * count) * 8}, 0, 0, [=](Bytes* o, unsigned char*) {
            return omkmLUBackSubst_mava_64f(LU->data(), n * n * 8, n * 8, 8, P->data(), b->data(), n * 8, 8,
                                            as<double>(o, 0), n * 8, 8, n, count);
        });
    }
    {   // Cholesky, n = 5: n * n * count >= 7501; (n + 2) * n * count >= 2051.
        const int n = 5, count = pick(320);
        const auto a = matrices<float>(rng, n, n, count, n, true);
        std::vector<float> l(a.size());
        omkmCholeskyDecomp_ma_32f(a.data(), n * n * 4, n * 4, 4, l.data(), n * n * 4, n * 4, 4, n, count);
        auto A = shared(a), L = shared(l);
        auto b = shared(matrices<float>(rng, count, n, 1));
        add("CholeskyDecomp_ma_32f", {size_t(n * n * count) * 4}, 0, 0, [=](Bytes* o, unsigned char*) {
            return omkmCholeskyDecomp_ma_32f(A->data(), n * n * 4, n * 4, 4, as<float>(o, 0), n * n * 4, n * 4, 4,
                                             n, count);
        });
        add("CholeskyBackSubst_mava_32f", {size_t(n * count) * 4}, 0, 0, [=](Bytes* o, unsigned char*) {
            return omkmCholeskyBackSubst_mava_32f(L->data(), n * n * 4, n * 4, 4, b->data(), n * 4, 4,
                                                  as<float>(o, 0), n * 4, 4, n, count);
        });
    }
    {   // QR of 6 x 4 (height x width): 2 * w * h * count >= 2801; (w * (h + 1) + h) * count >= 2801.
        const int w = 4, h = 6, count = pick(100);
        const auto a = matrices<float>(rng, h, w, count, 2);
        std::vector<float> f(a.size()), buf(h);
        omkmQRDecomp_ma_32f(a.data(), w * h * 4, w * 4, 4, buf.data(), f.data(), w * h * 4, w * 4, 4, w, h, count);
        auto A = shared(a), F = shared(f);
        auto b = shared(matrices<float>(rng, count, h, 1));
        add("QRDecomp_ma_32f", {size_t(w * h * count) * 4}, size_t(h) * 4, size_t(h) * 4,
            [=](Bytes* o, unsigned char* buffer) {
                return omkmQRDecomp_ma_32f(A->data(), w * h * 4, w * 4, 4, reinterpret_cast<float*>(buffer),
                                           as<float>(o, 0), w * h * 4, w * 4, 4, w, h, count);
            });
        add("QRBackSubst_mava_32f", {size_t(w * count) * 4}, size_t(h) * 4, size_t(h) * 4,
            [=](Bytes* o, unsigned char* buffer) {
                return omkmQRBackSubst_mava_32f(F->data(), w * h * 4, w * 4, 4, reinterpret_cast<float*>(buffer),
                                                b->data(), h * 4, 4, as<float>(o, 0), w * 4, 4, w, h, count);
            });
    }
    {   // Det, n = 7 by elimination: n * count >= 14401; _L n = 4 closed form, 64f.
        const int n = 7, count = pick(2100);
        auto a = shared(matrices<float>(rng, n, n, count, 1));
        const size_t per = size_t(n * n) * 4 + size_t(n) * 4;
        add("Det_ma_32f", {size_t(count) * 4}, per, per, [=](Bytes* o, unsigned char* buffer) {
            return omkmDet_ma_32f(a->data(), n * n * 4, n * 4, 4, n, reinterpret_cast<float*>(buffer),
                                  as<float>(o, 0), count);
        });
        const int m = 4, count4 = pick(3700);
        auto b = shared(matrices<double>(rng, m, m, count4, 1));
        auto pb = std::make_shared<std::vector<const double*>>(perObject(*b, count4, m * m));
        const size_t per4 = size_t(m * m) * 8 + size_t(m) * 4;
        add("Det_ma_64f_L", {size_t(count4) * 8}, per4, per4, [=, keep = b](Bytes* o, unsigned char* buffer) {
            return omkmDet_ma_64f_L(pb->data(), 0, m * 8, 8, m, reinterpret_cast<double*>(buffer), as<double>(o, 0),
                                    count4);
        });
    }
    {   // Invert: n = 8 by minors (64f), n = 3 adjugate (32f): 2 * n * count > 3600.
        const int n = 8, count = pick(240);
        auto a = shared(matrices<double>(rng, n, n, count, n));
        const size_t per = size_t(n * n) * 8 + size_t(n) * 4;
        add("Invert_ma_64f", {size_t(n * n * count) * 8}, per, per, [=](Bytes* o, unsigned char* buffer) {
            return omkmInvert_ma_64f(a->data(), n * n * 8, n * 8, 8, reinterpret_cast<double*>(buffer),
                                     as<double>(o, 0), n * n * 8, n * 8, 8, n, count);
        });
        const int m = 3, count3 = pick(700);
        auto b = shared(matrices<float>(rng, m, m, count3, m));
        const size_t per3 = size_t(m * m) * 4 + size_t(m) * 4;
        add("Invert_ma_32f", {size_t(m * m * count3) * 4}, per3, per3, [=](Bytes* o, unsigned char* buffer) {
            return omkmInvert_ma_32f(b->data(), m * m * 4, m * 4, 4, reinterpret_cast<float*>(buffer),
                                     as<float>(o, 0), m * m * 4, m * 4, 4, m, count3);
        });
    }

    // ---- eigenproblems ----
    {   // Symmetric: values n (n + 1) count >= 1001; vectors n (2n + 1) count >= 701.
        const int n = 6, count = pick(30);
        auto a = shared(matrices<float>(rng, n, n, count, 0, true));
        auto pa = std::make_shared<std::vector<const float*>>(perObject(*a, count, n * n));
        add("EigenValuesSym_ma_32f_L", {size_t(n * count) * 4}, size_t(n * n) * 4, size_t(n * n) * 4,
            [=, keep = a](Bytes* o, unsigned char* buffer) {
                return omkmEigenValuesSym_ma_32f_L(pa->data(), 0, n * 4, 4, reinterpret_cast<float*>(buffer),
                                                   as<float>(o, 0), n, count);
            });
        const int m = 5, countV = pick(20);
        auto b = shared(matrices<double>(rng, m, m, countV, 0, true));
        add("EigenValuesVectorsSym_ma_64f", {size_t(m * m * countV) * 8, size_t(m * countV) * 8}, size_t(m * m) * 8,
            size_t(m * m) * 8, [=](Bytes* o, unsigned char* buffer) {
                return omkmEigenValuesVectorsSym_ma_64f(b->data(), m * m * 8, m * 8, 8,
                                                        reinterpret_cast<double*>(buffer), as<double>(o, 0), m * m * 8,
                                                        m * 8, 8, as<double>(o, 1), m, countV);
            });
    }
    {   // General: values n (n + 1) count >= 251; vectors n (3n + 1) count >= 501.
        const int n = 5, count = pick(20);
        auto a = shared(matrices<float>(rng, n, n, count));
        const size_t vals = size_t(n * (n + 5)) * 4, vecs = size_t(n * (3 * n + 5)) * 4;
        add("EigenValues_ma_32f", {size_t(n * count) * 4, size_t(n * count) * 4}, vals, vals,
            [=](Bytes* o, unsigned char* buffer) {
                return omkmEigenValues_ma_32f(a->data(), n * n * 4, n * 4, 4, as<float>(o, 0), as<float>(o, 1), n,
                                              count, reinterpret_cast<float*>(buffer));
            });
        add("EigenValuesVectorsLeft_ma_32f", {size_t(n * n * count) * 4, size_t(n * count) * 4, size_t(n * count) * 4},
            vecs, vecs, [=](Bytes* o, unsigned char* buffer) {
                return omkmEigenValuesVectorsLeft_ma_32f(a->data(), n * n * 4, n * 4, 4, as<float>(o, 0), n * n * 4,
                                                         n * 4, 4, as<float>(o, 1), as<float>(o, 2), n, count,
                                                         reinterpret_cast<float*>(buffer));
            });
        const int m = 4, countD = pick(20);
        auto b = shared(matrices<double>(rng, m, m, countD));
        const size_t vecsD = size_t(m * (3 * m + 5)) * 8;
        add("EigenValuesVectorsRight_ma_64f",
            {size_t(m * m * countD) * 8, size_t(m * countD) * 8, size_t(m * countD) * 8}, vecsD, vecsD,
            [=](Bytes* o, unsigned char* buffer) {
                return omkmEigenValuesVectorsRight_ma_64f(b->data(), m * m * 8, m * 8, 8, as<double>(o, 0), m * m * 8,
                                                          m * 8, 8, as<double>(o, 1), as<double>(o, 2), m, countD,
                                                          reinterpret_cast<double*>(buffer));
            });
        add("EigenValuesVectors_ma_64f",
            {size_t(m * m * countD) * 8, size_t(m * m * countD) * 8, size_t(m * countD) * 8, size_t(m * countD) * 8},
            vecsD, vecsD, [=](Bytes* o, unsigned char* buffer) {
                return omkmEigenValuesVectors_ma_64f(b->data(), m * m * 8, m * 8, 8, as<double>(o, 0), m * m * 8,
                                                     m * 8, 8, as<double>(o, 1), m * m * 8, m * 8, 8,
                                                     as<double>(o, 2), as<double>(o, 3), m, countD,
                                                     reinterpret_cast<double*>(buffer));
            });
    }

    // ---- graphics ----
    {   // 6 * count > 784.
        const int count = pick(150);
        auto m = shared(matrices<float>(rng, 4, 4, 1)), v = shared(matrices<float>(rng, count, 4, 1));
        add("AffineTransform3DH_mva_32f", {size_t(4 * count) * 4}, 0, 0, [=](Bytes* o, unsigned char*) {
            return omkmAffineTransform3DH_mva_32f(m->data(), 16, 4, v->data(), 16, 4, as<float>(o, 0), 16, 4, count);
        });
        auto axis = shared(matrices<float>(rng, 1, 3, 1));
        add("graphics fixed-size helpers", {16 * 4 * 3 + 4 * 4 * size_t(count)}, 0, 0, [=](Bytes* o, unsigned char*) {
            float* d = as<float>(o, 0);
            OmkStatus st = omkmRotationAxis_v3m4_32f(axis->data(), 0.75f, d);
            st = st ? st : omkmMulTranspose_m4_32f(d, m->data(), d + 16);
            st = st ? st : omkmPerspectiveFovRH_m4_32f(1.1f, 1.5f, 0.1f, 100.0f, d + 32);
            st = st ? st : omkmAffineTransform_m4v3a_32f(d + 16, v->data(), 16, d + 48, 16, count);
            return st;
        });
    }
    return jobs;
}

}  // namespace rel
