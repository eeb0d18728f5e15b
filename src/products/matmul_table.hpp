// The per-target tables of the matrix-matrix Mul fast kernels.
//
// matmul_fast.multi.cpp is compiled once per instruction set; each copy
// fills one Table with kernels built for its vector width. The frame picks
// the table of the running target once per call and calls through it for
//  - the unrolled orders 3 to 6 of the contiguous kernels of layouts S and L
//    (one object at a time, n ascending, as the baseline kernels), and
//  - layout P over structure-of-arrays planes (object stride equal to the
//    element size), lanes over objects, when dst shares no byte with a
//    source nor with itself.
// Every kernel gives the bits of the baseline kernel it stands for.
#pragma once

#include <cstddef>

#include "kernels/isa.hpp"

namespace orsm::matmul {

// One operand, type-erased. Layout S: `p` is the first element, `s0` the
// object stride (0 for a fixed operand), `s1` the row stride. Layout L: `p`
// is the table of object pointers, `shift` the byte shift, `s1` the row
// stride. Layout P: `p` is the table of element pointers, `shift` the byte
// shift, `s0` the object stride (0 for a fixed operand), `s1` the number of
// entries per stored row.
struct Opnd {
    const void* p;
    std::ptrdiff_t s0, s1, shift;
};

using Kernel = void (*)(const Opnd& a, const Opnd& b, const Opnd& d, int count);
// A single object of layout S with contiguous rows: operands by their first
// element and row stride, in registers; returns StatusOk so that the entry
// point hands over with a jump.
using OneKernel = int (*)(const void* a, std::ptrdiff_t as1, const void* b, std::ptrdiff_t bs1,
                          void* d, std::ptrdiff_t ds1);
using SoaKernel = void (*)(const Opnd& a, const Opnd& b, const Opnd& d, int M, int K, int N,
                           int count);

struct Table {
    // [group][form][type][kind: contiguous S, contiguous L][order - 3]
    // (the single products of layout S have `one_*` instead)
    Kernel order[4][4][2][2][4];
    // [form][type][order - 3]
    OneKernel one[4][2][4];
    // [group mam, mma, mama][form][type][order - 3, or 4: the general loop]
    SoaKernel soa[3][4][2][5];
};

extern const Table matmul_table_sse2, matmul_table_avx2, matmul_table_avx512;
inline const Table* const matmul_tables[isa::kTargets] = {&matmul_table_sse2, &matmul_table_avx2,
                                                          &matmul_table_avx512};

}  // namespace orsm::matmul
