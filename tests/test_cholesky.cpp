// CholeskyDecomp and CholeskyBackSubst: factors and solutions bit for bit
// against a model of each kernel's rule (threshold, Newton step, NaN pivots,
// the stores a failing object leaves), in every form, layout, type and
// stride mix, with failing objects and dst on a source; the threshold and
// NaN quirks on worked examples; the packed forward rows of the 32f
// single-vector kernel at every dst alignment; check orders; the
// serial/parallel boundary; factor and solve together.
#include "common/estimates.hpp"
#include "solvers.hpp"

using namespace orsmtest;

namespace {

bool fixed(int N) { return N >= 3 && N <= 6; }

// ---- the factorisation's rules --------------------------------------------------------

// When each element of a factor is stored: after which pivot test.
enum class Stores { AsComputed, RowsAfterPivot, Groups };
struct Rule {
    double threshold;
    bool nan_passes, group_step;
    Stores stores;
};
// The 32f contiguous array kernel runs orders 3 to 6 four objects at a
// time; layout P keeps rows until their pivot passed and rejects order-3
// pivots up to 2^-23; the 64f strided array kernel rejects pivots up to
// 2^-52 at order 6 and in its general loop.
template <class T> Rule rule_of(const Fn& f, Mode m, int N) {
    if (is_array(f) && sizeof(T) == 4 && f.second == Layout::S && !m.strided && fixed(N))
        return {0, true, true, Stores::Groups};
    const bool P = f.second == Layout::P;
    double thr = P && N == 3 ? 0x1p-23 : 0;
    if (is_array(f) && sizeof(T) == 8 && f.second == Layout::S && m.strided && (N == 6 || !fixed(N))) thr = 0x1p-52;
    return {thr, false, false, P && fixed(N) ? Stores::RowsAfterPivot : Stores::AsComputed};
}
int stored_after(Stores s, int N, int r, int c) {
    switch (s) {
        case Stores::AsComputed: return c < r ? r - 1 : r;
        case Stores::RowsAfterPivot: return r == 0 && N != 4 ? 1 : r;
        case Stores::Groups: return r <= 1 ? 1 : r == 2 ? 2 : r == 3 ? (c < 3 ? 2 : 3) : r;
    }
    return 0;
}
template <class T> T rsqrt(T s, bool group_step) {
    if constexpr (sizeof(T) == 8) {
        return 1.0 / std::sqrt(s);
    } else {
        const float r = orsm::rsqrt_estimate(s);
        return group_step ? (r * (3.0f - (r * r) * s)) * 0.5f : (r * ((s * r) * r - 3.0f)) * -0.5f;
    }
}
// The factor of a (lower triangle), and the first failing pivot (N: none).
template <class T> int factor(const Mat<T>& a, Mat<T>& f, int N, const Rule& rule) {
    f = a;
    int failed = N;
    for (int i = 0; i < N; ++i) {
        for (int j = 0; j < i; ++j) {
            T s = a[i * N + j];
            for (int k = 0; k < j; ++k) s -= f[i * N + k] * f[j * N + k];
            f[i * N + j] = s * f[j * N + j];
        }
        T s = a[i * N + i];
        for (int k = 0; k < i; ++k) s -= f[i * N + k] * f[i * N + k];
        const bool ok = rule.nan_passes ? !(s <= 0) : s > T(rule.threshold);
        if (!ok && failed == N) failed = i;
        f[i * N + i] = rsqrt(s, rule.group_step);
    }
    return failed;
}

// Random positive definite objects, NaN above the diagonal (never read);
// object `bad` gets -1 at pivot `pivot`, which fails there.
template <class T> struct Decomp : FactorCall<T> {
    using FactorCall<T>::N, FactorCall<T>::count, FactorCall<T>::a, FactorCall<T>::d;
    Rule rule;
    Decomp(const Fn& f, int n, int cnt, Mode m, unsigned seed, int bad = -1, int pivot = 0, bool in_place = false)
        : FactorCall<T>(f, n, cnt, m), rule(rule_of<T>(f, m, n)) {
        Values<T> v(seed, 0);
        std::vector<Mat<T>> objs;
        for (int o = 0; o < count; ++o) {
            Mat<double> b(N * N);
            for (auto& x : b) x = double(v()) / 2;
            Mat<T> s(N * N, std::numeric_limits<T>::quiet_NaN());
            for (int i = 0; i < N; ++i)
                for (int j = 0; j <= i; ++j) {
                    double x = i == j ? N : 0;
                    for (int k = 0; k < N; ++k) x += b[i * N + k] * b[j * N + k];
                    s[i * N + j] = T(x);
                }
            if (o == bad) s[pivot * N + pivot] = -1;
            objs.push_back(s);
        }
        this->bind(seed, in_place, v, [&](int o, int r, int k) { return objs[o][r * N + k]; });
        this->ready();
    }
    // The model over shares: each stops at its first failure; the
    // four-at-a-time kernel stops a whole group there.
    OrsStatus model(const Shares& shares) {
        return over_shares(shares, [&](int o, int g, int) {
            std::vector<Mat<T>> f(g);
            int failed = N;
            for (int l = 0; l < g; ++l) failed = std::min(failed, factor(a[o + l], f[l], N, rule));
            for (int l = 0; l < g; ++l)
                for (int r = 0; r < N; ++r)
                    for (int q = 0; q <= r; ++q)
                        if (stored_after(rule.stores, N, r, q) < failed) d[o + l][r * N + q] = f[l][r * N + q];
            return failed < N ? StatusNotPositiveDefinite : StatusOk;
        }, rule.stores == Stores::Groups ? 4 : 1);
    }
};

const std::vector<Fn> decomp_fns = forms("CholeskyDecomp", {"m", "ma"});

template <class T> class Cholesky : public testing::Test {};
using Types = testing::Types<float, double>;
TYPED_TEST_SUITE(Cholesky, Types);

// Every kernel and order, sound objects and a failure at each pivot of
// object 2 or 21 (count 37: groups of four and one alone in the
// four-at-a-time kernel, and groups of every vector width with the scalar
// path after them), dst apart and on src. One thread: a failure ends the
// call.
TYPED_TEST(Cholesky, DecompBitExactWithFailures) {
    unsigned seed = 1;
    ThreadCount one(1);
    for (const Fn& f : decomp_fns)
        for (Mode m : modes(f.second))
            for (int N : {1, 2, 3, 4, 5, 6, 7})
                for (int pivot = -1; pivot < N; ++pivot)
                    for (bool in_place : {false, true}) {
                        const int bad = pivot < 0 ? -1 : !is_array(f) ? 0 : pivot % 2 ? 2 : 21;
                        Decomp<TypeParam> t(f, N, 37, m, seed++, bad, pivot, in_place);
                        const OrsStatus want = t.model({{0, t.count}});
                        EXPECT_EQ(want, pivot < 0 ? StatusOk : StatusNotPositiveDefinite);
                        EXPECT_EQ(t.c.run(), want) << t.where << " pivot " << pivot;
                        EXPECT_TRUE(t.check()) << t.where << " pivot " << pivot << (in_place ? " in place" : "");
                    }
}

// The thresholds and NaN pivots on worked examples: a diagonal matrix with
// x first in each of 37 objects (groups of every vector width); whether
// the call passes.
TYPED_TEST(Cholesky, DecompThresholdsAndNaN) {
    using T = TypeParam;
    const bool is32 = sizeof(T) == 4;
    const T nan = std::numeric_limits<T>::quiet_NaN();
    struct Ex {
        Fn fn;
        bool strided;
        int N;
        T x;
        bool passes;
    };
    const Ex ex[] = {
        // Layout P rejects order-3 pivots up to 2^-23, in 64f too.
        {decomp_fns[1], false, 3, T(1e-8), false},
        {decomp_fns[0], false, 3, T(1e-8), true},
        {decomp_fns[1], false, 3, T(0x1p-23), false},
        {decomp_fns[1], false, 4, T(1e-8), true},
        {decomp_fns[3], false, 3, T(1e-8), false},
        // The 64f strided array kernel rejects up to 2^-52 at order 6 and
        // in its general loop, not at order 5 nor when contiguous.
        {decomp_fns[2], true, 6, T(1e-17), is32},
        {decomp_fns[2], true, 7, T(1e-17), is32},
        {decomp_fns[2], true, 5, T(1e-17), true},
        {decomp_fns[2], false, 6, T(1e-17), true},
        {decomp_fns[0], true, 6, T(1e-17), true},
        // A NaN pivot passes the 32f four-at-a-time kernel only.
        {decomp_fns[2], false, 4, nan, is32},
        {decomp_fns[2], false, 7, nan, false},
        {decomp_fns[0], false, 4, nan, false},
        {decomp_fns[4], false, 4, nan, false},
        // Zero and negative fail everywhere.
        {decomp_fns[2], false, 3, T(0), false},
        {decomp_fns[1], false, 5, T(-0.0), false},
    };
    for (const Ex& x : ex) {
        Decomp<T> t(x.fn, x.N, 37, Mode{x.strided, false}, 3);
        for (int o = 0; o < t.count; ++o)
            for (int r = 0; r < x.N; ++r)
                for (int c = 0; c <= r; ++c) t.src->at(o, r, c) = r != c ? T(0) : r == 0 ? x.x : T(1);
        const OrsStatus st = t.c.run();
        EXPECT_EQ(st, x.passes ? StatusOk : StatusNotPositiveDefinite) << t.where << " x=" << x.x;
        if (x.passes && std::isnan(x.x)) {
            EXPECT_TRUE(std::isnan(t.dst->at(t.count - 1, 0, 0))) << t.where;
        }
    }
}

// ---- the solver ------------------------------------------------------------------------

// A forward row of the 32f contiguous single-vector kernel: 11 terms or
// more with y on a 4-byte boundary go by two four-lane accumulators after
// the terms up to y's 16-byte boundary.
float packed_row(float s, const float* l, const float* y, int i) {
    const auto a = reinterpret_cast<std::uintptr_t>(y) % 16;
    int k = 0;
    if (i >= 11 && a % 4 == 0) {
        for (; k < (a ? int(16 - a) / 4 : 0); ++k) s -= l[k] * y[k];
        if (i - k >= 8) {
            float p[4] = {s, 0, 0, 0}, q[4] = {0, 0, 0, 0};
            for (; k + 8 <= i; k += 8)
                for (int j = 0; j < 4; ++j) p[j] -= l[k + j] * y[k + j], q[j] -= l[k + 4 + j] * y[k + 4 + j];
            s = ((p[0] + q[0]) + (p[1] + q[1])) + ((p[2] + q[2]) + (p[3] + q[3]));
        }
    }
    for (; k < i; ++k) s -= l[k] * y[k];
    return s;
}
// y at the place of dst: the packed rows (32f single vector) sum against a
// y of dst's alignment, null for the plain rows.
template <class T> Mat<T> solve_model(const Mat<T>& l, const Mat<T>& b, int N, T* y_at = nullptr) {
    Mat<T> y(N);
    for (int i = 0; i < N; ++i) {
        T s = b[i];
        if constexpr (sizeof(T) == 4) {
            if (y_at) {
                std::copy_n(y.data(), i, y_at);
                s = packed_row(s, &l[i * N], y_at, i);
            } else {
                for (int k = 0; k < i; ++k) s -= l[i * N + k] * y[k];
            }
        } else {
            for (int k = 0; k < i; ++k) s -= l[i * N + k] * y[k];
        }
        y[i] = s * l[i * N + i];
    }
    for (int i = N - 1; i >= 0; --i) {
        T s = y[i];
        for (int k = N - 1; k > i; --k) s -= l[k * N + i] * y[k];
        y[i] = s * l[i * N + i];
    }
    return y;
}

const std::vector<Fn> back_fns = forms("CholeskyBackSubst", {"mv", "mva", "mava"});

// Random lower triangles, NaN above the diagonal (never read).
template <class T> struct Back : SolveCall<T> {
    Back(const Fn& f, int n, int cnt, Mode mode, unsigned seed, bool in_place = false) : SolveCall<T>(f, n, cnt, mode) {
        Values<T> v(seed, 0);
        this->bind(seed, in_place, v, [&](int, int r, int k) {
            return k > r ? std::numeric_limits<T>::quiet_NaN() : k == r ? T(1) + v() / 2 : v();
        });
        this->ready();
    }
    testing::AssertionResult check(int upto) const {
        return this->solved(upto, [&](int o) { return solve_model(this->factor(o), this->bv[o], this->N); });
    }
};

// Every form, layout and stride mix, both kinds of path, dst on src2; 19
// systems, so that groups of every vector width run with systems after them.
TYPED_TEST(Cholesky, BackSubstBitExact) {
    unsigned seed = 100;
    for (const Fn& f : back_fns)
        for (Mode m : modes(f.second))
            for (int N : {1, 2, 3, 4, 5, 6, 7, 9})
                for (bool in_place : {false, true}) {
                    Back<TypeParam> t(f, N, 19, m, seed++, in_place);
                    EXPECT_EQ(t.c.run(), StatusOk) << t.where;
                    EXPECT_TRUE(t.check(t.count)) << t.where << (in_place ? " in place" : "");
                }
}

// The 32f contiguous single-vector kernel's forward rows of 11 terms and
// more at every element alignment of dst within 16 bytes (the peel before
// the blocks of eight takes 0 to 3 terms).
TEST(CholeskySingle, PackedRowsAtEveryAlignment) {
    Values<float> v(5, 0);
    for (int N : {11, 12, 19, 20, 27, 40})
        for (int off = 0; off < 16; off += 4) {
            Mat<float> l(N * N), b(N);
            for (int i = 0; i < N; ++i)
                for (int k = 0; k <= i; ++k) l[i * N + k] = k == i ? 1 + v() / 2 : v();
            for (auto& x : b) x = v();
            std::vector<unsigned char> mem(N * 4 + 32);
            float* d = reinterpret_cast<float*>(mem.data() + 16 - reinterpret_cast<std::uintptr_t>(mem.data()) % 16 + off);
            ASSERT_EQ(orsmCholeskyBackSubst_mv_32f(l.data(), N * 4, 4, b.data(), 4, d, 4, N), StatusOk);
            Mat<float> got(N);
            std::memcpy(got.data(), d, N * 4);
            // The model sums against a y at the same address modulo 16.
            std::vector<unsigned char> mem2(N * 4 + 32);
            float* y = reinterpret_cast<float*>(mem2.data() + 16 - reinterpret_cast<std::uintptr_t>(mem2.data()) % 16 + off);
            EXPECT_TRUE(same(got, solve_model(l, b, N, y), off)) << N << " offset " << off;
        }
}

// A x = b through both families, on every path: a small residual.
TYPED_TEST(Cholesky, FactorThenSolveSmallResidual) {
    using T = TypeParam;
    const int E = sizeof(T);
    for (int N = 1; N <= 13; ++N) {
        Decomp<T> t(decomp_fns[0], N, 1, Mode{}, 40 + N);
        ASSERT_EQ(t.c.run(), StatusOk) << N;
        Mat<T> F = elements(*t.dst, 0), A(N * N), b(N), x(N);
        for (int i = 0; i < N; ++i)
            for (int j = 0; j < N; ++j) A[i * N + j] = t.a[0][std::max(i, j) * N + std::min(i, j)];
        for (int i = 0; i < N; ++i) b[i] = T(i + 1);
        if constexpr (sizeof(T) == 4) ASSERT_EQ(orsmCholeskyBackSubst_mv_32f(F.data(), N * E, E, b.data(), E, x.data(), E, N), StatusOk);
        else ASSERT_EQ(orsmCholeskyBackSubst_mv_64f(F.data(), N * E, E, b.data(), E, x.data(), E, N), StatusOk);
        // The 32f reciprocal roots carry about 2^-21.
        expect_small_residual(A, x, b, N, sizeof(T) == 4 ? 64 : 16);
    }
}

// ---- checks, limits ----------------------------------------------------------------------

// Pointers, count, size, strides, shifts, the earlier of two faults
// deciding; the mva list form checks strides and shifts before size and
// count.
TYPED_TEST(Cholesky, ChecksInOrder) {
    std::vector<Fn> fns = decomp_fns;
    fns.insert(fns.end(), back_fns.begin(), back_fns.end());
    checks_in_order<TypeParam>(fns, [](const Fn& f) {
        std::vector<Fault> all = {{"dst=0", StatusNullPointer}, {"count=0", StatusBadCount}, {"size=-1", StatusBadSize},
                                  dst_stride_fault<TypeParam>(f.second), {"dstRoiShift=2", StatusBadRoiShift}};
        if (f.first == "CholeskyBackSubst_mva" && f.second == Layout::L) all = {all[0], all[3], all[4], all[2], all[1]};
        return all;
    });
}

// The limit of every array form and kernel kind: at the last serial work
// all objects are done; at the first parallel one, inside a serialized
// region, member 0's share only.
TYPED_TEST(Cholesky, SerialBelowTheLimits) {
    const bool f32 = sizeof(TypeParam) == 4;
    factor_limit_cells<Decomp, TypeParam>(
        decomp_fns,
        [&](const Fn& f, Mode m) {
            const bool list = f.second == Layout::L, P = f.second == Layout::P;
            return f32 ? (list || P ? 2001 : 7501) : (list && !m.strided ? 721 : 2001);
        },
        [](const Fn&, Mode) { return true; });
    solver_limit_cells<Back, TypeParam>(back_fns, [&](const Fn& f, Mode m) {
        const bool S = f.second == Layout::S, P = f.second == Layout::P;
        return is_mava(f) ? ((f32 && S && !m.strided) || (!f32 && P) ? 2051 : 1701) : (f32 && S ? 1201 : 721);
    });
}

// Two real threads: each share stops at its own failing object, and sound
// calls give the one-thread bits.
TYPED_TEST(Cholesky, TwoThreads) {
    for (Mode m : modes(Layout::L)) {
        Decomp<TypeParam> t(decomp_fns[4], 6, 130, m, 9, 40, 2);
        const OrsStatus want = t.model({{0, 65}, {65, 65}});
        ThreadCount tc(2);
        EXPECT_EQ(t.c.run(), want);
        EXPECT_TRUE(t.check()) << t.where << " two threads";
    }
}

}  // namespace
