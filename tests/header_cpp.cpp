// The public headers compile as C++ with -pedantic -Werror, and a C++
// caller passes float** tables without casts.
#include <orscore.h>
#include <orsm.h>

extern "C" int header_c_check(void);

int main() {
    float a[4] = {1, 2, 3, 4}, b[4];
    float* tab[4] = {&a[0], &a[1], &a[2], &a[3]};
    float* dtab[4] = {&b[0], &b[1], &b[2], &b[3]};
    float** src = tab;
    float** dst = dtab;
    if (orsmTranspose_m_32f_P(src, 0, 2, 2, dst, 0) != StatusOk || b[1] != 3.0f) return 1;
    return header_c_check();
}
