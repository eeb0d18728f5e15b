/* The public headers compile as C99 with -pedantic -Werror; a C caller
 * casts its source tables. */
#include <orscore.h>
#include <orsm.h>

int header_c_check(void);
int header_c_check(void) {
    float a[4] = {1, 2, 3, 4}, b[4];
    float* tab[4] = {&a[0], &a[1], &a[2], &a[3]};
    float* dtab[4] = {&b[0], &b[1], &b[2], &b[3]};
    OrsStatus st = orsmTranspose_m_32f_P((const float* const*)tab, 0, 2, 2, dtab, 0);
    return st == StatusOk && b[1] == 3.0f ? 0 : 1;
}
