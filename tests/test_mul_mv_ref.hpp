// The reference of the matrix-vector Mul tests: the addition trees of each
// kernel, typed calls of every form and layout, operands laid out for a
// call, and the comparison of dst with the reference bit for bit.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <memory>
#include <tuple>

#include "operand.hpp"

using namespace orsmtest;

namespace {

enum class F { mv, tv, mav, tav, mva, tva, mava, tava };
const char* fname(F f) {
    static const char* n[] = {"mv", "tv", "mav", "tav", "mva", "tva", "mava", "tava"};
    return n[int(f)];
}
bool is_t(F f) { return f == F::tv || f == F::tav || f == F::tva || f == F::tava; }
bool mat_array(F f) { return f == F::mav || f == F::tav || f == F::mava || f == F::tava; }
bool vec_array(F f) { return f == F::mva || f == F::tva || f == F::mava || f == F::tava; }
bool is_array(F f) { return mat_array(f) || vec_array(f); }
enum class G { mv, mav, mva, mava };
G group(F f) { return G(int(f) / 2); }

// ---- the reference --------------------------------------------------------

enum class Tree { A, B, C, D };

// Sum of the products p of one row by a tree of the unrolled paths.
template <class T> T tree_sum(Tree t, const std::vector<T>& p, int row) {
    const int N = int(p.size());
    auto asc = [&] {
        T s = p[0];
        for (int k = 1; k < N; ++k) s = s + p[k];
        return s;
    };
    if (N == 3 || t == Tree::A) return asc();
    if (N == 4) return t == Tree::C ? (p[0] + p[2]) + (p[1] + p[3]) : (p[0] + p[1]) + (p[2] + p[3]);
    if (N == 5) {
        if (t == Tree::B) return ((p[0] + p[1]) + (p[2] + p[3])) + p[4];
        if (t == Tree::C && row == 4) return ((p[0] + p[2]) + p[4]) + (p[1] + p[3]);
        return ((p[0] + p[1]) + p[4]) + (p[2] + p[3]);
    }
    if (t == Tree::C) return ((p[0] + p[2]) + p[4]) + ((p[1] + p[3]) + p[5]);
    return ((p[0] + p[1]) + (p[2] + p[3])) + (p[4] + p[5]);
}
// Whether two trees are the same formula for a row of order N.
bool same_formula(Tree a, Tree b, int N, int row) {
    if (a == b || N == 3) return true;
    auto bd = [](Tree t) { return t == Tree::B || t == Tree::D; };
    if ((N == 4 || N == 6) && bd(a) && bd(b)) return true;
    auto cd = [](Tree t) { return t == Tree::C || t == Tree::D; };
    return N == 5 && row < 4 && cd(a) && cd(b);
}
bool unrolled(int M, int K) { return M == K && M >= 3 && M <= 6; }
// The general loop: ascending from +0 (`reverse` only to prove sensitivity).
template <class T> T plain_sum(const std::vector<T>& p, bool reverse = false) {
    T s = T(0);
    for (std::size_t k = 0; k < p.size(); ++k) s = s + p[reverse ? p.size() - 1 - k : k];
    return s;
}

// The tree each kernel sums by. Strided (_S2, _LS2) and pointer kernels use
// tree A; the contiguous ones as tabled.
Tree expected_tree(F f, bool is64, Layout l, bool contiguous) {
    if (!contiguous || l == Layout::P) return Tree::A;
    using enum Tree;
    static const Tree S[8][2] = {{A, B}, {A, A}, {C, B}, {D, A}, {C, B}, {A, A}, {C, B}, {D, A}};
    static const Tree L[8][2] = {{A, A}, {A, A}, {C, B}, {D, B}, {A, B}, {A, A}, {C, B}, {D, A}};
    return (l == Layout::S ? S : L)[int(f)][is64];
}

// ---- calling the library --------------------------------------------------

// Every integer argument of the family, by role.
enum Fld { A0, A1, A2, ASh, W, H, X0, X2, XSh, Len, D0, D2, DSh, Cnt, NF };
struct Args {
    const void* a = nullptr;
    const void* x = nullptr;
    const void* d = nullptr;
    std::array<int, NF> f{};
    int& operator[](Fld k) { return f[k]; }
    int operator[](Fld k) const { return f[k]; }
};

template <class T> struct Fns;
#define FNS(T, t)                                                                                \
    template <> struct Fns<T> {                                                                  \
        static constexpr decltype(&orsmMul_mv_##t) mvS[] = {orsmMul_mv_##t, orsmMul_tv_##t};     \
        static constexpr decltype(&orsmMul_mv_##t##_P) mvP[] = {orsmMul_mv_##t##_P,              \
                                                                orsmMul_tv_##t##_P};             \
        static constexpr decltype(&orsmMul_mav_##t) mavS[] = {orsmMul_mav_##t, orsmMul_tav_##t}; \
        static constexpr decltype(&orsmMul_mav_##t##_P) mavP[] = {orsmMul_mav_##t##_P,           \
                                                                  orsmMul_tav_##t##_P};          \
        static constexpr decltype(&orsmMul_mav_##t##_L) mavL[] = {orsmMul_mav_##t##_L,           \
                                                                  orsmMul_tav_##t##_L};          \
        static constexpr decltype(&orsmMul_mva_##t) mvaS[] = {orsmMul_mva_##t, orsmMul_tva_##t}; \
        static constexpr decltype(&orsmMul_mva_##t##_P) mvaP[] = {orsmMul_mva_##t##_P,           \
                                                                  orsmMul_tva_##t##_P};          \
        static constexpr decltype(&orsmMul_mva_##t##_L) mvaL[] = {orsmMul_mva_##t##_L,           \
                                                                  orsmMul_tva_##t##_L};          \
        static constexpr decltype(&orsmMul_mava_##t) mavaS[] = {orsmMul_mava_##t,                \
                                                                orsmMul_tava_##t};               \
        static constexpr decltype(&orsmMul_mava_##t##_P) mavaP[] = {orsmMul_mava_##t##_P,        \
                                                                    orsmMul_tava_##t##_P};       \
        static constexpr decltype(&orsmMul_mava_##t##_L) mavaL[] = {orsmMul_mava_##t##_L,        \
                                                                    orsmMul_tava_##t##_L};       \
    };
FNS(float, 32f)
FNS(double, 64f)
#undef FNS

template <class T> OrsStatus invoke(F f, Layout l, const Args& g) {
    using Fn = Fns<T>;
    const int t = is_t(f);
    auto a = static_cast<const T*>(g.a);
    auto at = static_cast<const T* const*>(g.a);
    auto x = static_cast<const T*>(g.x);
    auto xt = static_cast<const T* const*>(g.x);
    auto d = static_cast<T*>(const_cast<void*>(g.d));
    auto dt = static_cast<T* const*>(g.d);
    switch (group(f)) {
        case G::mv:
            if (l == Layout::S) return Fn::mvS[t](a, g[A1], g[A2], g[W], g[H], x, g[X2], g[Len], d, g[D2]);
            return Fn::mvP[t](at, g[ASh], g[W], g[H], xt, g[XSh], g[Len], dt, g[DSh]);
        case G::mav:
            if (l == Layout::S)
                return Fn::mavS[t](a, g[A0], g[A1], g[A2], g[W], g[H], x, g[X2], g[Len], d, g[D0],
                                   g[D2], g[Cnt]);
            if (l == Layout::P)
                return Fn::mavP[t](at, g[ASh], g[A0], g[W], g[H], xt, g[XSh], g[Len], dt, g[DSh],
                                   g[D0], g[Cnt]);
            return Fn::mavL[t](at, g[ASh], g[A1], g[A2], g[W], g[H], x, g[X2], g[Len], dt, g[DSh],
                               g[D2], g[Cnt]);
        case G::mva:
            if (l == Layout::S)
                return Fn::mvaS[t](a, g[A1], g[A2], g[W], g[H], x, g[X0], g[X2], g[Len], d, g[D0],
                                   g[D2], g[Cnt]);
            if (l == Layout::P)
                return Fn::mvaP[t](at, g[ASh], g[W], g[H], xt, g[XSh], g[X0], g[Len], dt, g[DSh],
                                   g[D0], g[Cnt]);
            return Fn::mvaL[t](a, g[A1], g[A2], g[W], g[H], xt, g[XSh], g[X2], g[Len], dt, g[DSh],
                               g[D2], g[Cnt]);
        case G::mava:
            if (l == Layout::S)
                return Fn::mavaS[t](a, g[A0], g[A1], g[A2], g[W], g[H], x, g[X0], g[X2], g[Len], d,
                                    g[D0], g[D2], g[Cnt]);
            if (l == Layout::P)
                return Fn::mavaP[t](at, g[ASh], g[A0], g[W], g[H], xt, g[XSh], g[X0], g[Len], dt,
                                    g[DSh], g[D0], g[Cnt]);
            return Fn::mavaL[t](at, g[ASh], g[A1], g[A2], g[W], g[H], xt, g[XSh], g[X2], g[Len],
                                dt, g[DSh], g[D2], g[Cnt]);
    }
    return StatusOk;
}

// The stride and shift arguments an operand brings, by layout and kind.
struct Roles {
    Fld s0, s1, s2, sh;
};
constexpr Roles kA{A0, A1, A2, ASh}, kX{X0, NF, X2, XSh}, kD{D0, NF, D2, DSh};
void operand_fields(Layout l, bool array, const Roles& r, std::vector<Fld>& strides,
                    std::vector<Fld>& shifts) {
    auto add = [&](Fld k) {
        if (k != NF) strides.push_back(k);
    };
    if (l == Layout::P) {
        shifts.push_back(r.sh);
        if (array) add(r.s0);
        return;
    }
    if (l == Layout::S && array) add(r.s0);
    if (l == Layout::L && array) shifts.push_back(r.sh);
    add(r.s1);
    add(r.s2);
}

// One call: the three operands laid out for a form and layout, with data.
template <class T> struct Call {
    F form;
    Layout lay;
    int M, K, count;
    std::unique_ptr<Operand<T>> a, x, d;

    // strided: bit 0 matrix, bit 1 vector, bit 2 dst (S and L); soa (P).
    Call(F f, Layout l, int M_, int K_, int count_, unsigned strided = 0, bool soa = false,
         bool packed = false, unsigned seed = 1)
        : form(f), lay(l), M(M_), K(K_), count(count_) {
        const bool t = is_t(f);
        auto make = [&](bool array, int rows, int cols, bool gap, unsigned s) {
            // A fixed operand of a layout-L call is passed as in layout S.
            const Layout ol = (l == Layout::L && !array) ? Layout::S : l;
            Shape sh;
            sh.rows = rows;
            sh.cols = cols;
            sh.count = array ? count : 1;
            sh.array = array;
            sh.contiguous = !gap;
            sh.soa = soa;
            if (packed) sh.row_gap = sh.obj_gap = 0;
            return std::make_unique<Operand<T>>(ol, sh, s);
        };
        a = make(mat_array(f), t ? K : M, t ? M : K, strided & 1, seed);
        x = make(vec_array(f), 1, K, strided & 2, seed + 1);
        d = make(is_array(f), 1, M, strided & 4, seed + 2);
    }
    int width() const { return is_t(form) ? M : K; }
    int height() const { return is_t(form) ? K : M; }
    T opa(int n, int i, int k) const {
        const int m = mat_array(form) ? n : 0;
        return is_t(form) ? a->at(m, k, i) : a->at(m, i, k);
    }
    T vx(int n, int k) const { return x->at(vec_array(form) ? n : 0, 0, k); }
    std::vector<T> products(int n, int i) const {
        std::vector<T> p(K);
        for (int k = 0; k < K; ++k) p[k] = opa(n, i, k) * vx(n, k);
        return p;
    }
    Args args() {
        Args g;
        auto put = [&](Operand<T>& o, const Roles& r, const void*& p) {
            if (o.layout() == Layout::S) p = o.ptr();
            else p = o.table();
            g[r.s0] = o.s0();
            if (r.s1 != NF) g[r.s1] = o.s1();
            g[r.s2] = o.s2();
            g[r.sh] = o.shift();
        };
        put(*a, kA, g.a);
        put(*x, kX, g.x);
        put(*d, kD, g.d);
        g[W] = width();
        g[H] = height();
        g[Len] = K;
        g[Cnt] = count;
        return g;
    }
    OrsStatus run() { return invoke<T>(form, lay, args()); }
    void snapshot() {
        a->snapshot();
        x->snapshot();
        d->snapshot();
    }
    void strides_shifts(std::vector<Fld>& strides, std::vector<Fld>& shifts) const {
        operand_fields(lay, mat_array(form), kA, strides, shifts);
        operand_fields(lay, vec_array(form), kX, strides, shifts);
        operand_fields(lay, is_array(form), kD, strides, shifts);
    }
};

// Values over a wide range, with a near cancellation in odd rows, so that
// the bits of a sum depend on its order.
template <class T> void fill_sensitive(Call<T>& c, unsigned seed) {
    Values<T> v(seed);
    c.x->fill([&](int, int, int) { return v.wide(); });
    c.a->fill([&](int, int, int) { return v.wide(); });
    if (c.K < 2) return;
    const int objs = mat_array(c.form) ? c.count : 1;
    for (int n = 0; n < objs; ++n)
        for (int i = 1; i < c.M; i += 2) {
            T& last = is_t(c.form) ? c.a->at(n, c.K - 1, i) : c.a->at(n, i, c.K - 1);
            last = -(c.opa(n, i, 0) * c.vx(n, 0)) / c.vx(n, c.K - 1);
        }
}

// Expected result of element (n, i) for a kernel summing by tree t.
template <class T> T expected(const Call<T>& c, Tree t, int n, int i) {
    const auto p = c.products(n, i);
    return unrolled(c.M, c.K) ? tree_sum(t, p, i) : plain_sum(p);
}

// True when the data tells tree t from every other tree, and the general
// loop from a reversed one, on at least one element.
template <class T> bool sensitive(const Call<T>& c, Tree t) {
    const int N = c.M;
    if (!unrolled(c.M, c.K)) {
        if (c.K < 3) return true;
        for (int n = 0; n < c.count; ++n)
            for (int i = 0; i < c.M; ++i) {
                const auto p = c.products(n, i);
                if (bits(plain_sum(p)) != bits(plain_sum(p, true))) return true;
            }
        return false;
    }
    for (Tree o : {Tree::A, Tree::B, Tree::C, Tree::D}) {
        bool distinct = false, told = false;
        for (int i = 0; i < N; ++i) {
            if (same_formula(o, t, N, i)) continue;
            distinct = true;
            for (int n = 0; n < c.count && !told; ++n) {
                const auto p = c.products(n, i);
                told = bits(tree_sum(o, p, i)) != bits(tree_sum(t, p, i));
            }
        }
        if (distinct && !told) return false;
    }
    return true;
}

// Objects [0, upto) of dst against the reference; returns mismatches.
template <class T> int mismatches(const Call<T>& c, Tree t, int upto) {
    int bad = 0;
    for (int n = 0; n < upto; ++n)
        for (int i = 0; i < c.M; ++i)
            if (bits(c.d->at(n, 0, i)) != bits(expected(c, t, n, i))) {
                if (bad++ < 3)
                    ADD_FAILURE() << "object " << n << " row " << i << ": got " << c.d->at(n, 0, i)
                                  << " want " << expected(c, t, n, i);
            }
    return bad;
}

}  // namespace
