// The core library: owner of the thread count that liborsm reads.
#include "orscore.h"

#include <omp.h>

extern "C" {

ORSCORE_API int threads_omp_of_n_ors = omp_get_max_threads();

ORSCORE_API void orscoreSetNumThreads(int threads) {
    __atomic_store_n(&threads_omp_of_n_ors, threads, __ATOMIC_RELAXED);
}

ORSCORE_API int orscoreGetNumThreads(void) {
    return __atomic_load_n(&threads_omp_of_n_ors, __ATOMIC_RELAXED);
}

}
