// Matrix-vector kernels shared by Mul (mv tv mav tav mva tva mava tava) and
// Gaxpy (mv mva): dst(i) = sum over k of op(a)(i, k) * x(k) [+ y(i)].
//
// One template serves every kernel. What differs between kernels is data:
//   - the addition tree of the unrolled order 3..6 paths (A, B, C, D below),
//   - how the general loop keeps its sum (local stored after every step,
//     dst itself as the accumulator, or a local stored once),
//   - which operand is fixed and so loaded once before the object loop.
// Each family holds a constexpr table from kernel to tree; the frames below
// turn a call into accessors, a work estimate, a limit and a kernel choice.
//
// Arithmetic is in the element type: every product and every sum is rounded
// to T, nothing is widened, nothing is fused.
#pragma once

#include "common/checks.hpp"
#include "common/layout.hpp"
#include "common/parallel.hpp"
#include "products/matvec_fast.hpp"

namespace orsm::mv {

// Addition trees of the unrolled paths, p_k the rounded product of column k.
//        order 4                    order 5                                 order 6
//   A   ((p0+p1)+p2)+p3            (((p0+p1)+p2)+p3)+p4                    ascending
//   B   (p0+p1)+(p2+p3)            ((p0+p1)+(p2+p3))+p4                    ((p0+p1)+(p2+p3))+(p4+p5)
//   C   (p0+p2)+(p1+p3)            rows 0-3: ((p0+p1)+p4)+(p2+p3)          ((p0+p2)+p4)+((p1+p3)+p5)
//                                  row 4:    ((p0+p2)+p4)+(p1+p3)
//   D   (p0+p1)+(p2+p3)            ((p0+p1)+p4)+(p2+p3)                    ((p0+p1)+(p2+p3))+(p4+p5)
// Order 3 is (p0+p1)+p2 in all four. A is plain scalar code; B and D add
// adjacent lane pairs, C folds the upper lanes onto the lower ones. (The
// enum lives in matvec_fast.hpp.) T may be a vector whose lanes are rows or
// objects: each lane is summed by the same tree.
template <Tree tr, int N, class T> ORSM_INLINE T tree_sum(const T (&p)[N], int row) {
    static_assert(N >= 3 && N <= 6);
    if constexpr (N == 3 || tr == Tree::A) {
        T s = p[0];
        for (int k = 1; k < N; ++k) s = s + p[k];
        return s;
    } else if constexpr (N == 4) {
        if constexpr (tr == Tree::C) return (p[0] + p[2]) + (p[1] + p[3]);
        else return (p[0] + p[1]) + (p[2] + p[3]);
    } else if constexpr (N == 5) {
        if constexpr (tr == Tree::B) return ((p[0] + p[1]) + (p[2] + p[3])) + p[4];
        // Tree C's last row of order 5 pairs (p0, p2) and (p1, p3), the four
        // rows above pair neighbours, as tree D does everywhere.
        if constexpr (tr == Tree::C)
            if (row == 4) return ((p[0] + p[2]) + p[4]) + (p[1] + p[3]);
        return ((p[0] + p[1]) + p[4]) + (p[2] + p[3]);
    } else {
        if constexpr (tr == Tree::C) return ((p[0] + p[2]) + p[4]) + ((p[1] + p[3]) + p[5]);
        else return ((p[0] + p[1]) + (p[2] + p[3])) + (p[4] + p[5]);
    }
}

// How the general loop holds its sum.
enum class Gen : unsigned char {
    StoreEachStep,  // a local, stored to dst(i) after every step
    InMemory,       // dst(i) itself, set to +0, read and written at every step
    StoreOnce,      // a local, added to y(i) and stored once
};

// Fixed (matvec_fast.hpp): which operand an array call holds fixed; it is
// loaded once per call in the unrolled paths. None: both move (or the kernel
// calls a single-object kernel per object, which loads everything afresh).

// One kernel's traits.
struct Cell {
    Tree tree;
    Gen gen;
    Fixed fixed;
};

// Kernel kinds: contiguous S, strided S, P, contiguous L, strided L.
enum class Kern : unsigned char { S, S2, P, L, LS2 };

// The term added after the sum: none for Mul, y(i) for Gaxpy.
struct NoTerm {
    template <class T> T add(T s, int, int) const { return s; }
    NoTerm object(int) const { return {}; }
    NoTerm contig() const { return {}; }
};
template <class A> struct Term {
    A y;
    template <class T> T add(T s, int n, int i) const { return s + y.v(n, i); }
    Term object(int f) const { return {y.object(f)}; }
    auto contig() const { return Term<decltype(y.template as<true>())>{y.template as<true>()}; }
};

template <class A> using elem_t = Plain<typename A::value_type>;

// Element (i, k) of op(a): the stored element (k, i) when read transposed.
template <bool Trans, class A> ORSM_INLINE auto& op(const A& a, int n, int i, int k) {
    if constexpr (Trans) return a(n, k, i);
    else return a(n, i, k);
}

// Order-N path, M = K = N. The vector of an object is loaded before any row
// is summed and the rows are stored after all are summed.
template <int N, Cell c, bool Trans, class A, class X, class D, class Y>
void order_path(const A& a, const X& x, const D& d, const Y& y, int count) {
    using T = elem_t<D>;
    T xv[N], av[N][N];
    auto load_x = [&](int n) {
        for (int k = 0; k < N; ++k) xv[k] = x.v(n, k);
    };
    auto load_a = [&](int n) {
        for (int i = 0; i < N; ++i)
            for (int k = 0; k < N; ++k) av[i][k] = op<Trans>(a, n, i, k);
    };
    if constexpr (c.fixed == Fixed::Vec) load_x(0);
    if constexpr (c.fixed == Fixed::Mat) load_a(0);
    for (int n = 0; n < count; ++n) {
        if constexpr (c.fixed != Fixed::Vec) load_x(n);
        if constexpr (c.fixed != Fixed::Mat) load_a(n);
        T out[N];
        for (int i = 0; i < N; ++i) {
            T p[N];
            for (int k = 0; k < N; ++k) p[k] = av[i][k] * xv[k];
            out[i] = y.add(tree_sum<c.tree>(p, i), n, i);
        }
        for (int i = 0; i < N; ++i) d.v(n, i) = out[i];
    }
}

// The general loop: rows ascending, k ascending from +0.
template <Gen g, bool Trans, class A, class X, class D, class Y>
void general(const A& a, const X& x, const D& d, const Y& y, int M, int K, int count) {
    using T = elem_t<D>;
    for (int n = 0; n < count; ++n)
        for (int i = 0; i < M; ++i) {
            if constexpr (g == Gen::InMemory) {
                T& o = d.v(n, i);
                o = T(0);
                for (int k = 0; k < K; ++k) o = o + op<Trans>(a, n, i, k) * x.v(n, k);
            } else if constexpr (g == Gen::StoreEachStep) {
                T& o = d.v(n, i);
                T s = T(0);
                for (int k = 0; k < K; ++k) {
                    s = s + op<Trans>(a, n, i, k) * x.v(n, k);
                    o = s;
                }
            } else {
                T s = T(0);
                for (int k = 0; k < K; ++k) s = s + op<Trans>(a, n, i, k) * x.v(n, k);
                d.v(n, i) = y.add(s, n, i);
            }
        }
}

// A kernel: the order test lies outside the object loop. Every kernel has
// paths for square orders 3 to 6; M different from K, and every other
// order, take the general loop.
template <Cell c, bool Trans, class A, class X, class D, class Y>
OrsStatus kernel(const A& a, const X& x, const D& d, const Y& y, int M, int K, int count) {
    if (M == K) switch (M) {
            case 3: order_path<3, c, Trans>(a, x, d, y, count); return StatusOk;
            case 4: order_path<4, c, Trans>(a, x, d, y, count); return StatusOk;
            case 5: order_path<5, c, Trans>(a, x, d, y, count); return StatusOk;
            case 6: order_path<6, c, Trans>(a, x, d, y, count); return StatusOk;
            default: break;
        }
    general<c.gen, Trans>(a, x, d, y, M, K, count);
    return StatusOk;
}

template <class A> auto contig(const A& a) { return a.template as<true>(); }
inline auto contig(const NoTerm& t) { return t; }
template <class A> auto contig(const Term<A>& t) { return t.contig(); }

// ---- fast paths (matvec_fast.hpp), square orders 3 to 6 ------------------

inline bool fast_order(int M, int K) { return M == K && M >= 3 && M <= 6; }
// The table slot of order N, 3 to 6.
inline int order_slot(int N) {
    if (N < 3 || N > 6) __builtin_unreachable();
    return N - 3;
}

template <class T, bool C> Ref<T> ref(const SAcc<T, C>& s) { return {s.base, nullptr, s.s0, 0, s.s1}; }
template <class T, bool C> Ref<T> ref(const LAcc<T, C>& l) { return {nullptr, l.table, 0, l.shift, l.s1}; }
template <class A> auto ref(const Term<A>& t) { return ref(t.y); }

// A contiguous S or L kernel of order N through the fast kernel with the
// same traits; false, with nothing done, where the target has none.
template <Cell c, bool Trans, class A, class X, class D, class Y>
bool rows_path(const A& a, const X& x, const D& d, const Y& y, int N, int count) {
    using T = elem_t<D>;
    constexpr bool term = !std::is_same_v<Y, NoTerm>;
    constexpr int key = row_key_index<T>({Trans, c.fixed, term, c.tree});
    static_assert(key >= 0, "every contiguous kernel has its rows kernel");
    RowArgs<T> g{ref(a), ref(x), {}, ref(d), count};
    if constexpr (term) g.y = ref(y);
    // Packed: layout S, array vectors N elements apart, array matrices N by N
    // with rows N elements apart (a fixed operand may lie anywhere).
    const ptrdiff_t E = sizeof(T), vec = N * E;
    const bool packed = !g.a.table && !g.x.table && !g.y.table && !g.d.table &&
                        (c.fixed == Fixed::Mat || (g.a.s0 == N * vec && g.a.s1 == vec)) &&
                        (c.fixed == Fixed::Vec || g.x.s0 == vec) && (!term || g.y.s0 == vec) &&
                        g.d.s0 == vec;
    const auto fn = (packed ? kernels<T>().packed : kernels<T>().rows)[key][order_slot(N)];
    if (!fn) return false;
    fn(g);
    return true;
}

// A P kernel of order N through the SoA kernel, when every array operand
// has an object stride of one element and the planes are disjoint as
// soa_disjoint asks; false, with nothing done, otherwise.
template <Cell c, bool Trans, class A, class X, class D, class Y>
bool soa_path(const A& a, const X& x, const D& d, const Y& y, int N, int count) {
    using T = elem_t<D>;
    constexpr bool term = !std::is_same_v<Y, NoTerm>;
    constexpr bool a_arr = c.fixed != Fixed::Mat, x_arr = c.fixed != Fixed::Vec;
    constexpr ptrdiff_t E = sizeof(T);
    if ((a_arr && a.s0 != E) || (x_arr && x.s0 != E) || d.s0 != E) return false;
    SoaArgs<T> g{};
    g.count = count;
    for (int i = 0; i < N; ++i) {
        for (int k = 0; k < N; ++k) g.a[i * N + k] = &op<Trans>(a, 0, i, k);
        g.x[i] = &x.v(0, i);
        g.d[i] = &d.v(0, i);
    }
    if constexpr (term) {
        if (y.y.s0 != E) return false;
        for (int i = 0; i < N; ++i) g.y[i] = &y.y.v(0, i);
    }
    if (!soa_disjoint(g, N, a_arr, x_arr, term)) return false;
    constexpr int kind = term                     ? soaGaxpy
                         : c.fixed == Fixed::Mat ? soaVecs
                         : c.fixed == Fixed::Vec ? soaMats
                                                 : soaBoth;
    kernels<T>().soa[kind][order_slot(N)](g);
    return true;
}

enum class Lay : unsigned char { S, P, L };

// The frame after its checks. Fam gives, for the element type T:
//   Fam::trans, Fam::array            form traits
//   Fam::template cell<T>(Kern)       the kernel's tree and loops
//   Fam::template limit<T>(Kern)      the limit of the array forms
//   Fam::work(M, K, count)            the work estimate
// `a` is the stored matrix; w, h its stored sizes.
template <class Fam, Lay lay, class T, class A, class X, class D, class Y>
OrsStatus frame(OrsStatus st, const A& a, const X& x, const D& d, const Y& y, int w, int h,
                int count, bool contiguous) {
    if (st != StatusOk) return st;
    constexpr bool tr = Fam::trans;
    const int M = tr ? w : h;
    const int K = tr ? h : w;
    auto share = [&](int f, int k) -> OrsStatus {
        const auto af = a.object(f);
        const auto xf = x.object(f);
        const auto df = d.object(f);
        const auto yf = y.object(f);
        if constexpr (lay == Lay::P) {
            constexpr Cell c = Fam::template cell<T>(Kern::P);
            if constexpr (Fam::array)
                if (fast_order(M, K) && soa_path<c, tr>(af, xf, df, yf, M, k)) return StatusOk;
            return kernel<c, tr>(af, xf, df, yf, M, K, k);
        } else {
            constexpr Kern kc = lay == Lay::S ? Kern::S : Kern::L;
            constexpr Kern ks = lay == Lay::S ? Kern::S2 : Kern::LS2;
            if (contiguous) {
                constexpr Cell c = Fam::template cell<T>(kc);
                const auto ac = contig(af);
                const auto xc = contig(xf);
                const auto dc = contig(df);
                const auto yc = contig(yf);
                if (fast_order(M, K) && rows_path<c, tr>(ac, xc, dc, yc, M, k)) return StatusOk;
                return kernel<c, tr>(ac, xc, dc, yc, M, K, k);
            }
            return kernel<Fam::template cell<T>(ks), tr>(af, xf, df, yf, M, K, k);
        }
    };
    if constexpr (!Fam::array) {
        return share(0, 1);
    } else {
        const Kern which = lay == Lay::P ? Kern::P
                     : lay == Lay::S ? (contiguous ? Kern::S : Kern::S2)
                                     : (contiguous ? Kern::L : Kern::LS2);
        return dispatch(Fam::work(M, K, count), Fam::template limit<T>(which), count, share);
    }
}

}  // namespace orsm::mv
