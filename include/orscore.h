/* orscore: the companion core library of orsm. It owns the one setting that
 * orsm reads: how many threads an array function may use when its work is
 * large enough to fan out over an OpenMP team.
 *
 * threads_omp_of_n_ors starts as the OpenMP runtime's maximum thread count
 * (omp_get_max_threads() at load time, so OMP_NUM_THREADS is honoured).
 * Set it with orscoreSetNumThreads(); liborsm reads it afresh in every
 * parallel form. A value below 2 keeps every call in the caller's thread.
 */
#ifndef ORSM_ORSCORE_H
#define ORSM_ORSCORE_H

#if defined(__GNUC__) || defined(__clang__)
#define ORSCORE_API __attribute__((visibility("default")))
#else
#define ORSCORE_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The thread count used by the parallel forms of liborsm. Prefer the setter
 * and getter below; the integer itself is exported for the library. */
ORSCORE_API extern int threads_omp_of_n_ors;

/* Sets the thread count; any value is stored as given (0 or negative means
 * serial). Safe to call from any thread; calls already running keep the
 * value they read. */
ORSCORE_API void orscoreSetNumThreads(int threads);

/* Returns the current thread count. */
ORSCORE_API int orscoreGetNumThreads(void);

#ifdef __cplusplus
}
#endif

#endif
