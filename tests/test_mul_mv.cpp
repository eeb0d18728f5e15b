// Matrix-vector Mul (mv tv mav tav mva tva mava tava) in layouts S, P, L and
// both element types: exact bits against a scalar reference that sums by
// each kernel's addition tree, the order paths, the checks in their order,
// the work limits and the thread-count independence.
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
         unsigned seed = 1)
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

// ---- parameterisation -----------------------------------------------------

struct Combo {
    F form;
    Layout lay;
};
std::vector<Combo> all_combos() {
    std::vector<Combo> v;
    for (F f : {F::mv, F::tv, F::mav, F::tav, F::mva, F::tva, F::mava, F::tava})
        for (Layout l : {Layout::S, Layout::P, Layout::L})
            if (l != Layout::L || is_array(f)) v.push_back({f, l});
    return v;
}
std::string combo_name(const testing::TestParamInfo<Combo>& i) {
    return std::string(fname(i.param.form)) + "_" + name(i.param.lay);
}

class MulMv : public testing::TestWithParam<Combo> {};

// Strided variants: none, all operands, and each operand alone (one gap
// sends the whole call to the strided kernel). P: plain and SoA tables.
struct Variant {
    unsigned strided;
    bool soa;
};
std::vector<Variant> variants(Layout l) {
    if (l == Layout::P) return {{0, false}, {0, true}};
    return {{0, false}, {7, false}, {1, false}, {2, false}, {4, false}};
}
const std::vector<std::pair<int, int>> kShapes = {
    {1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 6}, {7, 7}, {8, 8},
    {3, 4}, {4, 3}, {2, 5}, {6, 5}, {5, 6}, {1, 7}, {8, 3}, {4, 6}};

template <class T> void check_bits(F f, Layout l) {
    for (const Variant& var : variants(l))
        for (auto [M, K] : kShapes)
            for (int count : is_array(f) ? std::vector<int>{1, 6} : std::vector<int>{1}) {
                const bool contiguous = var.strided == 0;
                const Tree t = expected_tree(f, sizeof(T) == 8, l, contiguous);
                SCOPED_TRACE(testing::Message() << fname(f) << " " << name(l) << " " << sizeof(T) * 8
                                                << "f M " << M << " K " << K << " count " << count
                                                << " strided " << var.strided << " soa " << var.soa
                                                << " tree " << "ABCD"[int(t)]);
                Call<T> c(f, l, M, K, count, var.strided, var.soa);
                unsigned seed = 11;
                do fill_sensitive(c, seed++);
                while (!sensitive(c, t) && seed < 200);
                ASSERT_TRUE(sensitive(c, t)) << "no data found that tells the trees apart";
                c.snapshot();
                ASSERT_EQ(c.run(), StatusOk);
                EXPECT_EQ(mismatches(c, t, count), 0);
                EXPECT_TRUE(c.a->unchanged());
                EXPECT_TRUE(c.x->unchanged());
                EXPECT_TRUE(c.d->only_elements_changed());
            }
}

TEST_P(MulMv, ExactBitsByKernelTree) {
    check_bits<float>(GetParam().form, GetParam().lay);
    check_bits<double>(GetParam().form, GetParam().lay);
}

// Products that are all -0: an unrolled path starts from the first product
// and keeps -0, the general loop starts from +0. So the sign tells, for every
// kernel, that exactly the square orders 3 to 6 have paths.
template <class T> void check_paths(F f, Layout l) {
    for (const Variant& var : variants(l))
        for (auto [M, K] : kShapes) {
            Call<T> c(f, l, M, K, is_array(f) ? 3 : 1, var.strided, var.soa);
            c.a->fill([](int, int, int) { return -T(0); });
            c.x->fill([](int n, int, int k) { return T(n + k + 1); });
            ASSERT_EQ(c.run(), StatusOk);
            const bool neg = unrolled(M, K);
            for (int n = 0; n < c.count; ++n)
                for (int i = 0; i < M; ++i)
                    EXPECT_EQ(std::signbit(c.d->at(n, 0, i)), neg)
                        << fname(f) << " " << name(l) << " M " << M << " K " << K;
        }
}

TEST_P(MulMv, OrderPathsSquareThreeToSix) {
    check_paths<float>(GetParam().form, GetParam().lay);
    check_paths<double>(GetParam().form, GetParam().lay);
}

// Each check in its order; the status of a call with two faults is that of
// the earlier check, and nothing is written.
template <class T> void check_status(F f, Layout l) {
    Call<T> c(f, l, 4, 3, is_array(f) ? 2 : 1, l == Layout::P ? 0 : 1);
    Values<T> v(3);
    c.a->fill([&](int, int, int) { return v(); });
    c.x->fill([&](int, int, int) { return v(); });
    const Args good = c.args();
    std::vector<Fld> strides, shifts;
    c.strides_shifts(strides, shifts);
    const int E = sizeof(T);

    auto expect = [&](OrsStatus want, const std::function<void(Args&)>& edit, const char* what) {
        Args g = good;
        edit(g);
        c.snapshot();
        EXPECT_EQ(invoke<T>(f, l, g), want) << fname(f) << " " << name(l) << " " << what;
        if (want != StatusOk) {
            EXPECT_TRUE(c.d->unchanged()) << what;
        }
        EXPECT_TRUE(c.a->unchanged() && c.x->unchanged()) << what;
    };
    // A bad shift and a bad stride behind every earlier fault.
    auto later = [&](Args& g) {
        if (!shifts.empty()) g[shifts.back()] = -E;
        if (!strides.empty()) g[strides.back()] = 0;
    };
    const bool arr = is_array(f);

    expect(StatusNullPointer, [&](Args& g) { g.a = nullptr; g[Cnt] = 0; g[W] = 0; }, "null src1");
    expect(StatusNullPointer, [&](Args& g) { g.x = nullptr; g[Cnt] = 0; }, "null src2");
    expect(StatusNullPointer, [&](Args& g) { g.d = nullptr; g[Cnt] = 0; }, "null dst, count 0");
    if (arr) {
        expect(StatusBadCount, [&](Args& g) { g[Cnt] = 0; g[H] = 0; later(g); }, "count 0, size 0");
        expect(StatusBadCount, [&](Args& g) { g[Cnt] = -1; }, "count -1");
    }
    for (Fld s : {W, H, Len})
        expect(StatusBadSize, [&](Args& g) { g[s] = 0; later(g); }, "size 0");
    expect(StatusBadSize, [&](Args& g) { g[Len] = -3; }, "length -3");
    // The inner size is the stored width for m forms, the height for t forms.
    expect(StatusSizeMismatch, [&](Args& g) { g[Len] = 4; later(g); }, "length 4");
    expect(StatusSizeMismatch, [&](Args& g) { g[is_t(f) ? H : W] = 5; later(g); }, "inner 5");
    if (is_t(f)) expect(StatusOk, [&](Args& g) { g[W] = 2; }, "t: width is free");
    else expect(StatusOk, [&](Args& g) { g[H] = 2; }, "m: height is free");
    for (Fld s : strides)
        for (int bad : {0, -E, E + 2, E / 2}) {
            expect(StatusBadStride, [&](Args& g) {
                g[s] = bad;
                if (!shifts.empty()) g[shifts.front()] = 2;
            }, "bad stride");
        }
    for (Fld s : shifts)
        for (int bad : {-E, 2, E + 1}) expect(StatusBadRoiShift, [&](Args& g) { g[s] = bad; }, "bad shift");
    EXPECT_EQ(strides.empty(), l == Layout::P && !arr);
    EXPECT_EQ(shifts.empty(), l == Layout::S);
}

TEST_P(MulMv, ChecksInOrderDstUntouched) {
    check_status<float>(GetParam().form, GetParam().lay);
    check_status<double>(GetParam().form, GetParam().lay);
}

INSTANTIATE_TEST_SUITE_P(Forms, MulMv, testing::ValuesIn(all_combos()), combo_name);

// ---- work estimates and limits ---------------------------------------------

int work(F f, int M, int K, int count) {
    switch (group(f)) {
        case G::mav: return M * (K + 1) * count + K;
        case G::mva: return M * K + (M + K) * count;
        default: return (M * K + M + K) * count;
    }
}
int limit(bool is64, Layout l, bool contiguous) {
    if (!contiguous || l == Layout::P) return 1441;
    return l == Layout::L ? 3601 : (is64 ? 3601 : 2501);
}
// A shape and count (count at least 2) whose work estimate is exactly W.
bool shape_for(F f, int W, int& M, int& K, int& count) {
    for (M = 1; M <= 48; ++M)
        for (K = 1; K <= 48; ++K)
            for (count = 2; work(f, M, K, count) <= W; ++count)
                if (work(f, M, K, count) == W) return true;
    return false;
}

class MulMvArray : public testing::TestWithParam<Combo> {};

// W one below the limit runs serially (all objects written even in a
// serialized region); W at the limit takes the parallel form, which in a
// serialized region writes member 0's share only.
template <class T> void check_limits(F f, Layout l) {
    for (const Variant& var : variants(l)) {
        const bool contiguous = var.strided == 0;
        const int lim = limit(sizeof(T) == 8, l, contiguous);
        for (int W : {lim - 1, lim}) {
            int M, K, count;
            ASSERT_TRUE(shape_for(f, W, M, K, count));
            SCOPED_TRACE(testing::Message() << fname(f) << " " << name(l) << " " << sizeof(T) * 8
                                            << "f W " << W << " M " << M << " K " << K << " count "
                                            << count << " strided " << var.strided);
            Call<T> c(f, l, M, K, count, var.strided, var.soa);
            fill_sensitive(c, 5);
            c.snapshot();
            OrsStatus st = StatusBadSize;
            {
                ThreadCount tc(2);
                in_serialized_region([&] { st = c.run(); });
            }
            ASSERT_EQ(st, StatusOk);
            const int upto = W < lim ? count : first_share(count, 2);
            const Tree t = expected_tree(f, sizeof(T) == 8, l, contiguous);
            EXPECT_EQ(mismatches(c, t, upto), 0);
            EXPECT_TRUE(c.d->only_elements_changed(upto));
        }
    }
}

TEST_P(MulMvArray, LimitBoundary) {
    check_limits<float>(GetParam().form, GetParam().lay);
    check_limits<double>(GetParam().form, GetParam().lay);
}

// Far above the limit, one and two threads give the same bits, and those of
// the reference.
template <class T> void check_threads(F f, Layout l) {
    for (const Variant& var : variants(l))
        for (int N : {3, 4, 5, 6, 7}) {
            const int count = 403;
            Call<T> c(f, l, N, N, count, var.strided, var.soa);
            fill_sensitive(c, 9);
            std::vector<T> one(std::size_t(count) * N);
            {
                ThreadCount tc(1);
                ASSERT_EQ(c.run(), StatusOk);
            }
            for (int n = 0; n < count; ++n)
                for (int i = 0; i < N; ++i) one[std::size_t(n) * N + i] = c.d->at(n, 0, i);
            c.d->fill([](int, int, int) { return T(0); });
            {
                ThreadCount tc(2);
                ASSERT_EQ(c.run(), StatusOk);
            }
            int diff = 0;
            for (int n = 0; n < count; ++n)
                for (int i = 0; i < N; ++i)
                    diff += bits(one[std::size_t(n) * N + i]) != bits(c.d->at(n, 0, i));
            EXPECT_EQ(diff, 0) << fname(f) << " " << name(l) << " order " << N;
            EXPECT_EQ(mismatches(c, expected_tree(f, sizeof(T) == 8, l, var.strided == 0), count), 0);
        }
}

TEST_P(MulMvArray, SameBitsForOneAndTwoThreads) {
    check_threads<float>(GetParam().form, GetParam().lay);
    check_threads<double>(GetParam().form, GetParam().lay);
}

std::vector<Combo> array_combos() {
    std::vector<Combo> v;
    for (const Combo& c : all_combos())
        if (is_array(c.form)) v.push_back(c);
    return v;
}
INSTANTIATE_TEST_SUITE_P(Forms, MulMvArray, testing::ValuesIn(array_combos()), combo_name);

// The data of the bit tests are not blind to the tree: on them, each pair of
// trees that are different formulas gives different bits somewhere, so a
// kernel with the wrong tree cannot pass.
TEST(MulMvReference, TreesDifferOnTestData) {
    for (int N : {4, 5, 6}) {
        Call<float> cf(F::mava, Layout::S, N, N, 6);
        Call<double> cd(F::mava, Layout::S, N, N, 6);
        fill_sensitive(cf, 11);
        fill_sensitive(cd, 11);
        for (Tree t : {Tree::A, Tree::B, Tree::C, Tree::D}) {
            EXPECT_TRUE(sensitive(cf, t)) << "32f order " << N << " tree " << "ABCD"[int(t)];
            EXPECT_TRUE(sensitive(cd, t)) << "64f order " << N << " tree " << "ABCD"[int(t)];
        }
    }
}

// For 4 by 4 32f data the contiguous mav kernel (tree C, count 1) and the mv
// kernel (tree A) differ in the last bits; the strided mav kernel sums by A.
TEST(MulMvReference, MavAndMvDifferOnFourByFour) {
    Call<float> mav(F::mav, Layout::S, 4, 4, 1), mv(F::mv, Layout::S, 4, 4, 1),
        mav_s2(F::mav, Layout::S, 4, 4, 1, 4);
    unsigned seed = 1;
    do fill_sensitive(mav, seed++);
    while (!sensitive(mav, Tree::C) || !sensitive(mav, Tree::A));
    for (Call<float>* c : {&mv, &mav_s2}) {
        c->a->fill([&](int, int r, int k) { return mav.a->at(0, r, k); });
        c->x->fill([&](int, int, int k) { return mav.x->at(0, 0, k); });
    }
    ASSERT_EQ(mav.run(), StatusOk);
    ASSERT_EQ(mv.run(), StatusOk);
    ASSERT_EQ(mav_s2.run(), StatusOk);
    int diff = 0;
    for (int i = 0; i < 4; ++i) {
        diff += bits(mav.d->at(0, 0, i)) != bits(mv.d->at(0, 0, i));
        EXPECT_EQ(bits(mav.d->at(0, 0, i)), bits(expected(mav, Tree::C, 0, i)));
        EXPECT_EQ(bits(mv.d->at(0, 0, i)), bits(expected(mav, Tree::A, 0, i)));
        EXPECT_EQ(bits(mav_s2.d->at(0, 0, i)), bits(mv.d->at(0, 0, i)));
    }
    EXPECT_GT(diff, 0);
}

}  // namespace
