// A C++ program built against an installed omkm only, calling nothing but omkm* functions (see
// consumer.c): one 3x3 inverse and a product of arrays above the serial limit, checked.
#include <array>
#include <cstdio>
#include <vector>

#include "omkm.h"

int main() {
    const std::array<double, 9> a = {2, 0, 0, 0, 4, 0, 0, 0, 8};
    std::array<double, 9> inv{};
    std::array<double, 12> buffer{};
    const int row = 3 * sizeof(double), el = sizeof(double);
    OmkStatus st = omkmInvert_m_64f(a.data(), row, el, buffer.data(), inv.data(), row, el, 3);
    if (st != omkStsOk || inv[0] != 0.5 || inv[4] != 0.25 || inv[8] != 0.125) {
        std::printf("consumer_cxx: wrong inverse (status %d)\n", st);
        return 1;
    }
    using M = std::array<float, 16>;
    const int count = 1000, mat = sizeof(M), row4 = 4 * sizeof(float), el4 = sizeof(float);
    std::vector<M> x(count), y(count), z(count);
    for (int k = 0; k < count; ++k)
        for (int e = 0; e < 16; ++e) {
            x[k][e] = e % 5 == 0 ? float(k) : 0.0f;  // k times the identity
            y[k][e] = float(e);
        }
    st = omkmMul_mama_32f(x[0].data(), mat, row4, el4, 4, 4, y[0].data(), mat, row4, el4, 4, 4, z[0].data(), mat,
                          row4, el4, count);
    for (int k = 0; k < count && st == omkStsOk; ++k)
        for (int e = 0; e < 16; ++e)
            if (z[k][e] != float(k) * float(e)) st = omkStsBadSize;
    if (st != omkStsOk) {
        std::printf("consumer_cxx: wrong array product (status %d)\n", st);
        return 1;
    }
    std::printf("consumer_cxx: %s, inverse diagonal %g %g %g, %d products\n", omkmGetLibVersion()->version, inv[0],
                inv[4], inv[8], count);
    return 0;
}
