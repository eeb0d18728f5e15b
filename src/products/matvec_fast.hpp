// Fast paths of the matrix-vector kernels, for square orders 3 to 6. They
// live in matvec.multi.cpp, compiled once per instruction-set target; the
// frame picks the current target's table (kernels/isa.hpp).
//
//  - Rows kernels serve the contiguous S and L kernels: the lanes of a vector
//    run over the rows i of one object, lane i summing row i by the kernel's
//    own tree over k (the columns of op(a) times x(k) in every lane, added
//    vertically). Objects go one at a time, n ascending, each read whole
//    before it is written, and the fixed operand is read once before the
//    first object, exactly as in the scalar order paths: any overlap of dst
//    with a source behaves as there.
//  - SoA kernels serve layout P when every array operand has an object
//    stride of one element (each table entry points at a plane of values,
//    object n at entry + n): the lanes run over objects, each lane summing by
//    tree A, as the P kernels do. They read several objects before writing
//    any, so the frame takes them only when no dst plane can meet a source
//    or another dst plane (soa_disjoint below).
#pragma once

#include <cstddef>
#include <iterator>

#include "common/base.hpp"
#include "kernels/isa.hpp"

namespace orsm::mv {

// Addition trees of the unrolled paths (see matvec.hpp).
enum class Tree : unsigned char { A, B, C, D };

// Which operand an array call holds fixed (see matvec.hpp).
enum class Fixed : unsigned char { None, Mat, Vec };

// An operand of a rows kernel, object n at obj(n): a base and an object
// stride (layout S, and a fixed operand with stride 0), or a table of object
// pointers and a shift (layout L). s1 is the row stride of a matrix.
template <class T> struct Ref {
    T* base = nullptr;
    T* const* table = nullptr;
    ptrdiff_t s0 = 0, shift = 0, s1 = 0;
    ORSM_INLINE T* obj(int n) const { return table ? byte_off(table[n], shift) : byte_off(base, n * s0); }
};

template <class T> struct RowArgs {
    Ref<const T> a, x, y;  // y: the term of Gaxpy, unused by Mul
    Ref<T> d;
    int count;
};

// A rows kernel's traits: transposed matrix, fixed operand, Gaxpy term, tree.
struct RowKey {
    bool trans;
    Fixed fixed;
    bool term;
    Tree tree;
    constexpr bool operator==(const RowKey&) const = default;
};

// The contiguous kernels of Mul and Gaxpy, by element type. The frames find
// their kernel's traits here at compile time (row_key_index).
inline constexpr RowKey kRowKeys32[] = {
    {false, Fixed::Vec, false, Tree::C},   // mav
    {true, Fixed::Vec, false, Tree::D},    // tav
    {false, Fixed::Mat, false, Tree::C},   // mva S
    {false, Fixed::None, false, Tree::A},  // mva L, by the mv kernel
    {true, Fixed::Mat, false, Tree::A},    // tva S
    {true, Fixed::None, false, Tree::A},   // tva L, by the tv kernel
    {false, Fixed::None, false, Tree::C},  // mava
    {true, Fixed::None, false, Tree::D},   // tava
    {false, Fixed::Mat, true, Tree::C},    // Gaxpy mva
};
inline constexpr RowKey kRowKeys64[] = {
    {false, Fixed::Vec, false, Tree::B},   // mav
    {true, Fixed::Vec, false, Tree::A},    // tav S
    {true, Fixed::Vec, false, Tree::B},    // tav L
    {false, Fixed::Mat, false, Tree::B},   // mva
    {true, Fixed::Mat, false, Tree::A},    // tva S
    {true, Fixed::None, false, Tree::A},   // tva L, tava S and L
    {false, Fixed::None, false, Tree::B},  // mava
    {false, Fixed::Mat, true, Tree::B},    // Gaxpy mva
};
template <class T> constexpr const auto& row_keys() {
    if constexpr (sizeof(T) == 4) return kRowKeys32;
    else return kRowKeys64;
}
template <class T> constexpr int row_key_index(RowKey k) {
    for (int i = 0; i < int(std::size(row_keys<T>())); ++i)
        if (row_keys<T>()[i] == k) return i;
    return -1;
}
inline constexpr int kMaxRowKeys = 9;

// An SoA call: plane pointers with their shift applied, op(a)(i, k) at
// a[i * N + k]. A fixed operand's planes hold its one value.
template <class T> struct SoaArgs {
    const T* a[36];
    const T* x[6];
    const T* y[6];  // Gaxpy's term
    T* d[6];
    int count;
};
// SoA kernels by which operands are arrays: both (None), x only (Mat fixed),
// a only (Vec fixed), x and y with a fixed (Gaxpy).
enum SoaKind : int { soaBoth, soaVecs, soaMats, soaGaxpy, kSoaKinds };

template <class T> struct Kernels {
    using RowFn = void (*)(const RowArgs<T>&);
    using SoaFn = void (*)(const SoaArgs<T>&);
    RowFn rows[kMaxRowKeys][4];    // [key][order - 3]; null: none on this target
    RowFn packed[kMaxRowKeys][4];  // the same, for packed layout S
    SoaFn soa[kSoaKinds][4];
};
using Table = isa::ByType<Kernels>;
extern const Table matvec_table_sse2, matvec_table_avx2, matvec_table_avx512;
inline const Table* const kTables[isa::kTargets] = {&matvec_table_sse2, &matvec_table_avx2,
                                                   &matvec_table_avx512};
template <class T> const Kernels<T>& kernels() { return isa::select(kTables).template of<T>(); }

// Whether the SoA kernel may run: no dst plane meets a source plane or
// another dst plane. A plane covers `count` elements (one for a fixed
// operand). The hulls of the operands are tested first; only when they
// meet are the planes compared one by one.
struct Span {
    const char* lo;
    const char* hi;
};
template <class T> bool soa_disjoint(const SoaArgs<T>& s, int N, bool a_arr, bool x_arr, bool has_y) {
    const ptrdiff_t whole = ptrdiff_t(s.count) * ptrdiff_t(sizeof(T));
    auto span = [&](const void* p, bool arr) {
        const char* c = static_cast<const char*>(p);
        return Span{c, c + (arr ? whole : ptrdiff_t(sizeof(T)))};
    };
    auto meet = [](Span u, Span v) { return u.lo < v.hi && v.lo < u.hi; };
    auto hull = [&](const auto* planes, int n, bool arr) {
        Span h = span(planes[0], arr);
        for (int j = 1; j < n; ++j) {
            const Span p = span(planes[j], arr);
            if (p.lo < h.lo) h.lo = p.lo;
            if (p.hi > h.hi) h.hi = p.hi;
        }
        return h;
    };
    for (int i = 0; i < N; ++i)
        for (int j = 0; j < i; ++j)
            if (meet(span(s.d[i], true), span(s.d[j], true))) return false;
    const Span dh = hull(s.d, N, true);
    auto clear_of = [&](const T* const* planes, int n, bool arr) {
        if (!meet(dh, hull(planes, n, arr))) return true;
        for (int j = 0; j < n; ++j)
            for (int i = 0; i < N; ++i)
                if (meet(span(planes[j], arr), span(s.d[i], true))) return false;
        return true;
    };
    return clear_of(s.a, N * N, a_arr) && clear_of(s.x, N, x_arr) && (!has_y || clear_of(s.y, N, true));
}

}  // namespace orsm::mv
