/* records: orsm over data that lives inside an application's own records.
 *
 * A batch of rigid bodies is held as an array of structs, each with a 3x4
 * pose (rotation and translation) among other fields. The example
 *   1. gathers the 3x3 rotations out of the records into a packed array
 *      (Copy, strided source with a record-sized object stride),
 *   2. transposes them all (for a rotation, the inverse) in one call,
 *   3. picks a scattered subset of bodies through a list of pointers and
 *      extracts their rotations into one packed block (Extract, layout L),
 * and prints what it did and how long each step took.
 *
 * Usage: records [count] [threads]
 */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "orscore.h"
#include "orsm.h"

typedef struct Body {
    int id;
    float pose[3][4]; /* rotation in columns 0..2, translation in column 3 */
    float velocity[3];
    double mass;
} Body;

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
    int count = argc > 1 ? atoi(argv[1]) : 200000;
    if (argc > 2) orscoreSetNumThreads(atoi(argv[2]));
    if (count < 1) count = 1;
    const int F = (int)sizeof(float);
    Body* bodies = malloc(sizeof(Body) * (size_t)count);
    float* rot = malloc(sizeof(float) * 9 * (size_t)count);
    float* inv = malloc(sizeof(float) * 9 * (size_t)count);
    if (!bodies || !rot || !inv) return 1;
    memset(rot, 0, sizeof(float) * 9 * (size_t)count); /* fault the pages in before timing */
    memset(inv, 0, sizeof(float) * 9 * (size_t)count);

    /* Rotations about z by an angle that depends on the body. */
    for (int n = 0; n < count; ++n) {
        float a = 0.001f * (float)n, c = cosf(a), s = sinf(a);
        float p[3][4] = {{c, -s, 0, (float)n}, {s, c, 0, 1}, {0, 0, 1, 2}};
        bodies[n].id = n;
        for (int r = 0; r < 3; ++r)
            for (int k = 0; k < 4; ++k) bodies[n].pose[r][k] = p[r][k];
        bodies[n].mass = 1.0 + n;
    }
    printf("orsm %s, %d threads, %d bodies of %d bytes each\n", orsmGetLibVersion()->versionText,
           orscoreGetNumThreads(), count, (int)sizeof(Body));

    /* 1. Gather: source rows 16 bytes apart inside records sizeof(Body)
     *    apart; destination packed 3x3. */
    double t0 = now();
    if (check(orsmCopy_ma_32f_SS(&bodies[0].pose[0][0], (int)sizeof(Body), 4 * F, F, rot, 9 * F,
                                 3 * F, F, 3, 3, count),
              "Copy"))
        return 1;
    double t1 = now();
    printf("copy      %8d rotations out of the records   %8.3f ms\n", count, (t1 - t0) * 1e3);

    /* 2. Transpose every rotation: inverse rotations. */
    if (check(orsmTranspose_ma_32f(rot, 9 * F, 3 * F, F, 3, 3, inv, 9 * F, 3 * F, F, count),
              "Transpose"))
        return 1;
    double t2 = now();
    printf("transpose %8d 3x3 matrices                   %8.3f ms\n", count, (t2 - t1) * 1e3);

    /* 3. A scattered subset, one pointer per body, straight from the records. */
    int picks = count < 8 ? count : 8;
    const float* table[8];
    for (int i = 0; i < picks; ++i) table[i] = &bodies[(count - 1) * i / (picks > 1 ? picks - 1 : 1)].pose[0][0];
    float block[8 * 9];
    if (check(orsmExtract_ta_32f_L(table, 0, 4 * F, F, block, 3, 3, picks), "Extract")) return 1;
    double t3 = now();
    printf("extract   %8d transposed rotations by list    %8.3f ms\n", picks, (t3 - t2) * 1e3);

    /* The extracted transposes agree with the transposed copies. */
    int bad = 0;
    for (int i = 0; i < picks; ++i) {
        int n = (count - 1) * i / (picks > 1 ? picks - 1 : 1);
        for (int k = 0; k < 9; ++k) bad += block[9 * i + k] != inv[9 * n + k];
    }
    printf("last body: inverse rotation row 0 = (%.6f, %.6f, %.6f); %s\n", inv[9 * (count - 1)],
           inv[9 * (count - 1) + 1], inv[9 * (count - 1) + 2], bad ? "MISMATCH" : "checks agree");
    free(bodies);
    free(rot);
    free(inv);
    return bad != 0;
}
