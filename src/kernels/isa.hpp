// Run-time choice of instruction set for the fast paths.
//
// A kernel source named `*.multi.cpp` is compiled once per target (the build
// wraps it in one translation unit per target, with that target's -m flags
// and ORSM_TARGET defined to the target's name). Each compilation defines
// its kernels inside `namespace orsm::ORSM_TARGET` and fills a table of
// function pointers; the frame picks the table of the current target:
//
//   extern const MatmulTable matmul_table_sse2, matmul_table_avx2, ...;
//   const MatmulTable& k = isa::select(matmul_tables);
//
// The target is chosen once per process from CPUID (the best one the
// processor and the operating system support). Tests may force any
// supported target through isa::force, so the bit-exact checks run on every
// target; nothing outside the library can reach it.
#pragma once

namespace orsm::isa {

enum Target : int { sse2 = 0, avx2 = 1, avx512 = 2 };
inline constexpr int kTargets = 3;

const char* name(Target t);
bool supported(Target t);
Target best();

namespace detail {
// The target in use: zero (the baseline) until the library's start-up code
// has read CPUID, so a call made even before that is safe.
extern int current_target;
}

// The target the fast paths use now: one load, inlined into every frame.
inline Target current() {
    return Target(__atomic_load_n(&detail::current_target, __ATOMIC_RELAXED));
}

// Forces a target (for tests); a negative value restores the automatic
// choice. Returns false, changing nothing, for a target the processor lacks.
bool force(int target);

template <class Table> const Table& select(const Table* const (&tables)[kTargets]) {
    return *tables[current()];
}

// A target's kernels of a family for each element type: K<float> and
// K<double>, reached as by.of<T>().
template <template <class> class K> struct ByType {
    K<float> f32;
    K<double> f64;
    template <class T> const K<T>& of() const {
        if constexpr (sizeof(T) == 4) return f32;
        else return f64;
    }
};

}  // namespace orsm::isa

// The name of the target being compiled, and a macro that names a symbol
// of this target (matmul_table_ ## avx2).
#ifndef ORSM_TARGET
#define ORSM_TARGET sse2
#endif
#define ORSM_CAT2(a, b) a##b
#define ORSM_CAT(a, b) ORSM_CAT2(a, b)
#define ORSM_TARGET_SYMBOL(prefix) ORSM_CAT(prefix, ORSM_TARGET)

// Bytes of the widest vector register of the target being compiled.
#if defined(__AVX512F__)
#define ORSM_TARGET_VECTOR_BYTES 64
#elif defined(__AVX2__)
#define ORSM_TARGET_VECTOR_BYTES 32
#else
#define ORSM_TARGET_VECTOR_BYTES 16
#endif
