// A C++17 program through the installed header-only interface omkm.hpp and the same CMake package:
// an array of 2x2 matrices held as std::array rows, added to a second array and multiplied by one
// matrix, with strides and the exports (Add_mama_64f, Mul_mam_64f) taken from the types.
#include <array>
#include <cstdio>
#include <vector>

#include "omkm.hpp"

using M2 = std::array<std::array<double, 2>, 2>;

int main() {
    constexpr int kCount = 500;
    std::vector<M2> a(kCount), b(kCount), sum(kCount), prod(kCount);
    for (int k = 0; k < kCount; ++k) {
        a[k] = M2{{{{1.0 * k, 1.0}}, {{2.0, 3.0}}}};
        b[k] = M2{{{{1.0, 2.0 * k}}, {{0.5, 0.25}}}};
    }
    const M2 turn{{{{0.0, 1.0}}, {{-1.0, 0.0}}}};
    if (omkm::add(a, b, sum) != omkm::status::ok || omkm::mul(sum, turn, prod) != omkm::status::ok) {
        std::printf("consumer_hpp: a call failed\n");
        return 1;
    }
    for (int k = 0; k < kCount; ++k) {
        const M2& s = sum[k];
        const M2 want{{{{-s[0][1], s[0][0]}}, {{-s[1][1], s[1][0]}}}};  // s @ turn
        if (s[0][0] != 1.0 * k + 1 || s[0][1] != 1.0 + 2.0 * k || prod[k] != want) {
            std::printf("consumer_hpp: wrong result for matrix %d\n", k);
            return 1;
        }
    }
    std::printf("consumer_hpp: %d sums and products through omkm.hpp\n", kCount);
    return 0;
}
