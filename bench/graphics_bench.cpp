// omkm_bench, point transforms against what graphics code calls today:
//
//   BM_<who>_Transform_m4v3a_32f/C      C packed 3-vectors (x, y, z) through one 4x4 transform,
//                                       4 floats out per point: omkmAffineTransform_m4v3a_32f, a
//                                       plain loop, glm (mat4 * vec4 with the row-major storage read
//                                       as a glm matrix, which is the row-vector product), Eigen
//                                       Affine3f (the transposed matrix, column vectors, 3 floats
//                                       out); C = 1000 (in cache) and 1000000 (beyond it)
//   BM_<who>_Transform_m4v3a_32f_records/C  the same points in 16-byte records (srcStride0 = 16):
//                                       omkmAffineTransform_m4v3a_32f and the plain loop
//   BM_<who>_Transform_m4v3_32f/C       the same points, one call per point: the single-vector
//                                       omkmAffineTransform_m4v3_32f, glm and Eigen as above
//
// The 4x4 product and inverse per call are the rows BM_*_Mul_mm4x4 / BM_*_Mul_mama_32f/4x4 and
// BM_*_Invert4_32f. bytes_per_second counts 12 bytes read and 16 written per point, to set against
// BM_stream_add_64f. Every row is checked once before timing against a double-precision product.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <string>

#include "bench_common.h"
#include "omkm.h"

#ifdef OMKM_BENCH_HAVE_EIGEN
#include <Eigen/Geometry>
#endif
#ifdef OMKM_BENCH_HAVE_GLM
#include <glm/glm.hpp>
#endif

namespace {

using namespace omkm_bench;

struct Points {
    int count = 0;
    float m[16];
    Array<float> src, dst;
    Array<float> records;  // the same points in 16-byte records (x, y, z, 1)
};

Points& points(int count) {
    static std::map<int, Points> cache;
    Points& p = cache[count];
    if (p.src) return p;
    p.count = count;
    p.src = alignedArray<float>(size_t(count) * 3);
    p.dst = alignedArray<float>(size_t(count) * 4);
    std::mt19937 gen(0x6d34U + unsigned(count));
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    for (int i = 0; i < 16; ++i) p.m[i] = u(gen) + (i % 5 == 0 ? 2.0f : 0.0f);
    for (size_t i = 0; i < size_t(count) * 3; ++i) p.src[i] = 10.0f * u(gen);
    p.records = alignedArray<float>(size_t(count) * 4);
    for (size_t k = 0; k < size_t(count); ++k)
        for (int j = 0; j < 4; ++j) p.records[4 * k + size_t(j)] = j < 3 ? p.src[3 * k + size_t(j)] : 1.0f;
    return p;
}

using Run = int (*)(Points&);
// Eigen writes 3 floats per point (its Vector3f result); the others 4.
template <int W>
std::string check(Points& p, Run run) {
    std::fill(p.dst.get(), p.dst.get() + size_t(p.count) * 4, std::numeric_limits<float>::quiet_NaN());
    if (const int st = run(p)) return "returned status " + std::to_string(st);
    for (int k = 0; k < p.count; ++k)
        for (int j = 0; j < W; ++j) {
            const float* s = p.src.get() + 3 * size_t(k);
            const double r = double(s[0]) * p.m[j] + double(s[1]) * p.m[4 + j] + double(s[2]) * p.m[8 + j] + p.m[12 + j];
            if (!(std::fabs(p.dst[4 * size_t(k) + j] - r) <= 1e-4 * (1 + std::fabs(r))))
                return "point " + std::to_string(k) + " differs";
        }
    return {};
}

int omkmArray(Points& p) { return omkmAffineTransform_m4v3a_32f(p.m, p.src.get(), 12, p.dst.get(), 16, p.count); }
int omkmRecords(Points& p) { return omkmAffineTransform_m4v3a_32f(p.m, p.records.get(), 16, p.dst.get(), 16, p.count); }
int omkmSingle(Points& p) {
    int st = 0;
    for (int k = 0; k < p.count; ++k) st |= omkmAffineTransform_m4v3_32f(p.m, p.src.get() + 3 * k, p.dst.get() + 4 * k);
    return st;
}
// What a user writes: the row-vector product, one output component at a time.
__attribute__((noinline)) int plainLoop(Points& p) {
    const float* m = p.m;
    for (int k = 0; k < p.count; ++k) {
        const float* s = p.src.get() + 3 * k;
        float* d = p.dst.get() + 4 * k;
        for (int j = 0; j < 4; ++j) d[j] = s[0] * m[j] + s[1] * m[4 + j] + s[2] * m[8 + j] + m[12 + j];
    }
    return 0;
}
__attribute__((noinline)) int plainRecords(Points& p) {
    const float* m = p.m;
    for (int k = 0; k < p.count; ++k) {
        const float* s = p.records.get() + 4 * k;
        float* d = p.dst.get() + 4 * k;
        for (int j = 0; j < 4; ++j) d[j] = s[0] * m[j] + s[1] * m[4 + j] + s[2] * m[8 + j] + m[12 + j];
    }
    return 0;
}
#ifdef OMKM_BENCH_HAVE_GLM
__attribute__((noinline)) int glmTransform(Points& p) {
    glm::mat4 m;
    std::memcpy(static_cast<void*>(&m), p.m, sizeof m);
    for (int k = 0; k < p.count; ++k) {
        const float* s = p.src.get() + 3 * k;
        const glm::vec4 r = m * glm::vec4(s[0], s[1], s[2], 1.0f);
        std::memcpy(p.dst.get() + 4 * k, &r, sizeof r);
    }
    return 0;
}
#endif
#ifdef OMKM_BENCH_HAVE_EIGEN
__attribute__((noinline)) int eigenTransform(Points& p) {
    Eigen::Affine3f t;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 4; ++j) t(i, j) = p.m[4 * j + i];  // column vectors: the transposed matrix
    for (int k = 0; k < p.count; ++k)
        Eigen::Map<Eigen::Vector3f>(p.dst.get() + 4 * k) = t * Eigen::Map<const Eigen::Vector3f>(p.src.get() + 3 * k);
    return 0;
}
#endif

void BM_points(benchmark::State& state, const std::string& name, Points* p, Run run, std::function<std::string()> chk) {
    const int threads = applyBudget(1);
    const std::string error = checkOnce(name, chk);
    if (error.empty())
        for (auto _ : state) {
            benchmark::DoNotOptimize(run(*p));
            benchmark::ClobberMemory();
        }
    applyBudget(0);
    if (!error.empty()) {
        state.SkipWithError((name + ": " + error).c_str());
        return;
    }
    finishTraffic(state, size_t(p->count), 12 + 16, threads);
}

template <int W>
void row(const std::string& name, Points* p, Run run) {
    benchmark::RegisterBenchmark(name.c_str(), BM_points, name, p, run,
                                 std::function<std::string()>([p, run] { return check<W>(*p, run); }))
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
}

bool registerAll() {
    for (int count : {kInCache, kOutOfCache}) {
        Points* p = &points(count);
        const std::string c = "/" + std::to_string(count);
        row<4>("BM_omkm_Transform_m4v3a_32f" + c, p, omkmArray);
        row<4>("BM_plain_Transform_m4v3a_32f" + c, p, plainLoop);
#ifdef OMKM_BENCH_HAVE_GLM
        row<4>("BM_glm_Transform_m4v3a_32f" + c, p, glmTransform);
#endif
#ifdef OMKM_BENCH_HAVE_EIGEN
        row<3>("BM_eigen_Transform_m4v3a_32f" + c, p, eigenTransform);
#endif
        row<4>("BM_omkm_Transform_m4v3a_32f_records" + c, p, omkmRecords);
        row<4>("BM_plain_Transform_m4v3a_32f_records" + c, p, plainRecords);
        if (count == kInCache) row<4>("BM_omkm_Transform_m4v3_32f" + c, p, omkmSingle);
    }
    return true;
}

[[maybe_unused]] const bool registered = registerAll();

}  // namespace
