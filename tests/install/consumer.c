/* A C program built against the installed library. */
#include <orscore.h>
#include <orsm.h>
#include <stdio.h>

int main(void) {
    float src[2][3][3], dst[2][3][3];
    int n, r, c;
    for (n = 0; n < 2; ++n)
        for (r = 0; r < 3; ++r)
            for (c = 0; c < 3; ++c) src[n][r][c] = (float)(n * 100 + r * 10 + c);
    OrsStatus st = orsmTranspose_ma_32f(&src[0][0][0], (int)sizeof src[0], 12, 4, 3, 3,
                                        &dst[0][0][0], (int)sizeof dst[0], 12, 4, 2);
    if (st != StatusOk || dst[1][2][0] != 102.0f) return 1;
    orscoreSetNumThreads(1);
    if (orscoreGetNumThreads() != 1) return 1;
    if (orsmGetLibVersion()->versionMajor != 5) return 1;
    puts("consumer: ok");
    return 0;
}
