// Helpers of the 3D graphics suites: bit comparison of floats, guarded memory, random inputs, the
// four-lane row products of the point transforms, and a counter of inputs on which a rival
// rounding order gives other bits (so that a bit-for-bit comparison is known to be able to fail).
#pragma once
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "omkm.h"

namespace gfx {

using std::fma;

inline uint32_t bitsOf(float f) {
    uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}
// Equal bits, or NaN on both sides.
inline bool same(float a, float b) { return bitsOf(a) == bitsOf(b) || (std::isnan(a) && std::isnan(b)); }

inline ::testing::AssertionResult sameFloats(const float* got, const float* want, int n) {
    for (int i = 0; i < n; ++i)
        if (!same(got[i], want[i]))
            return ::testing::AssertionFailure() << "component " << i << ": got " << got[i] << " (0x" << std::hex
                                                 << bitsOf(got[i]) << "), want " << std::dec << want[i] << " (0x"
                                                 << std::hex << bitsOf(want[i]) << ")";
    return ::testing::AssertionSuccess();
}
inline bool anyDiffer(const float* a, const float* b, int n) {
    for (int i = 0; i < n; ++i)
        if (!same(a[i], b[i])) return true;
    return false;
}

// A byte buffer filled with a marker, its usable part starting on a 64-byte boundary, with at least
// 64 guard bytes before and after. `expectOnly` checks that nothing outside the given byte ranges
// changed since the last `snapshot`.
struct Arena {
    static constexpr unsigned char kMarker = 0xA5;
    std::vector<unsigned char> raw;
    size_t lead = 0, size = 0;
    std::vector<unsigned char> saved;

    explicit Arena(size_t n) : raw(n + 256, kMarker), size(n) {
        const uintptr_t p = reinterpret_cast<uintptr_t>(raw.data());
        lead = ((p + 63) & ~uintptr_t(63)) - p + 64;
        snapshot();
    }
    unsigned char* bytes(size_t off = 0) { return raw.data() + lead + off; }
    float* f(size_t byteOff = 0) { return reinterpret_cast<float*>(bytes(byteOff)); }
    void snapshot() { saved = raw; }
    bool unchanged() const { return raw == saved; }
    // True when every changed byte lies in one of the [begin, end) byte ranges (relative to bytes()).
    ::testing::AssertionResult changedOnlyIn(const std::vector<std::pair<size_t, size_t>>& ranges) const {
        for (size_t b = 0; b < raw.size(); ++b) {
            if (raw[b] == saved[b]) continue;
            bool inside = false;
            if (b >= lead)
                for (const auto& r : ranges) inside = inside || (b - lead >= r.first && b - lead < r.second);
            if (!inside) return ::testing::AssertionFailure() << "byte " << ptrdiff_t(b) - ptrdiff_t(lead) << " written";
        }
        return ::testing::AssertionSuccess();
    }
};

// Uniform in [-r, r], with all mantissa bits in play.
inline float uni(std::mt19937& g, float r = 4.0f) { return std::uniform_real_distribution<float>(-r, r)(g); }
inline void fill(std::mt19937& g, float* p, int n, float r = 4.0f) {
    for (int i = 0; i < n; ++i) p[i] = uni(g, r);
}

// Row vector times a 4x4 row-major matrix on four lanes: fma(x, M0, y*M1) + fma(z, M2, w*M3).
inline void rowTimes4(const float* v, const float* m, float* out) {
    for (int j = 0; j < 4; ++j) out[j] = fma(v[0], m[j], v[1] * m[4 + j]) + fma(v[2], m[8 + j], v[3] * m[12 + j]);
}

// Runs `call` on a guarded destination; checks omkStsOk and that only the first n floats were
// written; returns them.
template <class F>
std::vector<float> runInto(int n, F&& call) {
    Arena a(64);
    EXPECT_EQ(call(a.f()), omkStsOk);
    EXPECT_TRUE(a.changedOnlyIn({{0, size_t(4 * n)}}));
    return std::vector<float>(a.f(), a.f() + n);
}

// Counts the inputs on which a rival order's result differs from the documented one.
struct Rival {
    std::string what;
    int differs = 0, seen = 0;
    explicit Rival(std::string w) : what(std::move(w)) {}
    void note(const float* documented, const float* rival, int n) {
        ++seen;
        differs += anyDiffer(documented, rival, n);
    }
    ~Rival() { EXPECT_GT(differs, 0) << what << ": no input of " << seen << " separates it from the documented order"; }
};

}  // namespace gfx
