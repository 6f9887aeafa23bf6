/* A program built against an installed omkm only, calling nothing but omkm* functions: a linker
 * that drops unused libraries (--as-needed) then records libomkm alone, and the program starts only
 * if the installed libomkm finds libomkcore itself. One single-object product and one array add
 * above the serial limit (it asks libomkcore for the thread budget), their results checked. */
#include <stdio.h>

#include "omkm.h"

enum { kCount = 2000 };
static Omk32f gA[kCount][2][2], gB[kCount][2][2], gSum[kCount][2][2];

int main(void) {
    const Omk32f a[2][2] = {{1, 2}, {3, 4}}, b[2][2] = {{10, 20}, {30, 40}};
    const int row = (int)sizeof a[0], el = (int)sizeof(Omk32f), mat = (int)sizeof gA[0];
    Omk32f prod[2][2];
    OmkStatus st = omkmMul_mm_32f(&a[0][0], row, el, 2, 2, &b[0][0], row, el, 2, 2, &prod[0][0], row, el);
    if (st != omkStsOk || prod[0][0] != 70 || prod[0][1] != 100 || prod[1][0] != 150 || prod[1][1] != 220) {
        printf("consumer: wrong product (status %d)\n", st);
        return 1;
    }
    for (int k = 0; k < kCount; ++k)
        for (int e = 0; e < 4; ++e) {
            gA[k][e / 2][e % 2] = (Omk32f)(k + e);
            gB[k][e / 2][e % 2] = (Omk32f)(2 * k);
        }
    st = omkmAdd_mama_32f(&gA[0][0][0], mat, row, el, &gB[0][0][0], mat, row, el, &gSum[0][0][0], mat, row, el, 2,
                          2, kCount);
    for (int k = 0; k < kCount && st == omkStsOk; ++k)
        for (int e = 0; e < 4; ++e)
            if (gSum[k][e / 2][e % 2] != (Omk32f)(3 * k + e)) st = omkStsBadSize;
    if (st != omkStsOk) {
        printf("consumer: wrong array sum (status %d)\n", st);
        return 1;
    }
    printf("consumer: %s, product %g %g %g %g, %d sums\n", omkmGetLibVersion()->version, prod[0][0], prod[0][1],
           prod[1][0], prod[1][1], kCount);
    return 0;
}
