/* A program built against an installed omkm only: one array call and the core library's thread
 * budget, with its result checked. */
#include <stdio.h>

#include "omkcore.h"
#include "omkm.h"

int main(void) {
    const Omk32f a[2][2] = {{1, 2}, {3, 4}}, b[2][2] = {{10, 20}, {30, 40}};
    Omk32f sum[2][2];
    const OmkStatus st = omkmAdd_mm_32f(&a[0][0], sizeof a[0], sizeof(Omk32f), &b[0][0], sizeof b[0], sizeof(Omk32f),
                                        &sum[0][0], sizeof sum[0], sizeof(Omk32f), 2, 2);
    if (st != omkStsOk || sum[0][0] != 11 || sum[1][1] != 44) {
        printf("consumer: wrong result (status %d)\n", st);
        return 1;
    }
    int threads = 0;
    if (omkGetNumThreads(&threads) != omkStsOk || threads < 1) {
        printf("consumer: no thread budget\n");
        return 1;
    }
    printf("consumer: %s, sum %g %g %g %g, thread budget %d\n", omkmGetLibVersion()->version, sum[0][0], sum[0][1],
           sum[1][0], sum[1][1], threads);
    return 0;
}
