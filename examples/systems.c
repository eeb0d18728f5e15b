/* systems: many small linear systems solved in three calls.
 *
 * A batch of independent systems A x = b of order 4 (think of one per
 * element of a mesh, or per track of a filter), packed one after another:
 *   1. factors every A at once (LUDecomp over the array, pivot tables out),
 *   2. solves every system with its own factor (LUBackSubst, mava form),
 *   3. checks the residuals: r = A x - b by one matrix-vector product over
 *      the array and one vector difference, then the norm of each r,
 * and prints the largest residual and how long each step took.
 *
 * Usage: systems [count] [threads]
 */
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "orscore.h"
#include "orsm.h"

enum { N = 4 };

static double now(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec * 1e-9;
}

static int check(OrsStatus st, const char* what) {
    if (st != StatusOk) fprintf(stderr, "%s failed with status %d\n", what, st);
    return st != StatusOk;
}

int main(int argc, char** argv) {
    const int count = argc > 1 ? atoi(argv[1]) : 100000;
    if (argc > 2) orscoreSetNumThreads(atoi(argv[2]));
    if (count < 1) return 1;

    /* Matrices, their factors, right-hand sides, solutions, residuals. */
    double* a = malloc(sizeof(double) * N * N * count);
    double* lu = malloc(sizeof(double) * N * N * count);
    int* pivots = malloc(sizeof(int) * N * count);
    double* b = malloc(sizeof(double) * N * count);
    double* x = malloc(sizeof(double) * N * count);
    double* r = malloc(sizeof(double) * N * count);
    double* norms = malloc(sizeof(double) * count);
    if (!a || !lu || !pivots || !b || !x || !r || !norms) return 1;

    srand(1);
    for (int k = 0; k < N * N * count; ++k) a[k] = rand() / (double)RAND_MAX - 0.5;
    for (int k = 0; k < N * count; ++k) b[k] = rand() / (double)RAND_MAX;

    const int E = sizeof(double), M = N * N * E, R = N * E, V = N * E;
    double t0 = now();
    if (check(orsmLUDecomp_ma_64f(a, M, R, E, pivots, lu, M, R, E, N, count), "LUDecomp")) return 1;
    double t1 = now();
    if (check(orsmLUBackSubst_mava_64f(lu, M, R, E, pivots, b, V, E, x, V, E, N, count), "LUBackSubst"))
        return 1;
    double t2 = now();
    if (check(orsmMul_mava_64f(a, M, R, E, N, N, x, V, E, N, r, V, E, count), "Mul") ||
        check(orsmSub_vava_64f(r, V, E, b, V, E, r, V, E, N, count), "Sub") ||
        check(orsmL2Norm_va_64f(r, V, E, norms, N, count), "L2Norm"))
        return 1;
    double t3 = now();

    double worst = 0;
    for (int k = 0; k < count; ++k)
        if (norms[k] > worst) worst = norms[k];
    printf("%d systems of order %d on %d thread(s)\n", count, N, orscoreGetNumThreads());
    printf("  factor   %8.2f ns per system\n", (t1 - t0) * 1e9 / count);
    printf("  solve    %8.2f ns per system\n", (t2 - t1) * 1e9 / count);
    printf("  residual %8.2f ns per system, largest |A x - b| = %.3g\n", (t3 - t2) * 1e9 / count, worst);

    free(a), free(lu), free(pivots), free(b), free(x), free(r), free(norms);
    return worst < 1e-6 ? 0 : 1;
}
